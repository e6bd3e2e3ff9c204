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
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace fs = std::filesystem;
namespace bfs = boost::filesystem;
using testsupport::exists;
using testsupport::spit;
using zarnet::mail::MaildirManager;

namespace {

struct stat attrs(const std::string &path)
{
    struct stat st = {};
    lstat(path.c_str(), &st);
    return st;
}

std::string owners(const std::string &path)
{
    const struct stat st = attrs(path);
    char text[64];
    std::snprintf(text, sizeof text, "%u:%u %04o", st.st_uid, st.st_gid, st.st_mode & 07777);
    return text;
}

mode_t currentUmask()
{
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

// Names in dir that begin with prefix.
std::set<std::string> entries(const std::string &dir, const std::string &prefix)
{
    std::set<std::string> names;
    for (const auto &e : fs::directory_iterator(dir))
        if (e.path().filename().string().compare(0, prefix.size(), prefix) == 0)
            names.insert(e.path().filename().string());
    return names;
}

const char *const homeDirectories[] = {
    "",          "/Maildir",       "/Maildir/tmp",      "/Maildir/new", "/Maildir/cur",
    "/Maildir/.Spam", "/Maildir/.Spam/tmp", "/Maildir/.Spam/new", "/Maildir/.Spam/cur",
    "/@attachments",
};

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

    const testsupport::TempDir temp_{"mailnames"};
    const std::string root_ = temp_.path() + "/mailnames";
    const std::string conf_ = temp_.path() + "/zrn.conf";
};

} // namespace

using MaildirPaths = MailnamesRoot;

TEST_F(MaildirPaths, FollowTheConfiguredRootEveryTime)
{
    use("/srv/mail");
    EXPECT_EQ(MaildirManager::getMailnameHome("example.com", "info").string(),
              "/srv/mail/example.com/info");
    use("/srv/other");
    EXPECT_EQ(MaildirManager::getMailnameHome("example.com", "info").string(),
              "/srv/other/example.com/info")
        << "root kept from an earlier configuration";
    EXPECT_EQ(MaildirManager::getMailnameRelativeHome("example.com", "info").string(),
              "example.com/info");
}

TEST(BackupRename, MovesAsideUnderTheInodeNameOrReportsWhy)
{
    const testsupport::TempDir temp("backup");
    const std::string dir = temp.path();
    fs::create_directories(dir + "/tree/sub");
    spit(dir + "/file", "x");
    fs::create_symlink("loop", dir + "/loop");
    const ino_t treeInode = attrs(dir + "/tree").st_ino;
    const struct {
        const char *fault;
        std::string path;
        bool want_result;
        int want_errno;         // with a false result
        std::string want_out;   // "=": left as it was
    } cases[] = {
        {"missing tree taken for a failure", dir + "/absent", true, 0, ""},
        {"file on the way taken for a failure", dir + "/file/tree", true, 0, ""},
        {"tree not renamed to its inode name", dir + "/tree", true, 0,
         dir + "/tree.ZarnetSaved." + std::to_string(treeInode)},
        {"unreadable status taken for a missing tree", dir + "/loop", false, ELOOP, "="},
    };
    for (const auto &c : cases) {
        bfs::path out("untouched");
        errno = 0;
        EXPECT_EQ(zarnet::mail::backupRename(c.path, out), c.want_result) << c.fault;
        if (!c.want_result) {
            EXPECT_EQ(errno, c.want_errno) << c.fault;
        }
        EXPECT_EQ(out.string(), c.want_out == "=" ? "untouched" : c.want_out) << c.fault;
        if (!c.want_out.empty() && c.want_out != "=") {
            EXPECT_TRUE(exists(c.want_out + "/sub")) << c.fault;
            EXPECT_FALSE(exists(c.path)) << c.fault;
        }
    }
}

class MaildirManagerSandboxed : public MailnamesRoot {
protected:
    void SetUp() override
    {
        MAILTEND_REQUIRE_SANDBOX();
        MailnamesRoot::SetUp();
    }
    static MaildirManager &manager() { return MaildirManager::getInstance(); }
    std::string home(const std::string &domain, const std::string &mailname) const
    {
        return root_ + "/" + domain + "/" + mailname;
    }
};

TEST_F(MaildirManagerSandboxed, CreationSetsOwnersAndModesAgainEveryTime)
{
    const std::string popuser700 = "30110:30110 0700";
    const mode_t oldMask = umask(022);
    for (const char *round : {"first creation", "re-creation"}) {
        manager().createDomainRoot("example.com");
        manager().createMailnameHome("example.com", "info");
        EXPECT_EQ(currentUmask(), 022u) << round << ": umask not restored";
        EXPECT_EQ(owners(root_ + "/example.com"), "0:30110 0750") << round;
        for (const char *d : homeDirectories)
            EXPECT_EQ(owners(home("example.com", "info") + d), popuser700) << round << " " << d;
        // Spoil what the next round has to put right.
        for (const char *d : homeDirectories) {
            chown((home("example.com", "info") + d).c_str(), 0, 0);
            chmod((home("example.com", "info") + d).c_str(), 0755);
        }
        chmod((root_ + "/example.com").c_str(), 0777);
    }
    umask(oldMask);
}

TEST_F(MaildirManagerSandboxed, FailedHomeCreationLeavesNoHomeAndKeepsErrno)
{
    const testsupport::TempDir outside("outside");
    chmod(outside.path().c_str(), 0755);
    const struct {
        const char *fault;
        std::function<void(const std::string &home)> block;
        int want_errno;
        std::string want_word; // at the start of what()
    } cases[] = {
        {"file in the way of a folder accepted",
         [](const std::string &h) {
             fs::create_directories(h + "/Maildir");
             spit(h + "/Maildir/.Spam", "in the way");
         },
         EEXIST, ""},
        {"link in place of the Maildir followed",
         [&](const std::string &h) {
             fs::create_directories(h);
             fs::create_directory_symlink(outside.path(), h + "/Maildir");
         },
         ENOTDIR, "chown"},
        {"link in place of a folder followed",
         [&](const std::string &h) {
             fs::create_directories(h + "/Maildir");
             fs::create_directory_symlink(outside.path(), h + "/Maildir/.Spam");
         },
         ENOTDIR, "chown"},
    };
    const mode_t oldMask = umask(027);
    for (const auto &c : cases) {
        const std::string h = home("example.org", "info");
        c.block(h);
        errno = 0;
        int got = 0;
        std::string what = "nothing thrown";
        try {
            manager().createMailnameHome("example.org", "info");
        } catch (const bfs::filesystem_error &e) {
            got = errno;
            what = e.what();
        }
        EXPECT_EQ(got, c.want_errno) << c.fault << ": " << what;
        EXPECT_EQ(what.compare(0, c.want_word.size(), c.want_word), 0) << c.fault << ": " << what;
        EXPECT_FALSE(exists(h)) << c.fault << ": partial home left";
        EXPECT_EQ(currentUmask(), 027u) << c.fault << ": umask not restored";
        EXPECT_EQ(owners(outside.path()), "0:0 0755") << c.fault << ": link target changed";
    }
    // A domain root that cannot be made restores the umask too.
    spit(temp_.path() + "/plain", "a file, not a directory");
    use(temp_.path() + "/plain");
    EXPECT_THROW(manager().createDomainRoot("x.example"), bfs::filesystem_error);
    EXPECT_EQ(currentUmask(), 027u) << "umask not restored after a failed domain root";
    umask(oldMask);
}

TEST_F(MaildirManagerSandboxed, FailedRemovalThrowsWithoutPrinting)
{
    manager().createDomainRoot("example.org");
    manager().createMailnameHome("example.org", "info");
    // A mount point cannot be removed.
    const std::string busy = home("example.org", "info") + "/Maildir/cur";
    ASSERT_EQ(mount("none", busy.c_str(), "tmpfs", 0, nullptr), 0) << std::strerror(errno);
    const auto r = testsupport::runInChild([&] {
        try {
            manager().removeMailnameHome("example.org", "info");
        } catch (const bfs::filesystem_error &e) {
            std::fprintf(stderr, "%s", e.what());
            return e.code().value() == EBUSY &&
                           std::string(e.what()).rfind("boost::filesystem::remove_all: ", 0) == 0
                       ? 0
                       : 2;
        }
        return 1;
    });
    umount(busy.c_str());
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out, "") << "the tree walk's own report printed";
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
    const auto backups = [&](const std::string &dir, const std::string &name) {
        return entries(dir, name + ".ZarnetSaved.");
    };
    const struct {
        const char *fault;
        std::function<void()> act;
        std::function<void()> check;
    } steps[] = {
        {"missing tree not passed over quietly",
         [&] {
             manager().backupDomainRoot("example.net");
             manager().removeDomainRoot("example.net");
             manager().removeMailnameHome("example.net", "info");
         },
         [&] { EXPECT_TRUE(backups(root_, "example.net").empty()); }},
        {"second backup of a re-created domain overwrote the first",
         [&] {
             create();
             manager().backupDomainRoot("example.net");
             create();
             manager().backupDomainRoot("example.net");
         },
         [&] {
             EXPECT_EQ(backups(root_, "example.net").size(), 2u);
             for (const auto &name : backups(root_, "example.net")) {
                 EXPECT_EQ(name, "example.net.ZarnetSaved." +
                                     std::to_string(attrs(root_ + "/" + name).st_ino));
                 EXPECT_EQ(testsupport::slurp(root_ + "/" + name + "/info/Maildir/cur/1"), "mail");
             }
             EXPECT_FALSE(exists(dom));
         }},
        {"home backup not beside the home",
         [&] {
             create();
             manager().backupMailnameHome("example.net", "info");
         },
         [&] {
             EXPECT_EQ(backups(dom, "info").size(), 1u);
             EXPECT_FALSE(exists(dom + "/info"));
         }},
        {"removed domain left a backup or stayed",
         [&] {
             fs::remove_all(root_);
             create();
             manager().removeDomainRoot("example.net");
         },
         [&] {
             EXPECT_FALSE(exists(dom));
             EXPECT_TRUE(backups(root_, "example.net").empty());
         }},
        {"home or domain renamed elsewhere",
         [&] {
             create();
             manager().renameMailnameHome("example.net", "info", "sales");
             manager().renameDomainRoot("example.net", "example.edu");
         },
         [&] {
             EXPECT_EQ(testsupport::slurp(root_ + "/example.edu/sales/Maildir/cur/1"), "mail");
             EXPECT_FALSE(exists(dom));
         }},
        {"removed home stayed or took the domain",
         [&] { manager().removeMailnameHome("example.edu", "sales"); },
         [&] {
             EXPECT_FALSE(exists(root_ + "/example.edu/sales"));
             EXPECT_TRUE(exists(root_ + "/example.edu"));
         }},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.fault);
        EXPECT_NO_THROW(s.act());
        s.check();
    }

    // Each leaves example.edu in place.
    const struct {
        const char *fault;
        std::function<void()> act;
    } refusals[] = {
        {"empty domain removed the whole root", [] { manager().removeDomainRoot(""); }},
        {"dot-dot mailname removed the domain",
         [] { manager().removeMailnameHome("example.edu", ".."); }},
        {"missing rename source accepted",
         [] { manager().renameDomainRoot("absent.example", "other.example"); }},
    };
    for (const auto &r : refusals) {
        EXPECT_THROW(r.act(), bfs::filesystem_error) << r.fault;
        EXPECT_TRUE(exists(root_ + "/example.edu")) << r.fault;
    }

    // The backup name is taken by a non-empty directory: the removal still
    // happens, in place, and the stranger is left alone.
    const std::string blocker = root_ + "/example.edu.ZarnetSaved." +
                                std::to_string(attrs(root_ + "/example.edu").st_ino);
    fs::create_directories(blocker + "/busy");
    EXPECT_NO_THROW(manager().removeDomainRoot("example.edu"));
    EXPECT_FALSE(exists(root_ + "/example.edu"));
    EXPECT_TRUE(exists(blocker + "/busy"));
}
