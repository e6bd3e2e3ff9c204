#include "utils/ExSystemError.h"

#include <cerrno>
#include <cstring>

namespace zarnet {

SystemError::SystemError(const std::string &message, int code)
    : std::runtime_error(message), code_(code)
{
}

const char *SystemError::what() const noexcept
{
    if (text_.empty()) {
        try {
            const char *message = std::runtime_error::what();
            if (*message != '\0') {
                text_ = message;
                text_ += ": ";
            }
            text_ += std::strerror(code_);
        } catch (...) {
            // Out of memory while building the text: the bare message still says what failed.
            text_.clear();
            return std::runtime_error::what();
        }
    }
    return text_.c_str();
}

void throwSystemError(const std::string &message, int code)
{
    switch (code) {
    case 0:
        throw SystemError(message, errno);
    case EPERM:
        throw ExSystemError<EPERM>(message);
    case ENOENT:
        throw ExSystemError<ENOENT>(message);
    case EINTR:
        throw ExSystemError<EINTR>(message);
    case ECHILD:
        throw ExSystemError<ECHILD>(message);
    case EAGAIN:
        throw ExSystemError<EAGAIN>(message);
    default:
        throw SystemError(message, code);
    }
}

} // namespace zarnet
