#include "mail/storage/DotQMailManager.h"
#include "mail/storage/mailname_delivery.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/sandboxed.h"
#include "support/temp_dir.h"
#include "support/thrown.h"
#include "utils/MKLock.h"
#include "utils/read_configuration.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace {

using zarnet::mail::DotQMailManager;
using testsupport::slurp;
using testsupport::spit;
using testsupport::thrown;
using Op = std::function<void(DotQMailManager &)>;

const std::string kDelivery = "| /usr/bin/deliverquota ./Maildir\n";

// The usual edits and popuser's ownership run through the real binary in the
// system tests; here the paths, the failures and the owner's links.
class DotQMail : public ::testing::Test {
protected:
    void SetUp() override
    {
        mk_lock_set_dir_for_testing((dir_ + "/locks").c_str());
        spit(dir_ + "/zrn.conf", "ZARNET_MAILNAMES_D " + root_ + "\n");
        zrn_conf_set_path_for_testing((dir_ + "/zrn.conf").c_str());
        mkdir(home_.c_str(), 0755);
    }
    void TearDown() override
    {
        zrn_conf_set_path_for_testing(nullptr);
        mk_lock_set_dir_for_testing(nullptr);
    }
    // Runs op on the file in a child; what it printed and threw.
    std::string run(const Op &op) const
    {
        return testsupport::runInChild([&] {
                   DotQMailManager manager(path_);
                   std::printf("%s\n", thrown([&] { op(manager); }).c_str());
                   return 0;
               }).out;
    }

    const testsupport::TempDir temp_{"dotqmail"};
    const std::string dir_ = temp_.path();
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
    const struct {
        const char *fault;
        PathFunction fn;
        std::string mailname, domain;
        size_t size;
        std::string want; // the path, or the report and "!" for a failure that cleared the buffer
    } cases[] = {
        {"idn_domain_not_converted", qmail, "info", "B\xc3\xbc" "cher.example", 4096,
         root_ + "/xn--bcher-kva.example/info/.qmail"},
        {"domain_climbs_out", home, "info", "example.com/x", 4096,
         "Invalid mailname 'info' or domain name 'example.com/x'\n!"},
        {"dash_start_refused", home, "-x_", "example.com", 4096, root_ + "/example.com/-x_"},
        {"dot_start_accepted", qmail, ".x", "example.com", 4096, "empty mailname or maildomain\n!"},
        {"mailname_climbs_out", qmail, "a/../../etc", "example.com", 4096,
         "Invalid mailname 'a/../../etc' or domain name 'example.com'\n!"},
        {"exact_fit_refused", qmail, "info", "example.com", ok.size() + 1, ok},
        {"terminator_not_counted", qmail, "info", "example.com", ok.size(),
         "Either domain name 'example.com' or mailname 'info' are too long to store .qmail path in "
         "the provided buffer\n!"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            std::vector<char> buf(c.size, 'z');
            const int rc = c.fn(buf.data(), buf.size(), c.mailname.c_str(), c.domain.c_str());
            std::fputs(rc == 0 ? buf.data() : buf[0] == '\0' ? "!" : "?", stdout);
            return 0;
        });
        EXPECT_EQ(r.out, c.want) << c.fault;
    }
}

TEST_F(DotQMailSandboxed, EditsFailuresAndTheOwnersLinks)
{
    MAILTEND_REQUIRE_SANDBOX();
    const std::string error = "SystemError: unable to modify " + path_,
                      add = "Unable to add string to " + path_ + " file.",
                      remove = "Unable to remove string from " + path_ + " file",
                      link = "\nSystem error 40: Too many levels of symbolic links\n" + error + " (40)\n";
    const std::string victim = dir_ + "/victim";
    spit(victim, "secret\n");
    const struct {
        const char *fault;
        std::string before, want_out, want; // content before and after; "-": none, "@": a link
        Op op;
    } cases[] = {
        {"disable_on_missing_file_passes", "-", remove + "\nSystem error 2: No such file or directory\n" + error + " (2)\n", "-",
         [](DotQMailManager &m) { m.disableDelivery(); }},
        {"line_break_injects_program", "| true\n",
         "Forwarding address a@b.c\n| /bin/x holds a control character\n" + error + " (22)\n",
         "| true\n", [](DotQMailManager &m) { m.addRedirect("a@b.c\n| /bin/x", m.MoveToTop); }},
        {"nul_cuts_address_to_another", "&a@b.c\n", error + " (22)\n", "&a@b.c\n",
         [](DotQMailManager &m) { m.removeRedirect(std::string("a@b.c\0x", 7)); }},
        {"plain_maildir_kept", "./Maildir/\n&a@b.c\n" + kDelivery, "nothing\n", kDelivery + "&a@b.c\n",
         [](DotQMailManager &m) { m.enableDelivery(); }},
        {"disable_leaves_a_delivery_line", kDelivery + "&a@b.c\n./Maildir/\n", "nothing\n",
         "&a@b.c\n", [](DotQMailManager &m) { m.disableDelivery(); }},
        {"idn_forward_removal_misses", "&u@xn--bcher-kva.example\n&x@y.zz\n", "nothing\n",
         "&x@y.zz\n", [](DotQMailManager &m) { m.removeRedirect("u@b\xc3\xbc" "cher.example"); }},
        {"enable_follows_link", "@", add + link, "@", [](DotQMailManager &m) { m.enableDelivery(); }},
        {"disable_follows_link", "@", remove + link, "@",
         [](DotQMailManager &m) { m.disableDelivery(); }},
        {"add_forward_follows_link", "@", add + link, "@",
         [](DotQMailManager &m) { m.addRedirect("a@b.c", m.MoveToTop); }},
        {"reset_writes_through_link", "@", "nothing\n", "| true\n",
         [](DotQMailManager &m) { m.reset(); }},
    };
    for (const auto &c : cases) {
        unlink(path_.c_str());
        if (c.before == "@")
            ASSERT_EQ(symlink(victim.c_str(), path_.c_str()), 0);
        else if (c.before != "-")
            spit(path_, c.before);
        EXPECT_EQ(run(c.op), c.want_out) << c.fault;
        const bool link = std::filesystem::is_symlink(path_);
        EXPECT_EQ(link ? "@" : testsupport::exists(path_) ? slurp(path_) : "-", c.want) << c.fault;
        EXPECT_LE(std::distance(std::filesystem::directory_iterator(home_), {}), 1) << c.fault;
        struct stat st;
        ASSERT_EQ(stat(victim.c_str(), &st), 0);
        EXPECT_EQ(st.st_uid, 0u) << c.fault << ": link target given away";
        EXPECT_EQ(slurp(victim), "secret\n") << c.fault;
    }
}

} // namespace
