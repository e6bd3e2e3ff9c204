// System-call failures of the class-based layers.
//
// SystemError carries the failing step's message and the errno it met; what()
// is "message: strerror(code)" (or strerror alone for an empty message),
// built once on first use. ExSystemError<N> lets a caller catch one errno by
// type; throwSystemError picks the class that matches the code.
#ifndef MAILTEND_UTILS_EXSYSTEMERROR_H
#define MAILTEND_UTILS_EXSYSTEMERROR_H

#include <stdexcept>
#include <string>

namespace zarnet {

class SystemError : public std::runtime_error {
public:
    SystemError(const std::string &message, int code);

    int code() const noexcept { return code_; }
    const char *what() const noexcept override;

private:
    int code_;
    mutable std::string text_;
};

template <int N>
class ExSystemError : public SystemError {
public:
    explicit ExSystemError(const std::string &message) : SystemError(message, N) {}
};

// Code 0 stands for the current errno and always throws the plain class.
[[noreturn]] void throwSystemError(const std::string &message, int code = 0);

} // namespace zarnet

#endif
