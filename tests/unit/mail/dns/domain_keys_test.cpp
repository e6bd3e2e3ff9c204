#include "mail/dns/domain_keys.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/sandboxed.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

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
    const struct {
        const char *fault;
        std::string list;
        std::vector<std::string> want;
    } lists[] = {
        {"blank_after_comma_kept", "Example.COM, example.net", {"Example.COM", "example.net"}},
        {"tab_or_run_not_a_separator", "\t,a,,b \t c,", {"a", "b", "c"}},
        {"empty_list_gives_a_name", " ,\t", {}},
    };
    for (const auto &c : lists)
        EXPECT_EQ(split_domain_list(c.list), c.want) << c.fault;

    const std::string fits(4096 - 25, 'a'), over = fits + "a";
    const struct {
        const char *fault;
        const char *domain;
        std::string path, out; // path "" for null
    } paths[] = {
        {"case_kept", "Example.COM", "/etc/domainkeys/example.com/default", ""},
        {"null_domain_crashes", nullptr, "", ""},
        {"exact_fit_refused", fits.c_str(), "/etc/domainkeys/" + fits + "/default", ""},
        {"overlong_path_formed", over.c_str(), "",
         "File name 'default' is too long to be stored in /etc/domainkeys/" + over + "\n"},
    };
    for (const auto &c : paths) {
        const auto r = testsupport::runInChild([&] {
            char *path = get_domainkeys_file(c.domain);
            if (path == nullptr)
                return 1;
            const bool same = path == c.path;
            std::free(path);
            return same ? 0 : 2;
        });
        EXPECT_EQ(r.status, c.path.empty() ? 1 : 0) << c.fault;
        EXPECT_EQ(r.out, c.out) << c.fault;
    }
}

const char kRoot[] = "/etc/domainkeys";
const char *const kDomains[] = {"dkspf-a.example", "dkspf-b.example", "dkspf-c.example",
                                "dkspf-d.example", "dkspf-e.example"};

std::string keyDir(const std::string &domain) { return std::string(kRoot) + "/" + domain; }
std::string keyFile(const std::string &domain) { return keyDir(domain) + "/default"; }

gid_t popuserGroup()
{
    const struct group *gr = getgrnam("popuser");
    return gr != nullptr ? gr->gr_gid : static_cast<gid_t>(-1);
}

// A key as an install leaves it.
void putKey(const std::string &domain, const std::string &text)
{
    std::filesystem::create_directories(keyDir(domain));
    spit(keyFile(domain), text);
    if (chown(keyFile(domain).c_str(), 0, popuserGroup()) != 0 ||
        chmod(keyFile(domain).c_str(), 0440) != 0)
        ADD_FAILURE() << "cannot prepare " << keyFile(domain);
}

TEST(DomainKeysSandboxed, InstallsClonesAndRemovesKeys)
{
    MAILTEND_REQUIRE_SANDBOX();
    const testsupport::TempDir temp{"dkeys"};
    const std::string key1 = temp.path() + "/key1", key2 = temp.path() + "/key2";
    spit(key1, "KEY1\n");
    spit(key2, "KEY2\n");
    const std::string k1 = "KEY1\n", k2 = "KEY2\n", none = "-";

    const struct {
        const char *fault;
        std::function<void()> setup;
        std::function<int()> call;
        int status; // 0 for 0, 3 for -1, else the exit status
        std::string out;
        std::string want[5]; // keys of a..e afterwards, "-" for none
    } cases[] = {
        {"mixed_case_or_comma_and_blank_list", [] {},
         [&] {
             return set_domain_key("DkSpf-A.Example, dkspf-b.example\t,dkspf-c.example",
                                   key1.c_str());
         },
         0, "", {k1, k1, k1, none, none}},
        {"existing_key_not_replaced", [] { putKey("dkspf-a.example", "OLD"); },
         [&] { return set_domain_key("dkspf-a.example", key2.c_str()); }, 0, "",
         {k2, none, none, none, none}},
        {"clone_without_key_creates_something", [] {},
         [] { return clone_domain_key("dkspf-b.example", "dkspf-d.example"); }, 0, "",
         {none, none, none, none, none}},
        {"directory_taken_for_key",
         [] { std::filesystem::create_directories(keyFile("dkspf-b.example")); },
         [] { return clone_domain_key("dkspf-b.example", "dkspf-d.example"); }, 0, "",
         {none, none, none, none, none}},
        {"clone_source_case_or_list", [] { putKey("dkspf-a.example", "KA"); },
         [] { return clone_domain_key("DKSPF-A.example", "dkspf-d.example dkspf-e.example"); },
         0, "",
         {"KA", none, none, "KA", "KA"}},
        {"bad_name_stops_list_or_escapes_root", [] {},
         [&] { return set_domain_key("dkspf-x/y, dkspf-b.example", key1.c_str()); }, 3,
         "Invalid domain name 'dkspf-x/y'\n", {none, k1, none, none, none}},
        {"missing_source_not_fatal", [] {},
         [] { return set_domain_key("dkspf-a.example", "/nonexistent/key"); }, 1,
         "No source file '/nonexistent/key': No such file or directory\n"
         "System error 2: No such file or directory\n",
         {none, none, none, none, none}},
        {"remove_list_or_too_much",
         [] {
             for (const char *d : {"dkspf-a.example", "dkspf-b.example", "dkspf-c.example"})
                 putKey(d, "K");
         },
         [] { return remove_domain_key("dkspf-a.example,DKSPF-B.example"); }, 0, "",
         {none, none, "K", none, none}},
        {"remove_climbs_out_of_root", [] { putKey("dkspf-a.example", "K"); },
         [] { return remove_domain_key(".., dkspf-a.example"); }, 3, "Invalid domain name '..'\n",
         {none, none, none, none, none}},
    };
    for (const auto &c : cases) {
        for (const char *d : kDomains)
            std::filesystem::remove_all(keyDir(d));
        c.setup();
        const auto r = testsupport::runInChild([&] {
            const int rc = c.call();
            return rc == 0 ? 0 : rc == -1 ? 3 : 4;
        });
        EXPECT_EQ(r.status, c.status) << c.fault << " " << r;
        EXPECT_EQ(r.out, c.out) << c.fault;
        for (int i = 0; i < 5; ++i) {
            const std::string file = keyFile(kDomains[i]);
            struct stat st = {};
            const bool regular = stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode);
            EXPECT_EQ(regular ? slurp(file) : none, c.want[i]) << c.fault << " " << kDomains[i];
            EXPECT_EQ(domainkeys_enabled(kDomains[i]), regular ? 1 : 0) << c.fault << " " << file;
            if (!regular)
                continue;
            const std::string owner = std::to_string(st.st_uid) + ":" + std::to_string(st.st_gid);
            EXPECT_EQ(owner, "0:" + std::to_string(popuserGroup())) << c.fault << " " << file;
            EXPECT_EQ(st.st_mode & 07777, 0440u) << c.fault << " " << file;
            EXPECT_EQ(stat(keyDir(kDomains[i]).c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0755u)
                << c.fault << " " << file;
        }
        EXPECT_TRUE(std::filesystem::is_directory(kRoot)) << c.fault;
    }
    EXPECT_EQ(slurp(key1), k1) << "the library consumed its source";
    for (const char *d : kDomains)
        std::filesystem::remove_all(keyDir(d));
    std::filesystem::remove_all(keyDir("dkspf-x"));
}

} // namespace
