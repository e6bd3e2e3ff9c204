#include "mail/postfix/MasterCfEntries.h"

#include "utils/text_lines.h"

#include <algorithm>
#include <sstream>

namespace zarnet {
namespace mail {
namespace postfix {

namespace {

enum LineKind { blankLine, commentLine, startLine, continuationLine };

LineKind kindOf(const std::string &line)
{
    const std::string::size_type first = line.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return blankLine;
    if (line[first] == '#')
        return commentLine;
    return first == 0 ? startLine : continuationLine;
}

// The stock file's column widths; a longer value still gets one blank.
std::string padded(const std::string &value, std::string::size_type width)
{
    return value + std::string(value.size() < width ? width - value.size() : 1, ' ');
}

} // namespace

MasterCfEntries::MasterCfEntries(const std::string &masterText, const std::string &disabledText)
    : master_(parse(masterText)), disabled_(parse(disabledText))
{
    for (Piece &p : disabled_)
        if (p.entry && hasIn(master_, p.service, p.command))
            p.leaving = true;
}

MasterCfEntries::Pieces MasterCfEntries::parse(const std::string &text)
{
    Pieces pieces;
    bool open = false;   // the last piece is an entry that may go on
    std::string pending; // comment and blank lines after an open entry
    const auto between = [&pieces](const std::string &lines) {
        if (lines.empty())
            return;
        if (pieces.empty() || pieces.back().entry)
            pieces.emplace_back();
        pieces.back().text += lines;
    };

    for (const std::string &line : splitLines(text, true)) {
        switch (kindOf(line)) {
        case startLine:
            between(pending);
            pending.clear();
            pieces.emplace_back();
            pieces.back().entry = true;
            pieces.back().text = line;
            open = true;
            break;
        case continuationLine:
            if (open) {
                pieces.back().text += pending + line;
                pending.clear();
            } else {
                between(line);
            }
            break;
        default:
            if (open)
                pending += line;
            else
                between(line);
        }
    }
    between(pending);

    for (Piece &p : pieces) {
        if (!p.entry)
            continue;
        std::vector<std::string> fields;
        std::istringstream lines(p.text);
        for (std::string line; std::getline(lines, line);) {
            if (kindOf(line) == commentLine)
                continue;
            std::istringstream words(line);
            for (std::string word; words >> word;)
                fields.push_back(word);
        }
        if (!fields.empty())
            p.service = fields[0];
        if (fields.size() > 1)
            p.type = fields[1];
        if (fields.size() > 7)
            p.command = fields[7];
    }
    return pieces;
}

std::string MasterCfEntries::join(const Pieces &pieces, bool withLeaving)
{
    std::string text;
    for (const Piece &p : pieces)
        if (withLeaving || !p.leaving)
            text += p.text;
    return text;
}

void MasterCfEntries::append(Pieces &pieces, const std::string &entryText)
{
    if (!pieces.empty() && pieces.back().text.back() != '\n')
        pieces.back().text += '\n';
    for (Piece &p : parse(entryText))
        pieces.push_back(std::move(p));
    if (!pieces.empty() && pieces.back().text.back() != '\n')
        pieces.back().text += '\n';
}

bool MasterCfEntries::matches(const Piece &p, const std::string &service,
                              const std::string &command)
{
    return p.entry && !p.leaving && p.service == service && p.command == command;
}

bool MasterCfEntries::hasIn(const Pieces &pieces, const std::string &service,
                            const std::string &command) const
{
    return std::any_of(pieces.begin(), pieces.end(),
                       [&](const Piece &p) { return matches(p, service, command); });
}

bool MasterCfEntries::has(const std::string &service, const std::string &command,
                          boost::logic::tribool state) const
{
    const bool active = hasIn(master_, service, command);
    if (state)
        return active;
    const bool disabled = hasIn(disabled_, service, command);
    if (!state)
        return disabled;
    return active || disabled;
}

bool MasterCfEntries::serves(const std::string &service, const std::string &type) const
{
    return std::any_of(master_.begin(), master_.end(), [&](const Piece &p) {
        return p.entry && p.service == service && p.type == type;
    });
}

bool MasterCfEntries::enable(const std::string &service, const std::string &command)
{
    if (hasIn(master_, service, command))
        return true;
    bool found = false;
    for (Piece &p : disabled_) {
        if (!matches(p, service, command))
            continue;
        if (!found)
            append(master_, p.text);
        found = true;
        p.leaving = true; // later copies would be stale once one is active
    }
    return found;
}

void MasterCfEntries::disable(const std::string &service, const std::string &command)
{
    for (auto p = master_.begin(); p != master_.end();) {
        if (matches(*p, service, command)) {
            append(disabled_, p->text);
            p = master_.erase(p);
        } else {
            ++p;
        }
    }
}

void MasterCfEntries::add(const std::string &entryText, bool enabled)
{
    append(enabled ? master_ : disabled_, entryText);
}

std::string MasterCfEntries::masterText() const
{
    return join(master_, false);
}

std::string MasterCfEntries::disabledText(bool withLeaving) const
{
    return join(disabled_, withLeaving);
}

std::string MasterCfEntries::formatEntry(const std::string &service, const std::string &type,
                                         const std::vector<std::string> &fields,
                                         const std::vector<std::string> &options)
{
    std::string text = padded(service, 10) + padded(type, 6);
    for (std::size_t i = 0; i < fields.size(); ++i)
        text += i + 1 < fields.size() ? padded(fields[i], 8) : fields[i];
    text += '\n';
    for (const std::string &option : options)
        text += "  -o " + option + '\n';
    return text;
}

} // namespace postfix
} // namespace mail
} // namespace zarnet
