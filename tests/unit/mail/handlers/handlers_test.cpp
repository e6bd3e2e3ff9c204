#include "mail/handlers/handlers.h"
#include "mail/handlers/handlers_mass.h"

#include "mail/handlers/handlers_fixture.h"
#include "support/child_capture.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using testsupport::runInChild;
using testsupport::slurp;
using testsupport::spit;

using handlers_test::joined;
using handlers_test::Store;

TEST(Handlers, OrderComparesPrioritiesAsNumbersThenTemplateThenRandom)
{
    const struct {
        const char *fault;
        const char *a, *b;
        int want; // sign
    } cases[] = {
        {"priorities compared as text", "5-virus-Zz0000", "10-spam-aB3dE9", -1},
        {"priorities not read as %i does", "0x10-a-aaaaaa", "15-a-aaaaaa", 1},
        {"template ignored", "10-alpha-zzzzzz", "10-beta-aaaaaa", -1},
        {"random part ignored", "10-spam-bbbbbb", "10-spam-aaaaaa", 1},
        {"template cut at the wrong dash", "10-anti-spam-zzzzzz", "10-anti-virus-aaaaaa", -1},
        {"equal names unequal", "10-spam-aaaaaa", "10-spam-aaaaaa", 0},
    };
    for (const auto &c : cases) {
        const int got = handlers_compare(c.a, c.b);
        EXPECT_EQ((got > 0) - (got < 0), c.want) << c.fault << ": " << c.a << " vs " << c.b;
    }

    std::string names[] = {"10-spam-aB3dE9", "90-autoresponder-x1", "5-virus-Zz0000", "10-av-q"};
    char *array[4];
    for (int i = 0; i < 4; ++i)
        array[i] = &names[i][0];
    handlers_sort(array, 4);
    const std::vector<std::string> got(array, array + 4);
    const std::vector<std::string> want = {"5-virus-Zz0000", "10-av-q", "10-spam-aB3dE9",
                                           "90-autoresponder-x1"};
    EXPECT_EQ(got, want);
}

TEST(Handlers, NamePartsAndTheirErrors)
{
    const struct {
        const char *fault;
        const char *name;
        std::string want; // priority|template, or the message
    } cases[] = {
        {"parts split wrongly", "10-anti-spam-aB3dE9", "10|anti-spam"},
        {"name without dash accepted", "spam", "Invalid handler name 'spam': missing priority section\n"},
        {"empty priority accepted", "-spam-x", "Invalid handler name '-spam-x': missing priority section\n"},
        {"missing template accepted", "10-x", "Invalid handler name '10-x': empty template part\n"},
        {"empty template accepted", "10--x", "Invalid handler name '10--x': empty template part\n"},
        {"missing random accepted", "10-spam-", "Invalid handler name '10-spam-': missing random part\n"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] {
            char *p = get_priority_from_name(c.name);
            char *t = get_template_from_name(c.name);
            if (p != nullptr && t != nullptr)
                std::printf("%s|%s", p, t);
            std::free(p);
            std::free(t);
            return 0;
        });
        // The failing pair reports once for each getter.
        const std::string want = c.want.back() == '\n' ? c.want + c.want : c.want;
        EXPECT_EQ(r.out, want) << c.fault;
    }
    const auto r = runInChild([] { return handlers_compare("spam", "10-a-b"); });
    EXPECT_EQ(r.out, "Unable to split handlers name. Skipping sorting handlers..\n");
    EXPECT_EQ(r.status, 0) << "unsplittable pair not equal";
}

TEST(Handlers, LifeCycleThroughEveryAction)
{
    Store s;
    const std::string queue = "before-local/recipient/info@example.com/";

    ASSERT_EQ(s.add("spam", "Recipient", "info@example.com"), 0);
    const std::string name = s.find("spam", "recipient", "INFO@example.com");
    ASSERT_FALSE(name.empty()) << "lookup by value not case-insensitive";
    EXPECT_EQ(name.substr(0, 8), "10-spam-");
    const std::map<std::string, std::string> params = {
        {"hook", "before-local\n"}, {"context", "ctx\n"}, {"handler-type", "recipient\n"},
        {"recipient", "info@example.com\n"}};
    for (const auto &p : params)
        EXPECT_EQ(s.param(name, p.first.c_str()), p.second) << "parameter " << p.first;
    EXPECT_EQ(fs::canonical(s.root + "/info/" + name + "/executable"), fs::canonical(s.exe));
    EXPECT_EQ(fs::status(s.root + "/info/" + name).permissions(), fs::perms(0755));
    EXPECT_EQ(joined(s.entries()), queue + name + "\n");
    EXPECT_EQ(s.refreshes(), 1);

    const struct {
        const char *fault;
        int action;
        const char *new_value;
        int want_result;
        std::string want_entries;
        int want_refreshes;
    } steps[] = {
        {"query wrong or refreshed", HANDLER_ACTION_QUERY, nullptr, 1, queue + name + "\n", 0},
        {"disable left the entry", HANDLER_ACTION_DISABLE, nullptr, 0, "", 1},
        {"query after disable", HANDLER_ACTION_QUERY, nullptr, 0, "", 0},
    };
    for (const auto &st : steps) {
        EXPECT_EQ(control_handler_queue(name.c_str(), st.action, st.new_value), st.want_result)
            << st.fault;
        EXPECT_EQ(joined(s.entries()), st.want_entries) << st.fault;
        EXPECT_EQ(s.refreshes(), st.want_refreshes) << st.fault;
    }
    const auto unknown = runInChild([&] { return control_handler_queue(name.c_str(), 9, nullptr); });
    EXPECT_EQ(unknown.out, "UKNOWN ACTION 9 requested for handler " + name + "\n");
    EXPECT_EQ(unknown.status, 255) << "unknown action accepted";
    EXPECT_FALSE(fs::exists(s.root + "/" + queue)) << "emptied queue directory kept";
    EXPECT_TRUE(fs::is_directory(s.root + "/before-local/recipient")) << "type directory removed";

    // Clone is enabled whatever the state of the original; re-assign keeps it.
    ASSERT_EQ(control_handler_queue(name.c_str(), HANDLER_ACTION_CLONE, "sales@example.com"), 0);
    const std::string clone = s.find("spam", "recipient", "sales@example.com");
    EXPECT_EQ(joined(s.entries()), "before-local/recipient/sales@example.com/" + clone + "\n");
    EXPECT_EQ(s.param(clone, "context"), "ctx\n");
    EXPECT_EQ(s.refreshes(), 1);
    ASSERT_EQ(control_handler_queue(name.c_str(), HANDLER_ACTION_REASSIGN, "info@example.org"), 0);
    EXPECT_EQ(s.find("spam", "recipient", "info@example.com"), "") << "re-assigned original kept";
    const std::string moved = s.find("spam", "recipient", "info@example.org");
    EXPECT_NE(moved, "");
    EXPECT_EQ(joined(s.entries()), "before-local/recipient/sales@example.com/" + clone + "\n")
        << "re-assignment enabled a disabled handler";
    EXPECT_EQ(s.refreshes(), 1);

    for (const std::string &n : {moved, clone})
        EXPECT_EQ(control_handler_queue(n.c_str(), HANDLER_ACTION_REMOVE, nullptr), 0);
    EXPECT_EQ(s.refreshes(), 2);
    EXPECT_TRUE(fs::is_empty(s.root + "/info")) << "information directory left";
    EXPECT_EQ(joined(s.entries()), "");
    EXPECT_TRUE(fs::is_directory(s.root + "/before-local")) << "hook directory removed";
}

TEST(Handlers, FailuresReportTheirTextAndLeaveNothingEnabled)
{
    Store s;
    ASSERT_EQ(s.add("av", "global", nullptr, "before-queue"), 0);
    const std::string global = s.find("av", "global", "", "before-queue");
    ASSERT_EQ(s.add("spam", "sender", "a@example.com"), 0);
    const std::string sender = s.find("spam", "sender", "a@example.com");
    ASSERT_EQ(control_handler_queue(sender.c_str(), HANDLER_ACTION_DISABLE, nullptr), 0);
    s.refreshes();
    const std::string before = joined(s.entries());
    const std::string missing = s.root + "/absent";

    const struct {
        const char *fault;
        std::function<int()> call;
        std::string want_out;
    } cases[] = {
        {"missing executable accepted",
         [&] {
             return mail_handler_add("x", "sender", "a@b", missing.c_str(), "", "before-local", "1",
                                     HANDLER_ACTION_ENABLE);
         },
         "Unable to stat executable '" + missing + "': No such file or directory\n"},
        {"unknown type accepted",
         [&] {
             return mail_handler_add("x", "bogus", "a@b", s.exe.c_str(), "", "before-local", "1",
                                     HANDLER_ACTION_ENABLE);
         },
         "Handler type is invalid: bogus\n"},
        {"value escaping the queue tree accepted",
         [&] {
             return mail_handler_add("x", "sender", "../../x", s.exe.c_str(), "", "before-local",
                                     "1", HANDLER_ACTION_ENABLE);
         },
         "Value '../../x' of handler parameter 'sender' cannot be part of a file name\n"},
        {"absent parameter file not reported",
         [&] {
             fs::remove(s.root + "/info/" + sender + "/hook");
             return control_handler_queue(sender.c_str(), HANDLER_ACTION_ENABLE, nullptr);
         },
         "No such parameter 'hook' for handler '" + sender + "'\n"
         "Unable to fetch 'hook' parameter value for handler '" + sender + "'\n"},
        {"bad type in the store accepted",
         [&] {
             spit(s.root + "/info/" + global + "/handler-type", "everyone\n");
             return control_handler_queue(global.c_str(), HANDLER_ACTION_DISABLE, nullptr);
         },
         "Invalid handler type 'everyone' for handler '" + global + "'\n"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] { return c.call() == -1 ? 0 : 1; });
        EXPECT_EQ(r.status, 0) << c.fault;
        EXPECT_EQ(r.out, c.want_out) << c.fault;
        EXPECT_EQ(joined(s.entries()), before) << c.fault << ": queue entries changed";
        EXPECT_EQ(std::distance(fs::directory_iterator(s.root + "/info"), fs::directory_iterator()),
                  2)
            << c.fault << ": half-made handler left";
        EXPECT_EQ(s.refreshes(), 0) << c.fault;
    }
}

TEST(Handlers, MassOperationsByMailnameFollowTheDomainOnly)
{
    Store s;
    const struct {
        const char *tmpl, *type, *value;
    } handlers[] = {
        {"a", "recipient", "info@example.com"}, {"b", "recipient-domain", "example.com"},
        {"c", "sender", "info@myexample.com"},  {"d", "sender-domain", "myexample.com"},
        {"e", "global", nullptr},               {"f", "sender", "example.com@other.net"},
    };
    for (const auto &h : handlers)
        ASSERT_EQ(s.add(h.tmpl, h.type, h.value), 0) << h.tmpl;
    ASSERT_EQ(control_handler_queue(s.find("b", "recipient-domain", "example.com").c_str(),
                                    HANDLER_ACTION_DISABLE, nullptr),
              0);
    s.refreshes();

    // Re-assignment: new names, values moved, enabled state kept.
    const std::string old_a = s.find("a", "recipient", "info@example.com");
    ASSERT_EQ(mass_control_handler_by_mailname("example.com", "example.org", HANDLER_ACTION_REASSIGN),
              0);
    EXPECT_EQ(s.refreshes(), 1) << "one refresh for the whole operation";
    const std::string new_a = s.find("a", "recipient", "info@example.org");
    const std::string new_b = s.find("b", "recipient-domain", "example.org");
    EXPECT_FALSE(new_a.empty() || new_a == old_a) << "address not moved under a new name";
    EXPECT_FALSE(new_b.empty()) << "domain handler not moved";
    const std::string entries = joined(s.entries());
    EXPECT_NE(entries.find("before-local/recipient/info@example.org/" + new_a), std::string::npos)
        << entries;
    EXPECT_EQ(entries.find("recipient-domain"), std::string::npos) << "disabled handler enabled";
    EXPECT_NE(s.find("f", "sender", "example.com@other.net"), "") << "local part matched";

    ASSERT_EQ(mass_control_handler_by_mailname("example.org", nullptr, HANDLER_ACTION_REMOVE), 0);
    std::vector<std::string> left;
    for (const auto &e : fs::directory_iterator(s.root + "/info"))
        left.push_back(s.param(e.path().filename(), "handler-type"));
    std::sort(left.begin(), left.end());
    EXPECT_EQ(joined(left), "global\n\nsender\n\nsender\n\nsender-domain\n\n")
        << "removal touched another domain or a global handler";

    // By template: only that template's handlers.
    ASSERT_EQ(mass_control_handler_queue("c", HANDLER_ACTION_DISABLE), 0);
    EXPECT_EQ(s.entries().size(), 3u);
    ASSERT_EQ(mass_control_handler_queue("all", HANDLER_ACTION_DISABLE), 0);
    EXPECT_EQ(joined(s.entries()), "");
}

TEST(Handlers, UpdateKeepsWhatIsNotGiven)
{
    const struct {
        const char *fault;
        bool enabled;
        const char *executable; // null: keep
        const char *priority;   // null: keep
    } cases[] = {
        {"active state lost", true, nullptr, nullptr},
        {"inactive handler enabled", false, nullptr, "20"},
        {"empty executable not kept", true, "", nullptr},
    };
    for (const auto &c : cases) {
        Store s;
        const std::string other = s.exe + "2";
        fs::copy_file(s.exe, other);
        ASSERT_EQ(mail_handler_add("spam", "sender-domain", "example.com", other.c_str(), "old",
                                   "before-queue", "10", HANDLER_ACTION_ENABLE),
                  0);
        const std::string old_name = s.find("spam", "sender-domain", "example.com", "before-queue");
        if (!c.enabled)
            control_handler_queue(old_name.c_str(), HANDLER_ACTION_DISABLE, nullptr);
        s.refreshes();
        ASSERT_EQ(mail_handler_update("spam", "sender-domain", "example.com", c.executable, nullptr,
                                      "before-queue", c.priority),
                  0)
            << c.fault;
        EXPECT_EQ(s.refreshes(), 1) << c.fault;
        const std::string name = s.find("spam", "sender-domain", "example.com", "before-queue");
        EXPECT_NE(name, old_name) << c.fault;
        EXPECT_EQ(name.substr(0, 3), std::string(c.priority ? c.priority : "10") + "-") << c.fault;
        EXPECT_EQ(fs::read_symlink(s.root + "/info/" + name + "/executable"), other) << c.fault;
        EXPECT_EQ(s.param(name, "context"), "old\n") << c.fault;
        EXPECT_EQ(s.entries().size(), c.enabled ? 1u : 0u) << c.fault;
        EXPECT_FALSE(fs::exists(s.root + "/info/" + old_name)) << c.fault;
    }
    Store s;
    const auto r = runInChild([] {
        return mail_handler_update("spam", "sender", "a@b", nullptr, nullptr, "before-queue",
                                   nullptr) == -1 ? 0 : 1;
    });
    EXPECT_EQ(r.out, "Handler spam for a@b does not exist in queue before-queue\n") << r;
}

TEST(Handlers, CheckAllRemovesStaleEntriesAndEmptyQueues)
{
    Store s;
    ASSERT_EQ(s.add("keep", "recipient-domain", "example.com"), 0);
    ASSERT_EQ(s.add("gone", "global", nullptr), 0);
    ASSERT_EQ(s.add("moved", "sender", "a@example.com"), 0);
    const std::string keep = s.find("keep", "recipient-domain", "example.com");
    const std::string gone = s.find("gone", "global", "");
    const std::string moved = s.find("moved", "sender", "a@example.com");
    fs::remove_all(s.root + "/info/" + gone);
    spit(s.root + "/info/" + moved + "/sender", "b@example.com\n");
    fs::create_directories(s.root + "/before-remote/sender-domain/example.net");
    fs::create_directories(s.root + "/hooks/global");
    s.refreshes();

    EXPECT_EQ(mail_handler_check_all(), 0);
    EXPECT_EQ(joined(s.entries()), "before-local/recipient-domain/example.com/" + keep + "\n")
        << "stale or misplaced entry kept, or a good one removed";
    const struct {
        const char *fault;
        std::string path;
        bool want;
    } dirs[] = {
        {"empty queue kept", "/before-remote/sender-domain/example.net", false},
        {"emptied global queue kept", "/before-local/global", false},
        {"type directory removed", "/before-remote/sender-domain", true},
        {"hook directory removed", "/before-remote", true},
        {"executables directory walked as a hook", "/hooks/global", true},
    };
    for (const auto &d : dirs)
        EXPECT_EQ(fs::exists(s.root + d.path), d.want) << d.fault;
    EXPECT_EQ(s.refreshes(), 1);
    EXPECT_EQ(mail_handler_check_all(), 0);
    EXPECT_EQ(s.refreshes(), 0) << "refreshed without a repair";
}
