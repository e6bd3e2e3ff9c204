// The handle through which domain and mailname operations change the lookup
// tables.
//
// Immediate mode writes each change at once; deferred mode gathers changes
// per table and writes them at commit(): tables in name order, every addition
// before any removal, one compiler run per table and kind. Incremental mode
// merges additions into a table; non-incremental mode makes them its whole
// content. Destroying a batch discards what was not committed. Failures are
// those of DatabaseHelper: a commit stops at the first one, and what it had
// not yet written stays cached for another commit.
#ifndef MAILTEND_MAIL_POSTFIX_BATCHDATABASEHELPER_H
#define MAILTEND_MAIL_POSTFIX_BATCHDATABASEHELPER_H

#include "mail/postfix/DatabaseHelper.h"

#include <map>
#include <string>

namespace zarnet {
namespace mail {
namespace postfix {

class BatchDatabaseHelper {
public:
    BatchDatabaseHelper(bool incremental, bool immediate)
        : incremental_(incremental), immediate_(immediate)
    {
    }
    BatchDatabaseHelper(const BatchDatabaseHelper &) = delete;
    BatchDatabaseHelper &operator=(const BatchDatabaseHelper &) = delete;

    void addChange(const std::string &table, const std::string &key, const std::string &value);

    template <class It>
    void addChanges(const std::string &table, It first, It last)
    {
        addRecordList(table, RecordList(first, last));
    }

    void removeChanges(const std::string &table, const KeyList &keys);

    void commit();

    bool incremental() const { return incremental_; }
    bool immediate() const { return immediate_; }

private:
    void addRecordList(const std::string &table, const RecordList &records);
    void write(const std::string &table, const RecordList &records) const;

    bool incremental_;
    bool immediate_;
    std::map<std::string, RecordList> additions_;
    std::map<std::string, KeyList> removals_;
};

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
