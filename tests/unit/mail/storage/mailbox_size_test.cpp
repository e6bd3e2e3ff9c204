#include "mail/storage/mailbox_size.h"
#include "utils/read_configuration.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <string>

namespace fs = std::filesystem;
using testsupport::spit;

// The normal report (attachments plus counted usage) runs through the real
// binary in the system tests; here links inside the tree and the failures.
TEST(MailboxSize, TreeSizesAndFailures)
{
    const testsupport::TempDir temp("mboxsize");
    const std::string root = temp.path() + "/mailnames", home = root + "/example.com/info";
    spit(temp.path() + "/zrn.conf", "ZARNET_MAILNAMES_D " + root + "\n");
    zrn_conf_set_path_for_testing((temp.path() + "/zrn.conf").c_str());
    fs::create_directories(home + "/Maildir/cur");
    fs::create_directories(home + "/@attachments/sub");
    spit(home + "/@attachments/sub/x", std::string(700, 'x'));
    spit(temp.path() + "/outside", std::string(100000, 'o'));
    fs::create_symlink(temp.path() + "/outside", home + "/@attachments/link");
    fs::create_directory_symlink(temp.path(), home + "/@attachments/sub/dirlink");
    long long bytes = 0, blocks = 0;
    for (const char *p : {"", "/sub", "/sub/x", "/link", "/sub/dirlink"}) {
        struct stat st = {};
        lstat((home + "/@attachments" + p).c_str(), &st);
        bytes += st.st_size;
        blocks += st.st_blocks * 512;
    }
    EXPECT_EQ(get_dir_size((home + "/@attachments").c_str(), 1), blocks) << "links followed";
    spit(home + "/Maildir/maildirsize", "9S,0C\n  200  2\n");

    const struct {
        const char *fault;
        std::string domain, mailname;
        int want_status; // 0: the size was printed
        std::string want_out;
    } cases[] = {
        {"usage file ignored or links followed", "example.com", "info", 0,
         std::to_string(bytes + 200)},
        {"missing Maildir not fatal", "example.net", "info", 1,
         "Unable to calculate Maildir++ size: " + root + "/example.net/info/Maildir\n"
         "System error 2: No such file or directory\n"},
        {"unconvertible domain not fatal", "\xff.example", "info", 1,
         "idn_toascii() failed: Iconv error\n"},
        {"over-long path not fatal", "example.com", std::string(4100, 'm'), 1,
         "user mailbox path is too long\n"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            std::printf("%lld", get_mbox_size(c.mailname.c_str(), c.domain.c_str(), 0));
            return 0;
        });
        EXPECT_EQ(r.status, c.want_status) << c.fault << " " << r;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
    }
    EXPECT_EQ(get_dir_size((home + "/absent").c_str(), 0), -1);
    zrn_conf_set_path_for_testing(nullptr);
}
