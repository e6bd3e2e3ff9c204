// The message, read once from standard input into a private file.
//
// The file is created 0600 under the temporary directory and unlinked at
// once, so nothing is left behind however the run ends. Every consumer
// reads it through an open file description of its own: open() gives a
// fresh read-only descriptor at offset 0 (a reopen through /proc), copyTo()
// reads with pread. A program the delivery runs, or a descendant it leaves
// behind, can neither change the message nor move the offset another
// consumer reads at. A failed read or write (a full disk) throws a
// temporary Failure.
#ifndef MAILTEND_TOOLS_DELIVER_SPOOL_H
#define MAILTEND_TOOLS_DELIVER_SPOOL_H

#include "utils/FdOwner.h"

#include <sys/types.h>

namespace deliver {

class Spool {
public:
    explicit Spool(int from);
    Spool(const Spool &) = delete;
    Spool &operator=(const Spool &) = delete;

    // A new close-on-exec read-only descriptor of the message, at offset 0.
    zarnet::process::FdOwner open() const;
    // Writes the whole message to fd; false with errno set on failure.
    bool copyTo(int fd) const;
    off_t size() const noexcept { return size_; }

private:
    zarnet::process::FdOwner reader_;
    off_t size_ = 0;
};

} // namespace deliver

#endif
