// Failures of the Postfix tools behind the lookup tables and main.cf.
//
// PostfixDatabaseError: a record could not be removed or the record cache
// could not be formed. PostfixConfigurationError: main.cf or master.cf edits,
// and additions, replacements and filtered rewrites of the lookup tables.
// The message is the Postfix tool's own output.
#ifndef MAILTEND_MAIL_POSTFIX_POSTFIXERROR_H
#define MAILTEND_MAIL_POSTFIX_POSTFIXERROR_H

#include <stdexcept>
#include <string>

namespace zarnet {
namespace mail {
namespace postfix {

class PostfixError : public std::runtime_error {
protected:
    explicit PostfixError(const std::string &message) : std::runtime_error(message) {}
};

class PostfixDatabaseError : public PostfixError {
public:
    explicit PostfixDatabaseError(const std::string &message) : PostfixError(message) {}
};

class PostfixConfigurationError : public PostfixError {
public:
    explicit PostfixConfigurationError(const std::string &message) : PostfixError(message) {}
};

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
