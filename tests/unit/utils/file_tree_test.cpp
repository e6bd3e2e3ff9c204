#include "utils/file_tree.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

namespace fs = std::filesystem;

namespace {

struct Attrs {
    uid_t uid;
    gid_t gid;
    mode_t mode;
};

Attrs attrs(const std::string &path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return {uid_t(-1), gid_t(-1), 0};
    return {st.st_uid, st.st_gid, st.st_mode};
}

using testsupport::exists;

int openDescriptors()
{
    int n = 0;
    for (const auto &e : fs::directory_iterator("/proc/self/fd")) {
        (void)e;
        ++n;
    }
    return n;
}

// A mailbox-like tree whose links point outside it, at things a root-owned
// walk must never change.
class FileTreeTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fs::create_directories(outside_ + "/sub");
        std::ofstream(outside_ + "/secret") << "secret";
        std::ofstream(outside_ + "/sub/inner") << "inner";
        ASSERT_EQ(chmod(outside_.c_str(), 0755), 0);
        ASSERT_EQ(chmod((outside_ + "/secret").c_str(), 0644), 0);

        fs::create_directories(tree_ + "/Maildir/cur");
        fs::create_directories(tree_ + "/Maildir/.Spam/new");
        std::ofstream(tree_ + "/Maildir/cur/1.msg") << "one";
        std::ofstream(tree_ + "/Maildir/.Spam/new/2.msg") << "two";
        ASSERT_EQ(symlink("../outside", (tree_ + "/dirlink").c_str()), 0);
        ASSERT_EQ(symlink((outside_ + "/secret").c_str(), (tree_ + "/Maildir/filelink").c_str()), 0);
        std::string deep = tree_ + "/deep";
        for (int i = 0; i < 30; ++i)
            deep += "/d";
        fs::create_directories(deep);
        std::ofstream(deep + "/leaf") << "leaf";

        for (const auto &e : fs::recursive_directory_iterator(outside_))
            outsideBefore_[e.path().string()] = attrs(e.path().string());
        outsideBefore_[outside_] = attrs(outside_);
    }

    void expectOutsideUntouched(const char *what)
    {
        for (const auto &[path, before] : outsideBefore_) {
            ASSERT_TRUE(exists(path)) << what << " removed " << path;
            const Attrs now = attrs(path);
            EXPECT_EQ(now.uid, before.uid) << what << " changed owner of " << path;
            EXPECT_EQ(now.gid, before.gid) << what << " changed group of " << path;
            EXPECT_EQ(now.mode, before.mode) << what << " changed mode of " << path;
        }
    }

    const testsupport::TempDir temp_{"file_tree"};
    const std::string dir_ = temp_.path();
    const std::string outside_ = dir_ + "/outside";
    const std::string tree_ = dir_ + "/home";
    std::map<std::string, Attrs> outsideBefore_;
};

TEST_F(FileTreeTest, RemoveTakesTheTreeButNothingItsLinksPointAt)
{
    EXPECT_EQ(rm_tree(tree_.c_str()), 0);
    EXPECT_FALSE(exists(tree_));
    expectOutsideUntouched("rm_tree");
}

TEST_F(FileTreeTest, ChownReachesEveryEntryAndOnlyTheLinksThemselves)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to give files away";
    EXPECT_EQ(chown_tree(tree_.c_str(), 1234, 5678), 0);
    EXPECT_EQ(attrs(tree_).uid, 1234u);
    for (const auto &e : fs::recursive_directory_iterator(tree_)) {
        const Attrs a = attrs(e.path().string());
        EXPECT_EQ(a.uid, 1234u) << e.path();
        EXPECT_EQ(a.gid, 5678u) << e.path();
    }
    expectOutsideUntouched("chown_tree");
}

TEST_F(FileTreeTest, ChmodSetsDirectoriesAndFilesAndLeavesLinkTargets)
{
    EXPECT_EQ(chmod_tree(tree_.c_str(), 0700, 0600), 0);
    EXPECT_EQ(attrs(tree_).mode & 07777, 0700u);
    for (const auto &e : fs::recursive_directory_iterator(tree_)) {
        const Attrs a = attrs(e.path().string());
        if (S_ISDIR(a.mode)) {
            EXPECT_EQ(a.mode & 07777, 0700u) << e.path();
        } else if (S_ISREG(a.mode)) {
            EXPECT_EQ(a.mode & 07777, 0600u) << e.path();
        }
    }
    expectOutsideUntouched("chmod_tree");
}

TEST_F(FileTreeTest, KeepModeLeavesThatKindAlone)
{
    ASSERT_EQ(chmod((tree_ + "/Maildir/cur/1.msg").c_str(), 0644), 0);
    EXPECT_EQ(chmod_tree(tree_.c_str(), 0700, FILE_TREE_KEEP_MODE), 0);
    EXPECT_EQ(attrs(tree_ + "/Maildir/cur").mode & 07777, 0700u);
    EXPECT_EQ(attrs(tree_ + "/Maildir/cur/1.msg").mode & 07777, 0644u);
}

TEST_F(FileTreeTest, LinkGivenAsTheTopIsNotFollowed)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to give files away";
    const std::string link = dir_ + "/toplink";
    ASSERT_EQ(symlink(outside_.c_str(), link.c_str()), 0);

    EXPECT_EQ(chmod_tree(link.c_str(), 0700, 0600), 0);
    expectOutsideUntouched("chmod_tree on a link");
    EXPECT_EQ(chown_tree(link.c_str(), 1234, 5678), 0);
    EXPECT_EQ(attrs(link).uid, 1234u) << "the link itself";
    expectOutsideUntouched("chown_tree on a link");
    EXPECT_EQ(rm_tree(link.c_str()), 0);
    EXPECT_FALSE(exists(link));
    expectOutsideUntouched("rm_tree on a link");
}

TEST_F(FileTreeTest, MissingPathIsNothingToRemoveButAFailureToChange)
{
    const std::string missing = tree_ + "/absent";
    const std::string enoent = "No such file or directory";
    EXPECT_EQ(rm_tree(missing.c_str()), 0);
    EXPECT_EQ(rm_tree((dir_ + "/no/such/parent").c_str()), 0);

    const struct {
        const char *name;
        int (*call)(const char *);
        std::string want;
    } cases[] = {
        {"chown", [](const char *p) { return chown_tree(p, 0, 0); },
         "chown_tree: Unable to stat " + missing + ": " + enoent + "\nSystem error 2: " + enoent + "\n"},
        {"chmod", [](const char *p) { return chmod_tree(p, 0700, 0600); },
         "chmod_tree: Unable to stat " + missing + ": " + enoent + "\nSystem error 2: " + enoent + "\n"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            const int rc = c.call(missing.c_str());
            return rc == -1 && errno == ENOENT ? 0 : 1;
        });
        EXPECT_EQ(r.status, 0) << c.name << " " << r;
        EXPECT_EQ(r.out, c.want) << c.name;
    }
}

TEST_F(FileTreeTest, DotAndDotDotAreRefusedAndTrailingSlashIsFine)
{
    const struct {
        const char *name;
        std::string path;
    } refused[] = {
        {"dot_dot", tree_ + "/Maildir/.."},
        {"dot", tree_ + "/."},
        {"dot_dot_with_slash", tree_ + "/Maildir/../"},
    };
    for (const auto &c : refused) {
        const auto r = testsupport::runInChild([&] {
            return rm_tree(c.path.c_str()) == -1 && errno == EINVAL ? 0 : 1;
        });
        EXPECT_EQ(r.status, 0) << c.name << " " << r;
        EXPECT_TRUE(exists(tree_ + "/Maildir/cur/1.msg")) << c.name;
    }
    EXPECT_EQ(rm_tree((tree_ + "/Maildir//").c_str()), 0);
    EXPECT_FALSE(exists(tree_ + "/Maildir"));
    EXPECT_TRUE(exists(tree_ + "/deep"));
}

TEST_F(FileTreeTest, FailureDeepInsideStopsAndNamesTheEntry)
{
    const auto r = testsupport::runInChild([&] {
        // Room for a few levels only, so the walk fails partway down.
        const struct rlimit limit = {static_cast<rlim_t>(openDescriptors() + 6),
                                     static_cast<rlim_t>(openDescriptors() + 6)};
        setrlimit(RLIMIT_NOFILE, &limit);
        return chmod_tree(tree_.c_str(), 0700, 0600) == -1 && errno == EMFILE ? 0 : 1;
    });
    EXPECT_EQ(r.status, 0) << r;
    const std::string prefix = "chmod_tree: Unable to ";
    EXPECT_EQ(r.out.compare(0, prefix.size(), prefix), 0) << r.out;
    EXPECT_NE(r.out.find(" " + tree_ + "/"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(": Too many open files\nSystem error 24"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("chmod_tree", 1), std::string::npos) << "went on after the failure: " << r.out;
}

} // namespace
