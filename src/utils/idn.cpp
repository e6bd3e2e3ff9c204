#include "utils/idn.h"

#include "utils/liblog.h"
#include "utils/product_log.h"

#include <idna.h>
#include <regex.h>
#include <syslog.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

int idn_errno = 0;

namespace {

// Code left in idn_errno when an address has no domain part to convert.
const int no_domain_part = -1;

// Large enough for any URL a host name may sit in; a longer result is
// refused rather than cut.
const size_t url_buffer_size = 4096;

struct FreeDeleter {
    void operator()(char *p) const { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

typedef int (*idna_converter)(const char *input, char **output, int flags);

// Runs one libidn conversion; the result (if any) is owned by the returned
// pointer and rc holds libidn's code.
CString convert(idna_converter fn, const char *input, int &rc)
{
    char *out = nullptr;
    rc = fn(input, &out, 0);
    CString owned(out);
    if (rc != IDNA_SUCCESS)
        owned.reset();
    return owned;
}

std::string convertOrThrow(idna_converter fn, const std::string &input)
{
    int rc = IDNA_SUCCESS;
    CString out = convert(fn, input.c_str(), rc);
    if (rc != IDNA_SUCCESS)
        throw zarnet::idn::IdnaError(rc);
    if (!out)
        throw std::bad_alloc();
    return std::string(out.get());
}

char *convertProcedural(idna_converter fn, const char *input)
{
    int rc = IDNA_SUCCESS;
    CString out = convert(fn, input, rc);
    // A success without a result can only be an allocation that went wrong.
    if (rc == IDNA_SUCCESS && !out)
        rc = IDNA_MALLOC_ERROR;
    if (rc == IDNA_MALLOC_ERROR)
        messlog2(1, 0, "Allocation failed");
    if (rc != IDNA_SUCCESS) {
        idn_errno = rc;
        return nullptr;
    }
    return out.release();
}

char *orDie(char *result, const char *function, const char *input)
{
    if (result == nullptr)
        messlog2(1, 0, "%s(%s) failed: %s", function, input, idn_strerror(idn_errno));
    return result;
}

} // namespace

namespace zarnet {
namespace idn {

const char *IdnaError::what() const noexcept
{
    return idn_strerror(code_);
}

std::string toAscii(const std::string &name)
{
    return convertOrThrow(idna_to_ascii_8z, name);
}

std::string toUtf8(const std::string &name)
{
    return convertOrThrow(idna_to_unicode_8z8z, name);
}

std::string emailToAscii(const std::string &address)
{
    const std::string::size_type at = address.find('@');
    if (at == std::string::npos)
        return address;
    return address.substr(0, at + 1) + toAscii(address.substr(at + 1));
}

} // namespace idn
} // namespace zarnet

char *idn_toascii(const char *name)
{
    return convertProcedural(idna_to_ascii_8z, name);
}

char *idn_toutf8(const char *name)
{
    return convertProcedural(idna_to_unicode_8z8z, name);
}

char *idn_email_toascii(const char *address)
{
    const char *at = std::strchr(address, '@');
    if (at == nullptr) {
        idn_errno = no_domain_part;
        return nullptr;
    }
    CString domain(idn_toascii(at + 1));
    if (!domain)
        return nullptr;

    // Same bytes as "%.*s@%s", without the int limit on the local part.
    const size_t local_len = static_cast<size_t>(at - address);
    const size_t domain_len = std::strlen(domain.get());
    char *result = static_cast<char *>(std::malloc(local_len + 1 + domain_len + 1));
    if (result == nullptr) {
        messlog2(1, 0, "Allocation failed");
        return nullptr;
    }
    std::memcpy(result, address, local_len);
    result[local_len] = '@';
    std::memcpy(result + local_len + 1, domain.get(), domain_len + 1);
    return result;
}

char *idn_toascii_safe(const char *name)
{
    return orDie(idn_toascii(name), "idn_toascii", name);
}

char *idn_toutf8_safe(const char *name)
{
    return orDie(idn_toutf8(name), "idn_toutf8", name);
}

char *idn_email_toascii_safe(const char *address)
{
    return orDie(idn_email_toascii(address), "idn_email_toascii", address);
}

const char *idn_url_toascii(const char *url)
{
    static char buffer[url_buffer_size];

    // The user part and the host end where a path, query or fragment
    // begins: an "@" further on belongs to those, not to the authority.
    regex_t re;
    int rc = regcomp(&re, "^(ftp://|https?://)?([^@/?#]+@)?([^/:?#]+)(.*)?$", REG_EXTENDED);
    if (rc != 0) {
        char text[256];
        regerror(rc, &re, text, sizeof text);
        zarnet_log(LOG_ERR, "regcomp() failed: %s", text);
        return nullptr;
    }

    regmatch_t m[5];
    rc = regexec(&re, url, 5, m, 0);
    if (rc != 0 || m[3].rm_so < 0) {
        if (rc != 0 && rc != REG_NOMATCH) {
            char text[256];
            regerror(rc, &re, text, sizeof text);
            zarnet_log(LOG_ERR, "regexec() failed: %s", text);
        } else {
            zarnet_log(LOG_ERR, "no hostname found in URL");
        }
        regfree(&re);
        return nullptr;
    }
    regfree(&re);

    const std::string text(url);
    auto part = [&text, &m](int i) {
        if (m[i].rm_so < 0)
            return std::string();
        return text.substr(static_cast<size_t>(m[i].rm_so),
                           static_cast<size_t>(m[i].rm_eo - m[i].rm_so));
    };

    CString host(idn_toascii(part(3).c_str()));
    if (!host) {
        zarnet_log(LOG_ERR, "idn_toascii() failed: %s", idn_strerror(idn_errno));
        return nullptr;
    }

    const std::string result = part(1) + part(2) + host.get() + part(4);
    if (result.size() >= sizeof buffer) {
        zarnet_log(LOG_ERR, "converted URL is too long: %zu bytes, at most %zu allowed",
                   result.size(), sizeof buffer - 1);
        return nullptr;
    }
    std::memcpy(buffer, result.c_str(), result.size() + 1);
    return buffer;
}

const char *idn_strerror(int code)
{
    switch (code) {
    case IDNA_SUCCESS:
        return "Success";
    case IDNA_STRINGPREP_ERROR:
        return "Stringprep error";
    case IDNA_PUNYCODE_ERROR:
        return "Punycode error";
    case IDNA_CONTAINS_NON_LDH:
        return "Contains non-LDH characters";
    case IDNA_CONTAINS_MINUS:
        return "Contains minus";
    case IDNA_INVALID_LENGTH:
        return "Invalid length";
    case IDNA_NO_ACE_PREFIX:
        return "ACE prefix not found";
    case IDNA_ROUNDTRIP_VERIFY_ERROR:
        return "Verify error";
    case IDNA_CONTAINS_ACE_PREFIX:
        return "ACE prefix found";
    case IDNA_ICONV_ERROR:
        return "Iconv error";
    case IDNA_MALLOC_ERROR:
        return "Cannot allocate buffer";
    default:
        return "Unknown error";
    }
}
