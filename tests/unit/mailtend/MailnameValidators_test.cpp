#include "mailtend/MailnameValidators.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using zarnet::mail::postfix::mailname_validators::mailValidateExc;

TEST(MailValidateExc, ReturnsTheResultOrThrowsTheName)
{
    EXPECT_EQ(mailValidateExc("john.doe", VALIDATE_MAILNAME), 1);
    // A NUL must not hide the rest of the name from the check.
    for (const std::string &name : {std::string("a..b"), std::string("ok\0/../x", 8)}) {
        try {
            mailValidateExc(name);
            ADD_FAILURE() << name << " accepted";
        } catch (const std::invalid_argument &e) {
            EXPECT_STREQ(e.what(), name.c_str()) << "message is not the name";
        }
    }
}
