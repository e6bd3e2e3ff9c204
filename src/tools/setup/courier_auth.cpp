#include "tools/setup/accounts.h"
#include "tools/setup/settings_file.h"
#include "tools/setup/setup_steps.h"

#include "mail/auth/mail_database.h"
#include "utils/ExSystemError.h"

#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>

namespace zarnet {
namespace setup {

namespace {

const char saslDirectory[] = "/etc/postfix/sasl";
const char authdaemonDirectory[] = "/run/courier/authdaemon";
const char courierDirectory[] = "/etc/courier";

void reportLines(const std::string &place, const std::vector<std::string> &lines)
{
    for (const std::string &line : lines)
        report(place, line);
}

} // namespace

void setUpSasl()
{
    if (::mkdir(saslDirectory, 0755) == 0)
        report("directory", std::string("created ") + saslDirectory);
    else if (errno != EEXIST)
        throwSystemError(std::string("mkdir ") + saslDirectory);
    const std::string conf = std::string(saslDirectory) + "/smtpd.conf";
    reportLines(conf, editSettingsFile(conf, colonSyntax,
                                       {{"pwcheck_method", "authdaemond"},
                                        {"authdaemond_path", "/run/courier/authdaemon/socket"},
                                        {"mech_list", "PLAIN LOGIN"}},
                                       {true, 0, 0, 0644}));
    // smtpd asks the authentication daemon through its socket, in a
    // directory only that daemon's group may enter
    struct stat st;
    if (::stat(authdaemonDirectory, &st) != 0)
        throwSystemError(std::string("stat ") + authdaemonDirectory);
    ensureGroupMember("postfix", st.st_gid);
}

void setUpCourierAuth(const MailIds &ids)
{
    const NewFile mustExist = {false, 0, 0, 0};
    const std::string daemonrc = std::string(courierDirectory) + "/authdaemonrc";
    reportLines(daemonrc, editSettingsFile(daemonrc, shellSyntax,
                                           {{"authmodulelist", "\"authsqlite\""}}, mustExist));

    // The module wants a table and the password fields named even though the
    // select clause replaces its query. A login counts only while the user
    // and its domain have status 0. A login through a domain alias is a user
    // of the alias's domain row, and the alias's name in the mail-names root
    // links to the domain's directory, so this one home expression reaches
    // the real Maildir for both.
    const std::string uid = std::to_string(ids.popuserUid);
    const std::string gid = std::to_string(ids.popuserGid);
    const std::string select =
        "SELECT u.name || '@' || d.name, u.cmusaslsecretPLAIN, u.userPassword, " + uid + ", " +
        gid + ", '" + ids.mailnamesRoot +
        "/' || d.name || '/' || u.name, 'Maildir', '', '', '' FROM users AS u, domains AS d"
        " WHERE u.dom_id = d.id AND u.name = '$(local_part)' AND d.name = '$(domain)'"
        " AND u.status = 0 AND d.status = 0";
    mailAuthDBSelectStyle(1);
    const std::string sqliterc = std::string(courierDirectory) + "/authsqliterc";
    reportLines(sqliterc, editSettingsFile(sqliterc, blankSyntax,
                                           {{"SQLITE_DATABASE", mailAuthDB},
                                            {"SQLITE_USER_TABLE", "users"},
                                            {"SQLITE_CRYPT_PWFIELD", "cmusaslsecretPLAIN"},
                                            {"SQLITE_CLEAR_PWFIELD", "userPassword"},
                                            {"SQLITE_SELECT_CLAUSE", select}},
                                           mustExist));
}

} // namespace setup
} // namespace zarnet
