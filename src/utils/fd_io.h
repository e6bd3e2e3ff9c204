// Descriptor-level file I/O for the file modules.
//
// Every call is repeated while it fails with EINTR, so a signal caught by
// the process never surfaces as an error. Failures return -1 with errno set
// by the failing call; nothing is reported, nothing throws. Descriptors are
// opened close-on-exec: the program runs children as root, and they must not
// inherit its files.
//
// close is never repeated: Linux has released the descriptor even when close
// fails with EINTR, and a second close could hit one opened meanwhile.
#ifndef MAILTEND_UTILS_FD_IO_H
#define MAILTEND_UTILS_FD_IO_H

#include <sys/types.h>

#include <cerrno>
#include <string>

namespace fd_io {

// call() again while it returns -1 with errno EINTR; its last result.
template <typename Call>
auto retry_eintr(Call call) -> decltype(call())
{
    decltype(call()) rc;
    do
        rc = call();
    while (rc == -1 && errno == EINTR);
    return rc;
}

// O_CLOEXEC is added to flags.
int open_retry(const char *path, int flags, mode_t mode = 0);
int openat_retry(int dirfd, const char *name, int flags, mode_t mode = 0);

// For files that someone else controls (a mailbox owner's, a panel
// upload): the last component is never followed (ELOOP for a symbolic
// link), the open never waits on a FIFO or a device put in the file's place,
// and only a regular file is kept: anything else is closed again, -1 with
// errno EISDIR for a directory and EINVAL otherwise. The descriptor is left
// blocking. O_NOFOLLOW and O_CLOEXEC are added to flags.
int open_regular(const char *path, int flags, mode_t mode = 0);
// strerror(err), except that open_regular's refusal of a file that is not
// regular reads "not a regular file" (open itself never gives EINVAL for
// the flags used here).
const char *open_error_text(int err);

ssize_t read_retry(int fd, void *buf, size_t size);

// Writes all n bytes through partial writes. Returns n; fewer when a write
// accepted nothing (errno as it was, so the caller decides what that means);
// -1 with errno when a write failed.
ssize_t write_all(int fd, const void *buf, size_t n);

int fsync_retry(int fd);

// 0, or -1 with errno when close failed other than with EINTR. A negative fd
// holds nothing to close: 0.
int close_fd(int fd);
// For failure paths: closes fd and leaves errno as it was.
void close_quietly(int fd);

// The directory holding path's last component: "." for a bare name, "/" for
// a name directly under the root.
std::string parent_directory(const std::string &path);

// Fsyncs the parent directory of path, making a rename into it durable. Best
// effort: the renamed file's content is safe either way, and some file
// systems refuse to sync a directory. errno is left as it was.
void sync_parent_directory(const std::string &path);

} // namespace fd_io

#endif
