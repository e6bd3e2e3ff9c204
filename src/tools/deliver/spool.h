// The message, read once from standard input into a private file.
//
// The file is created 0600 under the temporary directory and unlinked at
// once, so nothing is left behind however the run ends. Consumers get a
// read-only descriptor rewound to the start: a program the delivery runs
// can neither change the message for the next consumer nor move its
// offset for it. A failed read or write (a full disk) throws a temporary
// Failure.
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

    // The read-only descriptor, at offset 0.
    int rewound();
    off_t size() const noexcept { return size_; }

private:
    zarnet::process::FdOwner reader_;
    off_t size_ = 0;
};

} // namespace deliver

#endif
