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
using testsupport::runInChild;
using testsupport::spit;

namespace {

long long bytesOf(const std::string &path)
{
    struct stat st = {};
    lstat(path.c_str(), &st);
    return st.st_size;
}

long long blocksOf(const std::string &path)
{
    struct stat st = {};
    lstat(path.c_str(), &st);
    return static_cast<long long>(st.st_blocks) * 512;
}

} // namespace

TEST(MailboxSize, DirSizeCountsEveryEntryOnceWithoutFollowingLinks)
{
    const testsupport::TempDir temp("dirsize");
    const std::string d = temp.path();
    fs::create_directories(d + "/tree/sub/deeper");
    spit(d + "/tree/a", std::string(3000, 'a'));
    spit(d + "/tree/sub/deeper/b", std::string(5, 'b'));
    spit(d + "/outside", std::string(100000, 'o'));
    fs::create_symlink(d + "/outside", d + "/tree/link");
    fs::create_directory_symlink(d, d + "/tree/sub/dirlink");
    const auto treeSum = [&](const std::function<long long(const std::string &)> &size) {
        long long total = 0;
        for (const char *p : {"/tree", "/tree/a", "/tree/sub", "/tree/sub/deeper",
                              "/tree/sub/deeper/b", "/tree/link", "/tree/sub/dirlink"})
            total += size(d + p);
        return total;
    };
    const struct {
        const char *fault;
        std::string path;
        int block;
        long long want;
    } cases[] = {
        {"file size wrong", d + "/tree/a", 0, 3000},
        {"block size not allocated blocks", d + "/tree/a", 1, blocksOf(d + "/tree/a")},
        {"tree entry missed, doubled or link followed", d + "/tree", 0, treeSum(bytesOf)},
        {"tree blocks wrong", d + "/tree", 1, treeSum(blocksOf)},
        {"link given as the path followed", d + "/tree/link", 0, bytesOf(d + "/tree/link")},
        {"missing path not an error", d + "/absent", 0, -1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(get_dir_size(c.path.c_str(), c.block), c.want) << c.fault;
}

TEST(MailboxSize, MailboxSizeAddsAttachmentsToMaildirUsage)
{
    const testsupport::TempDir temp("mboxsize");
    const std::string root = temp.path() + "/mailnames";
    spit(temp.path() + "/zrn.conf", "ZARNET_MAILNAMES_D " + root + "\n");
    zrn_conf_set_path_for_testing((temp.path() + "/zrn.conf").c_str());
    const std::string home = root + "/example.com/info";
    for (const char *d : {"/Maildir/cur", "/Maildir/new", "/@attachments"})
        fs::create_directories(home + d);
    spit(home + "/@attachments/x", std::string(700, 'x'));
    spit(home + "/Maildir/cur/1.h,S=4000:2,S", "m");
    const long long attachments = bytesOf(home + "/@attachments") + 700;
    const struct {
        const char *fault;
        std::function<void()> setup;
        std::string domain;
        std::string mailname;
        int want_status; // 0: the size was printed
        std::string want_out;
    } cases[] = {
        {"counted usage or attachments missed", [] {}, "example.com", "info", 0,
         std::to_string(attachments + 4000)},
        {"usage file ignored",
         [&] { spit(home + "/Maildir/maildirsize", "9S,0C\n  200  2\n"); }, "example.com", "info", 0,
         std::to_string(attachments + 200)},
        {"missing attachments not skipped", [&] { fs::remove_all(home + "/@attachments"); },
         "example.com", "info", 0, "200"},
        {"missing Maildir not fatal", [] {}, "example.net", "info", 1,
         "Unable to calculate Maildir++ size: " + root + "/example.net/info/Maildir\n"
         "System error 2: No such file or directory\n"},
        {"unconvertible domain not fatal", [] {}, "\xff.example", "info", 1,
         "idn_toascii() failed: Iconv error\n"},
        {"over-long path not fatal", [] {}, "example.com", std::string(4100, 'm'), 1,
         "user mailbox path is too long\n"},
    };
    for (const auto &c : cases) {
        c.setup();
        const auto r = runInChild([&] {
            const long long size = get_mbox_size(c.mailname.c_str(), c.domain.c_str(), 0);
            std::printf("%lld", size);
            return 0;
        });
        EXPECT_EQ(r.status, c.want_status) << c.fault << " " << r;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
    }
    zrn_conf_set_path_for_testing(nullptr);
}
