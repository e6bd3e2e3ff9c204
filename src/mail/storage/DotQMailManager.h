// The ".qmail" delivery file of one mailname, as the mailname operations
// see it: reset, Maildir delivery on and off, forwards added and removed.
//
// Holds only the file's path, given by its user. Each operation does its
// work through the procedural functions of mailname_delivery.h and
// mailname_forward.h (which also report the details through messlog2) and
// throws SystemError("unable to modify " + path, errno) when they fail; the
// previous file is then left in place.
#ifndef MAILTEND_MAIL_STORAGE_DOTQMAILMANAGER_H
#define MAILTEND_MAIL_STORAGE_DOTQMAILMANAGER_H

#include <string>

namespace zarnet {
namespace mail {

class DotQMailManager {
public:
    // Where addRedirect puts the forward. The value continues the line
    // editor's add positions (0 before the old lines, 1 after them), which
    // add a line even when it is present; a forward must occur once, so the
    // only position offered moves it: an existing copy is dropped and the
    // line goes first. Any other value is refused with EINVAL.
    enum Position : int { MoveToTop = 2 };

    explicit DotQMailManager(const std::string &path) : path_(path) {}

    const std::string &path() const { return path_; }

    // The file holds only "| true" afterwards; it need not exist before.
    void reset();
    // These need the file to exist.
    void enableDelivery();
    void disableDelivery();
    void addRedirect(const std::string &address, Position position);
    void removeRedirect(const std::string &address);
    // Both refuse an address holding a NUL with EINVAL.

private:
    void check(int result) const;
    void checkAddress(const std::string &address) const;
    [[noreturn]] void refuse(int code) const;

    std::string path_;
};

} // namespace mail
} // namespace zarnet

#endif
