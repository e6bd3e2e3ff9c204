#include "mail/storage/MaildirManager.h"
#include "utils/read_configuration.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/sandboxed.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <boost/filesystem/exception.hpp>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

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

mode_t currentUmask()
{
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

// How many backups of path lie beside it.
long backups(const std::string &path)
{
    const std::string prefix = fs::path(path).filename().string() + ".ZarnetSaved.";
    long n = 0;
    for (const auto &e : fs::directory_iterator(fs::path(path).parent_path()))
        n += e.path().filename().string().rfind(prefix, 0) == 0;
    return n;
}

// The mail-names root set through a private configuration file.
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

class MaildirManagerSandboxed : public MailnamesRoot {
protected:
    void SetUp() override
    {
        MAILTEND_REQUIRE_SANDBOX();
        MailnamesRoot::SetUp();
    }
};

} // namespace

TEST_F(MailnamesRoot, PathsFollowTheConfiguredRootAndBackupsTheInode)
{
    use("/srv/mail");
    EXPECT_EQ(MaildirManager::getMailnameHome("example.com", "info"), "/srv/mail/example.com/info");
    use(temp_.path());
    EXPECT_EQ(MaildirManager::getDomainRoot("example.com"), temp_.path() + "/example.com")
        << "root kept from an earlier configuration";

    const std::string d = temp_.path();
    fs::create_directories(d + "/tree/sub");
    fs::create_symlink("loop", d + "/loop");
    const std::string saved = owners(d + "/tree", true);
    fs::path out = "untouched";
    EXPECT_TRUE(zarnet::mail::backupRename(d + "/tree", out));
    EXPECT_EQ(out, saved);
    EXPECT_TRUE(exists(saved + "/sub"));
    EXPECT_TRUE(zarnet::mail::backupRename(d + "/tree/x", out)) << "missing tree is a failure";
    EXPECT_EQ(out, "");
    out = "untouched";
    errno = 0;
    EXPECT_FALSE(zarnet::mail::backupRename(d + "/loop", out)) << "loop taken for a missing tree";
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(out, "untouched");
}

TEST_F(MaildirManagerSandboxed, CreationSetsOwnersAndModesAgainAndCleansUpAfterAFailure)
{
    const std::string home = root_ + "/example.com/info";
    const mode_t oldMask = umask(022);
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

    // A file or a link where a folder goes: the error, errno kept, no home left.
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
        EXPECT_FALSE(exists(home)) << "partial home left";
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
    manager().renameMailnameHome("example.net", "info", "sales");
    manager().renameDomainRoot("example.net", "example.edu");
    EXPECT_EQ(testsupport::slurp(root_ + "/example.edu/sales/Maildir/cur/1"), "mail");

    EXPECT_THROW(manager().removeDomainRoot(""), bfs::filesystem_error);
    EXPECT_THROW(manager().removeMailnameHome("example.edu", ".."), bfs::filesystem_error);
    EXPECT_THROW(manager().renameDomainRoot("absent.example", "x.example"), bfs::filesystem_error);
    EXPECT_TRUE(exists(root_ + "/example.edu/sales")) << "a refused call removed something";

    // A mount point cannot be removed: the walk's failure is thrown, not printed.
    const std::string busy = root_ + "/example.edu/sales/Maildir/cur";
    ASSERT_EQ(mount("none", busy.c_str(), "tmpfs", 0, nullptr), 0);
    const auto r = testsupport::runInChild([&] {
        try {
            manager().removeMailnameHome("example.edu", "sales");
        } catch (const bfs::filesystem_error &e) {
            std::printf("%s", e.what());
        }
        return 0;
    });
    umount(busy.c_str());
    EXPECT_EQ(r.out.rfind("boost::filesystem::remove_all: Device or resource busy", 0), 0u) << r;
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
