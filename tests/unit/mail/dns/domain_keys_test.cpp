#include "mail/dns/domain_keys.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/sandboxed.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <functional>
#include <string>

namespace {

TEST(DomainKeys, KeyPathBoundary)
{
    const std::string fits(4096 - 25, 'a'), over = fits + "a";
    for (const std::string &domain : {fits, over}) {
        const auto r = testsupport::runInChild([&] {
            std::unique_ptr<char, void (*)(void *)> path(get_domainkeys_file(domain.c_str()), std::free);
            return !path ? 1 : path.get() == "/etc/domainkeys/" + domain + "/default" ? 0 : 2;
        });
        EXPECT_EQ(std::to_string(r.status) + " " + r.out, domain == fits ? "0 " : "1 File name 'default' is too long"
                  " to be stored in /etc/domainkeys/" + over + "\n");
    }
}

std::string keyFile(const std::string &domain) { return "/etc/domainkeys/" + domain + "/default"; }

// Installed lists and removal the DomainKeys system tests prove; here cloning
// and a name the command layer never lets through.
TEST(DomainKeysSandboxed, ClonesAndRefusesNamesOutsideTheRoot)
{
    MAILTEND_REQUIRE_SANDBOX();
    const testsupport::TempDir temp{"dkeys"};
    const std::string source = temp.path() + "/key";
    testsupport::spit(source, "KEY\n");
    const gid_t popuser = getgrnam("popuser")->gr_gid;
    const std::string domains[] = {"a.dk", "b.dk", "d.dk"};
    const struct {
        const char *fault;
        std::function<int()> call;
        std::string out; // what was printed, then the result
        std::string want; // keys of a, b, d afterwards, "-" for none
    } cases[] = {
        {"existing_key_not_replaced", [&] { return set_domain_key("a.dk", source.c_str()); }, "0", "KEY\n - -"},
        {"clone_without_key_creates_something", [] { return clone_domain_key("b.dk", "d.dk"); }, "0", "OLD - -"},
        {"clone_source_case_or_list", [] { return clone_domain_key("A.DK", "b.dk d.dk"); }, "0", "OLD OLD OLD"},
        {"remove_escapes_root", [] { return remove_domain_key(".., a.dk"); }, "Invalid domain name '..'\n-1", "- - -"},
    };
    for (const auto &c : cases) {
        for (const std::string &d : domains)
            std::filesystem::remove_all("/etc/domainkeys/" + d);
        std::filesystem::create_directories("/etc/domainkeys/a.dk");
        testsupport::spit(keyFile("a.dk"), "OLD");
        ASSERT_EQ(chown(keyFile("a.dk").c_str(), 0, popuser) | chmod(keyFile("a.dk").c_str(), 0440), 0);
        const auto r = testsupport::runInChild([&] { return std::printf("%d", c.call()) < 0; });
        std::string keys;
        for (const std::string &d : domains) {
            struct stat st = {};
            const bool regular = stat(keyFile(d).c_str(), &st) == 0 && S_ISREG(st.st_mode);
            keys += std::string(keys.empty() ? "" : " ") + (regular ? testsupport::slurp(keyFile(d)) : "-");
            EXPECT_TRUE(!regular || (st.st_uid == 0 && st.st_gid == popuser && (st.st_mode & 07777) == 0440)) << d;
        }
        EXPECT_EQ(r.out + "," + keys, c.out + "," + c.want) << c.fault << " " << r;
        EXPECT_TRUE(std::filesystem::is_directory("/etc/domainkeys")) << c.fault;
    }
    EXPECT_EQ(testsupport::slurp(source), "KEY\n") << "the library consumed its source";
    for (const std::string &d : domains)
        std::filesystem::remove_all("/etc/domainkeys/" + d);
}

} // namespace
