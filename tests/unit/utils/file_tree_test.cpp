#include "utils/file_tree.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <string>

namespace fs = std::filesystem;

namespace {

using testsupport::exists;
using testsupport::spit;

const auto chmodTree = [](const char *path) { return chmod_tree(path, 0700, 0600); };
const auto chownTree = [](const char *path) { return chown_tree(path, 1234, 5678); };

struct stat attrs(const std::string &path)
{
    struct stat st = {};
    lstat(path.c_str(), &st);
    return st;
}

// A mailbox-like tree whose links point outside it, at things a root-owned
// walk must never change.
class FileTreeTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fs::create_directories(outside_ + "/sub");
        spit(outside_ + "/secret", "secret");
        spit(outside_ + "/sub/inner", "inner");
        ASSERT_EQ(chmod(outside_.c_str(), 0755), 0);
        ASSERT_EQ(chmod((outside_ + "/secret").c_str(), 0644), 0);
        for (const auto &e : fs::recursive_directory_iterator(outside_))
            outsideBefore_[e.path().string()] = attrs(e.path().string());
        outsideBefore_[outside_] = attrs(outside_);

        fs::create_directories(tree_ + "/Maildir/cur");
        fs::create_directories(tree_ + "/Maildir/.Spam/new");
        spit(tree_ + "/Maildir/cur/1.msg", "one");
        ASSERT_EQ(chmod((tree_ + "/Maildir/cur/1.msg").c_str(), 0644), 0);
        spit(tree_ + "/Maildir/.Spam/new/2.msg", "two");
        ASSERT_EQ(symlink("../outside", (tree_ + "/dirlink").c_str()), 0);
        ASSERT_EQ(symlink((outside_ + "/secret").c_str(), (tree_ + "/Maildir/filelink").c_str()), 0);
        ASSERT_EQ(symlink(outside_.c_str(), top_link_.c_str()), 0);
        std::string deep = tree_ + "/deep";
        for (int i = 0; i < 30; ++i)
            deep += "/d";
        fs::create_directories(deep);
        spit(deep + "/leaf", "leaf");
    }

    // Calls check for the tree's top and every entry under it, links
    // included but not followed.
    void forEachEntry(const std::function<void(const std::string &, const struct stat &)> &check)
    {
        check(tree_, attrs(tree_));
        for (const auto &e : fs::recursive_directory_iterator(tree_))
            check(e.path().string(), attrs(e.path().string()));
    }

    void expectOutsideUntouched()
    {
        for (const auto &[path, before] : outsideBefore_) {
            const struct stat now = attrs(path);
            EXPECT_TRUE(exists(path) && now.st_uid == before.st_uid && now.st_gid == before.st_gid &&
                        now.st_mode == before.st_mode) << "removed or changed " << path;
        }
    }

    const testsupport::TempDir temp_{"file_tree"};
    const std::string dir_ = temp_.path();
    const std::string outside_ = dir_ + "/outside";
    const std::string tree_ = dir_ + "/home";
    const std::string top_link_ = dir_ + "/toplink"; // to outside_
    std::map<std::string, struct stat> outsideBefore_;
};

// The rows run in order on one tree, the removals last.
TEST_F(FileTreeTest, WalkersChangeEveryEntryButNeverFollowALink)
{
    const auto modes = [](mode_t dir_mode, mode_t file_mode) {
        return [=](const std::string &p, const struct stat &st) {
            if (S_ISDIR(st.st_mode) || (S_ISREG(st.st_mode) && file_mode != FILE_TREE_KEEP_MODE)) {
                EXPECT_EQ(st.st_mode & 07777, S_ISDIR(st.st_mode) ? dir_mode : file_mode) << p;
            }
        };
    };
    const auto owned = [](const std::string &p, const struct stat &st) {
        EXPECT_TRUE(st.st_uid == 1234u && st.st_gid == 5678u) << p << " not chowned";
    };
    const struct {
        const char *fault;
        bool needs_root;
        std::string top;
        std::function<int(const char *)> walk;
        std::function<void()> check;
    } steps[] = {
        {"chmod_tree changed a kept mode", false, tree_,
         [](const char *p) { return chmod_tree(p, 0700, FILE_TREE_KEEP_MODE); },
         [&] {
             forEachEntry(modes(0700, FILE_TREE_KEEP_MODE));
             EXPECT_EQ(attrs(tree_ + "/Maildir/cur/1.msg").st_mode & 07777, 0644u);
         }},
        {"chmod_tree missed an entry", false, tree_, chmodTree, [&] { forEachEntry(modes(0700, 0600)); }},
        {"chown_tree missed an entry", true, tree_, chownTree, [&] { forEachEntry(owned); }},
        {"chmod_tree followed a link given as the top", false, top_link_, chmodTree, [] {}},
        {"chown_tree missed a link given as the top", true, top_link_, chownTree,
         [&] { owned(top_link_, attrs(top_link_)); }},
        {"rm_tree left a link given as the top", false, top_link_, rm_tree,
         [&] { EXPECT_FALSE(exists(top_link_)); }},
        {"rm_tree left the tree given with trailing slashes", false, tree_ + "//", rm_tree,
         [&] { EXPECT_FALSE(exists(tree_)); }},
    };
    for (const auto &c : steps) {
        if (c.needs_root && geteuid() != 0)
            continue; // giving files away needs root
        SCOPED_TRACE(c.fault);
        EXPECT_EQ(c.walk(c.top.c_str()), 0);
        c.check();
        expectOutsideUntouched();
    }
}

TEST_F(FileTreeTest, MissingPathsAndDotNamesGiveTheirResult)
{
    const std::string missing = tree_ + "/absent";
    const auto report = [](const std::string &what, int code) {
        return what + ": " + std::strerror(code) + "\nSystem error " + std::to_string(code) + ": " + std::strerror(code) + "\n";
    };
    const auto refused = [&](const std::string &path) {
        return report("rm_tree: Unable to remove " + path, EINVAL);
    };
    const struct {
        const char *fault;
        std::function<int(const char *)> walk;
        std::string path;
        int want_errno; // 0: success
        std::string want_out;
    } cases[] = {
        {"rm_tree fails on a missing path or parent", rm_tree, dir_ + "/no/such/parent", 0, ""},
        {"chown_tree accepts a missing path", chownTree, missing, ENOENT,
         report("chown_tree: Unable to stat " + missing, ENOENT)},
        {"chmod_tree accepts a missing path", chmodTree, missing, ENOENT,
         report("chmod_tree: Unable to stat " + missing, ENOENT)},
        {"dot dot walked", rm_tree, tree_ + "/Maildir/..", EINVAL, refused(tree_ + "/Maildir/..")},
        {"dot walked", rm_tree, tree_ + "/.", EINVAL, refused(tree_ + "/.")},
        {"dot dot with a slash walked", rm_tree, tree_ + "/Maildir/../", EINVAL,
         refused(tree_ + "/Maildir/..")},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            const int rc = c.walk(c.path.c_str());
            return rc == 0 ? 0 : rc == -1 && errno > 0 ? errno : 255;
        });
        EXPECT_EQ(r.status, c.want_errno) << c.fault << " " << r;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
        EXPECT_TRUE(exists(tree_ + "/Maildir/cur/1.msg")) << c.fault;
    }
}

TEST_F(FileTreeTest, FailureDeepInsideStopsAndNamesTheEntry)
{
    const auto r = testsupport::runInChild([&] {
        // Room for a few levels only, so the walk fails partway down.
        const rlim_t room = static_cast<rlim_t>(std::distance(fs::directory_iterator("/proc/self/fd"),
                                                              fs::directory_iterator()) + 6);
        const struct rlimit limit = {room, room};
        setrlimit(RLIMIT_NOFILE, &limit);
        return chmodTree(tree_.c_str()) == -1 && errno == EMFILE ? 0 : 1;
    });
    // One report naming an entry inside: the walk stopped at the failure.
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out.rfind("chmod_tree: Unable to ", 0), 0u) << r.out;
    EXPECT_NE(r.out.find(" " + tree_ + "/"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(": Too many open files\nSystem error 24"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("chmod_tree", 1), std::string::npos) << r.out;
}

} // namespace
