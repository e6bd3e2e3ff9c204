// Scoped ownership of one file descriptor.
//
// An FdOwner closes what it holds when it goes away, without throwing and
// without disturbing errno, so it is safe on every unwinding path. close()
// is the checked form: it throws zarnet::SystemError naming the step. Owners
// move but never copy, so a descriptor has exactly one closer.
//
// makePipe() hands both ends of a new pipe to owners, close-on-exec by
// default: a descriptor kept by this process must never leak into a child.
#ifndef MAILTEND_UTILS_FDOWNER_H
#define MAILTEND_UTILS_FDOWNER_H

#include <fcntl.h>

namespace zarnet {
namespace process {

class FdOwner {
public:
    explicit FdOwner(int fd = -1) noexcept : fd_(fd) {}
    FdOwner(FdOwner &&other) noexcept : fd_(other.release()) {}
    FdOwner &operator=(FdOwner &&other) noexcept;
    FdOwner(const FdOwner &) = delete;
    FdOwner &operator=(const FdOwner &) = delete;
    ~FdOwner() { close_nothrow(); }

    int get() const noexcept { return fd_; }
    bool valid() const noexcept { return fd_ >= 0; }

    // Gives the descriptor up without closing it.
    int release() noexcept;
    // Closes the current descriptor quietly, then owns fd.
    void reset(int fd = -1) noexcept;

    // Throws SystemError(step, errno); the owner is empty afterwards either way.
    void close(const char *step = "close");
    void close_nothrow() noexcept;

private:
    int fd_;
};

struct PipeEnds {
    FdOwner read;
    FdOwner write;
};

// Throws SystemError(step, errno) when the pipe cannot be made.
PipeEnds makePipe(const char *step, int flags = O_CLOEXEC);

// Adds O_NONBLOCK; throws SystemError(step, errno).
void setNonblocking(int fd, const char *step);

} // namespace process
} // namespace zarnet

#endif
