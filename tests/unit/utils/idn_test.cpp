#include "utils/idn.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

using zarnet::idn::IdnaError;

namespace {

// Takes a malloc'ed result: free() makes the sanitizer catch one from new
// or a static buffer.
std::string take(char *s)
{
    const std::unique_ptr<char, void (*)(void *)> owned(s, std::free);
    return s ? std::string(s) : std::string("(null)");
}

// The conversion's result, or the IdnaError it threw as "error CODE: TEXT".
template <class Convert>
std::string outcome(Convert convert, const std::string &input)
{
    try {
        return convert(input);
    } catch (const IdnaError &e) {
        return "error " + std::to_string(e.code()) + ": " + e.what();
    }
}

const std::string label63(63, 'a');
const std::string label64(64, 'a');
const std::string buecher = "b\xc3\xbc" "cher.example", ace = "xn--bcher-kva.example";

} // namespace

TEST(Idn, ClassConversions)
{
    const auto toAscii = zarnet::idn::toAscii, toUtf8 = zarnet::idn::toUtf8;
    const auto email = zarnet::idn::emailToAscii;
    const struct {
        const char *fault;
        std::string (*convert)(const std::string &);
        std::string input, want;
    } cases[] = {
        {"non_ascii_label_not_in_ace_form", toAscii, buecher, ace},
        {"not_lowercased_by_nameprep", toAscii, "B\xc3\x9c" "CHER.example", ace},
        {"ascii_name_altered", toAscii, "Mail.Example.COM", "Mail.Example.COM"},
        {"63_byte_label_rejected", toAscii, label63 + ".com", label63 + ".com"},
        {"empty_name_rejected", toAscii, "", ""},
        {"64_byte_label_accepted", toAscii, label64 + ".com", "error 5: Invalid length"},
        {"unassigned_code_point_accepted", toAscii, "\xc8\xa1.com", "error 1: Stringprep error"},
        {"invalid_utf8_accepted", toAscii, "\xff\xfe.com", "error 9: Iconv error"},
        {"ace_not_decoded", toUtf8, ace, buecher},
        {"ascii_altered_by_decoding", toUtf8, "Plain.example", "Plain.example"},
        {"decoding_error_lost", toUtf8, "\xff.com", "error 9: Iconv error"},
        {"text_without_at_converted", email, "b\xc3\xbc" "cher", "b\xc3\xbc" "cher"},
        {"local_part_converted", email, "j\xc3\xb6rg@" + buecher, "j\xc3\xb6rg@" + ace},
        {"ascii_local_part_case_changed", email, "John.Doe@Example.com", "John.Doe@Example.com"},
        {"empty_domain_mishandled", email, "user@", "user@"},
        {"domain_error_swallowed", email, "user@" + label64 + ".com", "error 5: Invalid length"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(outcome(c.convert, c.input), c.want) << c.fault;
}

TEST(Idn, TextPerCode)
{
    const struct {
        int code;
        const char *want;
    } cases[] = {
        {0, "Success"},           {1, "Stringprep error"},
        {2, "Punycode error"},    {3, "Contains non-LDH characters"},
        {4, "Contains minus"},    {5, "Invalid length"},
        {6, "ACE prefix not found"}, {7, "Verify error"},
        {8, "ACE prefix found"},  {9, "Iconv error"},
        {201, "Cannot allocate buffer"}, {10, "Unknown error"},
        {202, "Unknown error"},   {-1, "Unknown error"},
    };
    for (const auto &c : cases) {
        EXPECT_STREQ(idn_strerror(c.code), c.want) << "code " << c.code;
        EXPECT_STREQ(IdnaError(c.code).what(), c.want) << "IdnaError " << c.code;
    }
}

TEST(Idn, ProceduralResultsAreMallocedOrNullWithCode)
{
    const struct {
        const char *fault;
        char *(*convert)(const char *);
        std::string input, want;
        int code; // idn_errno after a failure
    } cases[] = {
        {"toascii", idn_toascii, buecher, ace, 0},
        {"toascii failure code", idn_toascii, label64 + ".com", "(null)", 5},
        {"toutf8", idn_toutf8, ace, buecher, 0},
        {"toutf8 failure code", idn_toutf8, "\xff.com", "(null)", 9},
        {"email local part touched", idn_email_toascii, "j\xc3\xb6@" + buecher, "j\xc3\xb6@" + ace, 0},
        {"email domain failure formatted in", idn_email_toascii, "u@" + label64, "(null)", 5},
        {"email without @ leaves a stale code", idn_email_toascii, "no-at-sign.example", "(null)", -1},
        {"toascii_safe", idn_toascii_safe, buecher, ace, 0},
        {"email_toascii_safe", idn_email_toascii_safe, "a@" + buecher, "a@" + ace, 0},
    };
    for (const auto &c : cases) {
        idn_errno = 0;
        EXPECT_EQ(take(c.convert(c.input.c_str())), c.want) << c.fault;
        EXPECT_EQ(idn_errno, c.code) << c.fault;
    }
}

TEST(IdnDeathTest, SafeVariantsEndTheProcessOnFailure)
{
    const std::string bad = label64 + ".com";
    EXPECT_EXIT(idn_toascii_safe(bad.c_str()), testing::ExitedWithCode(1),
                "^idn_toascii\\(a{64}\\.com\\) failed: Invalid length");
    EXPECT_EXIT(idn_toutf8_safe("\xff.com"), testing::ExitedWithCode(1),
                "^idn_toutf8\\(.*\\) failed: Iconv error");
    EXPECT_EXIT(idn_email_toascii_safe(("u@" + bad).c_str()), testing::ExitedWithCode(1),
                "^idn_email_toascii\\(u@a{64}\\.com\\) failed: Invalid length");
    EXPECT_EXIT(idn_email_toascii_safe("nobody"), testing::ExitedWithCode(1),
                "^idn_email_toascii\\(nobody\\) failed: Unknown error");
}

TEST(Idn, UrlHostOnlyIsConverted)
{
    // 4095 bytes and the terminating NUL fill the static buffer exactly.
    const std::string longest = "http://h/" + std::string(4095 - 9, 'p');
    const std::string no_host = "no hostname found in URL\n";
    const struct {
        const char *fault;
        std::string url;
        std::string want;
        std::string message; // on both streams
    } cases[] = {
        {"scheme_user_port_path_lost", "http://us\xc3\xa9r@" + buecher + ":8080/p?q#f",
         "http://us\xc3\xa9r@" + ace + ":8080/p?q#f", ""},
        {"https_scheme_lost", "https://" + buecher, "https://" + ace, ""},
        {"ftp_scheme_lost", "ftp://" + buecher + "/x", "ftp://" + ace + "/x", ""},
        {"bare_host_rejected", buecher, ace, ""},
        {"at_sign_in_path_taken_for_user", "http://" + buecher + "/~u@x", "http://" + ace + "/~u@x", ""},
        {"at_sign_in_query_taken_for_user", buecher + "?to=u@x", ace + "?to=u@x", ""},
        {"size_check_off_by_one", longest, longest, ""},
        {"empty_url_accepted", "", "(null)", no_host},
        {"path_without_host_accepted", "/just/a/path", "(null)", no_host},
        {"host_error_ignored", "http://" + label64 + ".com/", "(null)",
         "idn_toascii() failed: Invalid length\n"},
        {"static_buffer_overrun", longest + "p", "(null)", "converted URL is too long: 4096 bytes, "
         "at most 4095 allowed\n"},
    };
    for (const auto &c : cases) {
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        const char *got = idn_url_toascii(c.url.c_str());
        const std::string out = testing::internal::GetCapturedStdout();
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(got ? std::string(got) : "(null)", c.want) << c.fault;
        EXPECT_EQ(err, c.message) << c.fault;
        EXPECT_EQ(out, c.message) << c.fault;
    }
}
