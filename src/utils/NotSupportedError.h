// A requested setting this mail system does not offer.
// what() is the given text followed by " isn't supported".
#ifndef MAILTEND_UTILS_NOTSUPPORTEDERROR_H
#define MAILTEND_UTILS_NOTSUPPORTEDERROR_H

#include <stdexcept>
#include <string>

namespace zarnet {

class NotSupportedError : public std::runtime_error {
public:
    explicit NotSupportedError(const std::string &what)
        : std::runtime_error(what + " isn't supported")
    {
    }
};

} // namespace zarnet

#endif
