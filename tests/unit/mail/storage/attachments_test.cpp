#include "mail/storage/attachments.h"
#include "mail/storage/mailbox_size.h"
#include "utils/read_configuration.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <string>

namespace fs = std::filesystem;
using testsupport::spit;

// Listing, adding, removing and sizes on the panel's normal paths run through the real
// binary in the system tests; here the failures and the owner's links, which sizes must not follow.
TEST(Attachments, FailuresTheOwnersLinksAndTheSpaceTaken)
{
    const testsupport::TempDir temp("attachments");
    const std::string s = temp.path(), root = s + "/mailnames", dom = root + "/example.com";
    spit(s + "/zrn.conf", "ZARNET_MAILNAMES_D " + root + "\n");
    zrn_conf_set_path_for_testing((s + "/zrn.conf").c_str());
    const std::string dir = dom + "/info/@attachments";
    fs::create_directories(dir + "/sub");
    fs::create_directories(dom + "/empty");
    fs::create_directories(dom + "/evil");
    fs::create_directory_symlink(s, dom + "/evil/@attachments");
    spit(s + "/upload", "attached");
    spit(s + "/outside", "keep");
    fs::create_symlink(s + "/outside", dir + "/link.txt");
    fs::create_hard_link(s + "/outside", dir + "/hard.txt");
    fs::create_directory_symlink(s, dir + "/sub/up");
    fs::create_directories(dom + "/info/Maildir");
    spit(dom + "/info/Maildir/maildirsize", "9S,0C\n  200  2\n");

    const struct {
        const char *fault;
        std::function<int()> call;
        int want_status;
        std::string want_out;
    } cases[] = {
        {"wrote through the owner's links", [&] {
             return add_attachment("info", "example.com", (s + "/upload").c_str(), "link.txt") |
                    add_attachment("info", "example.com", (s + "/upload").c_str(), "hard.txt") |
                    list_attachments("info", "example.com", 0, 0);
         }, 0, "hard.txt\t8\nlink.txt\t8\n"},
        {"a home's failure stopped the domain listing, passed as success, or a link was listed",
         [] { return list_all_attachments("example.com", 0, 0); }, 255,
         "Unable to open dir " + dom + "/empty/@attachments: No such file or directory\n" +
             "Unable to open dir " + dom + "/evil/@attachments: Not a directory\n"
             "hard.txt\t8\nlink.txt\t8\n"},
        {"linked @attachments used", [] {
             return add_attachment("evil", "example.com", "upload", "outside") +
                    remove_attachment("evil", "example.com", "outside");
         }, 254, "Unable to copy the attachment file upload to " + dom + "/evil/@attachments/outside\n"
             "\nSystem error 20: Not a directory\n"
             "Unable to delete the attachment file " + dom + "/evil/@attachments/outside: Not a "
             "directory\n"},
        {"sizes followed links or missed the usage file", [&] {
             long long bytes = 200, blocks = 0;
             for (const char *p : {"", "/sub", "/sub/up", "/hard.txt", "/link.txt"}) {
                 struct stat st = {};
                 lstat((dir + p).c_str(), &st);
                 bytes += st.st_size;
                 blocks += st.st_blocks * 512;
             }
             const long long link = get_dir_size((dom + "/evil/@attachments").c_str(), 0);
             return get_mbox_size("info", "example.com", 0) == bytes &&
                    get_dir_size(dir.c_str(), 1) == blocks && link == long(s.size()) &&
                    get_dir_size("absent", 0) == -1 ? 0 : 3;
         }, 0, ""},
        {"missing Maildir not fatal", [] { return int(get_mbox_size("empty", "example.com", 0)); }, 1,
         "Unable to calculate Maildir++ size: " + dom + "/empty/Maildir\nSystem error 2: No such "
         "file or directory\n"},
        {"empty mailname not fatal", [] { return list_attachments("", "example.com", 0, 0); }, 1,
         "MailName empty for domain 'example.com'\n"},
        {"bad domain not fatal", [] { return list_all_attachments("\xff.example", 0, 0); }, 1,
         "idn_toascii() failed: Iconv error\n"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] { return c.call() & 0xff; });
        EXPECT_EQ(r.status, c.want_status) << c.fault << " " << r;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
    }
    EXPECT_EQ(testsupport::slurp(s + "/outside"), "keep");
    zrn_conf_set_path_for_testing(nullptr);
}
