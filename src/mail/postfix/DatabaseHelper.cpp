#include "mail/postfix/DatabaseHelper.h"

#include "mail/postfix/DatabaseFilters.h"
#include "mail/postfix/PostfixError.h"
#include "mail/postfix/postfix_tool.h"
#include "utils/AutocleanOFStream.h"
#include "utils/ExSystemError.h"
#include "utils/MKLock.h"
#include "utils/fd_io.h"
#include "utils/text_lines.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
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

bool hasSpace(const std::string &text)
{
    for (const char c : text)
        if (std::isspace(static_cast<unsigned char>(c)))
            return true;
    return false;
}

// The text form cannot carry these. The compiler would split the record at
// white space, take a leading "#" as a comment and a leading space as the
// continuation of the line before: the change would be lost or, worse,
// glued onto another record, while the compiler still exits 0.
void checkKey(const std::string &key)
{
    if (key.empty() || key[0] == '#' || hasSpace(key))
        throw std::invalid_argument("invalid lookup table key '" + key + "'");
}

void checkRecord(const Record &r)
{
    checkKey(r.first);
    if (r.second.empty() || r.second.find_first_of("\n\r") != std::string::npos)
        throw std::invalid_argument("invalid lookup table value '" + r.second + "' for key '" +
                                    r.first + "'");
}

// Whole-table rebuilds compile a sibling under a private name and rename
// its indexed file over the table's, so a compiler that dies halfway leaves
// the live table as it was instead of empty. The daemons notice the replaced
// file and reopen it.
std::string tableType(const std::string &table)
{
    const std::string::size_type colon = table.find(':');
    return colon == std::string::npos ? "hash" : table.substr(0, colon);
}

// The suffix the compiler gives the indexed file of a table type; empty
// for a type without one.
std::string indexSuffix(const std::string &table)
{
    const std::string type = tableType(table);
    if (type == "hash" || type == "btree")
        return ".db";
    if (type == "lmdb")
        return ".lmdb";
    if (type == "cdb")
        return ".cdb";
    return std::string();
}

// Postfix daemons reopen a table when its indexed file is gone or its
// st_mtime, in whole seconds, differs from the one seen at open. A rebuild
// replaces the file; an in-place change made within the second of the one
// before would stay unseen until each daemon ends. So an in-place change
// that leaves st_mtime where it was moves it one second past. Cheaper than
// replacing the file, which costs a copy and an fsync of the whole index per
// change, and as sure: the compiler holds the table's exclusive lock for the
// whole change and the daemons open it under a shared one, so a daemon saw
// either the old time or the finished table; and the tool's changes run one
// at a time under its own lock, so the times they leave only grow.
class ChangeStamp {
public:
    explicit ChangeStamp(const std::string &table)
        : path_(DatabaseHelper::sourcePath(table) + indexSuffix(table))
    {
        known_ = !indexSuffix(table).empty() &&
                 ::fstatat(AT_FDCWD, path_.c_str(), &before_, AT_SYMLINK_NOFOLLOW) == 0 &&
                 S_ISREG(before_.st_mode);
    }

    void changed() const
    {
        struct stat after;
        if (!known_ || ::fstatat(AT_FDCWD, path_.c_str(), &after, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(after.st_mode) || after.st_mtime > before_.st_mtime)
            return; // new (no daemon had it open), gone, or visibly changed
        const struct timespec times[2] = {{0, UTIME_OMIT}, {before_.st_mtime + 1, 0}};
        // never through a link planted where the index was
        if (::utimensat(AT_FDCWD, path_.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
            throwSystemError("utimensat " + path_, errno);
    }

private:
    std::string path_;
    struct stat before_ = {};
    bool known_ = false;
};

class Rebuild {
public:
    explicit Rebuild(const std::string &table) : suffix_(indexSuffix(table))
    {
        if (suffix_.empty())
            throw std::invalid_argument("cannot rebuild lookup table '" + table + "'");
        const std::string path = DatabaseHelper::sourcePath(table);
        const std::string type = tableType(table);
        const std::string::size_type slash = path.rfind('/');
        const std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
        const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
        live_ = path + suffix_;
        source_ = dir + "." + base + ".rebuild";
        table_ = type + ":" + source_;
    }
    ~Rebuild()
    {
        if (!committed_) {
            const int saved = errno;
            ::unlink((source_ + suffix_).c_str());
            errno = saved;
        }
    }
    Rebuild(const Rebuild &) = delete;
    Rebuild &operator=(const Rebuild &) = delete;

    const std::string &source() const { return source_; }
    const std::string &table() const { return table_; }

    // Gives the new index the live one's owner and mode, makes it durable,
    // then puts it in place.
    void commit()
    {
        const std::string built = source_ + suffix_;
        struct stat live;
        if (::stat(live_.c_str(), &live) == 0) {
            if (::chown(built.c_str(), live.st_uid, live.st_gid) != 0)
                throwSystemError("chown " + built, errno);
            if (::chmod(built.c_str(), live.st_mode & 07777) != 0)
                throwSystemError("chmod " + built, errno);
        }
        const int fd = fd_io::open_retry(built.c_str(), O_RDONLY);
        if (fd < 0 || fd_io::fsync_retry(fd) != 0) {
            const int saved = errno;
            fd_io::close_quietly(fd);
            throwSystemError("fsync " + built, saved);
        }
        fd_io::close_quietly(fd);
        if (::rename(built.c_str(), live_.c_str()) != 0)
            throwSystemError("rename " + built + " to " + live_, errno);
        committed_ = true;
        fd_io::sync_parent_directory(live_);
    }

private:
    std::string suffix_, live_, source_, table_;
    bool committed_ = false;
};

// Opens the transient text source; its stream throws on later failures.
void openSource(AutocleanOFStream &stream)
{
    if (!stream)
        throwSystemError("unable to open " + stream.path(), errno);
    stream.exceptions(std::ios::badbit | std::ios::failbit);
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
    const int status = runCompiler(args, input, output);
    if (!exitedZero(status))
        throw PostfixConfigurationError(failureText(output, status));
}

// An in-place change of the live table, made noticeable to the daemons.
void changeInPlace(const std::string &table, const std::vector<std::string> &args,
                   const process::InputSource &input)
{
    const ChangeStamp stamp(table);
    compileOrThrow(args, input);
    stamp.changed();
}

// Removals: the compiler exits non-zero for an absent key, which is not a
// failure unless it also printed one.
void removeOrThrow(const std::string &table, const std::vector<std::string> &args,
                   const process::InputSource &input)
{
    const ChangeStamp stamp(table);
    std::string output;
    const int status = runCompiler(args, input, output);
    if (exitedZero(status)) {
        stamp.changed();
        return;
    }
    if (WIFSIGNALED(status) || !DatabaseHelper::checkOutput(output, false))
        throw PostfixDatabaseError(failureText(output, status));
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

bool DatabaseHelper::hasRecord(const std::string &table, const std::string &key)
{
    checkKey(key);
    std::string output;
    const int status = runCompiler({"-q", key, table}, process::InputSource(), output);
    if (exitedZero(status))
        return true;
    // Not found is a non-zero exit with nothing said.
    if (WIFSIGNALED(status) || !DatabaseHelper::checkOutput(output, false))
        throw PostfixDatabaseError(failureText(output, status));
    return false;
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
    // Under the table's lock, so a change cannot slip in between the dump
    // and the rename of a rebuild and be lost.
    MKLock lock(sourcePath(table));
    changeInPlace(table, {"-r", "-i", table}, source);
}

void DatabaseHelper::replaceRecordList(const std::string &table, const RecordList &records)
{
    for (const Record &r : records)
        checkRecord(r);
    MKLock lock(sourcePath(table));
    Rebuild rebuild(table);
    AutocleanOFStream source(rebuild.source());
    openSource(source);
    for (const Record &r : records)
        source << r.first << ' ' << r.second << '\n';
    source.close();
    compileOrThrow({"-r", rebuild.table()});
    rebuild.commit();
}

// An incremental run with no input creates a missing index and never
// truncates an existing one, so no check can race with another writer.
void DatabaseHelper::createTable(const std::string &table)
{
    MKLock lock(sourcePath(table));
    compileOrThrow({"-i", table}, [](std::vector<char> &) { return false; });
}

void DatabaseHelper::removeRecord(const std::string &table, const std::string &key)
{
    checkKey(key);
    MKLock lock(sourcePath(table));
    removeOrThrow(table, {"-d", key, table}, process::InputSource());
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
    MKLock lock(sourcePath(table));
    removeOrThrow(table, {"-d", "-", table}, source);
}

void DatabaseHelper::filterRecords(const std::string &table, const RecordFilter &filter)
{
    MKLock lock(sourcePath(table));
    Rebuild rebuild(table);
    AutocleanOFStream source(rebuild.source());
    openSource(source);

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
        throw PostfixConfigurationError(failureText(errors, status));
    lines.finish();
    source.close();
    compileOrThrow({rebuild.table()});
    rebuild.commit();
}

bool DatabaseHelper::checkOutput(const std::string &output, bool strict)
{
    for (const std::string &line : splitLines(output)) {
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
