#include "utils/file_tree.h"

#include "test_common.h"

namespace fs = std::filesystem;

namespace {

std::string attrs(const std::string &path)
{
    struct stat st = {};
    char text[64];
    lstat(path.c_str(), &st);
    snprintf(text, sizeof text, "%u:%u %o", st.st_uid, st.st_gid, st.st_mode & 07777);
    return text;
}

} // namespace

// A mailbox-like tree whose links point outside it, at things a root-owned
// walk must never change.
TEST(FileTree, WalkersChangeEveryEntryButNeverFollowALinkAndRefuseDotNames)
{
    const testsupport::TempDir temp("file_tree");
    const std::string outside = temp.path() + "/outside", tree = temp.path() + "/home", topLink = temp.path() + "/toplink";
    fs::create_directories(outside + "/sub");
    testsupport::spit(outside + "/secret", "secret");
    std::string deep = tree + "/Maildir/cur";
    for (int i = 0; i < 30; ++i)
        deep += "/d";
    fs::create_directories(deep);
    testsupport::spit(deep + "/1.msg", "one");
    symlink("../outside", (tree + "/dirlink").c_str());
    symlink((outside + "/secret").c_str(), (tree + "/Maildir/filelink").c_str());
    symlink(outside.c_str(), topLink.c_str());
    const std::string outsideBefore = attrs(outside) + attrs(outside + "/sub") + attrs(outside + "/secret");
    const auto each = [&](const char *fault, const std::function<bool(const struct stat &)> &ok) {
        for (fs::recursive_directory_iterator it(tree), end; it != end; ++it) {
            struct stat st;
            lstat(it->path().c_str(), &st);
            EXPECT_TRUE(S_ISLNK(st.st_mode) || ok(st)) << fault << ": " << it->path() << " is " << attrs(it->path());
        }
    };
    EXPECT_EQ(chmod_tree(tree.c_str(), 0700, 0600), 0);
    each("mode not set", [](const struct stat &st) { return (st.st_mode & 07777) == (S_ISDIR(st.st_mode) ? 0700u : 0600u); });
    if (geteuid() == 0) { // giving files away needs root
        EXPECT_EQ(chown_tree(tree.c_str(), 1234, 5678), 0);
        each("owner not set", [](const struct stat &st) { return st.st_uid == 1234u && st.st_gid == 5678u; });
    }
    EXPECT_EQ(chmod_tree(topLink.c_str(), 0700, 0600), 0) << "a link given as the top";
    EXPECT_EQ(rm_tree(topLink.c_str()), 0);
    EXPECT_FALSE(exists(topLink)) << "rm_tree left a link given as the top";
    EXPECT_EQ(rm_tree((tree + "//").c_str()), 0);
    EXPECT_FALSE(exists(tree)) << "rm_tree left the tree given with trailing slashes";
    EXPECT_EQ(attrs(outside) + attrs(outside + "/sub") + attrs(outside + "/secret"), outsideBefore) << "a link was followed";
    const std::string dir = temp.path(), missing = dir + "/absent";
    fs::create_directories(dir + "/Maildir/cur");
    const auto report = [](const std::string &what, int code) {
        return what + ": " + std::strerror(code) + "\nSystem error " + std::to_string(code) + ": " + std::strerror(code) + "\n";
    };
    // want_errno: 0: success
    const struct { const char *fault; std::function<int(const char *)> walk; std::string path; int want_errno;
                     std::string want_out; } cases[] = {
        {"rm_tree fails on a missing path or parent", rm_tree, dir + "/no/such/parent", 0, ""},
        {"chmod_tree accepts a missing path", [](const char *p) { return chmod_tree(p, 0700, 0600); }, missing, ENOENT,
         report("chmod_tree: Unable to stat " + missing, ENOENT)},
        {"dot dot walked", rm_tree, dir + "/Maildir/..", EINVAL, report("rm_tree: Unable to remove " + dir + "/Maildir/..", EINVAL)},
        {"dot walked", rm_tree, dir + "/.", EINVAL, report("rm_tree: Unable to remove " + dir + "/.", EINVAL)},
        {"dot dot with a slash walked", rm_tree, dir + "/Maildir/../", EINVAL,
         report("rm_tree: Unable to remove " + dir + "/Maildir/..", EINVAL)},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            const int rc = c.walk(c.path.c_str());
            return rc == 0 ? 0 : rc == -1 && errno > 0 ? errno : 255;
        });
        EXPECT_EQ(r.status, c.want_errno) << c.fault << " " << r;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
        EXPECT_TRUE(exists(dir + "/Maildir/cur")) << c.fault;
    }
}
