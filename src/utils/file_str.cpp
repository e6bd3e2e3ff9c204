#include "utils/file_str.h"

#include "utils/MKLock.h"
#include "utils/fd_io.h"
#include "utils/product_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

namespace {

const size_t read_size = 4096;
const size_t write_size = 65536;

// A write that accepts nothing counts as an I/O error.
bool write_all(int fd, const char *p, size_t n)
{
    const ssize_t done = fd_io::write_all(fd, p, n);
    if (done >= 0 && static_cast<size_t>(done) != n)
        errno = EIO;
    return done >= 0 && static_cast<size_t>(done) == n;
}

// Reads in blocks of read_size but hands out whole lines, so a line longer
// than one block is never compared piece by piece.
class LineReader {
public:
    explicit LineReader(int fd) : fd_(fd) {}

    // 1: a line (with its line feed unless it is the unterminated last one);
    // 0: end of file; -1: read error.
    int next(std::string &line)
    {
        line.clear();
        for (;;) {
            const char *start = buf_ + pos_;
            const void *nl = std::memchr(start, '\n', len_ - pos_);
            if (nl != nullptr) {
                const size_t n = static_cast<const char *>(nl) - start + 1;
                line.append(start, n);
                pos_ += n;
                return 1;
            }
            line.append(start, len_ - pos_);
            pos_ = len_ = 0;
            const ssize_t got = fd_io::read_retry(fd_, buf_, sizeof buf_);
            if (got < 0)
                return -1;
            if (got == 0)
                return line.empty() ? 0 : 1;
            len_ = static_cast<size_t>(got);
        }
    }

private:
    int fd_;
    char buf_[read_size];
    size_t pos_ = 0;
    size_t len_ = 0;
};

class BufferedWriter {
public:
    explicit BufferedWriter(int fd) : fd_(fd) {}

    bool put(std::string_view s)
    {
        if (buf_.size() + s.size() > write_size && !flush())
            return false;
        if (s.size() > write_size)
            return write_all(fd_, s.data(), s.size());
        buf_.append(s.data(), s.size());
        return true;
    }

    bool flush()
    {
        const bool ok = write_all(fd_, buf_.data(), buf_.size());
        buf_.clear();
        return ok;
    }

private:
    int fd_;
    std::string buf_;
};

std::string_view without_line_feed(std::string_view s)
{
    if (!s.empty() && s.back() == '\n')
        s.remove_suffix(1);
    return s;
}

bool matches(std::string_view line, const char *const *strings, int operation, int position)
{
    line = without_line_feed(line);
    for (const char *const *s = strings; *s != nullptr; ++s) {
        const std::string_view want = without_line_feed(*s);
        bool hit;
        if (operation == FILE_STR_REMOVE || operation == FILE_STR_MOVE_TO_TOP)
            hit = line == want;
        else if (position == FILE_STR_MATCH_BEGIN)
            hit = line.substr(0, want.size()) == want;
        else if (position == FILE_STR_MATCH_END)
            hit = line.size() >= want.size() && line.substr(line.size() - want.size()) == want;
        else
            hit = line.find(want) != std::string_view::npos;
        if (hit)
            return true;
    }
    return false;
}

bool put_strings(BufferedWriter &out, const char *const *strings)
{
    for (const char *const *s = strings; *s != nullptr; ++s) {
        const std::string_view line(*s);
        if (!out.put(line))
            return false;
        if ((line.empty() || line.back() != '\n') && !out.put("\n"))
            return false;
    }
    return out.flush();
}

// One edit under the file's lock. Every failure path reports, then returns 1
// through the destructor's clean-up: descriptors closed, an unrenamed
// temporary file removed, the lock released.
class Edit {
public:
    Edit(const char *path, lock_struct_t *lock) : path_(path), tmp_(path_ + ".tmp"), lock_(lock) {}

    ~Edit()
    {
        const int saved = errno;
        close_fd(in_);
        close_fd(out_);
        if (tmp_created_)
            unlink(tmp_.c_str());
        free_lock(lock_);
        errno = saved;
    }

    int fail(const char *format, const char *file)
    {
        const int saved = errno;
        messlog2(0, 0, format, file, std::strerror(saved));
        return 1;
    }

    // A FIFO or device in the file's place is refused, never waited on.
    int fail_open(const char *file)
    {
        const int saved = errno;
        messlog2(0, 0, "Unable to open file %s: %s\n", file, fd_io::open_error_text(saved));
        return 1;
    }

    int run(const char *const *strings, int operation, int position)
    {
        // The file's last component is never followed: its owner (a mailbox
        // user, say) could otherwise point it at a file only root may read
        // and have its text copied into one they own.
        struct stat st;
        if (lstat(path_.c_str(), &st) != 0) {
            if (errno != ENOENT)
                return fail("file_str: Unable to stat file %s: %s\n", path_.c_str());
            is_new_ = true;
            errno = 0;
        } else {
            st_ = st;
        }

        if (operation == FILE_STR_ADD && position == FILE_STR_APPEND)
            return append(strings);
        if (operation == FILE_STR_REMOVE && is_new_) {
            errno = ENOENT;
            return 1;
        }

        in_ = fd_io::open_regular(path_.c_str(), O_RDONLY);
        if (in_ < 0)
            return fail_open(path_.c_str());
        // Owner and mode are those of what was opened, not of what was
        // looked at before.
        if (fstat(in_, &st_) != 0)
            return fail("file_str: Unable to stat file %s: %s\n", path_.c_str());
        // A leftover from an interrupted run, or something planted: start afresh.
        if (unlink(tmp_.c_str()) != 0 && errno != ENOENT)
            return fail("Unable to open file %s: %s\n", tmp_.c_str());
        out_ = fd_io::open_retry(tmp_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
        if (out_ < 0)
            return fail("Unable to open file %s: %s\n", tmp_.c_str());
        tmp_created_ = true;

        BufferedWriter out(out_);
        const char *const top[] = {strings[0], nullptr};
        if ((operation == FILE_STR_ADD && !put_strings(out, strings)) ||
            (operation == FILE_STR_MOVE_TO_TOP && !put_strings(out, top)))
            return fail("Unable to fputs to file %s: %s\n", tmp_.c_str());
        LineReader in(in_);
        std::string line;
        int got;
        while ((got = in.next(line)) > 0) {
            if (operation != FILE_STR_ADD && matches(line, strings, operation, position))
                continue;
            if (!out.put(line))
                die_writing_line();
        }
        if (got < 0)
            return fail("Unable to read file %s: %s", path_.c_str());
        if (!out.flush())
            die_writing_line();

        if (restore_owner_and_mode(out_) != 0)
            return 1;
        if (fd_io::fsync_retry(out_) != 0 || close_fd(out_) != 0)
            return fail("Unable to close file %s: %s\n", tmp_.c_str());
        close_fd(in_);
        if (rename(tmp_.c_str(), path_.c_str()) != 0)
            return fail("Error while rename file %s: %s\n", path_.c_str());
        tmp_created_ = false;
        fd_io::sync_parent_directory(path_);
        return 0;
    }

    // Releases the lock; its failure is the edit's last possible one.
    int unlock()
    {
        lock_struct_t *lock = lock_;
        lock_ = nullptr;
        if (rm_lock(lock) != 0)
            return fail("Error occurred while unlocking the file %s: %s\n", path_.c_str());
        return 0;
    }

private:
    int append(const char *const *strings)
    {
        out_ = fd_io::open_regular(path_.c_str(), O_RDWR | O_APPEND | O_CREAT, 0666);
        if (out_ < 0)
            return fail_open(path_.c_str());
        BufferedWriter out(out_);
        struct stat now;
        char last = '\n';
        ssize_t got = 0;
        if (fstat(out_, &now) == 0 && now.st_size > 0)
            got = fd_io::retry_eintr([&] { return pread(out_, &last, 1, now.st_size - 1); });
        if (got == 1 && last != '\n' && !out.put("\n"))
            return fail("Unable to fputs to file %s: %s\n", path_.c_str());
        if (!put_strings(out, strings))
            return fail("Unable to fputs to file %s: %s\n", path_.c_str());
        if (restore_owner_and_mode(out_) != 0)
            return 1;
        if (fd_io::fsync_retry(out_) != 0 || close_fd(out_) != 0)
            return fail("Unable to close file %s: %s\n", path_.c_str());
        return 0;
    }

    // On the descriptor, before the rename: a path could be swapped for a
    // symlink in between, and root would chown whatever it points at.
    int restore_owner_and_mode(int fd)
    {
        if (is_new_)
            return 0;
        if (fd_io::retry_eintr([&] { return fchown(fd, st_.st_uid, st_.st_gid); }) != 0)
            return fail("file_str: ERROR: Unable to chown file %s: %s", path_.c_str());
        if (fd_io::retry_eintr([&] { return fchmod(fd, st_.st_mode & 07777); }) != 0)
            return fail("file_str: ERROR: Unable to chmod file %s: %s", path_.c_str());
        return 0;
    }

    [[noreturn]] void die_writing_line()
    {
        const int saved = errno;
        unlink(tmp_.c_str());
        errno = saved;
        messlog2(1, 0, "cannot write a line to %s.tmp", path_.c_str());
        _exit(1); // not reached: messlog2 with status 1 exits
    }

    // Leaves fd empty, so the destructor does not close it again.
    static int close_fd(int &fd)
    {
        const int rc = fd_io::close_fd(fd);
        fd = -1;
        return rc;
    }

    std::string path_;
    std::string tmp_;
    lock_struct_t *lock_;
    struct stat st_ {};
    bool is_new_ = false;
    bool tmp_created_ = false;
    int in_ = -1;
    int out_ = -1;
};

} // namespace

int file_strings(const char *path, const char *const *strings, int operation, int position)
{
    static const char *const none[] = {nullptr};
    if (strings == nullptr)
        strings = none;
    const bool known = operation == FILE_STR_ADD
                           ? position == FILE_STR_PREPEND || position == FILE_STR_APPEND
                           : operation == FILE_STR_REMOVE ||
                                 (operation == FILE_STR_MOVE_TO_TOP && strings[0] != nullptr) ||
                                 (operation == FILE_STR_REMOVE_PATTERN &&
                                  (position == FILE_STR_MATCH_BEGIN || position == FILE_STR_MATCH_END ||
                                   position == FILE_STR_MATCH_CONTAIN));
    if (!known) {
        errno = EINVAL;
        messlog2(0, 0, "file_str: unknown operation %d at position %d on %s\n", operation, position,
                 path);
        return 1;
    }

    lock_struct_t *lock = mk_held_lock(path, 1);
    if (lock == nullptr) {
        messlog2(0, 0, "Error occurred while locking the file %s: %s\n", path, std::strerror(errno));
        return 1;
    }
    Edit edit(path, lock);
    if (edit.run(strings, operation, position) != 0)
        return 1;
    return edit.unlock();
}

int file_str(const char *path, const char *string, int operation, int position)
{
    const char *const strings[] = {string, nullptr};
    return file_strings(path, strings, operation, position);
}
