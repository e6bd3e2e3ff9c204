#include "mail/dns/spf_control.h"

#include "utils/fd_io.h"
#include "utils/product_log.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

const char kDefaultDir[] = "/etc/zrn-spf";
std::string spf_dir = kDefaultDir;

// 0, or -1 with errno when the text could not be written. Opening and
// closing failures end the process: the settings would be left in a state
// nobody asked for.
int write_setting(const std::string &path, const char *text)
{
    const int fd = fd_io::open_retry(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        messlog2(1, 0, "Unable to open file %s for writing: %s", path.c_str(),
                 std::strerror(errno));
    const size_t len = std::strlen(text);
    errno = 0;
    if (fd_io::write_all(fd, text, len) != static_cast<ssize_t>(len)) {
        if (errno == 0)
            errno = EIO;
        fd_io::close_quietly(fd);
        return -1;
    }
    if (fd_io::close_fd(fd) != 0)
        messlog2(1, 0, "Unable to close file %s: %s", path.c_str(), std::strerror(errno));
    return 0;
}

} // namespace

int update_spf(const char *behavior, const char *rules, const char *guess, const char *exp)
{
    const struct {
        const char *text;
        const char *file;
        const char *failure;
    } settings[] = {
        {behavior, "spfbehavior", "Unable to update 'spf_behavior' parameter"},
        {rules, "spfrules", "Unable to update 'spf_rules' parameter"},
        {guess, "spfguess", "Unable to update 'spf_guess' parameter"},
        {exp, "spfexp", "Unable to update 'spf_exp' parameter"},
    };
    for (const auto &s : settings) {
        if (s.text == nullptr)
            continue;
        if (write_setting(spf_dir + "/" + s.file, s.text) != 0) {
            messlog2(0, 0, "%s", s.failure);
            return -1;
        }
    }
    return 0;
}

void spf_set_dir_for_testing(const char *dir)
{
    spf_dir = dir != nullptr ? dir : kDefaultDir;
}
