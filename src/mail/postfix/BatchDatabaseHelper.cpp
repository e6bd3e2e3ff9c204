#include "mail/postfix/BatchDatabaseHelper.h"

namespace zarnet {
namespace mail {
namespace postfix {

void BatchDatabaseHelper::addChange(const std::string &table, const std::string &key,
                                    const std::string &value)
{
    addRecordList(table, RecordList(1, Record(key, value)));
}

void BatchDatabaseHelper::addRecordList(const std::string &table, const RecordList &records)
{
    if (!immediate_) {
        RecordList &cached = additions_[table];
        cached.insert(cached.end(), records.begin(), records.end());
        return;
    }
    // An empty immediate replacement still empties the table; an empty
    // merge has nothing to do.
    if (records.empty() && incremental_)
        return;
    write(table, records);
}

void BatchDatabaseHelper::write(const std::string &table, const RecordList &records) const
{
    if (incremental_)
        DatabaseHelper::addRecords(table, records.begin(), records.end());
    else
        DatabaseHelper::replaceRecords(table, records.begin(), records.end());
}

void BatchDatabaseHelper::removeChanges(const std::string &table, const KeyList &keys)
{
    if (!immediate_) {
        KeyList &cached = removals_[table];
        cached.insert(cached.end(), keys.begin(), keys.end());
        return;
    }
    DatabaseHelper::removeRecords(table, keys.begin(), keys.end());
}

void BatchDatabaseHelper::commit()
{
    for (const auto &entry : additions_)
        write(entry.first, entry.second);
    additions_.clear();
    for (const auto &entry : removals_)
        DatabaseHelper::removeRecords(entry.first, entry.second.begin(), entry.second.end());
    removals_.clear();
}

} // namespace postfix
} // namespace mail
} // namespace zarnet
