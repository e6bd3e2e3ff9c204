#include "mailtend/do_main.h"

#include "mail/auth/mail_database.h"
#include "mail/postfix/PostfixError.h"
#include "support/child_capture.h"
#include "utils/ExSystemError.h"
#include "utils/Traceback.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace zarnet::mail::postfix::mailtend_commands;
using testsupport::runInChild;

namespace {

int handlerA(int, char **) { return 11; }
int handlerB(int, char **) { return 12; }

} // namespace

TEST(CommandMapAssigner, ChainsAndLaterAssignmentWins)
{
    CommandMap map;
    CommandMapAssigner assign(map);
    assign("--x", handlerA)("--y", handlerA)("--x", handlerB);
    ASSERT_EQ(map.size(), 2u);
    EXPECT_EQ(map["--x"], handlerB);
    EXPECT_EQ(map["--y"], handlerA);
}

TEST(CommandMap, EveryBuiltEntryUnderEachOfItsWords)
{
    CommandMap map;
    fillCommandMap(map);
    std::size_t want = 0;
    for (std::size_t i = 0; i < command_table_size; ++i) {
        const CommandEntry &e = command_table[i];
        if (e.handler == nullptr)
            continue;
        const std::string text(e.command);
        const auto comma = text.find(", ");
        std::vector<std::string> words;
        if (comma == std::string::npos)
            words = {text};
        else
            words = {text.substr(0, comma), text.substr(comma + 2)};
        for (const std::string &w : words) {
            ++want;
            ASSERT_EQ(map.count(w), 1u) << w;
            EXPECT_EQ(map[w], e.handler) << w;
        }
    }
    EXPECT_EQ(map.size(), want);
    // Spot checks on the split: no key keeps the separator or a blank.
    for (const auto &kv : map)
        EXPECT_EQ(kv.first.find_first_of(", "), std::string::npos) << kv.first;
    EXPECT_EQ(map.count("-h"), 1u);
    EXPECT_EQ(map["-h"], map["--help"]);
}

TEST(CommandTable, ShapeOfTheHelpTable)
{
    ASSERT_EQ(command_table_size, 69u);
    std::size_t obsolete = 0;
    for (std::size_t i = 0; i < command_table_size; ++i)
        if (std::strstr(command_table[i].command, ", ") != nullptr)
            ++obsolete;
    EXPECT_EQ(obsolete, 13u); // 12 obsolete commands and "-h, --help"
    EXPECT_STREQ(command_table[0].command, "--add-mailname");
    EXPECT_STREQ(command_table[68].command, "-h, --help");
}

TEST(RunGuarded, ExitStatusAndFatalLineByWhatWasThrown)
{
    struct Traced : std::runtime_error, zarnet::Traceback {
        Traced() : std::runtime_error("traced") {}
    };
    const struct {
        const char *name;
        int (*run)(int, char **);
        int status;
        const char *line;
    } cases[] = {
        {"returns_handler_status", [](int, char **) { return 7; }, 7, ""},
        {"postfix_database_error",
         [](int, char **) -> int {
             throw zarnet::mail::postfix::PostfixDatabaseError("postmap: fatal: boom");
         },
         1, "Fatal error: zarnet::mail::postfix::PostfixDatabaseError(postmap: fatal: boom)\n"},
        {"typed_system_error",
         [](int, char **) -> int { zarnet::throwSystemError("execv", ENOENT); }, 1,
         "Fatal error: zarnet::ExSystemError<2>(execv: No such file or directory)\n"},
        {"standard_library_error",
         [](int, char **) -> int { throw std::invalid_argument("a..b"); }, 1,
         "Fatal error: std::invalid_argument(a..b)\n"},
        {"not_a_std_exception", [](int, char **) -> int { throw 42; }, 2,
         "UNSPECIFIED ERROR OCCURED\n"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] { return runGuarded(c.run, 0, nullptr); });
        EXPECT_EQ(r.status, c.status) << c.name;
        EXPECT_EQ(r.err, c.line) << c.name;
        EXPECT_EQ(r.out, c.line) << c.name;
    }

    const auto r = runInChild([] {
        return runGuarded([](int, char **) -> int { throw Traced(); }, 0, nullptr);
    });
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out.rfind("Fatal error: ", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("(traced)\nTraceback:\n\t"), std::string::npos) << r.out;
}

TEST(DoMain, SelectsPostfixStyleBeforeTheHandler)
{
    // The help handler ends the process itself: an exit hook sees the path
    // as the handler left it, so a selection after the handler is missed.
    const auto r = runInChild([] {
        std::string prog = "mailtend", cmd = "--help-commands";
        char *argv[] = {&prog[0], &cmd[0], nullptr};
        mailAuthDBSelectStyle(0);
        std::atexit([] { std::fprintf(stderr, "[%s]", mailAuthDB); });
        do_main(2, argv);
        return 5;
    });
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "[/var/spool/postfix/zarnet/passwd.db]");
}

TEST(MailAuthDBSelectStyle, OnlyKnownStylesChangeThePath)
{
    mailAuthDBSelectStyle(1);
    EXPECT_STREQ(mailAuthDB, "/var/spool/postfix/zarnet/passwd.db");
    mailAuthDBSelectStyle(2);
    EXPECT_STREQ(mailAuthDB, "/var/spool/postfix/zarnet/passwd.db");
    mailAuthDBSelectStyle(-1);
    EXPECT_STREQ(mailAuthDB, "/var/spool/postfix/zarnet/passwd.db");
    mailAuthDBSelectStyle(0);
    EXPECT_STREQ(mailAuthDB, "/var/lib/zarnet/mail/auth/passwd.db");
}
