// Pieces of the handler store shared by its two source files.
#ifndef MAILTEND_MAIL_HANDLERS_HANDLERS_INTERNAL_H
#define MAILTEND_MAIL_HANDLERS_HANDLERS_INTERNAL_H

#include "mail/handlers/handlers.h"
#include "utils/dir_walk.h"

#include <functional>
#include <string>
#include <vector>

namespace handlers_internal {

const std::string &root();
std::string infoDir();

// Formed paths longer than this are refused with the caller's message.
bool fitsPath(const std::string &path);

// Scope of one public store call, under the store's lock: the refresh
// program runs once, when the outermost scope ends and something was
// changed within it, before the lock is released.
class RefreshScope {
public:
    RefreshScope();
    ~RefreshScope();
    RefreshScope(const RefreshScope &) = delete;
    RefreshScope &operator=(const RefreshScope &) = delete;
    bool held() const { return lock_.held(); }

private:
    HandlerStoreLock lock_;
};
void markChanged();

// Appends the names of the entries of dir that keep accepts (every entry
// when keep is empty); a missing dir has none. The store's directories are
// root's own, so a link naming one of them is followed. false with errno
// when dir cannot be read.
bool readNames(const std::string &dir, const std::function<bool(const dir_walk::Entry &)> &keep,
               std::vector<std::string> &names);

// The handler names in the information directory, sorted by
// handlers_compare. A missing directory is an empty store; other failures
// give -1 after "Unable to open directory %s: %s".
int listHandlers(std::vector<std::string> &names);

// A parameter's first line; false (quietly when quiet) if unreadable.
bool readParameter(const std::string &name, const char *parameter, std::string &value,
                   bool quiet);

// The parts of PRIORITY-TEMPLATE-RANDOM; false when the name does not split.
struct NameParts {
    std::string priority, tmpl, random;
};
bool splitName(const std::string &name, NameParts &parts);

} // namespace handlers_internal

#endif
