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

TEST(Validate, BoundariesOfEachKind)
{
    namespace v = zarnet::validate;
    const std::string l63(63, 'a'), l64(64, 'a');
    const std::string name253 = l63 + "." + l63 + "." + l63 + "." + std::string(61, 'a');
    const struct { const char *fault; std::string got; bool ok; } cases[] = {
        {"63-byte label refused", v::hostName(l63 + ".example"), true},
        {"64-byte label taken", v::hostName(l64 + ".example"), false},
        {"253-byte name refused", v::hostName(name253), true},
        {"254-byte name taken", v::hostName(name253 + "a"), false},
        {"digits and inner hyphen refused", v::hostName("x-1.0.example"), true},
        {"trailing hyphen taken", v::hostName("a-.example"), false},
        {"empty last label taken", v::hostName("a.example."), false},
        {"IDN refused", v::domainName("b\xc3\xbc" "cher.example"), true},
        {"broken UTF-8 taken", v::domainName("b\xc3" "cher.example"), false},
        {"surrogate taken", v::mailname("a\xed\xa0\x80"), false},
        {"UTF-8 local part refused", v::mailAddress("j\xc3\xb6rg@example.com"), true},
        {"64-byte local part refused", v::mailAddress(l64 + "@example.com"), true},
        {"65-byte local part taken", v::mailAddress(l64 + "a@example.com"), false},
        {"atext specials refused", v::mailname("a+b=c_d-e'f"), true},
        {"comma taken", v::mailname("a,b"), false},
        {".qmail forward line taken", v::mailAddress("&x@y.example"), false},
        {".qmail comment line taken", v::mailname("#x"), false},
        {"empty mailname taken from the commands", v::mailname(""), true},
        {"DEL in text taken", v::lineText("a\x7f", 10), false},
        {"text at its limit refused", v::lineText("0123456789", 10), true},
        {"v6 host bit in a partial byte taken", v::network("2001:db8:4000::", 33, true), false},
        {"v6 network refused", v::network("2001:db8:8000::", 33, true), true},
        {"removal of /0 refused", v::network("0.0.0.0", 0, false), true},
        {"IPv4 with zone taken", v::ipAddress("10.0.0.1%eth0"), false},
        {"smallest size refused", v::letterSize(v::min_letter_size, 0), true},
        {"size below it taken", v::letterSize(v::min_letter_size - 1, 0), false},
        {"size refused without a mailbox limit", v::letterSize(INT64_MAX, 0), true},
        {"zero refused", v::letterSize(0, 51200000), true},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.got.empty(), c.ok) << c.fault << ": " << c.got;
}
