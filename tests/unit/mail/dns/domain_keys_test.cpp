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
#include <functional>
#include <string>
#include <vector>

namespace {

using testsupport::slurp;
using testsupport::spit;

TEST(DomainKeys, ListsAndKeyPaths)
{
    EXPECT_EQ(split_domain_list("\t,a,,b \t c,"), (std::vector<std::string>{"a", "b", "c"})) << "run not one separator";
    EXPECT_TRUE(split_domain_list(" ,\t").empty());
    const std::string fits(4096 - 25, 'a'), over = fits + "a";
    const struct {
        const char *fault;
        const char *domain;
        std::string path, out; // path "" for null
    } paths[] = {
        {"null_domain_crashes", nullptr, "", ""},
        {"exact_fit_refused", fits.c_str(), "/etc/domainkeys/" + fits + "/default", ""},
        {"overlong_path_formed", over.c_str(), "",
         "File name 'default' is too long to be stored in /etc/domainkeys/" + over + "\n"},
    };
    for (const auto &c : paths) {
        const auto r = testsupport::runInChild([&] {
            char *path = get_domainkeys_file(c.domain);
            const int rc = path == nullptr ? 1 : path == c.path ? 0 : 2;
            std::free(path);
            return rc;
        });
        EXPECT_EQ(r.status, c.path.empty() ? 1 : 0) << c.fault;
        EXPECT_EQ(r.out, c.out) << c.fault;
    }
}

std::string keyFile(const std::string &domain) { return "/etc/domainkeys/" + domain + "/default"; }

// A key as an install leaves it.
void putKey(const std::string &domain, const std::string &text)
{
    std::filesystem::create_directories("/etc/domainkeys/" + domain);
    spit(keyFile(domain), text);
    const struct group *gr = getgrnam("popuser");
    if (gr == nullptr || chown(keyFile(domain).c_str(), 0, gr->gr_gid) != 0 || chmod(keyFile(domain).c_str(), 0440) != 0)
        ADD_FAILURE() << "cannot prepare " << keyFile(domain);
}

// Lists with the installed modes and the removal of whole lists the
// DomainKeys system tests prove; here cloning and the names the command
// layer never lets through.
TEST(DomainKeysSandboxed, InstallsClonesAndRemovesKeys)
{
    MAILTEND_REQUIRE_SANDBOX();
    const testsupport::TempDir temp{"dkeys"};
    const std::string source = temp.path() + "/key";
    spit(source, "KEY\n");
    const char *const domains[] = {"dk-a.example", "dk-b.example", "dk-d.example", "dk-e.example"};
    const struct {
        const char *fault;
        std::function<void()> setup;
        std::function<int()> call;
        std::string out; // what was printed, then the result
        std::string want; // keys of a, b, d, e afterwards, "-" for none
    } cases[] = {
        {"existing_key_not_replaced", [] { putKey("dk-a.example", "OLD"); },
         [&] { return set_domain_key("dk-a.example", source.c_str()); }, "0", "KEY\n - - -"},
        {"clone_without_key_creates_something", [] {}, [] { return clone_domain_key("dk-b.example", "dk-d.example"); },
         "0", "- - - -"},
        {"directory_taken_for_key", [] { std::filesystem::create_directories(keyFile("dk-b.example")); },
         [] { return clone_domain_key("dk-b.example", "dk-d.example"); }, "0", "- - - -"},
        {"clone_source_case_or_list", [] { putKey("dk-a.example", "KA"); },
         [] { return clone_domain_key("DK-A.example", "dk-d.example dk-e.example"); }, "0", "KA - KA KA"},
        {"bad_name_stops_list_or_escapes_root", [] {},
         [&] { return set_domain_key("dk-x/y, dk-b.example", source.c_str()); },
         "Invalid domain name 'dk-x/y'\n-1", "- KEY\n - -"},
        {"remove_climbs_out_of_root", [] { putKey("dk-a.example", "K"); },
         [] { return remove_domain_key(".., dk-a.example"); }, "Invalid domain name '..'\n-1", "- - - -"},
    };
    for (const auto &c : cases) {
        for (const char *d : domains)
            std::filesystem::remove_all("/etc/domainkeys/" + std::string(d));
        c.setup();
        const auto r = testsupport::runInChild([&] { return std::printf("%d", c.call()) < 0; });
        EXPECT_EQ(r.out, c.out) << c.fault << " " << r;
        std::string keys;
        for (const char *d : domains) {
            struct stat st = {};
            const bool regular = stat(keyFile(d).c_str(), &st) == 0 && S_ISREG(st.st_mode);
            keys += std::string(keys.empty() ? "" : " ") + (regular ? slurp(keyFile(d)) : "-");
            EXPECT_EQ(domainkeys_enabled(d), regular ? 1 : 0) << c.fault << " " << d;
            EXPECT_TRUE(!regular || (st.st_uid == 0 && st.st_gid == getgrnam("popuser")->gr_gid &&
                                     (st.st_mode & 07777) == 0440)) << c.fault << " " << d;
        }
        EXPECT_EQ(keys, c.want) << c.fault;
        EXPECT_TRUE(std::filesystem::is_directory("/etc/domainkeys")) << c.fault;
    }
    EXPECT_EQ(slurp(source), "KEY\n") << "the library consumed its source";
    for (const char *d : domains)
        std::filesystem::remove_all("/etc/domainkeys/" + std::string(d));
    std::filesystem::remove_all("/etc/domainkeys/dk-x");
}

} // namespace
