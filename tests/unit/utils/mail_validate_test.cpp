#include "utils/mail_validate.h"

#include "test_common.h"

TEST(MailValidate, MailnameRejectsDoubleDotAndUnknownTypesAreLogged)
{
    const struct { const char *fault; const char *name; int want; } cases[] = {
        {"single dot rejected", "a.b", 1}, {"double dot accepted", "a..b", 0}, {"leading double dot accepted", "../x", 0},
                 {"edge dots rejected", ".a.", 1}, {"null accepted", nullptr, 0}};
    for (const auto &c : cases)
        EXPECT_EQ(mail_validate(c.name, VALIDATE_MAILNAME), c.want) << c.fault;
    const auto r = testsupport::runInChild([] { return mail_validate("fine", 1); });
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out + "|" + r.err, "unknown validation_type: 1\n|unknown validation_type: 1\n");
}
