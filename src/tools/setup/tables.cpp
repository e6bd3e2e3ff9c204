#include "tools/setup/setup_steps.h"

#include "mail/auth/mail_database.h"
#include "mail/postfix/DatabaseHelper.h"
#include "mail/postfix/RestrictionFilters.h"
#include "mail/postfix/SettingsManager.h"
#include "mail/postfix/lookup_tables.h"
#include "utils/ExSystemError.h"

#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>

namespace zarnet {
namespace setup {

namespace {

bool missing(const std::string &path)
{
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0)
        return false;
    if (errno != ENOENT)
        throwSystemError("stat " + path);
    return true;
}

} // namespace

void setUpTables()
{
    namespace pf = mail::postfix;
    const char *const tables[] = {pf::tables::virtual_domains, pf::tables::virtual_addresses,
                                  pf::tables::vmailbox,        pf::tables::aliases,
                                  pf::tables::blacklists,      pf::tables::poplock};
    // The compiler's indexed file is the table; it keeps no text source.
    for (const char *table : tables) {
        if (!missing(pf::DatabaseHelper::sourcePath(table) + ".db"))
            continue;
        pf::DatabaseHelper::createTable(table);
        report("table", std::string("created ") + table);
    }
    if (pf::SettingsManager::ensureRefusedClientsTable())
        report("table", std::string("created ") + pf::relayRefusedTable);

    // Never re-created when present: that would drop every login.
    mailAuthDBSelectStyle(1);
    const std::string db = mailAuthDB;
    if (!missing(db))
        return;
    if (mailAuthDBInitStyle(1) != 0)
        throw std::runtime_error("unable to create " + db);
    report("database", "created " + db);
}

} // namespace setup
} // namespace zarnet
