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

namespace {

class MailRoot {
public:
    MailRoot() : temp_("attachments")
    {
        root = temp_.path() + "/mailnames";
        spit(temp_.path() + "/zrn.conf", "ZARNET_MAILNAMES_D " + root + "\n");
        zrn_conf_set_path_for_testing((temp_.path() + "/zrn.conf").c_str());
    }
    ~MailRoot() { zrn_conf_set_path_for_testing(nullptr); }

    std::string dir(const std::string &domain, const std::string &mailname)
    {
        const std::string d = root + "/" + domain + "/" + mailname + "/@attachments";
        fs::create_directories(d);
        return d;
    }

    std::string scratch() const { return temp_.path(); }
    std::string root;

private:
    testsupport::TempDir temp_;
};

} // namespace

TEST(Attachments, ListingFailuresAndSkippedHomes)
{
    MailRoot m;
    const std::string info = m.dir("example.com", "info");
    spit(info + "/b.pdf", std::string(1000, 'b'));
    spit(info + "/a.txt", "12345");
    fs::create_directory(info + "/sub");
    const std::string sales = m.dir("example.com", "sales");
    spit(sales + "/logo.png", std::string(3, 'l'));
    fs::create_directories(m.root + "/example.com/empty");

    const struct {
        const char *fault;
        std::function<int()> call;
        int want_status;
        std::string want_out;
    } cases[] = {
        {"a home left out of the domain listing",
         [] { return list_all_attachments("example.com", 0, 0); }, 0,
         "Unable to open dir " + m.root + "/example.com/empty/@attachments: No such file or "
         "directory\n"
         "a.txt\t5\nb.pdf\t1000\nlogo.png\t3\n"},
        {"missing directory not reported", [] { return list_attachments("x", "example.com", 0, 0); },
         -1, "Unable to open dir " + m.root + "/example.com/x/@attachments: No such file or directory\n"},
        {"empty mailname not fatal", [] { return list_attachments("", "example.com", 0, 0); }, 1,
         "MailName empty for domain 'example.com'\n"},
        {"bad domain not fatal", [] { return list_all_attachments("\xff.example", 0, 0); }, 1,
         "idn_toascii() failed: Iconv error\n"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] { return c.call() == -1 ? 255 : 0; });
        EXPECT_EQ(r.status, c.want_status == -1 ? 255 : c.want_status) << c.fault << " " << r;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
    }
}

TEST(Attachments, AddAndRemoveNeverFollowTheOwnersLinks)
{
    MailRoot m;
    const std::string dir = m.dir("example.com", "info");
    const std::string upload = m.scratch() + "/upload";
    spit(upload, "attached");
    fs::permissions(upload, fs::perms(0600));
    const std::string outside = m.scratch() + "/outside";
    spit(outside, "keep");
    fs::create_directories(m.root + "/example.com/evil");
    fs::create_directory_symlink(m.scratch(), m.root + "/example.com/evil/@attachments");

    ASSERT_EQ(add_attachment("info", "example.com", upload.c_str(), "a.txt"), 0);
    EXPECT_EQ(slurp(dir + "/a.txt"), "attached");
    EXPECT_EQ(fs::status(dir + "/a.txt").permissions(), fs::perms(0644));

    fs::create_symlink(outside, dir + "/link.txt");
    ASSERT_EQ(add_attachment("info", "example.com", upload.c_str(), "link.txt"), 0);
    EXPECT_EQ(slurp(outside), "keep") << "wrote through a link";
    EXPECT_FALSE(fs::is_symlink(dir + "/link.txt"));
    fs::create_hard_link(outside, dir + "/hard.txt");
    ASSERT_EQ(add_attachment("info", "example.com", upload.c_str(), "hard.txt"), 0);
    EXPECT_EQ(slurp(outside), "keep") << "wrote through a hard link";
    EXPECT_EQ(slurp(dir + "/hard.txt"), "attached");

    const auto r = runInChild([&] {
        return add_attachment("evil", "example.com", upload.c_str(), "outside") == -1 &&
                       remove_attachment("evil", "example.com", "outside") == -1
                   ? 0
                   : 1;
    });
    EXPECT_EQ(r.status, 0) << "linked @attachments used " << r;
    EXPECT_EQ(slurp(outside), "keep");

    ASSERT_EQ(remove_attachment("info", "example.com", "a.txt"), 0);
    EXPECT_FALSE(fs::exists(dir + "/a.txt"));
    const auto gone = runInChild([] { return remove_attachment("info", "example.com", "a.txt"); });
    EXPECT_EQ(gone.out, "Unable to delete the attachment file " + dir +
                            "/a.txt: No such file or directory\n");
}
