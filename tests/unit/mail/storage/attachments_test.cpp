#include "mail/storage/attachments.h"
#include "utils/read_configuration.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>

namespace fs = std::filesystem;
using testsupport::runInChild;
using testsupport::slurp;
using testsupport::spit;

// Listing, adding and removing on the panel's normal paths run through the
// real binary in the system tests; here the failures and the owner's links.
TEST(Attachments, FailuresAndTheOwnersLinks)
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
    const std::string missing = ": No such file or directory\n";

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
        {"a home's failure stopped the domain listing or a link was listed",
         [] { return list_all_attachments("example.com", 0, 0); }, 0,
         "Unable to open dir " + dom + "/empty/@attachments" + missing +
             "Unable to open dir " + dom + "/evil/@attachments: Not a directory\n"
             "hard.txt\t8\nlink.txt\t8\n"},
        {"linked @attachments used", [] {
             return add_attachment("evil", "example.com", "upload", "outside") +
                    remove_attachment("evil", "example.com", "outside");
         }, 254, "Unable to copy the attachment file upload to " + dom + "/evil/@attachments/outside\n"
             "\nSystem error 20: Not a directory\n"
             "Unable to delete the attachment file " + dom + "/evil/@attachments/outside: Not a "
             "directory\n"},
        {"empty mailname not fatal", [] { return list_attachments("", "example.com", 0, 0); }, 1,
         "MailName empty for domain 'example.com'\n"},
        {"bad domain not fatal", [] { return list_all_attachments("\xff.example", 0, 0); }, 1,
         "idn_toascii() failed: Iconv error\n"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] { return c.call() & 0xff; });
        EXPECT_EQ(r.status, c.want_status) << c.fault << " " << r;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
    }
    EXPECT_EQ(slurp(s + "/outside"), "keep");
    zrn_conf_set_path_for_testing(nullptr);
}
