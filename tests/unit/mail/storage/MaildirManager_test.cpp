#include "mail/storage/MaildirPPManager.h"
#include "mail/storage/maildirpp_quota.h"
#include "utils/cpp_mysql.h"
#include "utils/read_configuration.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/sandboxed.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <boost/filesystem/exception.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>

namespace fs = std::filesystem;
namespace bfs = boost::filesystem;
using testsupport::exists;
using testsupport::spit;
using zarnet::mail::MaildirManager;

namespace {

// "uid:gid mode" of path, or its inode number in the form of a backup name.
std::string owners(const std::string &path, bool inode = false)
{
    struct stat st = {};
    lstat(path.c_str(), &st);
    char text[64];
    std::snprintf(text, sizeof text, "%u:%u %04o", st.st_uid, st.st_gid, st.st_mode & 07777);
    return inode ? path + ".ZarnetSaved." + std::to_string(st.st_ino) : text;
}

// How many backups of path lie beside it.
long backups(const std::string &path)
{
    const std::string prefix = path + ".ZarnetSaved.";
    const fs::directory_iterator beside(fs::path(path).parent_path());
    return std::count_if(begin(beside), end(beside),
                         [&](const auto &e) { return e.path().string().rfind(prefix, 0) == 0; });
}

class MailnamesRoot : public testing::Test {
protected:
    void SetUp() override { use(root_); }
    void TearDown() override { zrn_conf_set_path_for_testing(nullptr); }
    void use(const std::string &root)
    {
        spit(conf_, "ZARNET_MAILNAMES_D " + root + "\n");
        zrn_conf_set_path_for_testing(conf_.c_str());
    }
    static MaildirManager &manager() { return MaildirManager::getInstance(); }

    const testsupport::TempDir temp_{"mailnames"};
    const std::string root_ = temp_.path() + "/mailnames";
    const std::string conf_ = temp_.path() + "/zrn.conf";
};

using MaildirManagerSandboxed = MailnamesRoot;

} // namespace

TEST_F(MailnamesRoot, PathsFollowTheConfiguredRoot)
{
    use("/srv/mail");
    EXPECT_EQ(MaildirManager::getMailnameHome("example.com", "info"), "/srv/mail/example.com/info");
    use(temp_.path());
    EXPECT_EQ(MaildirManager::getDomainRoot("example.com"), temp_.path() + "/example.com")
        << "root kept from an earlier configuration";
    // A tree whose status cannot be taken is not taken for a missing one.
    fs::create_symlink("loop", temp_.path() + "/loop");
    bfs::path out = "untouched";
    EXPECT_FALSE(zarnet::mail::backupRename(temp_.path() + "/loop/tree", out));
    EXPECT_EQ(out, "untouched");
}

TEST_F(MaildirManagerSandboxed, CreationSetsOwnersAndModesAgainAndCleansUpAfterAFailure)
{
    MAILTEND_REQUIRE_SANDBOX();
    const std::string home = root_ + "/example.com/info";
    const mode_t oldMask = umask(022);
    const auto currentUmask = [] { const mode_t mask = umask(0); umask(mask); return mask; };
    for (const char *round : {"first creation", "re-creation"}) {
        manager().createDomainRoot("example.com");
        manager().createMailnameHome("example.com", "info");
        EXPECT_EQ(currentUmask(), 022u) << round << ": umask not restored";
        EXPECT_EQ(owners(root_ + "/example.com"), "0:30110 0750") << round;
        for (const char *d : {"", "/Maildir", "/Maildir/tmp", "/Maildir/new", "/Maildir/cur",
                              "/Maildir/.Spam", "/Maildir/.Spam/tmp", "/Maildir/.Spam/new",
                              "/Maildir/.Spam/cur", "/@attachments"}) {
            EXPECT_EQ(owners(home + d), "30110:30110 0700") << round << " " << d;
            chown((home + d).c_str(), 0, 0); // spoiled for the next round to put right
            chmod((home + d).c_str(), 0755);
        }
    }

    // A file or a link where a folder goes: the error, errno kept, only what the call made gone.
    const testsupport::TempDir outside("outside");
    chmod(outside.path().c_str(), 0755);
    for (const bool link : {false, true}) {
        fs::remove_all(home);
        fs::create_directories(home + "/Maildir");
        if (link)
            fs::create_directory_symlink(outside.path(), home + "/Maildir/.Spam");
        else
            spit(home + "/Maildir/.Spam", "in the way");
        std::string what = "nothing thrown";
        errno = 0;
        try {
            manager().createMailnameHome("example.com", "info");
        } catch (const bfs::filesystem_error &e) {
            what = std::to_string(errno) + " " + e.what();
        }
        EXPECT_EQ(what.rfind(link ? "20 chown" : "17 ", 0), 0u) << what;
        EXPECT_TRUE(exists(home + "/Maildir") && !exists(home + "/Maildir/tmp"))
            << "the home that was there removed, or what this call made left";
        EXPECT_EQ(currentUmask(), 022u) << "umask not restored";
        EXPECT_EQ(owners(outside.path()), "0:0 0755") << "link target changed";
    }
    spit(temp_.path() + "/plain", "a file, not a directory");
    use(temp_.path() + "/plain");
    EXPECT_THROW(manager().createDomainRoot("x.example"), bfs::filesystem_error);
    EXPECT_EQ(currentUmask(), 022u) << "umask not restored after a failure";
    umask(oldMask);
}

TEST_F(MaildirManagerSandboxed, BackupRemoveAndRenameMoveTheWholeTree)
{
    MAILTEND_REQUIRE_SANDBOX();
    const std::string dom = root_ + "/example.net";
    fs::create_directories(root_);
    const auto create = [&] {
        manager().createDomainRoot("example.net");
        manager().createMailnameHome("example.net", "info");
        spit(dom + "/info/Maildir/cur/1", "mail");
    };
    // Missing trees are no error.
    manager().backupDomainRoot("example.net");
    manager().removeDomainRoot("example.net");
    manager().removeMailnameHome("example.net", "info");
    EXPECT_EQ(backups(dom), 0);

    create();
    const std::string first = owners(dom, true);
    manager().backupDomainRoot("example.net");
    create();
    manager().backupDomainRoot("example.net");
    EXPECT_EQ(backups(dom), 2) << "second backup overwrote the first";
    EXPECT_EQ(testsupport::slurp(first + "/info/Maildir/cur/1"), "mail");
    create();
    manager().backupMailnameHome("example.net", "info");
    EXPECT_EQ(backups(dom + "/info"), 1) << "home backup not beside the home";
    manager().removeDomainRoot("example.net");
    EXPECT_FALSE(exists(dom));
    EXPECT_EQ(backups(dom), 2) << "removal left a backup";
    create();
    EXPECT_TRUE(manager().createDomainAliasLink("example.net", "alias.example"));
    manager().renameMailnameHome("example.net", "info", "sales");
    manager().renameDomainRoot("example.net", "example.edu");
    EXPECT_EQ(testsupport::slurp(root_ + "/example.edu/sales/Maildir/cur/1"), "mail");
    EXPECT_EQ(fs::read_symlink(root_ + "/alias.example"), "example.edu") << "alias link left behind";

    EXPECT_THROW(manager().removeDomainRoot(""), bfs::filesystem_error);
    EXPECT_THROW(manager().removeMailnameHome("example.edu", ".."), bfs::filesystem_error);
    EXPECT_THROW(manager().renameDomainRoot("absent.example", "x.example"), bfs::filesystem_error);
    EXPECT_TRUE(exists(root_ + "/example.edu/sales")) << "a refused call removed something";

    manager().removeMailnameHome("example.edu", "sales");
    EXPECT_FALSE(exists(root_ + "/example.edu/sales"));
    ASSERT_TRUE(exists(root_ + "/example.edu")) << "home removal took the domain";

    // The backup name is taken by a non-empty directory: the removal still
    // happens, in place, and the stranger is left alone.
    const std::string blocker = owners(root_ + "/example.edu", true);
    fs::create_directories(blocker + "/busy");
    manager().removeDomainRoot("example.edu");
    EXPECT_FALSE(exists(root_ + "/example.edu"));
    EXPECT_TRUE(exists(blocker + "/busy"));
}

// The quota face (the same object): the corner values, the panel's domain
// limit and the errors thrown; the usual quotas run in the system tests.
TEST_F(MaildirManagerSandboxed, QuotaCornerValuesAndErrors)
{
    MAILTEND_REQUIRE_SANDBOX();
    zarnet::mysql::Connection db;
    const auto cleanUp = [&] {
        db << "DELETE FROM domains WHERE name='quota-a.example'" << zarnet::mysql::Query::exec;
        db << "DELETE FROM Limits WHERE id=970412" << zarnet::mysql::Query::exec;
    };
    cleanUp();
    db << "INSERT INTO Limits (id, limit_name, value) VALUES (970412, 'mbox_quota', 12345)"
       << zarnet::mysql::Query::exec;
    db << "INSERT INTO domains (name, limits_id) VALUES ('quota-a.example', 970412)"
       << zarnet::mysql::Query::exec;
    auto &quota = zarnet::mail::MaildirPPManager::getInstance();
    quota.createMailnameHome("quota-a.example", "info");
    const std::string home = root_ + "/quota-a.example/info";
    struct stat st = {};
    lstat((home + "/@attachments").c_str(), &st);
    const long long att = st.st_size;
    const std::string warning = "WARNING: @attachments directory is big enough to disable delivery!\n";
    const struct {
        const char *fault;
        std::function<void()> call;
        std::string want_out, want; // what was printed; the quota line, or what() up to a colon
    } cases[] = {
        {"zero quota taken for no limit", [] { store_mbox_quota("quota-a.example", "info", 0); },
         warning, "1S,0C"},
        {"used-up quota not kept at one byte",
         [&] { quota.setMailboxQuota("quota-a.example", "info", att); }, "", "1S,0C"},
        {"oversized attachments not warned or taken for no limit",
         [&] { quota.setMailboxQuota("quota-a.example", "info", att - 1); }, warning, "1S,0C"},
        {"domain limit not read", [] { rm_mbox_quota("quota-a.example", "info"); }, "",
         std::to_string(12345 - att) + "S,0C"},
        {"unknown domain accepted", [&] { quota.removeMailboxQuota("quota-c.example", "info"); },
         "No such domain quota-c.example\n", "!unable to remove quota"},
    };
    for (const auto &c : cases) {
        spit(home + "/Maildir/maildirsize", "old\n");
        const auto r = testsupport::runInChild([&] {
            try {
                c.call();
            } catch (const bfs::filesystem_error &e) {
                const std::string what = e.what();
                std::printf("!%s", what.substr(0, what.find(':')).c_str());
            }
            return 0;
        });
        const bool thrown = c.want[0] == '!';
        EXPECT_EQ(r.out, c.want_out + (thrown ? c.want : "")) << c.fault;
        if (thrown)
            continue;
        EXPECT_EQ(testsupport::slurp(home + "/Maildir/maildirsize"),
                  c.want + "\n           0           0\n") << c.fault;
        EXPECT_EQ(owners(home + "/Maildir/maildirsize"), "30110:30110 0644") << c.fault;
    }
    cleanUp();
}
