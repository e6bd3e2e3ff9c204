#include "mail/handlers/handlers.h"
#include "mail/handlers/handlers_mass.h"
#include "utils/MKLock.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

namespace fs = std::filesystem;
using testsupport::runInChild;
using testsupport::slurp;
using testsupport::spit;

namespace {

// A handler store in a scratch directory, with a refresh program that
// records its calls and an executable for the handlers.
class Store {
public:
    Store() : temp_("handlers")
    {
        root = temp_.path() + "/handlers";
        exe = temp_.path() + "/filter";
        spit(exe, "#!/bin/sh\nexit 0\n");
        fs::permissions(exe, fs::perms(0755));
        const std::string refresh = temp_.path() + "/refresh";
        spit(refresh, "#!/bin/sh\necho \"$@\" >> '" + temp_.path() + "/refresh.log'\n");
        fs::permissions(refresh, fs::perms(0755));
        handlers_set_paths_for_testing(root.c_str(), refresh.c_str());
        mk_lock_set_dir_for_testing((temp_.path() + "/locks").c_str());
    }
    ~Store()
    {
        handlers_set_paths_for_testing(nullptr, nullptr);
        mk_lock_set_dir_for_testing(nullptr);
    }

    // Refresh calls since the last look.
    int refreshes()
    {
        const std::string log = slurp(temp_.path() + "/refresh.log");
        const int total = static_cast<int>(std::count(log.begin(), log.end(), '\n'));
        return total - std::exchange(seen_, total);
    }
    int add(const char *tmpl, const char *type, const char *value)
    {
        return mail_handler_add(tmpl, type, value, exe.c_str(), "ctx", "before-local", "10",
                                HANDLER_ACTION_ENABLE);
    }
    std::string find(const char *tmpl, const char *type, const char *value)
    {
        char *name = get_handler_name(tmpl, type, value, "before-local");
        const std::string s = name != nullptr ? name : "";
        std::free(name);
        return s;
    }
    // Every queue entry (not the installed executables under "hooks") as
    // "HOOK/...queue/NAME", sorted, one a line.
    std::string entries()
    {
        std::vector<std::string> out;
        for (const auto &e : fs::recursive_directory_iterator(root)) {
            const std::string rel = e.path().string().substr(root.size() + 1);
            if (e.is_regular_file() && rel.rfind("info/", 0) != 0 && rel.rfind("hooks/", 0) != 0)
                out.push_back(rel + "\n");
        }
        std::sort(out.begin(), out.end());
        return std::accumulate(out.begin(), out.end(), std::string());
    }

    std::string root, exe;

private:
    testsupport::TempDir temp_;
    int seen_ = 0;
};

} // namespace

// Adding, enabling, disabling, querying, updating and removing one handler
// run through the real binary in the system tests; here the ordering, the
// name parts, cloning and the mass operations, and the store's failures.
TEST(Handlers, OrderAndNameParts)
{
    std::string names[] = {"10-spam-bb", "90-autoresponder-x1", "5-virus-Zz0000", "0x10-a-a",
                           "10-anti-spam-zz", "10-spam-aa"};
    std::vector<char *> array;
    for (auto &n : names)
        array.push_back(&n[0]);
    handlers_sort(array.data(), array.size());
    // Priorities as "%i" reads them, then template, then random part.
    EXPECT_EQ(std::vector<std::string>(array.begin(), array.end()),
              (std::vector<std::string>{"5-virus-Zz0000", "10-anti-spam-zz", "10-spam-aa",
                                        "10-spam-bb", "0x10-a-a", "90-autoresponder-x1"}));

    // Name, and priority|template or the message.
    const std::pair<const char *, std::string> cases[] = {
        {"10-anti-spam-aB3dE9", "10|anti-spam"},
        {"-spam-x", "Invalid handler name '-spam-x': missing priority section\n"},
        {"10--x", "Invalid handler name '10--x': empty template part\n"},
        {"10-spam-", "Invalid handler name '10-spam-': missing random part\n"},
    };
    for (const auto &[name, want] : cases) {
        const auto r = runInChild([&] {
            char *p = get_priority_from_name(name);
            char *t = get_template_from_name(name);
            if (p != nullptr && t != nullptr)
                std::printf("%s|%s", p, t);
            std::free(p);
            std::free(t);
            return handlers_compare(name, "10-a-b") == 0 ? 0 : 1;
        });
        // A bad name reports once for each getter, and once more when compared.
        const bool bad = want.back() == '\n';
        EXPECT_EQ(r.out, bad ? want + want + "Unable to split handlers name. Skipping "
                                                 "sorting handlers..\n"
                             : want)
            << name;
        EXPECT_EQ(r.status, bad ? 0 : 1) << name << ": unsplittable pair not equal";
    }
}

TEST(Handlers, CloneAndMassOperationsFollowTheDomainOnly)
{
    Store s;
    const char *const added[][3] = {
        {"a", "recipient", "info@example.com"}, {"b", "recipient-domain", "example.com"},
        {"c", "sender", "info@myexample.com"},  {"e", "global", nullptr},
        {"f", "sender", "example.com@other.net"},
    };
    for (const auto &h : added)
        ASSERT_EQ(s.add(h[0], h[1], h[2]), 0) << h[0];
    const std::string a = s.find("a", "recipient", "info@example.com");
    ASSERT_EQ(control_handler_queue(a.c_str(), HANDLER_ACTION_CLONE, "sales@example.com"), 0);
    const std::string clone = s.find("a", "recipient", "sales@example.com");
    EXPECT_EQ(slurp(s.root + "/info/" + clone + "/context"), "ctx\n");
    ASSERT_EQ(control_handler_queue(s.find("b", "recipient-domain", "example.com").c_str(),
                                    HANDLER_ACTION_DISABLE, nullptr),
              0);
    s.refreshes();

    ASSERT_EQ(mass_control_handler_by_mailname("example.com", "example.org", HANDLER_ACTION_REASSIGN),
              0);
    EXPECT_EQ(s.refreshes(), 1) << "not one refresh for the whole operation";
    const std::string moved = s.find("a", "recipient", "info@example.org");
    EXPECT_FALSE(moved.empty() || moved == a) << "address not moved under a new name";
    EXPECT_NE(s.find("b", "recipient-domain", "example.org"), "") << "domain handler not moved";
    EXPECT_NE(s.find("f", "sender", "example.com@other.net"), "") << "local part matched";
    const std::string entries = s.entries();
    EXPECT_NE(entries.find("recipient/info@example.org/" + moved), std::string::npos) << entries;
    EXPECT_EQ(entries.find("recipient-domain"), std::string::npos) << "disabled handler enabled";

    ASSERT_EQ(mass_control_handler_by_mailname("example.org", nullptr, HANDLER_ACTION_REMOVE), 0);
    EXPECT_EQ(std::distance(fs::directory_iterator(s.root + "/info"), fs::directory_iterator()), 3)
        << "removal touched another domain or a global handler";
    ASSERT_EQ(mass_control_handler_queue("c", HANDLER_ACTION_DISABLE), 0);
    EXPECT_EQ(s.entries().find("info@myexample.com"), std::string::npos);
    ASSERT_EQ(mass_control_handler_queue("all", HANDLER_ACTION_DISABLE), 0);
    EXPECT_EQ(s.entries(), "");
}

TEST(Handlers, StoreFailuresAndTheCheck)
{
    Store s;
    ASSERT_EQ(s.add("keep", "recipient-domain", "example.com"), 0);
    ASSERT_EQ(s.add("gone", "global", nullptr), 0);
    ASSERT_EQ(s.add("moved", "sender", "a@example.com"), 0);
    const std::string keep = s.find("keep", "recipient-domain", "example.com");
    const std::string moved = s.find("moved", "sender", "a@example.com");
    const std::string gone = s.find("gone", "global", "");
    const std::string before = s.entries();
    const struct {
        const char *fault;
        std::function<int()> call;
        std::string want_out;
    } cases[] = {
        {"value escaping the queue tree accepted",
         [&] { return s.add("x", "sender", "../../x"); },
         "Value '../../x' of handler parameter 'sender' cannot be part of a file name\n"},
        {"bad type in the store accepted",
         [&] {
             spit(s.root + "/info/" + gone + "/handler-type", "everyone\n");
             return control_handler_queue(gone.c_str(), HANDLER_ACTION_DISABLE, nullptr);
         },
         "Invalid handler type 'everyone' for handler '" + gone + "'\n"},
        {"unknown action accepted", [&] { return control_handler_queue(keep.c_str(), 9, nullptr); },
         "UKNOWN ACTION 9 requested for handler " + keep + "\n"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] { return c.call() == -1 ? 0 : 1; });
        EXPECT_EQ(r.status, 0) << c.fault;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
        EXPECT_EQ(s.entries(), before) << c.fault << ": queue entries changed";
    }

    // The check drops entries of handlers gone or moved and emptied queues.
    fs::remove_all(s.root + "/info/" + gone);
    spit(s.root + "/info/" + moved + "/sender", "b@example.com\n");
    fs::create_directories(s.root + "/before-remote/sender-domain/example.net");
    fs::create_directories(s.root + "/hooks/global");
    s.refreshes();
    EXPECT_EQ(mail_handler_check_all(), 0);
    EXPECT_EQ(s.entries(), "before-local/recipient-domain/example.com/" + keep + "\n");
    EXPECT_FALSE(fs::exists(s.root + "/before-remote/sender-domain/example.net"));
    EXPECT_FALSE(fs::exists(s.root + "/before-local/global"));
    EXPECT_TRUE(fs::exists(s.root + "/before-remote/sender-domain")) << "type directory removed";
    EXPECT_TRUE(fs::exists(s.root + "/hooks/global")) << "executables walked as a hook";
    EXPECT_EQ(s.refreshes(), 1);
    EXPECT_EQ(mail_handler_check_all(), 0);
    EXPECT_EQ(s.refreshes(), 0) << "refreshed without a repair";
}
