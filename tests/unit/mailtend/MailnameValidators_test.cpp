#include "mailtend/MailnameValidators.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using zarnet::mail::postfix::mailname_validators::mailValidateExc;

TEST(MailValidateExc, AcceptsOrThrowsTheName)
{
    EXPECT_EQ(mailValidateExc("john.doe", VALIDATE_MAILNAME), 1);

    const struct {
        const char *fault;
        std::string name;
        int type;
    } rejected[] = {
        {"double_dot_accepted", "a..b", VALIDATE_MAILNAME},
        {"unknown_type_accepted", "fine", 7},
        {"text_after_nul_unchecked", std::string("ok\0/../x", 8), VALIDATE_MAILNAME},
    };
    for (const auto &c : rejected) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        try {
            mailValidateExc(c.name, c.type);
            ADD_FAILURE() << c.fault;
        } catch (const std::invalid_argument &e) {
            EXPECT_STREQ(e.what(), c.name.c_str()) << c.fault << ": message is not the name";
        }
        testing::internal::GetCapturedStderr();
        testing::internal::GetCapturedStdout();
    }
}
