// Changes to the lookup tables, always through the table compiler.
//
// No text source is kept between runs: additions and removals are fed to
// the compiler on its standard input; a whole-table rewrite writes a
// transient source beside the table, compiles it under a private name and
// renames the new index over the live one, so readers see the old table or
// the new one and a failed rebuild leaves the old one in place. The running
// mail server sees every change at its next session: a rebuild replaces the
// file, and an in-place change always moves its modification time to a
// later second. Every change
// holds the table's file lock (derived from the table path), so changes by
// concurrent runs never interleave with a rebuild. Records are checked
// before any process starts: one the text form cannot carry never reaches a
// table.
//
// Throws: PostfixConfigurationError when an addition, replacement or
// filtered rewrite fails; PostfixDatabaseError when a removal fails (both
// carry the compiler's own output, or "unknown error", and the signal that
// ended it, if one did); std::invalid_argument
// for a key that is empty, begins with "#" or holds white space, or a value
// that is empty or holds a line break; SystemError from the process layer,
// the file lock and the rebuild's file steps.
#ifndef MAILTEND_MAIL_POSTFIX_DATABASEHELPER_H
#define MAILTEND_MAIL_POSTFIX_DATABASEHELPER_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace zarnet {
namespace mail {
namespace postfix {

typedef std::pair<std::string, std::string> Record;
typedef std::vector<Record> RecordList;
typedef std::vector<std::string> KeyList;

// A record filter rewrites one dumped line in place; false drops the record.
typedef std::function<bool(std::string &)> RecordFilter;

class DatabaseHelper {
public:
    static constexpr const char *compiler = "/usr/sbin/postmap";

    // The program actually run: the compiler, unless a test put a wrapper
    // in its place (an empty path restores it).
    static const std::string &compilerPath();
    static void setCompilerPathForTesting(const std::string &path);

    static void addRecord(const std::string &table, const std::string &key,
                          const std::string &value);
    static void removeRecord(const std::string &table, const std::string &key);
    // Whether the table holds key: one lookup, for callers that would
    // otherwise rewrite a whole table just in case. Throws as a removal does.
    static bool hasRecord(const std::string &table, const std::string &key);
    static void filterRecords(const std::string &table, const RecordFilter &filter);
    // An empty table unless the table exists; an existing one is left as it is.
    static void createTable(const std::string &table);

    template <class It>
    static void addRecords(const std::string &table, It first, It last)
    {
        addRecordList(table, RecordList(first, last));
    }
    template <class It>
    static void replaceRecords(const std::string &table, It first, It last)
    {
        replaceRecordList(table, RecordList(first, last));
    }
    template <class It>
    static void removeRecords(const std::string &table, It first, It last)
    {
        removeKeyList(table, KeyList(first, last));
    }

    // Appends the text form of *position to buffer and advances position;
    // true while records remain after it.
    static bool formRecord(std::vector<char> &buffer, RecordList::const_iterator &position,
                           RecordList::const_iterator end);

    // False when a line of a Postfix tool's output reports a failure: a
    // "panic:", "fatal:" or "error:" label always, any label but
    // "warning:" when strict.
    static bool checkOutput(const std::string &output, bool strict);

    // The path of the transient text source: the part after the first ":".
    static std::string sourcePath(const std::string &table);

private:
    static void addRecordList(const std::string &table, const RecordList &records);
    static void replaceRecordList(const std::string &table, const RecordList &records);
    static void removeKeyList(const std::string &table, const KeyList &keys);
};

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
