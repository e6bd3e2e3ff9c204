// The senders a mailbox's autoresponder has answered: one address a line in
// "<home>/.autoresponder-sent".
//
// The file is opened with open_regular (never through a link, never
// waiting on a FIFO), created 0600, and locked (flock) for the life of the
// object, so two deliveries to the same mailbox cannot both answer one
// sender; the lock is waited for about 5 seconds at most. Its size is
// bounded: beyond 64 KiB it is emptied and the answering starts over.
// Failures throw std::runtime_error.
#ifndef MAILTEND_TOOLS_AUTORESPONDER_SENT_LIST_H
#define MAILTEND_TOOLS_AUTORESPONDER_SENT_LIST_H

#include "utils/FdOwner.h"

#include <string>

namespace autoresponder {

class SentList {
public:
    explicit SentList(const std::string &path);
    // Addresses compare case-insensitively.
    bool contains(const std::string &sender) const;
    void add(const std::string &sender);

private:
    std::string path_;
    zarnet::process::FdOwner fd_;
    std::string text_;
};

} // namespace autoresponder

#endif
