#include "mail/storage/maildirpp_quota.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using testsupport::spit;

namespace {

using Files = std::vector<std::pair<std::string, size_t>>;

// A Maildir with the folders ".Spam" and ".Trash" under a scratch directory.
struct Maildir {
    explicit Maildir(const Files &files = {})
    {
        for (const char *d : {"tmp", "new", "cur", ".Spam/new", ".Spam/cur", ".Trash/new"})
            fs::create_directories(path + "/" + d);
        for (const auto &[name, size] : files)
            spit(path + "/" + name, std::string(size, 'x'));
    }
    const testsupport::TempDir temp{"maildirpp"};
    const std::string path = temp.path() + "/Maildir";
};

} // namespace

TEST(MaildirppUsage, CountOrTrustedFile)
{
    const Files msg1000 = {{"cur/1.host,S=1000:2,S", 1}};
    const std::string quota = "5000S,0C\n", fill = std::string(5120 - quota.size() - 4, ' ') + "0 0\n";
    struct Case {
        const char *fault;
        Files files;
        std::string content; // of "maildirsize"; "": no file
        std::string want; // "bytes count"
    };
    std::vector<Case> cases = {
        {"size in the name ignored", {{"cur/1234.M1P2.host,S=4711:2,S", 10}}, "", "4711 1"},
        {"size not ending at ':' or empty trusted", {{"cur/1,S=9,W=1:2", 10}, {"new/2,S=:2", 7}}, "", "17 2"},
        {"later size after an overflowing one missed",
         {{"cur/1.host,S=99999999999999999999,S=5", 10}}, "", "5 1"},
        {"Trash counted", {{"cur/a", 5}, {".Trash/new/c", 100}}, "", "5 1"},
        {"Spam not counted", {{"new/a", 5}, {".Spam/new/b,S=100", 1}, {".Spam/cur/c", 7}}, "", "112 3"},
        {"tmp or stray entries counted", {{"tmp/a", 50}, {".stray", 3}, {"cur/c", 1}}, "", "1 1"},
        {"usage lines not summed", msg1000, quota + "         300           3\n-100 1\n+7\t2\n", "207 6"},
        {"file with the quota line only distrusted", msg1000, quota, "0 0"},
        {"lowest byte count refused", msg1000, quota + "-9223372036854775808 1\n",
         "-9223372036854775808 1"},
        {"file without a line feed trusted", msg1000, "5000S,0C", "1000 1"},
        {"file of exactly 5120 bytes refused", msg1000, quota + fill, "0 0"},
    };
    const std::string distrusted[] = {"3 3x\n", "3 3\n\n", "3\n", "3 -1\n", "9223372036854775808 1\n",
                                      "9223372036854775807 1\n1 1\n", " " + fill};
    for (const std::string &lines : distrusted) // the one message is counted instead
        cases.push_back({"distrusted file trusted", msg1000, quota + lines, "1000 1"});
    for (const auto &c : cases) {
        Maildir md(c.files);
        if (!c.content.empty())
            spit(md.path + "/maildirsize", c.content);
        long long bytes = -1;
        unsigned long long count = 0;
        EXPECT_EQ(get_maildirpp_usage(md.path.c_str(), &bytes, &count), 1) << c.fault;
        EXPECT_EQ(std::to_string(bytes) + " " + std::to_string(count), c.want) << c.fault;
    }
}

TEST(MaildirppWrite, FailuresKeepTheOldFileAndDeliveriesMakeItStale)
{
    const std::string exceeded = "Maximal allowed number of attempts to create a maildirsize file "
                                 "exceeded\nSystem error 11: Resource temporarily unavailable\n"
                                 "rc=0 errno=11 paused=10",
                      notDir = "rc=0 errno=20 paused=0", ok = "rc=1 errno=4242 paused=0";
    const struct {
        const char *fault;
        std::string swap; // "X>T": X (below the scratch directory) made a link to T, or removed
        std::function<void()> during;
        std::string want; // what was printed
        long long want_age; // of the new file's time from the newest counted folder; -1: kept old
    } cases[] = {
        {"missing tmp: attempts not limited", "Maildir/tmp>", [] {}, exceeded, -1},
        {"linked tmp written through", "Maildir/tmp>new", [] {}, exceeded, -1},
        {"linked Maildir written through", "Maildir>Maildir.real", [] {}, notDir, -1},
        {"quiet count made stale", "", [] {}, ok, 0},
        {"delivery into a folder missed", "", [] { utimensat(AT_FDCWD, ".Spam/cur", nullptr, 0); },
         ok, 960},
        {"vanished new taken for unchanged", "", [] { rmdir("new"); },
         "Maildir subfolder 'new' stat failed\nSystem error 2: No such file or directory\n" + ok, 960},
    };
    const time_t mark = time(nullptr) - 5000;
    for (const auto &c : cases) {
        Maildir md({{"cur/1.h,S=9223372036854775807", 1}});
        spit(md.path + "/maildirsize", "old\n");
        for (const char *d : {"", "/tmp", "/new", "/cur", "/.Spam", "/.Spam/new", "/.Spam/cur",
                              "/.Trash", "/.Trash/new"}) {
            const struct timespec times[2] = {{mark, 0}, {mark, 0}};
            utimensat(AT_FDCWD, (md.path + d).c_str(), times, 0);
        }
        if (!c.swap.empty()) {
            const fs::path x = md.temp.path() + "/" + c.swap.substr(0, c.swap.find('>'));
            const std::string target = c.swap.substr(c.swap.find('>') + 1);
            if (target.empty() || fs::exists(x.parent_path() / target))
                fs::remove(x);
            else
                fs::rename(x, x.parent_path() / target);
            if (!target.empty())
                fs::create_directory_symlink(target, x);
        }
        const time_t started = time(nullptr);
        // The 2-second pauses are only counted; during() runs between the
        // count and the check for deliveries made in it.
        static unsigned paused;
        static std::function<void()> during;
        const auto r = testsupport::runInChild([&] {
            during = c.during;
            const maildirpp_test_hooks hooks = {[](unsigned s) { paused += s; }, [] { during(); }};
            maildirpp_set_test_hooks_for_testing(&hooks);
            const fs::path before = fs::current_path();
            errno = 4242;
            const int rc = write_maildirpp_maildirsize(md.path.c_str(), getuid(), getgid(), 1, 7);
            std::printf("rc=%d errno=%d paused=%u", rc, errno, paused);
            return fs::current_path() == before ? 0 : 1;
        });
        EXPECT_EQ(r.status, 0) << c.fault << ": working directory not restored " << r;
        EXPECT_EQ(r.out, c.want) << c.fault;
        const std::string content = testsupport::slurp(md.path + "/maildirsize");
        struct stat st = {};
        lstat((md.path + "/maildirsize").c_str(), &st);
        if (c.want_age < 0) {
            EXPECT_EQ(content, "old\n") << c.fault;
        } else {
            EXPECT_EQ(content, "1S,7C\n9223372036854775807           1\n") << c.fault;
            if (c.want_age > 0)
                EXPECT_EQ(st.st_mtime, mark - c.want_age) << c.fault;
            else
                EXPECT_GE(st.st_mtime, started) << c.fault;
        }
        for (const char *d : {"/new", "/tmp"})
            if (fs::is_directory(fs::symlink_status(md.path + d)))
                for (const auto &e : fs::directory_iterator(md.path + d))
                    ADD_FAILURE() << c.fault << ": left " << e.path();
    }
}
