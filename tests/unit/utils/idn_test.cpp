#include "utils/idn.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

using zarnet::idn::IdnaError;

namespace {

struct FreeDeleter {
    void operator()(char *p) const { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

std::string orNull(const CString &s)
{
    return s ? std::string(s.get()) : std::string("(null)");
}

const std::string label63(63, 'a');
const std::string label64(64, 'a');

} // namespace

TEST(IdnToAscii, ConvertsNames)
{
    const struct {
        const char *fault;
        std::string name;
        std::string want;
    } cases[] = {
        {"non_ascii_label_not_in_ace_form", "b\xc3\xbc" "cher.example", "xn--bcher-kva.example"},
        {"non_ascii_label_not_lowercased_by_nameprep", "B\xc3\x9c" "CHER.example",
         "xn--bcher-kva.example"},
        {"ascii_name_altered", "Mail.Example.COM", "Mail.Example.COM"},
        {"nameprep_mapping_skipped", "\xef\xbc\xa1.com", "a.com"},
        {"63_byte_label_rejected", label63 + ".com", label63 + ".com"},
        {"empty_name_rejected", "", ""},
    };
    for (const auto &c : cases)
        EXPECT_EQ(zarnet::idn::toAscii(c.name), c.want) << c.fault;
}

TEST(IdnToAscii, ThrowsLibidnCodeWithItsText)
{
    const struct {
        const char *fault;
        std::string name;
        int code;
        const char *text;
    } cases[] = {
        {"64_byte_label_accepted", label64 + ".com", 5, "Invalid length"},
        {"empty_label_accepted", "a..b", 5, "Invalid length"},
        {"unassigned_code_point_accepted", "\xc8\xa1.com", 1, "Stringprep error"},
        {"prohibited_bidi_control_accepted", "a\xe2\x80\xae.com", 1, "Stringprep error"},
        {"invalid_utf8_accepted", "\xff\xfe.com", 9, "Iconv error"},
    };
    for (const auto &c : cases) {
        try {
            const std::string got = zarnet::idn::toAscii(c.name);
            ADD_FAILURE() << c.fault << ": got \"" << got << "\", want IdnaError " << c.code;
        } catch (const IdnaError &e) {
            EXPECT_EQ(e.code(), c.code) << c.fault;
            EXPECT_STREQ(e.what(), c.text) << c.fault;
        }
    }
}

TEST(IdnToUtf8, DecodesAceAndReportsBadInput)
{
    EXPECT_EQ(zarnet::idn::toUtf8("xn--bcher-kva.example"), "b\xc3\xbc" "cher.example");
    EXPECT_EQ(zarnet::idn::toUtf8("Plain.example"), "Plain.example");
    try {
        zarnet::idn::toUtf8("\xff.com");
        ADD_FAILURE() << "invalid UTF-8 accepted";
    } catch (const IdnaError &e) {
        EXPECT_EQ(e.code(), 9);
    }
}

TEST(IdnEmailToAscii, ConvertsOnlyTheDomain)
{
    const struct {
        const char *fault;
        std::string address;
        std::string want;
    } cases[] = {
        {"text_without_at_converted", "b\xc3\xbc" "cher", "b\xc3\xbc" "cher"},
        {"local_part_converted", "j\xc3\xb6rg@b\xc3\xbc" "cher.example",
         "j\xc3\xb6rg@xn--bcher-kva.example"},
        {"ascii_local_part_case_changed", "John.Doe@Example.com", "John.Doe@Example.com"},
        {"empty_domain_mishandled", "user@", "user@"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(zarnet::idn::emailToAscii(c.address), c.want) << c.fault;

    EXPECT_THROW(zarnet::idn::emailToAscii("user@" + label64 + ".com"), IdnaError)
        << "domain error swallowed";
}

TEST(IdnStrerror, TextPerCode)
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

TEST(IdnProcedural, ReturnsMallocedResultsOrNullWithCode)
{
    // Freed with free(): the sanitizer catches a result from new or a static buffer.
    EXPECT_EQ(orNull(CString(idn_toascii("b\xc3\xbc" "cher.example"))), "xn--bcher-kva.example");
    EXPECT_EQ(orNull(CString(idn_toutf8("xn--bcher-kva.example"))), "b\xc3\xbc" "cher.example");
    EXPECT_EQ(orNull(CString(idn_email_toascii("j\xc3\xb6rg@b\xc3\xbc" "cher.example"))),
              "j\xc3\xb6rg@xn--bcher-kva.example");

    idn_errno = 0;
    EXPECT_EQ(orNull(CString(idn_toascii((label64 + ".com").c_str()))), "(null)");
    EXPECT_EQ(idn_errno, 5) << "idn_toascii failure code";

    idn_errno = 0;
    EXPECT_EQ(orNull(CString(idn_toutf8("\xff.com"))), "(null)");
    EXPECT_EQ(idn_errno, 9) << "idn_toutf8 failure code";

    idn_errno = 0;
    EXPECT_EQ(orNull(CString(idn_email_toascii(("u@" + label64).c_str()))), "(null)")
        << "domain failure formatted into the address";
    EXPECT_EQ(idn_errno, 5);

    EXPECT_EQ(orNull(CString(idn_email_toascii("no-at-sign.example"))), "(null)");
    EXPECT_STREQ(idn_strerror(idn_errno), "Unknown error") << "stale code after missing @";

    EXPECT_EQ(orNull(CString(idn_toascii_safe("b\xc3\xbc" "cher.example"))),
              "xn--bcher-kva.example");
    EXPECT_EQ(orNull(CString(idn_email_toascii_safe("a@b\xc3\xbc" "cher.example"))),
              "a@xn--bcher-kva.example");
}

TEST(IdnProceduralDeathTest, SafeVariantsEndTheProcessOnFailure)
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

TEST(IdnUrlToAscii, ConvertsTheHostOnly)
{
    // 4095 bytes and the terminating NUL fill the static buffer exactly.
    const std::string longest = "http://h/" + std::string(4095 - 9, 'p');
    const struct {
        const char *fault;
        std::string url;
        std::string want;
    } cases[] = {
        {"scheme_user_port_path_lost", "http://us\xc3\xa9r@b\xc3\xbc" "cher.example:8080/p?q#f",
         "http://us\xc3\xa9r@xn--bcher-kva.example:8080/p?q#f"},
        {"https_scheme_lost", "https://b\xc3\xbc" "cher.example", "https://xn--bcher-kva.example"},
        {"ftp_scheme_lost", "ftp://b\xc3\xbc" "cher.example/x", "ftp://xn--bcher-kva.example/x"},
        {"bare_host_rejected", "b\xc3\xbc" "cher.example", "xn--bcher-kva.example"},
        {"at_sign_in_path_taken_for_user", "http://b\xc3\xbc" "cher.example/~u@x",
         "http://xn--bcher-kva.example/~u@x"},
        {"at_sign_in_query_taken_for_user", "b\xc3\xbc" "cher.example?to=u@x",
         "xn--bcher-kva.example?to=u@x"},
        {"size_check_off_by_one", longest, longest},
    };
    for (const auto &c : cases) {
        const char *got = idn_url_toascii(c.url.c_str());
        EXPECT_EQ(got ? std::string(got) : "(null)", c.want) << c.fault;
    }
}

TEST(IdnUrlToAscii, FailuresReturnNullWithMessage)
{
    const struct {
        const char *fault;
        std::string url;
        const char *message;
    } cases[] = {
        {"empty_url_accepted", "", "no hostname found in URL\n"},
        {"path_without_host_accepted", "/just/a/path", "no hostname found in URL\n"},
        {"host_error_ignored", "http://" + label64 + ".com/", "idn_toascii() failed: Invalid length\n"},
        {"static_buffer_overrun", "http://h/" + std::string(4096 - 9, 'p'), nullptr},
    };
    for (const auto &c : cases) {
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        const char *got = idn_url_toascii(c.url.c_str());
        const std::string out = testing::internal::GetCapturedStdout();
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(got, nullptr) << c.fault << ": got " << got;
        if (c.message != nullptr) {
            EXPECT_EQ(err, c.message) << c.fault;
            EXPECT_EQ(out, c.message) << c.fault;
        } else {
            EXPECT_FALSE(err.empty()) << c.fault << ": failure not reported";
        }
    }
}
