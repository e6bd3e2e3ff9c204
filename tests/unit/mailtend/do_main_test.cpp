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
using zarnet::throwSystemError;
using zarnet::mail::postfix::PostfixDatabaseError;

TEST(CommandMapAssigner, ChainsAndLaterAssignmentWins)
{
    const Command a = {"a", "", ""}, b = {"b", "", ""};
    CommandMap map;
    CommandMapAssigner assign(map);
    assign("--x", a)("--y", a)("--x", b);
    EXPECT_EQ(map, (CommandMap{{"--x", &b}, {"--y", &a}}));
}

namespace {

struct Traced : std::runtime_error, zarnet::Traceback {
    Traced() : std::runtime_error("traced") {}
};

} // namespace

TEST(RunGuarded, ExitStatusAndFatalLineByWhatWasThrown)
{
    const struct {
        const char *fault;
        int (*run)(int, char **);
        int status;
        const char *line; // on both streams, then the traceback's frames if any
    } cases[] = {
        {"handler_status_lost", [](int, char **) { return 7; }, 7, ""},
        {"class_not_demangled", [](int, char **) -> int { throw PostfixDatabaseError("boom"); }, 1,
         "Fatal error: zarnet::mail::postfix::PostfixDatabaseError(boom)\n"},
        {"template_class_not_demangled", [](int, char **) -> int { throwSystemError("execv", ENOENT); },
         1, "Fatal error: zarnet::ExSystemError<2>(execv: No such file or directory)\n"},
        {"not_a_std_exception", [](int, char **) -> int { throw 42; }, 2, "UNSPECIFIED ERROR OCCURED\n"},
        {"traceback_dropped", [](int, char **) -> int { throw Traced(); }, 1,
         "Fatal error: (anonymous namespace)::Traced(traced)\nTraceback:\n\t"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] { return runGuarded(c.run, 0, nullptr); });
        EXPECT_EQ(r.status, c.status) << c.fault;
        EXPECT_EQ(r.out, r.err) << c.fault;
        const bool traced = std::strstr(c.line, "Traceback") != nullptr;
        EXPECT_EQ(traced ? r.out.substr(0, std::strlen(c.line)) : r.out, c.line) << c.fault;
    }
}

TEST(DoMain, SelectsPostfixStyleBeforeTheHandler)
{
    // The help handler ends the process: an exit hook sees the path it left.
    const auto r = runInChild([] {
        std::string prog = "mailtend", cmd = "--help-commands";
        char *argv[] = {&prog[0], &cmd[0], nullptr};
        mailAuthDBSelectStyle(0);
        std::atexit([] { std::fprintf(stderr, "[%s]", mailAuthDB); });
        return do_main(2, argv);
    });
    EXPECT_EQ(r.err, "[/var/spool/postfix/zarnet/passwd.db]");
}

TEST(MailAuthDBSelectStyle, UnknownStylesKeepThePath)
{
    for (const int style : {1, 2, -1})
        mailAuthDBSelectStyle(style);
    EXPECT_STREQ(mailAuthDB, "/var/spool/postfix/zarnet/passwd.db");
}
