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
using testsupport::runInChild;
using testsupport::slurp;
using testsupport::spit;

namespace {

using Files = std::vector<std::pair<std::string, size_t>>;

std::string usageLine(long long bytes, unsigned long long count)
{
    char line[64];
    std::snprintf(line, sizeof line, "%12lld%12llu\n", bytes, count);
    return line;
}

std::string cwd()
{
    char buf[4096];
    return getcwd(buf, sizeof buf) != nullptr ? buf : "";
}

struct stat attrs(const std::string &path)
{
    struct stat st = {};
    lstat(path.c_str(), &st);
    return st;
}

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

// Runs the write in a child with the 2-second pauses only counted and
// during() run between the count and the check for deliveries made in it.
testsupport::ChildResult writeInChild(const std::string &maildir, std::function<void()> during)
{
    static unsigned paused;
    static std::function<void()> hook;
    return runInChild([&] {
        hook = during;
        const maildirpp_test_hooks hooks = {[](unsigned s) { paused += s; }, [] { hook(); }};
        maildirpp_set_test_hooks_for_testing(&hooks);
        const std::string before = cwd();
        errno = 4242;
        const int rc = write_maildirpp_maildirsize(maildir.c_str(), getuid(), getgid(), 1, 0);
        std::fprintf(stderr, "rc=%d errno=%d paused=%u", rc, errno, paused);
        return cwd() == before ? 0 : 1;
    });
}

} // namespace

TEST(MaildirppUsage, CountOrTrustedFile)
{
    const Files msg1000 = {{"cur/1.host,S=1000:2,S", 1}};
    const std::string quota = "5000S,0C\n";
    const struct {
        const char *fault;
        Files files;
        std::string content; // of "maildirsize"; "": no file
        long long want_bytes;
        unsigned long long want_count;
    } cases[] = {
        {"size in the name ignored", {{"cur/1234.M1P2.host,S=4711:2,S", 10}}, "", 4711, 1},
        {"size at the very end of the name ignored", {{"new/1.host,S=77", 10}}, "", 77, 1},
        {"size not ending at a colon trusted", {{"cur/1.host,S=99,W=120:2,", 10}}, "", 10, 1},
        {"later size after an overflowing one missed",
         {{"cur/1.host,S=99999999999999999999,S=5", 10}}, "", 5, 1},
        {"Trash counted", {{"cur/a", 5}, {".Trash/new/c", 100}}, "", 5, 1},
        {"Spam not counted", {{"new/a", 5}, {".Spam/new/b,S=100", 1}, {".Spam/cur/c", 7}}, "", 112, 3},
        {"tmp or stray entries counted", {{"tmp/a", 50}, {".stray", 3}, {"cur/c", 1}}, "", 1, 1},
        {"usage lines not summed", msg1000, quota + usageLine(300, 3) + "-100 1\n+7\t2\n", 207, 6},
        {"file without a line feed trusted", msg1000, "5000S,0C", 1000, 1},
        {"trailing text on a line accepted", msg1000, quota + "300 3x\n", 1000, 1},
        {"overflowing sum accepted", msg1000, quota + "9223372036854775807 1\n1 1\n", 1000, 1},
        {"file over 5120 bytes trusted", msg1000, quota + std::string(5120, ' ') + "0 0\n", 1000, 1},
    };
    for (const auto &c : cases) {
        Maildir md(c.files);
        if (!c.content.empty())
            spit(md.path + "/maildirsize", c.content);
        long long bytes = -1;
        unsigned long long count = 0;
        EXPECT_EQ(get_maildirpp_usage(md.path.c_str(), &bytes, &count), 1) << c.fault;
        EXPECT_EQ(bytes, c.want_bytes) << c.fault;
        EXPECT_EQ(count, c.want_count) << c.fault;
    }
}

TEST(MaildirppWrite, FailuresKeepTheOldFileAndDeliveriesMakeItStale)
{
    const std::string exceeded = "Maximal allowed number of attempts to create a maildirsize file "
                                 "exceeded\nSystem error 11: Resource temporarily unavailable\n";
    const struct {
        const char *fault;
        std::function<void(const std::string &md)> setup;
        std::function<void()> during;
        std::string want_err;
        std::string want_out;
        long long want_age; // of the new file's time from the newest counted folder; -1: kept old
    } cases[] = {
        {"missing tmp: attempts not limited", [](const std::string &md) { fs::remove(md + "/tmp"); },
         [] {}, "rc=0 errno=11 paused=10", exceeded, -1},
        {"linked tmp written through",
         [](const std::string &md) {
             fs::remove(md + "/tmp");
             fs::create_directory_symlink("new", md + "/tmp");
         },
         [] {}, "rc=0 errno=11 paused=10", exceeded, -1},
        {"linked Maildir written through",
         [](const std::string &md) {
             fs::rename(md, md + ".real");
             fs::create_directory_symlink(md + ".real", md);
         },
         [] {}, "rc=0 errno=20 paused=0", "", -1},
        {"count through a linked cur not refused",
         [](const std::string &md) {
             fs::rename(md + "/cur", md + "/cur.real");
             fs::create_directory_symlink("cur.real", md + "/cur");
         },
         [] {}, "rc=0 errno=20 paused=0", "", -1},
        {"quiet count made stale", [](const std::string &) {}, [] {}, "rc=1 errno=4242 paused=0", "",
         0},
        {"delivery into a folder missed", [](const std::string &) {},
         [] { utimensat(AT_FDCWD, ".Spam/cur", nullptr, 0); }, "rc=1 errno=4242 paused=0", "", 960},
        {"delivery into Trash taken for a counted one", [](const std::string &) {},
         [] { utimensat(AT_FDCWD, ".Trash/new", nullptr, 0); }, "rc=1 errno=4242 paused=0", "", 0},
        {"vanished new taken for unchanged", [](const std::string &) {}, [] { rmdir("new"); },
         "rc=1 errno=4242 paused=0",
         "Maildir subfolder 'new' stat failed\nSystem error 2: No such file or directory\n", 960},
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
        c.setup(md.path);
        const time_t started = time(nullptr);
        const auto r = writeInChild(md.path, c.during);
        EXPECT_EQ(r.status, 0) << c.fault << ": working directory not restored " << r;
        EXPECT_EQ(r.err, c.want_out + c.want_err) << c.fault;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
        const std::string content = slurp(md.path + "/maildirsize");
        const struct stat st = attrs(md.path + "/maildirsize");
        if (c.want_age < 0) {
            EXPECT_EQ(content, "old\n") << c.fault;
        } else {
            EXPECT_EQ(content, "1S,0C\n" + usageLine(LLONG_MAX, 1)) << c.fault;
            EXPECT_EQ(st.st_mode & 07777, 0644u) << c.fault;
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

// Mailboxes under a private mail-names root with rows in the panel database.
// Setting mailbox and domain quotas runs through the real binary in the
// system tests; here the corner values and the class face's errors.
class MaildirppQuotaSandboxed : public testing::Test {
protected:
    void SetUp() override
    {
        MAILTEND_REQUIRE_SANDBOX();
        spit(root_ + "/zrn.conf", "ZARNET_MAILNAMES_D " + root_ + "\n");
        zrn_conf_set_path_for_testing((root_ + "/zrn.conf").c_str());
        TearDown();
        db_ << "INSERT INTO Limits (id, limit_name, value) VALUES (970412, 'mbox_quota', 12345)"
            << zarnet::mysql::Query::exec;
        db_ << "INSERT INTO domains (name, limits_id) VALUES ('quota-a.example', 970412)"
            << zarnet::mysql::Query::exec;
        for (const char *domain : {"quota-a.example", "quota-c.example"})
            zarnet::mail::MaildirPPManager::getInstance().createMailnameHome(domain, "info");
    }
    void TearDown() override
    {
        if (std::getenv("MAILTEND_IN_SANDBOX") == nullptr)
            return;
        db_ << "DELETE FROM domains WHERE name='quota-a.example'" << zarnet::mysql::Query::exec;
        db_ << "DELETE FROM Limits WHERE id=970412" << zarnet::mysql::Query::exec;
    }

    const testsupport::TempDir temp_{"quota-root"};
    const std::string root_ = temp_.path();
    zarnet::mysql::Connection db_;
};

TEST_F(MaildirppQuotaSandboxed, CornerQuotasAndClassFaceErrors)
{
    auto &manager = zarnet::mail::MaildirPPManager::getInstance();
    const std::string home = root_ + "/quota-a.example/info", att = home + "/@attachments";
    const long long attSize = attrs(att).st_size;
    const std::string warning = "WARNING: @attachments directory is big enough to disable delivery!\n";
    const struct {
        const char *fault;
        std::function<void()> call;
        std::string want; // quota line, or "!" and the error thrown: what() up to the path
        std::string want_out;
    } cases[] = {
        {"zero quota taken for no limit", [] { store_mbox_quota("quota-a.example", "info", 0); },
         "1S,0C", warning},
        {"used-up quota not kept at one byte",
         [&] { manager.setMailboxQuota("quota-a.example", "info", attSize); }, "1S,0C", ""},
        {"oversized attachments not warned or not unlimited",
         [&] { manager.setMailboxQuota("quota-a.example", "info", attSize - 1); }, "0S,0C", warning},
        {"domain limit not read", [] { rm_mbox_quota("quota-a.example", "info"); },
         std::to_string(12345 - attSize) + "S,0C", ""},
        {"unknown domain accepted", [&] { manager.removeMailboxQuota("quota-c.example", "info"); },
         "!unable to remove quota", "No such domain quota-c.example\n"},
        {"missing home not refused", [&] { manager.setMailboxQuota("quota-c.example", "x", 1); },
         "!chdir", ""},
    };
    for (const auto &c : cases) {
        spit(home + "/Maildir/maildirsize", "old\n");
        const auto r = runInChild([&] {
            try {
                c.call();
            } catch (const boost::filesystem::filesystem_error &e) {
                std::fprintf(stderr, "!%s", e.what());
            }
            return 0;
        });
        EXPECT_EQ(r.out, c.want_out) << c.fault << " " << r;
        if (c.want[0] == '!') {
            EXPECT_EQ(r.err.substr(0, c.want.size() + 1), c.want + ":") << c.fault;
            continue;
        }
        EXPECT_EQ(slurp(home + "/Maildir/maildirsize"), c.want + "\n" + usageLine(0, 0)) << c.fault;
        EXPECT_EQ(attrs(home + "/Maildir/maildirsize").st_uid, 30110u) << c.fault;
    }
}
