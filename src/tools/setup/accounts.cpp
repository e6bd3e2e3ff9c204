#include "tools/setup/accounts.h"

#include "tools/setup/run_tool.h"
#include "tools/setup/setup_steps.h"
#include "utils/ExSystemError.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <string>

namespace zarnet {
namespace setup {

namespace {

const char popuser[] = "popuser";

} // namespace

void ensurePopuserAccount(const std::string &home)
{
    errno = 0;
    if (::getgrnam(popuser) == nullptr) {
        if (errno != 0 && errno != ENOENT)
            throwSystemError("group popuser");
        runTool("/usr/sbin/groupadd", {"--system", popuser});
        report("account", "added group popuser");
    }
    errno = 0;
    if (::getpwnam(popuser) == nullptr) {
        if (errno != 0 && errno != ENOENT)
            throwSystemError("user popuser");
        runTool("/usr/sbin/useradd", {"--system", "--gid", popuser, "--home-dir", home,
                                      "--no-create-home", "--shell", "/usr/sbin/nologin", popuser});
        report("account", "added user popuser");
    }
}

void ensureGroupMember(const std::string &user, gid_t gid)
{
    errno = 0;
    const struct passwd *pw = ::getpwnam(user.c_str());
    if (pw == nullptr)
        throw SystemError("user " + user + " not found", errno);
    if (pw->pw_gid == gid)
        return;
    errno = 0;
    const struct group *gr = ::getgrgid(gid);
    if (gr == nullptr)
        throw SystemError("group " + std::to_string(gid) + " not found", errno);
    for (char **member = gr->gr_mem; *member != nullptr; ++member)
        if (user == *member)
            return;
    const std::string group = gr->gr_name; // the next lookup may reuse gr
    runTool("/usr/sbin/usermod", {"--append", "--groups", group, user});
    report("account", "added " + user + " to group " + group);
}

} // namespace setup
} // namespace zarnet
