#include "utils/idn.h"

#include "test_common.h"

#include <cstdio>
#include <cstdlib>

using zarnet::idn::IdnaError;

TEST(Idn, ConversionsAndWhatTheSafeAndUrlVariantsReport)
{
    using namespace zarnet::idn;
    const std::string label63(63, 'a'), label64(64, 'a'), buecher = "b\xc3\xbc" "cher.example", ace = "xn--bcher-kva.example";
    const auto outcome = [](std::string (*convert)(const std::string &), const std::string &input) {
        try {
            return convert(input);
        } catch (const IdnaError &e) {
            return "error " + std::to_string(e.code()) + ": " + e.what();
        }
    };
    // free() makes the sanitizer catch a result from new or a static buffer.
    const auto proc = [](char *(*convert)(const char *), const std::string &input) {
        idn_errno = 0;
        char *s = convert(input.c_str());
        const std::string got = (s ? std::string(s) : "(null)") + " " + std::to_string(idn_errno);
        return std::free(s), got;
    };
    const struct { const char *fault; std::string got, want; } cases[] = {
        {"not lowercased by nameprep", outcome(toAscii, "B\xc3\x9c" "CHER.example"), ace},
        {"ASCII name altered", outcome(toAscii, "Mail.Example.COM"), "Mail.Example.COM"},
        {"63-byte label rejected", outcome(toAscii, label63 + ".com"), label63 + ".com"},
        {"empty name rejected", outcome(toAscii, ""), ""},
        {"64-byte label accepted", outcome(toAscii, label64 + ".com"), "error 5: Invalid length"},
        {"unassigned code point accepted", outcome(toAscii, "\xc8\xa1.com"), "error 1: Stringprep error"},
        {"invalid UTF-8 accepted", outcome(toAscii, "\xff\xfe.com"), "error 9: Iconv error"},
        {"ACE not decoded", outcome(toUtf8, ace), buecher},
        {"text without @ converted", outcome(emailToAscii, "b\xc3\xbc" "cher"), "b\xc3\xbc" "cher"},
        {"local part converted", outcome(emailToAscii, "j\xc3\xb6rg@" + buecher), "j\xc3\xb6rg@" + ace},
        {"empty domain mishandled", outcome(emailToAscii, "user@"), "user@"},
        {"domain error swallowed", outcome(emailToAscii, "user@" + label64 + ".com"), "error 5: Invalid length"},
        {"idn_toascii", proc(idn_toascii, buecher), ace + " 0"},
        {"idn_toascii failure code", proc(idn_toascii, label64 + ".com"), "(null) 5"},
        {"email local part touched", proc(idn_email_toascii, "j\xc3\xb6@" + buecher), "j\xc3\xb6@" + ace + " 0"},
        {"email domain failure formatted in", proc(idn_email_toascii, "u@" + label64), "(null) 5"},
        {"email without @ leaves a stale code", proc(idn_email_toascii, "no-at-sign.example"), "(null) -1"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.got, c.want) << c.fault;
    std::string texts;
    for (const int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 201, 202, -1})
        texts += std::string(idn_strerror(code)) + "|" + (IdnaError(code).what() == std::string(idn_strerror(code)) ? "" : "!");
    EXPECT_EQ(texts, "Success|Stringprep error|Punycode error|Contains non-LDH characters|Contains minus|"
                     "Invalid length|ACE prefix not found|Verify error|ACE prefix found|Iconv error|Unknown error|"
                     "Cannot allocate buffer|Unknown error|Unknown error|");
    // 4095 bytes and the terminating NUL fill the static buffer exactly.
    const std::string longest = "http://h/" + std::string(4095 - 9, 'p'), bad = std::string(64, 'a') + ".com";
    const auto url = [](const std::string &u) {
        return [u] {
            const char *got = idn_url_toascii(u.c_str());
            return std::printf("%s|", got ? got : "(null)") < 0;
        };
    };
    const std::string tooLong = "converted URL is too long: 4096 bytes, at most 4095 allowed\n";
    const struct { const char *fault; std::function<int()> run; int status; std::string out, err; } reports[] = {
        {"toascii failure survived", [&] { return std::free(idn_toascii_safe(bad.c_str())), 0; }, 1, "",
         "idn_toascii(" + bad + ") failed: Invalid length\n"},
        {"URL scheme, user, port or path lost", url("http://us\xc3\xa9r@b\xc3\xbc" "cher.example:8080/p?q#f"), 0,
         "http://us\xc3\xa9r@xn--bcher-kva.example:8080/p?q#f|", ""},
        {"size check off by one", url(longest), 0, longest + "|", ""},
        {"host error ignored", url("http://" + bad + "/"), 0, "idn_toascii() failed: Invalid length\n(null)|",
         "idn_toascii() failed: Invalid length\n"},
        {"static buffer overrun", url(longest + "p"), 0, tooLong + "(null)|", tooLong},
    };
    for (const auto &c : reports) {
        const auto r = testsupport::runInChild(c.run);
        EXPECT_EQ(r.status, c.status) << c.fault;
        // A failing safe variant may add the system error line.
        EXPECT_EQ(c.status ? r.err.substr(0, c.err.size()) : r.err, c.err) << c.fault;
        EXPECT_EQ(r.out, c.status ? r.err : c.out) << c.fault;
    }
}
