#include "utils/mail_validate.h"

#include <gtest/gtest.h>

#include <string>

TEST(MailValidate, MailnameRejectsDoubleDot)
{
    const struct {
        const char *fault;
        const char *name;
        int want;
    } cases[] = {
        {"single_dot_rejected", "a.b", 1},
        {"double_dot_accepted", "a..b", 0},
        {"leading_double_dot_accepted", "../x", 0},
        {"trailing_double_dot_accepted", "x..", 0},
        {"triple_dot_accepted", "a...b", 0},
        {"edge_dots_rejected", ".a.", 1},
        {"null_accepted", nullptr, 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(mail_validate(c.name, VALIDATE_MAILNAME), c.want) << c.fault;
}

TEST(MailValidate, UnknownTypeLoggedAndRejected)
{
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    const int got = mail_validate("fine", 1);
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(got, 0);
    EXPECT_EQ(err, "unknown validation_type: 1\n");
    EXPECT_EQ(out, "unknown validation_type: 1\n");
}
