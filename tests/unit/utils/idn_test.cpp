#include "utils/idn.h"

#include "support/child_capture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

using zarnet::idn::IdnaError;

namespace {

// The conversion's result, or the IdnaError it threw as "error CODE: TEXT".
std::string outcome(std::string (*convert)(const std::string &), const std::string &input)
{
    try {
        return convert(input);
    } catch (const IdnaError &e) {
        return "error " + std::to_string(e.code()) + ": " + e.what();
    }
}

// A malloc'ed result and idn_errno: free() makes the sanitizer catch one from new or a static buffer.
std::string taken(char *s)
{
    const std::unique_ptr<char, void (*)(void *)> owned(s, std::free);
    return (s ? std::string(s) : std::string("(null)")) + " " + std::to_string(idn_errno);
}

const std::string label64(64, 'a'), buecher = "b\xc3\xbc" "cher.example", ace = "xn--bcher-kva.example";

} // namespace

TEST(Idn, Conversions)
{
    using namespace zarnet::idn;
    const std::string label63(63, 'a');
    const auto proc = [](char *(*convert)(const char *), const std::string &input) {
        idn_errno = 0;
        return taken(convert(input.c_str()));
    };
    const struct {
        const char *fault;
        std::string got, want;
    } cases[] = {
        {"non-ASCII label not in ACE form", outcome(toAscii, buecher), ace},
        {"not lowercased by nameprep", outcome(toAscii, "B\xc3\x9c" "CHER.example"), ace},
        {"ASCII name altered", outcome(toAscii, "Mail.Example.COM"), "Mail.Example.COM"},
        {"63-byte label rejected", outcome(toAscii, label63 + ".com"), label63 + ".com"},
        {"empty name rejected", outcome(toAscii, ""), ""},
        {"64-byte label accepted", outcome(toAscii, label64 + ".com"), "error 5: Invalid length"},
        {"unassigned code point accepted", outcome(toAscii, "\xc8\xa1.com"), "error 1: Stringprep error"},
        {"invalid UTF-8 accepted", outcome(toAscii, "\xff\xfe.com"), "error 9: Iconv error"},
        {"ACE not decoded", outcome(toUtf8, ace), buecher},
        {"ASCII altered by decoding", outcome(toUtf8, "Plain.example"), "Plain.example"},
        {"decoding error lost", outcome(toUtf8, "\xff.com"), "error 9: Iconv error"},
        {"text without @ converted", outcome(emailToAscii, "b\xc3\xbc" "cher"), "b\xc3\xbc" "cher"},
        {"local part converted", outcome(emailToAscii, "j\xc3\xb6rg@" + buecher), "j\xc3\xb6rg@" + ace},
        {"ASCII local part case changed", outcome(emailToAscii, "John.Doe@Example.com"), "John.Doe@Example.com"},
        {"empty domain mishandled", outcome(emailToAscii, "user@"), "user@"},
        {"domain error swallowed", outcome(emailToAscii, "user@" + label64 + ".com"), "error 5: Invalid length"},
        {"idn_toascii", proc(idn_toascii, buecher), ace + " 0"},
        {"idn_toascii failure code", proc(idn_toascii, label64 + ".com"), "(null) 5"},
        {"idn_toutf8", proc(idn_toutf8, ace), buecher + " 0"},
        {"idn_toutf8 failure code", proc(idn_toutf8, "\xff.com"), "(null) 9"},
        {"email local part touched", proc(idn_email_toascii, "j\xc3\xb6@" + buecher), "j\xc3\xb6@" + ace + " 0"},
        {"email domain failure formatted in", proc(idn_email_toascii, "u@" + label64), "(null) 5"},
        {"email without @ leaves a stale code", proc(idn_email_toascii, "no-at-sign.example"), "(null) -1"},
        {"idn_toascii_safe", proc(idn_toascii_safe, buecher), ace + " 0"},
        {"idn_email_toascii_safe", proc(idn_email_toascii_safe, "a@" + buecher), "a@" + ace + " 0"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.got, c.want) << c.fault;
}

TEST(Idn, TextPerCode)
{
    const struct {
        int code;
        const char *want;
    } cases[] = {{0, "Success"}, {1, "Stringprep error"}, {2, "Punycode error"}, {3, "Contains non-LDH characters"},
                 {4, "Contains minus"}, {5, "Invalid length"}, {6, "ACE prefix not found"}, {7, "Verify error"},
                 {8, "ACE prefix found"}, {9, "Iconv error"}, {201, "Cannot allocate buffer"}, {10, "Unknown error"},
                 {202, "Unknown error"}, {-1, "Unknown error"}};
    for (const auto &c : cases) {
        EXPECT_STREQ(idn_strerror(c.code), c.want) << "code " << c.code;
        EXPECT_STREQ(IdnaError(c.code).what(), c.want) << "IdnaError " << c.code;
    }
}

TEST(Idn, SafeVariantsEndTheProcessAndUrlsReportOnBothStreams)
{
    // 4095 bytes and the terminating NUL fill the static buffer exactly.
    const std::string longest = "http://h/" + std::string(4095 - 9, 'p'), bad = label64 + ".com";
    const auto url = [](const std::string &u) {
        return [u] {
            errno = 0;
            const char *got = idn_url_toascii(u.c_str());
            return std::printf("%s|", got ? got : "(null)") < 0;
        };
    };
    const auto safe = [](char *(*convert)(const char *), const std::string &input) {
        return [=] {
            std::free(convert(input.c_str()));
            return 0;
        };
    };
    const std::string noHost = "no hostname found in URL\n";
    const struct {
        const char *fault;
        std::function<int()> run;
        int status;
        std::string out, err;
    } cases[] = {
        {"toascii failure survived", safe(idn_toascii_safe, bad), 1, "", "idn_toascii(" + bad + ") failed: Invalid length\n"},
        {"toutf8 failure survived", safe(idn_toutf8_safe, "\xff.com"), 1, "", "idn_toutf8(\xff.com) failed: Iconv error\n"},
        {"email failure survived", safe(idn_email_toascii_safe, "u@" + bad), 1, "",
         "idn_email_toascii(u@" + bad + ") failed: Invalid length\n"},
        {"email without @ survived", safe(idn_email_toascii_safe, "nobody"), 1, "",
         "idn_email_toascii(nobody) failed: Unknown error\n"},
        {"URL scheme, user, port or path lost", url("http://us\xc3\xa9r@" + buecher + ":8080/p?q#f"), 0,
         "http://us\xc3\xa9r@" + ace + ":8080/p?q#f|", ""},
        {"https scheme lost", url("https://" + buecher), 0, "https://" + ace + "|", ""},
        {"ftp scheme lost", url("ftp://" + buecher + "/x"), 0, "ftp://" + ace + "/x|", ""},
        {"bare host rejected", url(buecher), 0, ace + "|", ""},
        {"@ in the path taken for a user", url("http://" + buecher + "/~u@x"), 0, "http://" + ace + "/~u@x|", ""},
        {"@ in the query taken for a user", url(buecher + "?to=u@x"), 0, ace + "?to=u@x|", ""},
        {"size check off by one", url(longest), 0, longest + "|", ""},
        {"empty URL accepted", url(""), 0, noHost + "(null)|", noHost},
        {"path without host accepted", url("/just/a/path"), 0, noHost + "(null)|", noHost},
        {"host error ignored", url("http://" + bad + "/"), 0, "idn_toascii() failed: Invalid length\n(null)|",
         "idn_toascii() failed: Invalid length\n"},
        {"static buffer overrun", url(longest + "p"), 0,
         "converted URL is too long: 4096 bytes, at most 4095 allowed\n(null)|",
         "converted URL is too long: 4096 bytes, at most 4095 allowed\n"},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild(c.run);
        EXPECT_EQ(r.status, c.status) << c.fault;
        // A failing safe variant may add the system error line.
        EXPECT_EQ(c.status ? r.err.substr(0, c.err.size()) : r.err, c.err) << c.fault;
        EXPECT_EQ(r.out, c.status ? r.err : c.out) << c.fault;
    }
}
