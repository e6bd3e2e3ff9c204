#include "mail/storage/mailname_forward.h"

#include "mail/storage/mailname_delivery.h"
#include "utils/file_str.h"
#include "utils/idn.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

struct FreeDeleter {
    void operator()(char *p) const { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

bool has_control_character(const char *s)
{
    for (; *s != '\0'; ++s)
        if (static_cast<unsigned char>(*s) < 0x20 || *s == 0x7f)
            return true;
    return false;
}

// The address with its domain in ASCII form; null after a report.
CString ascii_address(const char *address)
{
    if (has_control_character(address)) {
        dotqmail_refuse(EINVAL, "Forwarding address %s holds a control character", address);
        return nullptr;
    }
    CString ascii(idn_email_toascii(address));
    if (!ascii)
        dotqmail_refuse(EINVAL, "idn_email_toascii(%s) failed: %s", address, idn_strerror(idn_errno));
    return ascii;
}

} // namespace

int dotqmail_add_forward(const char *path, const char *address)
{
    const CString ascii = ascii_address(address);
    if (!ascii)
        return -1;
    char *formed = nullptr;
    if (asprintf(&formed, "&%s", ascii.get()) < 0)
        return dotqmail_fail(errno, "asprintf(\"&%%s\", %s) failed: %s", ascii.get(), std::strerror(errno));
    const CString line(formed);

    if (dotqmail_refuse_special(path) != 0)
        return dotqmail_fail(errno, "Unable to add string to %s file.", path);
    if (file_str(path, line.get(), FILE_STR_MOVE_TO_TOP, 0) != 0)
        return dotqmail_fail(errno, "Unable to add string to %s file.", path);
    return dotqmail_set_owner(path);
}

int dotqmail_remove_forward(const char *path, const char *address)
{
    const CString ascii = ascii_address(address);
    if (!ascii)
        return -1;
    char *formed = nullptr;
    if (asprintf(&formed, "&%s\n", ascii.get()) < 0)
        return dotqmail_fail(errno, "asprintf(\"&%%s\", %s): %s", ascii.get(), std::strerror(errno));
    const CString line(formed);

    if (dotqmail_refuse_special(path) != 0)
        return dotqmail_fail(errno, "Unable to remove string from %s file.", path);
    if (file_str(path, line.get(), FILE_STR_REMOVE, 0) != 0)
        return dotqmail_fail(errno, "Unable to remove string from %s file.", path);
    return dotqmail_set_owner(path);
}
