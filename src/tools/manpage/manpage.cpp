// mailtend-manpage TEMPLATE OUTPUT VERSION: writes mailtend(8) from its roff
// template, with every entry of the command table (the one behind
// "--help-commands"), with its options, in place of the line ".\" @COMMANDS@",
// and the version and product root in place of "@VERSION@" and
// "@PRODUCT_ROOT@". A build tool: it runs at build time and is never
// installed. Exit status 0 done, 1 a file could not be read or written
// (named on standard error), 2 usage.
#include "mailtend/command_table.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

namespace mc = zarnet::mail::postfix::mailtend_commands;

namespace {

const char commandsMarker[] = ".\\\" @COMMANDS@";

// Text as roff reads it literally: backslashes and dashes escaped (dashes
// are option dashes here, never hyphens), no control character at the start.
std::string roff(const std::string &text, bool breakable = false)
{
    std::string out;
    for (char c : text) {
        if (c == '\\')
            out += "\\e";
        else if (c == '-')
            out += "\\-";
        else
            out += c;
        // Long syntax alternatives may break after a bar or comma on a terminal.
        if (breakable && (c == '|' || c == ','))
            out += "\\:";
    }
    if (!out.empty() && (out[0] == '.' || out[0] == '\''))
        out.insert(0, "\\&");
    return out;
}

// "-p, --start-smtpd": each command word in bold.
std::string words(const std::string &text)
{
    std::string out;
    std::string::size_type start = 0;
    for (;;) {
        const std::string::size_type comma = text.find(", ", start);
        out += "\\fB" + roff(text.substr(start, comma - start)) + "\\fR";
        if (comma == std::string::npos)
            return out;
        out += ", ";
        start = comma + 2;
    }
}

// The descriptions continue on lines indented by eight spaces: one output
// line each.
std::string summary(const std::string &text)
{
    std::string out;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        const std::string::size_type first = line.find_first_not_of(' ');
        if (first == std::string::npos)
            continue;
        if (!out.empty())
            out += ".br\n";
        out += roff(line.substr(first)) + "\n";
    }
    return out;
}

// The command's own options, as "<command> --help" lists them.
void writeOptions(std::ostream &os, const mc::Options &options)
{
    if (options.list().empty())
        return;
    os << ".RS\n";
    for (const mc::Option &o : options.list()) {
        const std::string name = o.name;
        const std::string::size_type comma = name.find(',');
        os << ".TP\n\\-\\-" << roff(name.substr(0, comma));
        if (comma != std::string::npos)
            os << ", \\-" << roff(name.substr(comma + 1));
        os << '\n' << roff(o.help);
        if (o.defaultText != nullptr)
            os << " (default " << roff(o.defaultText) << ')';
        if (o.presence == mc::mandatory)
            os << " (required)";
        os << '\n';
    }
    os << ".RE\n";
}

void writeCommands(std::ostream &os)
{
    for (std::size_t i = 0; i < mc::command_table_size; ++i) {
        const mc::Command &c = mc::command_table[i];
        os << ".TP\n" << words(c.text);
        if (*c.syntax != '\0')
            os << ' ' << roff(c.syntax, true);
        os << '\n' << summary(c.summary);
        writeOptions(os, c.options);
    }
}

void replaceAll(std::string &line, const std::string &from, const std::string &to)
{
    for (std::string::size_type at = line.find(from); at != std::string::npos;
         at = line.find(from, at + to.size()))
        line.replace(at, from.size(), to);
}

int fail(const std::string &path)
{
    std::fprintf(stderr, "mailtend-manpage: %s: %s\n", path.c_str(), std::strerror(errno));
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::fputs("usage: mailtend-manpage TEMPLATE OUTPUT VERSION\n", stderr);
        return 2;
    }
    const std::string templatePath = argv[1], output = argv[2], version = argv[3];
    std::ifstream in(templatePath);
    if (!in)
        return fail(templatePath);
    // A half-written page must not look up to date to the build: write
    // beside it and rename.
    const std::string partial = output + ".partial";
    std::ofstream out(partial, std::ios::trunc);
    if (!out)
        return fail(partial);
    std::string line;
    while (std::getline(in, line)) {
        if (line == commandsMarker) {
            writeCommands(out);
            continue;
        }
        replaceAll(line, "@VERSION@", version);
        replaceAll(line, "@PRODUCT_ROOT@", MAILTEND_PRODUCT_ROOT);
        out << line << '\n';
    }
    if (in.bad())
        return fail(templatePath);
    out.close();
    if (!out) {
        const int saved = errno;
        std::remove(partial.c_str());
        errno = saved;
        return fail(partial);
    }
    if (std::rename(partial.c_str(), output.c_str()) != 0) {
        const int saved = errno;
        std::remove(partial.c_str());
        errno = saved;
        return fail(output);
    }
    return 0;
}
