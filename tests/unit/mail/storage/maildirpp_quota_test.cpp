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
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using testsupport::exists;
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

void setMtime(const std::string &path, time_t when)
{
    const struct timespec times[2] = {{when, 0}, {when, 0}};
    utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

struct stat attrs(const std::string &path)
{
    struct stat st = {};
    lstat(path.c_str(), &st);
    return st;
}

// A Maildir with the folders ".Spam" and ".Trash" under a scratch directory.
class Maildir {
public:
    Maildir()
    {
        for (const char *d : {"tmp", "new", "cur", ".Spam/tmp", ".Spam/new", ".Spam/cur",
                              ".Trash/tmp", ".Trash/new", ".Trash/cur"})
            fs::create_directories(path + "/" + d);
    }
    void put(const std::string &relative, size_t size) const
    {
        spit(path + "/" + relative, std::string(size, 'x'));
    }
    std::vector<std::string> tmpEntries() const
    {
        std::vector<std::string> names;
        for (const auto &e : fs::directory_iterator(path + "/tmp"))
            names.push_back(e.path().filename().string());
        return names;
    }

    const testsupport::TempDir temp{"maildirpp"};
    const std::string path = temp.path() + "/Maildir";
};

unsigned pausedSeconds = 0;
void countPause(unsigned seconds)
{
    pausedSeconds += seconds;
}

std::function<void()> afterCount;
void runAfterCount()
{
    afterCount();
}

class HooksReset {
public:
    ~HooksReset() { maildirpp_set_test_hooks_for_testing(nullptr); }
};

} // namespace

TEST(MaildirppUsage, CountOrTrustedFile)
{
    const Files msg1000 = {{"cur/1.host,S=1000:2,S", 1}};
    const std::string quota = "5000S,0C\n";
    // A valid line that fills the file up to exactly 5120 bytes.
    const std::string fill = std::string(5120 - quota.size() - 4, ' ') + "0 0";
    const struct {
        const char *fault;
        Files files;
        std::string content; // of "maildirsize"; "": no file
        long long want_bytes;
        unsigned long long want_count;
    } cases[] = {
        {"size in the name ignored", {{"cur/1234.M1P2.host,S=4711:2,S", 10}}, "", 4711, 1},
        {"real size ignored without a size in the name", {{"new/1234.M1P2.host", 10}}, "", 10, 1},
        {"size at the very end of the name ignored", {{"new/1.host,S=77", 10}}, "", 77, 1},
        {"size not ending at a colon trusted", {{"cur/1.host,S=99,W=120:2,", 10}}, "", 10, 1},
        {"overflowing size trusted", {{"cur/1.host,S=99999999999999999999:2,", 10}}, "", 10, 1},
        {"later size after an overflowing one missed",
         {{"cur/1.host,S=99999999999999999999,S=5", 10}}, "", 5, 1},
        {"empty size taken for zero", {{"cur/1.host,S=:2,", 10}}, "", 10, 1},
        {"Trash counted", {{"cur/a", 5}, {".Trash/cur/b", 100}, {".Trash/new/c", 100}}, "", 5, 1},
        {"Spam not counted", {{"new/a", 5}, {".Spam/new/b,S=100", 1}, {".Spam/cur/c", 7}}, "", 112, 3},
        {"tmp or other folder entries counted", {{"tmp/a", 50}, {".Spam/tmp/b", 50}, {"cur/c", 1}}, "", 1, 1},
        {"stray file beside the folders breaks the count", {{".stray", 3}, {"cur/c", 1}}, "", 1, 1},
        {"usage lines not summed", msg1000, quota + usageLine(300, 3) + "-100 1\n+7\t2\n", 207, 6},
        {"file with the quota line only distrusted", msg1000, quota, 0, 0},
        {"missing file not counted", msg1000, "", 1000, 1},
        {"file without a line feed trusted", msg1000, "5000S,0C", 1000, 1},
        {"trailing text on a line accepted", msg1000, quota + "300 3x\n", 1000, 1},
        {"empty line accepted", msg1000, quota + "300 3\n\n", 1000, 1},
        {"single number accepted", msg1000, quota + "300\n", 1000, 1},
        {"negative message count accepted", msg1000, quota + "300 -1\n", 1000, 1},
        {"overflowing byte count accepted", msg1000, quota + "9223372036854775808 1\n", 1000, 1},
        {"overflowing sum accepted", msg1000, quota + "9223372036854775807 1\n1 1\n", 1000, 1},
        {"lowest byte count refused", msg1000, quota + "-9223372036854775808 1\n", LLONG_MIN, 1},
        {"file of exactly 5120 bytes refused", msg1000, quota + fill + "\n", 0, 0},
        {"file over 5120 bytes trusted", msg1000, quota + " " + fill + "\n", 1000, 1},
    };
    for (const auto &c : cases) {
        Maildir md;
        for (const auto &[name, size] : c.files)
            md.put(name, size);
        if (!c.content.empty())
            spit(md.path + "/maildirsize", c.content);
        long long bytes = -1;
        unsigned long long count = 0;
        EXPECT_EQ(get_maildirpp_usage(md.path.c_str(), &bytes, &count), 1) << c.fault;
        EXPECT_EQ(bytes, c.want_bytes) << c.fault;
        EXPECT_EQ(count, c.want_count) << c.fault;
    }
}

TEST(MaildirppWrite, FileHoldsExactLinesOwnerAndMode)
{
    // Root can give the file away, as it does to popuser in production.
    const uid_t uid = geteuid() == 0 ? 1234 : geteuid();
    const gid_t gid = geteuid() == 0 ? 5678 : getegid();
    const struct {
        const char *fault;
        long long quota;
        unsigned long long count_quota;
        Files files;
        std::string want;
    } cases[] = {
        {"quota line misformatted", 1048576, 0, {{"cur/1.h,S=4711:2,S", 1}, {"new/2.h", 20}},
         "1048576S,0C\n" + usageLine(4731, 2)},
        {"message-count quota dropped", 5000, 7, {}, "5000S,7C\n" + usageLine(0, 0)},
        {"extreme values cut", LLONG_MAX, ULLONG_MAX, {{"cur/1.h,S=9223372036854775807", 1}},
         "9223372036854775807S,18446744073709551615C\n" + usageLine(LLONG_MAX, 1)},
    };
    for (const auto &c : cases) {
        Maildir md;
        for (const auto &[name, size] : c.files)
            md.put(name, size);
        spit(md.path + "/maildirsize", "old\n");
        const std::string before = cwd();
        const mode_t oldMask = umask(077);
        errno = 4242;
        const int rc = write_maildirpp_maildirsize(md.path.c_str(), uid, gid, c.quota, c.count_quota);
        const int after = errno;
        umask(oldMask);
        EXPECT_EQ(rc, 1) << c.fault;
        EXPECT_EQ(after, 4242) << c.fault << ": errno not kept on success";
        EXPECT_EQ(cwd(), before) << c.fault << ": working directory not restored";
        EXPECT_EQ(slurp(md.path + "/maildirsize"), c.want) << c.fault;
        const struct stat st = attrs(md.path + "/maildirsize");
        EXPECT_EQ(st.st_mode & 07777, 0644u) << c.fault << ": umask took readers' access";
        EXPECT_EQ(st.st_uid, uid) << c.fault;
        EXPECT_EQ(st.st_gid, gid) << c.fault;
        EXPECT_TRUE(md.tmpEntries().empty()) << c.fault << ": temporary file left";
    }
}

TEST(MaildirppWrite, FailuresKeepOldFileAndLeaveNothingBehind)
{
    char host[65] = "";
    gethostname(host, sizeof host);
    const struct {
        const char *fault;
        std::function<void(const Maildir &)> setup;
        std::string maildir_suffix;
        int want_errno;
        unsigned want_paused;
        std::string want_out;
    } cases[] = {
        {"missing Maildir not refused", [](const Maildir &) {}, "/absent", ENOENT, 0, ""},
        {"no temporary directory: attempts not limited",
         [](const Maildir &md) { fs::remove(md.path + "/tmp"); }, "", EAGAIN, 10,
         "Maximal allowed number of attempts to create a maildirsize file exceeded\n"
         "System error 11: Resource temporarily unavailable\n"},
        {"temporary name in use overwritten",
         [&](const Maildir &md) {
             // This second's and the next one's names, as the writer forms them.
             for (time_t t = time(nullptr); t <= time(nullptr) + 1; ++t)
                 spit(md.path + "/tmp/" + std::to_string(t) + "." + std::to_string(getpid()) +
                          "." + host + "-maildirsize",
                      "foreign");
         },
         "", EAGAIN, 10,
         "Maximal allowed number of attempts to create a maildirsize file exceeded\n"
         "System error 11: Resource temporarily unavailable\n"},
        {"linked Maildir written through",
         [](const Maildir &md) {
             fs::rename(md.path, md.path + ".real");
             fs::create_directory_symlink(md.path + ".real", md.path);
         },
         "", ENOTDIR, 0, ""},
        {"linked tmp written through",
         [](const Maildir &md) {
             fs::remove(md.path + "/tmp");
             fs::create_directory(md.temp.path() + "/elsewhere");
             fs::create_directory_symlink(md.temp.path() + "/elsewhere", md.path + "/tmp");
         },
         "", EAGAIN, 10,
         "Maximal allowed number of attempts to create a maildirsize file exceeded\n"
         "System error 11: Resource temporarily unavailable\n"},
        {"count through a linked cur not refused",
         [](const Maildir &md) {
             fs::rename(md.path + "/cur", md.path + "/cur.real");
             fs::create_directory_symlink("cur.real", md.path + "/cur");
         },
         "", ENOTDIR, 0, ""},
    };
    for (const auto &c : cases) {
        Maildir md;
        spit(md.path + "/maildirsize", "old\n");
        const std::string maildir = md.path + c.maildir_suffix;
        const auto r = runInChild([&] {
            c.setup(md);
            HooksReset reset;
            const maildirpp_test_hooks hooks = {countPause, nullptr};
            maildirpp_set_test_hooks_for_testing(&hooks);
            const std::string before = cwd();
            const int rc = write_maildirpp_maildirsize(maildir.c_str(), getuid(), getgid(), 1, 0);
            if (rc != 0)
                return 101;
            if (errno != c.want_errno)
                return 102;
            if (cwd() != before)
                return 103;
            return static_cast<int>(pausedSeconds);
        });
        EXPECT_EQ(r.status, static_cast<int>(c.want_paused)) << c.fault << " " << r;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
        EXPECT_EQ(slurp(md.path + "/maildirsize"), "old\n") << c.fault;
        if (exists(md.path + "/tmp")) {
            for (const auto &name : md.tmpEntries())
                EXPECT_EQ(slurp(md.path + "/tmp/" + name), "foreign") << c.fault << ": " << name;
        }
    }
}

TEST(MaildirppWrite, DeliveryDuringCountMakesFileStale)
{
    const time_t base = time(nullptr) - 5000;
    const time_t mark = base + 7; // "new" is the newest counted directory
    const struct {
        const char *fault;
        std::function<void()> during;
        bool want_backdated;
        std::string want_out;
    } cases[] = {
        {"quiet count made stale", [] {}, false, ""},
        {"delivery into new missed", [] { utimensat(AT_FDCWD, "new", nullptr, 0); }, true, ""},
        {"delivery into a folder missed", [] { utimensat(AT_FDCWD, ".Spam/cur", nullptr, 0); },
         true, ""},
        {"delivery into Trash taken for a counted one",
         [] { utimensat(AT_FDCWD, ".Trash/new", nullptr, 0); }, false, ""},
        {"vanished new taken for unchanged", [] { rmdir("new"); }, true,
         "Maildir subfolder 'new' stat failed\nSystem error 2: No such file or directory\n"},
        {"vanished folder cur taken for unchanged", [] { rmdir(".Spam/cur"); }, true,
         "Maildir subfolder 'cur' stat failed\nSystem error 2: No such file or directory\n"},
        {"stray entry not reported", [] { spit(".stray", "x"); }, false,
         "Bad/unrecognized entry .stray within Maildir folder {md}\n"},
    };
    for (const auto &c : cases) {
        Maildir md;
        for (const char *d : {"", "/tmp", "/cur", "/.Spam", "/.Spam/new", "/.Spam/cur", "/.Trash",
                              "/.Trash/new", "/.Trash/cur"})
            setMtime(md.path + d, base);
        setMtime(md.path + "/new", mark);
        std::string wantOut = c.want_out;
        if (wantOut.find("{md}") != std::string::npos)
            wantOut.replace(wantOut.find("{md}"), 4, md.path);
        const time_t started = time(nullptr);
        const auto r = runInChild([&] {
            HooksReset reset;
            afterCount = c.during;
            const maildirpp_test_hooks hooks = {nullptr, runAfterCount};
            maildirpp_set_test_hooks_for_testing(&hooks);
            return write_maildirpp_maildirsize(md.path.c_str(), getuid(), getgid(), 1, 0);
        });
        EXPECT_EQ(r.status, 1) << c.fault << " " << r;
        EXPECT_EQ(r.out, wantOut) << c.fault;
        const struct stat st = attrs(md.path + "/maildirsize");
        if (c.want_backdated) {
            EXPECT_EQ(st.st_mtime, mark - 960) << c.fault;
        } else {
            EXPECT_GE(st.st_mtime, started) << c.fault;
        }
        EXPECT_GE(st.st_atime, started) << c.fault << ": access time not now";
    }
}

// Mailboxes under a private mail-names root, owned as the delivery agent
// needs, with rows in the panel database.
class MaildirppQuotaSandboxed : public testing::Test {
protected:
    void SetUp() override
    {
        MAILTEND_REQUIRE_SANDBOX();
        spit(conf_, "ZARNET_MAILNAMES_D " + root_ + "\n");
        zrn_conf_set_path_for_testing(conf_.c_str());
        cleanUp();
        db_ << "INSERT INTO Limits (id, limit_name, value) VALUES (" << limitsId
            << ", 'mbox_quota', 12345)" << zarnet::mysql::Query::exec;
        db_ << "INSERT INTO domains (name, limits_id) VALUES ('quota-a.example', " << limitsId
            << "), ('quota-b.example', NULL)" << zarnet::mysql::Query::exec;
        db_ << "INSERT INTO mail (dom_id, mail_name, mbox_quota) SELECT id, 'own', 5000 FROM "
               "domains WHERE name='quota-a.example'"
            << zarnet::mysql::Query::exec;
        db_ << "INSERT INTO mail (dom_id, mail_name, mbox_quota) SELECT id, 'plain', -1 FROM "
               "domains WHERE name='quota-a.example'"
            << zarnet::mysql::Query::exec;
        for (const char *home : {"quota-a.example/own", "quota-a.example/plain",
                                 "quota-b.example/info", "quota-c.example/info"}) {
            const std::string domain = std::string(home).substr(0, std::string(home).find('/'));
            const std::string name = std::string(home).substr(domain.size() + 1);
            manager().createMailnameHome(domain, name);
            // Its own size would otherwise come off every quota.
            fs::remove(root_ + "/" + home + "/@attachments");
        }
    }

    void TearDown() override
    {
        if (std::getenv("MAILTEND_IN_SANDBOX") == nullptr)
            return;
        cleanUp();
        zrn_conf_set_path_for_testing(nullptr);
    }

    void cleanUp()
    {
        db_ << "DELETE m FROM mail m JOIN domains d ON m.dom_id=d.id WHERE d.name LIKE "
               "'quota-_.example'"
            << zarnet::mysql::Query::exec;
        db_ << "DELETE FROM domains WHERE name LIKE 'quota-_.example'"
            << zarnet::mysql::Query::exec;
        db_ << "DELETE FROM Limits WHERE id=" << limitsId << zarnet::mysql::Query::exec;
    }

    static zarnet::mail::MaildirPPManager &manager()
    {
        return zarnet::mail::MaildirPPManager::getInstance();
    }

    std::string maildirsize(const std::string &home) const
    {
        return slurp(root_ + "/" + home + "/Maildir/maildirsize");
    }

    static constexpr const char *limitsId = "970412";
    const testsupport::TempDir temp_{"quota-root"};
    const std::string root_ = temp_.path();
    const std::string conf_ = temp_.path() + "/zrn.conf";
    zarnet::mysql::Connection db_;
};

TEST_F(MaildirppQuotaSandboxed, QuotaLineFollowsTheQuotaAndAttachments)
{
    enum Attachments { none, emptyDir, dirWith3000, file3000 };
    const std::string home = root_ + "/quota-b.example/info";
    const std::string att = home + "/@attachments";
    const std::string warning = "WARNING: @attachments directory is big enough to disable delivery!\n";
    const struct {
        const char *fault;
        bool class_face;
        long long quota;
        Attachments attachments;
        bool plus_attachments; // the quota is raised by the attachments' size
        std::string want_line; // "": the quota less the attachments' size
        std::string want_out;
    } cases[] = {
        {"no limit written as a limit", false, -1, none, false, "0S,0C\n", ""},
        {"zero quota taken for no limit", false, 0, none, false, "1S,0C\n", ""},
        {"attachments not subtracted", false, 100000, dirWith3000, false, "", ""},
        {"attachments file not subtracted", false, 100000, file3000, false, "", ""},
        {"empty attachments directory's own size not subtracted", false, 100000, emptyDir, false,
         "", ""},
        {"oversized attachments not warned", false, 1000, dirWith3000, false, "1S,0C\n", warning},
        {"class: no limit written as a limit", true, -5, dirWith3000, false, "0S,0C\n", ""},
        {"class: zero quota taken for no limit", true, 0, none, false, "1S,0C\n", ""},
        {"class: oversized attachments not warned or not unlimited", true, 1000, dirWith3000,
         false, "0S,0C\n", warning},
        {"class: used-up quota not kept at one byte", true, 0, dirWith3000, true, "1S,0C\n", ""},
        {"class: attachments not subtracted", true, 100000, dirWith3000, false, "", ""},
        {"class: attachments file subtracted", true, 100000, file3000, false, "100000S,0C\n", ""},
    };
    for (const auto &c : cases) {
        fs::remove_all(att);
        if (c.attachments == emptyDir || c.attachments == dirWith3000)
            fs::create_directory(att);
        if (c.attachments == dirWith3000)
            spit(att + "/a", std::string(3000, 'a'));
        if (c.attachments == file3000)
            spit(att, std::string(3000, 'a'));
        const long long size = c.attachments == none ? 0
                               : c.attachments == dirWith3000
                                   ? attrs(att).st_size + attrs(att + "/a").st_size
                                   : attrs(att).st_size;
        const long long quota = c.quota + (c.plus_attachments ? size : 0);
        const auto r = runInChild([&] {
            if (c.class_face)
                manager().setMailboxQuota("quota-b.example", "info", quota);
            else if (!store_mbox_quota("quota-b.example", "info", quota))
                return 1;
            return 0;
        });
        EXPECT_EQ(r.status, 0) << c.fault << " " << r;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
        const std::string wantLine =
            c.want_line.empty() ? std::to_string(quota - size) + "S,0C\n" : c.want_line;
        EXPECT_EQ(maildirsize("quota-b.example/info"), wantLine + usageLine(0, 0)) << c.fault;
        const struct stat st = attrs(home + "/Maildir/maildirsize");
        EXPECT_TRUE(st.st_uid == 30110 && st.st_gid == 30110)
            << c.fault << ": owner " << st.st_uid << ":" << st.st_gid << ", want popuser";
        EXPECT_EQ(st.st_mode & 07777, 0644u) << c.fault;
    }
}

TEST_F(MaildirppQuotaSandboxed, PanelQuotasReachTheRightMailboxes)
{
    const struct {
        const char *fault;
        std::function<int()> call;
        int want_rc;
        std::vector<std::pair<std::string, std::string>> want_lines; // home, quota line
        std::string want_out;
    } cases[] = {
        {"own quota overwritten by the domain default",
         [] { return store_default_mbox_quota("quota-a.example", 7000); }, 1,
         {{"quota-a.example/own", "5000S,0C\n"}, {"quota-a.example/plain", "7000S,0C\n"}}, ""},
        {"domain quota not the default's",
         [] { return store_domain_quota("quota-a.example", 8000); }, 1,
         {{"quota-a.example/own", "5000S,0C\n"}, {"quota-a.example/plain", "8000S,0C\n"}}, ""},
        {"removed default left a limit",
         [] { return rm_default_mbox_quota("quota-a.example"); }, 1,
         {{"quota-a.example/plain", "0S,0C\n"}}, ""},
        {"domain limit not read", [] { return rm_mbox_quota("quota-a.example", "own"); }, 1,
         {{"quota-a.example/own", "12345S,0C\n"}}, ""},
        {"missing domain limit not unlimited",
         [] { return rm_mbox_quota("quota-b.example", "info"); }, 1,
         {{"quota-b.example/info", "0S,0C\n"}}, ""},
        {"unknown domain accepted", [] { return rm_mbox_quota("quota-c.example", "info"); }, 0, {},
         "No such domain quota-c.example\n"},
    };
    spit(root_ + "/quota-a.example/own/Maildir/maildirsize", "5000S,0C\n");
    for (const auto &c : cases) {
        const auto r = runInChild([&] { return c.call(); });
        EXPECT_EQ(r.status, c.want_rc) << c.fault << " " << r;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
        for (const auto &[home, line] : c.want_lines) {
            const std::string content = maildirsize(home);
            EXPECT_EQ(content.substr(0, content.find('\n') + 1), line) << c.fault << " " << home;
        }
    }
}

TEST_F(MaildirppQuotaSandboxed, ClassFaceThrowsItsTextAndPath)
{
    const std::string infoC = root_ + "/quota-c.example/info";
    const struct {
        const char *fault;
        std::function<void()> call;
        std::string want_text;
        std::string want_path;
        std::string want_out;
    } cases[] = {
        {"missing home not refused",
         [] { manager().setMailboxQuota("quota-c.example", "absent", 1); }, "chdir",
         root_ + "/quota-c.example/absent", ""},
        {"Maildir without tmp accepted",
         [&] {
             fs::remove(infoC + "/Maildir/tmp");
             manager().setMailboxQuota("quota-c.example", "info", 1);
         },
         "create maildirsize", infoC,
         "Maximal allowed number of attempts to create a maildirsize file exceeded\n"
         "System error 11: Resource temporarily unavailable\n"},
        {"unknown domain accepted on removal",
         [] { manager().removeMailboxQuota("quota-c.example", "info"); }, "unable to remove quota",
         infoC, "No such domain quota-c.example\n"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] {
            HooksReset reset;
            const maildirpp_test_hooks hooks = {countPause, nullptr};
            maildirpp_set_test_hooks_for_testing(&hooks);
            try {
                c.call();
            } catch (const boost::filesystem::filesystem_error &e) {
                std::fprintf(stderr, "%s|%s|%d", e.path1().c_str(), std::string(e.what()).c_str(),
                             e.code().value());
                return e.path1().string() == c.want_path && e.code().value() == 0 &&
                               std::string(e.what()).compare(0, c.want_text.size() + 1,
                                                             c.want_text + ":") == 0
                           ? 0
                           : 2;
            }
            return 1;
        });
        EXPECT_EQ(r.status, 0) << c.fault << " " << r;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
    }
}
