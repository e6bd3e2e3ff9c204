#include "mail/storage/DotQMailManager.h"
#include "mail/storage/mailname_delivery.h"
#include "mail/storage/mailname_forward.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/sandboxed.h"
#include "support/temp_dir.h"
#include "support/thrown.h"
#include "utils/MKLock.h"
#include "utils/read_configuration.h"

#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace {

using zarnet::mail::DotQMailManager;
using testsupport::exists;
using testsupport::slurp;
using testsupport::spit;
using testsupport::thrown;

const std::string kDelivery = "| /usr/bin/deliverquota ./Maildir\n";
const std::string kEnoent = "\nSystem error 2: No such file or directory\n";

class DotQMail : public ::testing::Test {
protected:
    void SetUp() override
    {
        mk_lock_set_dir_for_testing((dir_ + "/locks").c_str());
        spit(conf_, "ZARNET_MAILNAMES_D " + root_ + "\n");
        zrn_conf_set_path_for_testing(conf_.c_str());
        mkdir(home_.c_str(), 0755);
    }
    void TearDown() override
    {
        zrn_conf_set_path_for_testing(nullptr);
        mk_lock_set_dir_for_testing(nullptr);
    }

    // Everything in the home: a temporary file left over shows up here.
    std::vector<std::string> homeEntries() const
    {
        std::vector<std::string> names;
        for (const auto &e : std::filesystem::directory_iterator(home_))
            names.push_back(e.path().filename());
        return names;
    }

    const testsupport::TempDir temp_{"dotqmail"};
    const std::string dir_ = temp_.path();
    const std::string conf_ = dir_ + "/zrn.conf";
    const std::string root_ = dir_ + "/mailnames";
    const std::string home_ = dir_ + "/home";
    const std::string path_ = home_ + "/.qmail";
};

class DotQMailSandboxed : public DotQMail {};

TEST_F(DotQMail, PathsAndTheirRefusals)
{
    typedef int (*PathFunction)(char *, size_t, const char *, const char *);
    const PathFunction qmail = get_dotqmail_path, home = get_mailhome_path;
    const std::string ok = root_ + "/example.com/info/.qmail";
    const std::string a64(64, 'a');
    const struct {
        const char *fault;
        PathFunction fn;
        std::string mailname, domain;
        size_t size;
        std::string want; // the path, or the report when it starts with "!"
    } cases[] = {
        {"parts_misplaced", qmail, "info", "example.com", 4096, ok},
        {"idn_domain_not_converted", qmail, "info", "b\xc3\xbc" "cher.example", 4096,
         root_ + "/xn--bcher-kva.example/info/.qmail"},
        {"domain_case_splits_homes", home, "info", "Example.COM", 4096, root_ + "/example.com/info"},
        {"dash_start_refused", qmail, "-x_", "example.com", 4096, root_ + "/example.com/-x_/.qmail"},
        {"dot_start_accepted", qmail, ".x", "example.com", 4096, "!empty mailname or maildomain\n"},
        {"empty_mailname_accepted", qmail, "", "example.com", 4096, "!empty mailname or maildomain\n"},
        {"empty_domain_accepted", home, "info", "", 4096, "!empty mailname or maildomain\n"},
        {"mailname_climbs_out", qmail, "a/../../etc", "example.com", 4096,
         "!Invalid mailname 'a/../../etc' or domain name 'example.com'\n"},
        {"domain_climbs_out", home, "info", "example.com/x", 4096,
         "!Invalid mailname 'info' or domain name 'example.com/x'\n"},
        {"bad_idn_unreported", qmail, "info", a64 + ".com", 4096,
         "!idn_toascii(" + a64 + ".com) failed: Invalid length\n"},
        {"exact_fit_refused", qmail, "info", "example.com", ok.size() + 1, ok},
        {"terminator_not_counted", qmail, "info", "example.com", ok.size(),
         "!Either domain name 'example.com' or mailname 'info' are too long to store .qmail path in the "
         "provided buffer\n"},
        {"home_message_wrong", home, "info", "example.com", 8,
         "!Either domain name 'example.com' or mailname 'info' are too long to store mailname home path "
         "in the provided buffer\n"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            std::vector<char> buf(c.size, 'z');
            const int rc = c.fn(buf.data(), buf.size(), c.mailname.c_str(), c.domain.c_str());
            if (rc == 0)
                std::fputs(buf.data(), stdout);
            return rc == 0 ? 0 : buf[0] == '\0' ? 1 : 2;
        });
        const bool fails = c.want[0] == '!';
        EXPECT_EQ(r.status, fails ? 1 : 0) << c.fault << " " << r;
        EXPECT_EQ(r.out, fails ? c.want.substr(1) : c.want) << c.fault;
    }
}

TEST_F(DotQMail, FailuresReportThrowWithThePathAndCreateNothing)
{
    const std::string none = dir_ + "/none/.qmail";
    const std::string cannotAdd = "Unable to open file " + path_ + ": No such file or directory\n" + kEnoent +
                                  "Unable to add string to " + path_ + " file." + kEnoent;
    const std::string missing = "SystemError: unable to modify " + path_ + " (2)\n";
    const std::string invalid = "SystemError: unable to modify " + path_ + " (22)\n";
    const struct {
        const char *fault;
        std::string path;
        std::function<void(DotQMailManager &)> op;
        std::string want;
    } cases[] = {
        {"disable_on_missing_file_passes", path_, [](DotQMailManager &m) { m.disableDelivery(); },
         "Unable to remove string from " + path_ + " file" + kEnoent + missing},
        {"enable_creates_file", path_, [](DotQMailManager &m) { m.enableDelivery(); }, cannotAdd + missing},
        {"forward_creates_file", path_, [](DotQMailManager &m) { m.addRedirect("a@b.c", m.MoveToTop); },
         cannotAdd + missing},
        {"forward_removal_passes", path_, [](DotQMailManager &m) { m.removeRedirect("a@b.c"); },
         "Unable to remove string from " + path_ + " file." + kEnoent + missing},
        {"address_without_domain_taken", path_,
         [](DotQMailManager &m) { m.addRedirect("nobody", m.MoveToTop); },
         "idn_email_toascii(nobody) failed: Unknown error\n" + invalid},
        {"line_break_injects_program", path_,
         [](DotQMailManager &m) { m.addRedirect("a@b.c\n| /bin/x", m.MoveToTop); },
         "Forwarding address a@b.c\n| /bin/x holds a control character\n" + invalid},
        {"nul_cuts_address_to_another", path_,
         [](DotQMailManager &m) { m.removeRedirect(std::string("a@b.c\0x", 7)); }, invalid},
        {"unknown_position_taken", path_,
         [](DotQMailManager &m) { m.addRedirect("a@b.c", DotQMailManager::Position(0)); }, invalid},
        {"reset_without_directory_passes", none, [](DotQMailManager &m) { m.reset(); },
         "Unable to open " + none + ": No such file or directory" + kEnoent +
             "SystemError: unable to modify " + none + " (2)\n"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            DotQMailManager manager(c.path);
            std::printf("%s\n", thrown([&] { c.op(manager); }).c_str());
            return 0;
        });
        EXPECT_EQ(r.out, c.want) << c.fault;
        EXPECT_FALSE(exists(c.path)) << c.fault;
        EXPECT_EQ(homeEntries(), std::vector<std::string>()) << c.fault;
    }
}

TEST_F(DotQMail, ResetWithoutPopuserKeepsTheOldFile)
{
    if (getpwnam("popuser") != nullptr)
        GTEST_SKIP() << "popuser exists here";
    spit(path_, "old\n");
    const auto r = testsupport::runInChild([&] { return dotqmail_reset(path_.c_str()) == -1 ? 0 : 1; });
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out, "user popuser not found\n");
    EXPECT_EQ(slurp(path_), "old\n");
    EXPECT_EQ(homeEntries(), std::vector<std::string>{".qmail"}) << "temporary file left";
}

// ---- inside the rig: root, and a popuser to give the file to ----

void expectOwnedByPopuser(const std::string &path, const std::string &fault)
{
    const passwd *pw = getpwnam("popuser");
    ASSERT_NE(pw, nullptr);
    struct stat st;
    ASSERT_EQ(lstat(path.c_str(), &st), 0) << fault;
    EXPECT_TRUE(S_ISREG(st.st_mode)) << fault;
    EXPECT_EQ(st.st_uid, pw->pw_uid) << fault;
    EXPECT_EQ(st.st_gid, pw->pw_gid) << fault;
    EXPECT_EQ(st.st_mode & 07777, 0600u) << fault;
}

TEST_F(DotQMailSandboxed, EditsGiveTheContentAndPopusersFile)
{
    MAILTEND_REQUIRE_SANDBOX();
    const std::string idn = "u@b\xc3\xbc" "cher.example";
    const struct {
        const char *fault;
        std::string before; // "-": no file
        std::function<void(DotQMailManager &)> op;
        std::string want;
    } cases[] = {
        {"reset_keeps_old_lines", "./Maildir/\n&a@b.c\n", [](DotQMailManager &m) { m.reset(); }, "| true\n"},
        {"reset_needs_a_file", "-", [](DotQMailManager &m) { m.reset(); }, "| true\n"},
        {"delivery_doubled", "| true\n",
         [](DotQMailManager &m) {
             m.enableDelivery();
             m.enableDelivery();
         },
         kDelivery + "| true\n"},
        {"plain_maildir_kept", "./Maildir/\n&a@b.c\n", [](DotQMailManager &m) { m.enableDelivery(); },
         kDelivery + "&a@b.c\n"},
        {"delivery_left_below", "&a@b.c\n" + kDelivery, [](DotQMailManager &m) { m.enableDelivery(); },
         kDelivery + "&a@b.c\n"},
        {"disable_leaves_a_delivery_line", kDelivery + "&a@b.c\n./Maildir/\n",
         [](DotQMailManager &m) { m.disableDelivery(); }, "&a@b.c\n"},
        {"forward_doubled_or_not_moved", "&a@b.c\n&x@y.z\n",
         [](DotQMailManager &m) { m.addRedirect("x@y.z", m.MoveToTop); }, "&x@y.z\n&a@b.c\n"},
        {"idn_forward_kept_in_utf8", "| true\n", [&](DotQMailManager &m) { m.addRedirect(idn, m.MoveToTop); },
         "&u@xn--bcher-kva.example\n| true\n"},
        {"forward_not_removed", "&a@b.c\n&x@y.z\n", [](DotQMailManager &m) { m.removeRedirect("x@y.z"); },
         "&a@b.c\n"},
        {"idn_forward_removal_misses", "&u@xn--bcher-kva.example\n| true\n",
         [&](DotQMailManager &m) { m.removeRedirect(idn); }, "| true\n"},
        {"forward_removed_by_prefix", "&x@y.zz\n", [](DotQMailManager &m) { m.removeRedirect("x@y.z"); },
         "&x@y.zz\n"},
    };
    for (const auto &c : cases) {
        unlink(path_.c_str());
        if (c.before != "-") {
            spit(path_, c.before);
            ASSERT_EQ(chown(path_.c_str(), 0, 0), 0);
            ASSERT_EQ(chmod(path_.c_str(), 0644), 0);
        }
        DotQMailManager manager(path_);
        EXPECT_EQ(thrown([&] { c.op(manager); }), "nothing") << c.fault;
        EXPECT_EQ(slurp(path_), c.want) << c.fault;
        expectOwnedByPopuser(path_, c.fault);
        EXPECT_EQ(homeEntries(), std::vector<std::string>{".qmail"}) << c.fault << ": temporary file left";
    }
}

TEST_F(DotQMailSandboxed, LinkedFileIsNeitherEditedNorGivenAway)
{
    MAILTEND_REQUIRE_SANDBOX();
    const std::string victim = dir_ + "/victim";
    spit(victim, "secret\n");
    ASSERT_EQ(chmod(victim.c_str(), 0644), 0);
    ASSERT_EQ(symlink(victim.c_str(), path_.c_str()), 0);
    const struct {
        const char *fault;
        std::function<void(DotQMailManager &)> op;
    } cases[] = {
        {"enable_follows_link", [](DotQMailManager &m) { m.enableDelivery(); }},
        {"disable_follows_link", [](DotQMailManager &m) { m.disableDelivery(); }},
        {"add_forward_follows_link", [](DotQMailManager &m) { m.addRedirect("a@b.c", m.MoveToTop); }},
        {"remove_forward_follows_link", [](DotQMailManager &m) { m.removeRedirect("a@b.c"); }},
    };
    DotQMailManager manager(path_);
    for (const auto &c : cases) {
        EXPECT_EQ(thrown([&] { c.op(manager); }), "SystemError: unable to modify " + path_ + " (40)")
            << c.fault;
        struct stat st;
        ASSERT_EQ(stat(victim.c_str(), &st), 0);
        EXPECT_EQ(st.st_uid, 0u) << c.fault;
        EXPECT_EQ(st.st_mode & 07777, 0644u) << c.fault;
        EXPECT_EQ(slurp(victim), "secret\n") << c.fault;
        EXPECT_EQ(lstat(path_.c_str(), &st), 0);
        EXPECT_TRUE(S_ISLNK(st.st_mode)) << c.fault << ": link replaced by a copy of what it points at";
    }
    // The reset replaces the link itself.
    EXPECT_EQ(thrown([&] { manager.reset(); }), "nothing");
    EXPECT_EQ(slurp(path_), "| true\n");
    expectOwnedByPopuser(path_, "reset");
    EXPECT_EQ(slurp(victim), "secret\n");
}

} // namespace
