#include "mail/postfix/DatabaseHelper.h"

#include "mail/postfix/DatabaseFilters.h"
#include "mail/postfix/PostfixError.h"
#include "mail/postfix/postfix_tool.h"
#include "utils/AutocleanOFStream.h"
#include "utils/MKLock.h"

#include <sys/wait.h>

#include <exception>
#include <stdexcept>

namespace zarnet {
namespace mail {
namespace postfix {

namespace {

std::string &compilerOverride()
{
    static std::string path;
    return path;
}

// The text form has no way to carry these; a record that broke it would be
// split or silently skipped by the compiler.
void checkKey(const std::string &key)
{
    if (key.empty() || key.find_first_of(" \t\n") != std::string::npos)
        throw std::invalid_argument("invalid lookup table key '" + key + "'");
}

void checkRecord(const Record &r)
{
    checkKey(r.first);
    if (r.second.empty() || r.second.find('\n') != std::string::npos)
        throw std::invalid_argument("invalid lookup table value '" + r.second + "' for key '" +
                                    r.first + "'");
}

// Runs the compiler with both of its output streams collected into output.
int runCompiler(const std::vector<std::string> &args, const process::InputSource &input,
                std::string &output)
{
    const process::Receiver collect = process::makeStringReceiver(output);
    return runPostfixTool(DatabaseHelper::compilerPath(), args, input, collect, collect);
}

void compileOrThrow(const std::vector<std::string> &args,
                    const process::InputSource &input = process::InputSource())
{
    std::string output;
    if (!exitedZero(runCompiler(args, input, output)))
        throw PostfixConfigurationError(failureText(output));
}

// Removals: the compiler exits non-zero for an absent key, which is not a
// failure unless it also printed one.
void removeOrThrow(const std::vector<std::string> &args, const process::InputSource &input)
{
    std::string output;
    const int status = runCompiler(args, input, output);
    if (exitedZero(status))
        return;
    if (WIFSIGNALED(status) || !DatabaseHelper::checkOutput(output, false))
        throw PostfixDatabaseError(failureText(output));
}

} // namespace

const std::string &DatabaseHelper::compilerPath()
{
    static const std::string standard(compiler);
    return compilerOverride().empty() ? standard : compilerOverride();
}

void DatabaseHelper::setCompilerPathForTesting(const std::string &path)
{
    compilerOverride() = path;
}

std::string DatabaseHelper::sourcePath(const std::string &table)
{
    const std::string::size_type colon = table.find(':');
    return colon == std::string::npos ? table : table.substr(colon + 1);
}

bool DatabaseHelper::formRecord(std::vector<char> &buffer, RecordList::const_iterator &position,
                                RecordList::const_iterator end)
{
    if (position == end)
        return false;
    buffer.insert(buffer.end(), position->first.begin(), position->first.end());
    buffer.push_back(' ');
    buffer.insert(buffer.end(), position->second.begin(), position->second.end());
    buffer.push_back('\n');
    return ++position != end;
}

void DatabaseHelper::addRecord(const std::string &table, const std::string &key,
                               const std::string &value)
{
    addRecordList(table, RecordList(1, Record(key, value)));
}

void DatabaseHelper::addRecordList(const std::string &table, const RecordList &records)
{
    if (records.empty())
        return;
    for (const Record &r : records)
        checkRecord(r);

    RecordList::const_iterator position = records.begin();
    bool more = true;
    // Hands the compiler one buffer of records at a time.
    const process::InputSource source = [&](std::vector<char> &buffer) {
        if (!more)
            return false;
        buffer.clear();
        while (more && buffer.size() < 65536)
            more = formRecord(buffer, position, records.end());
        return true;
    };
    compileOrThrow({"-r", "-i", table}, source);
}

void DatabaseHelper::replaceRecordList(const std::string &table, const RecordList &records)
{
    for (const Record &r : records)
        checkRecord(r);
    const std::string path = sourcePath(table);
    MKLock lock(path);
    AutocleanOFStream source(path);
    source.exceptions(std::ios::badbit | std::ios::failbit);
    for (const Record &r : records)
        source << r.first << ' ' << r.second << '\n';
    source.close();
    compileOrThrow({"-r", table});
}

void DatabaseHelper::removeRecord(const std::string &table, const std::string &key)
{
    checkKey(key);
    removeOrThrow({"-d", key, table}, process::InputSource());
}

void DatabaseHelper::removeKeyList(const std::string &table, const KeyList &keys)
{
    if (keys.empty())
        return;
    for (const std::string &k : keys)
        checkKey(k);
    std::string text;
    for (const std::string &k : keys)
        text += k + '\n';
    bool sent = false;
    const process::InputSource source = [&](std::vector<char> &buffer) {
        if (sent)
            return false;
        buffer.assign(text.begin(), text.end());
        sent = true;
        return true;
    };
    removeOrThrow({"-d", "-", table}, source);
}

void DatabaseHelper::filterRecords(const std::string &table, const RecordFilter &filter)
{
    const std::string path = sourcePath(table);
    MKLock lock(path);
    AutocleanOFStream source(path);
    source.exceptions(std::ios::badbit | std::ios::failbit);

    database::DataStreamFilter<const RecordFilter &> lines(filter, source);
    std::string errors;
    // A failed write must not abandon the dump half-read: the rest of the
    // output is drained and the failure raised once the dump has ended.
    std::exception_ptr writeFailure;
    const process::Receiver filterLines = [&](const std::vector<char> &chunk) {
        if (writeFailure)
            return;
        try {
            lines.filterChunk(chunk);
        } catch (...) {
            writeFailure = std::current_exception();
        }
    };
    const int status = runPostfixTool(compilerPath(), {"-s", table}, process::InputSource(),
                                      filterLines, process::makeStringReceiver(errors));
    if (writeFailure)
        std::rethrow_exception(writeFailure);
    if (!exitedZero(status))
        throw PostfixConfigurationError(failureText(errors));
    lines.finish();
    source.close();
    compileOrThrow({table});
}

bool DatabaseHelper::checkOutput(const std::string &output, bool strict)
{
    std::string::size_type begin = 0;
    while (begin < output.size()) {
        std::string::size_type end = output.find('\n', begin);
        if (end == std::string::npos)
            end = output.size();
        const std::string line = output.substr(begin, end - begin);
        begin = end + 1;

        const std::string::size_type colon = line.find(':');
        if (colon == std::string::npos || colon + 1 >= line.size())
            continue;
        const std::string::size_type label = line.find_first_not_of(' ', colon + 1);
        if (label == std::string::npos || label + 1 >= line.size())
            continue;
        if (line.find(':', label) == std::string::npos)
            continue;
        const auto labelled = [&](const char *word) {
            return line.compare(label, std::char_traits<char>::length(word), word) == 0;
        };
        if (labelled("panic:") || labelled("fatal:") || labelled("error:"))
            return false;
        if (strict && !labelled("warning:"))
            return false;
    }
    return true;
}

} // namespace postfix
} // namespace mail
} // namespace zarnet
