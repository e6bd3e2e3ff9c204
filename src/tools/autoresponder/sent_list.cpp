#include "tools/autoresponder/sent_list.h"

#include "utils/fd_io.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace autoresponder {

namespace {

const std::size_t max_list = 65536;
const int max_lock_tries = 50;

[[noreturn]] void fail(const std::string &path, const char *step, int err)
{
    throw std::runtime_error(path + ": " + step + ": " + fd_io::open_error_text(err));
}

} // namespace

SentList::SentList(const std::string &path)
    : path_(path), fd_(fd_io::open_regular(path.c_str(), O_RDWR | O_CREAT | O_NONBLOCK, 0600))
{
    if (!fd_.valid())
        fail(path_, "open", errno);
    // Bounded: a lock held for long means a stuck run, and waiting on it
    // would hold up this delivery too.
    for (int tries = 0;; ++tries) {
        if (fd_io::retry_eintr([&] { return ::flock(fd_.get(), LOCK_EX | LOCK_NB); }) == 0)
            break;
        if (errno != EWOULDBLOCK || tries >= max_lock_tries)
            fail(path_, "flock", errno);
        ::usleep(100000);
    }
    char buffer[8192];
    ssize_t n;
    while ((n = fd_io::read_retry(fd_.get(), buffer, sizeof buffer)) > 0 &&
           text_.size() <= max_list)
        text_.append(buffer, static_cast<size_t>(n));
    if (n < 0)
        fail(path_, "read", errno);
    if (text_.size() > max_list) {
        if (::ftruncate(fd_.get(), 0) != 0)
            fail(path_, "ftruncate", errno);
        text_.clear();
    }
}

bool SentList::contains(const std::string &sender) const
{
    std::string::size_type start = 0;
    while (start < text_.size()) {
        std::string::size_type end = text_.find('\n', start);
        if (end == std::string::npos)
            end = text_.size();
        if (end - start == sender.size() &&
            ::strncasecmp(text_.data() + start, sender.data(), sender.size()) == 0)
            return true;
        start = end + 1;
    }
    return false;
}

void SentList::add(const std::string &sender)
{
    const std::string line = sender + "\n";
    if (::lseek(fd_.get(), 0, SEEK_END) < 0 ||
        fd_io::write_all(fd_.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        fail(path_, "write", errno);
    text_ += line;
}

} // namespace autoresponder
