#include "utils/product_log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

const size_t initial_size = 4096;

struct FreeDeleter {
    void operator()(char *p) const { std::free(p); }
};
using Buffer = std::unique_ptr<char, FreeDeleter>;

// Formats into buf (growing it as needed) starting at offset; false when
// memory runs out.
__attribute__((format(printf, 4, 0)))
bool append_formatted(Buffer &buf, size_t &size, size_t offset, const char *format,
                      va_list args)
{
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(buf.get() + offset, size - offset, format, args);
    if (n < 0) {
        va_end(copy);
        buf.get()[offset] = '\0';
        return true;
    }
    const size_t need = offset + static_cast<size_t>(n) + 1;
    if (need > size) {
        char *grown = static_cast<char *>(std::realloc(buf.get(), need));
        if (grown == nullptr) {
            va_end(copy);
            return false;
        }
        buf.release();
        buf.reset(grown);
        size = need;
        std::vsnprintf(buf.get() + offset, size - offset, format, copy);
    }
    va_end(copy);
    return true;
}

__attribute__((format(printf, 4, 5)))
bool append_printf(Buffer &buf, size_t &size, size_t offset, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const bool ok = append_formatted(buf, size, offset, format, args);
    va_end(args);
    return ok;
}

void write_both(const char *message)
{
    const size_t len = std::strlen(message);
    const bool needs_newline = len == 0 || message[len - 1] != '\n';
    std::fputs(message, stderr);
    if (needs_newline)
        std::fputc('\n', stderr);
    std::fflush(stderr);
    std::fputs(message, stdout);
    if (needs_newline)
        std::fputc('\n', stdout);
    std::fflush(stdout);
}

} // namespace

void ex_messlog(int status, const char *message)
{
    write_both(message);
    if (status != 0)
        std::exit(status);
}

void vmesslog2(int status, int /*flag*/, const char *format, va_list args)
{
    const int saved_errno = errno;
    size_t size = initial_size;
    Buffer buf(static_cast<char *>(std::malloc(size)));
    bool ok = buf != nullptr && append_formatted(buf, size, 0, format, args);
    if (ok && saved_errno != 0) {
        const size_t used = std::strlen(buf.get());
        ok = append_printf(buf, size, used, "\nSystem error %d: %s", saved_errno,
                           std::strerror(saved_errno));
    }
    ex_messlog(status, ok ? buf.get() : "Can't allocate memory for error message");
}

void messlog2(int status, int flag, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vmesslog2(status, flag, format, args);
    va_end(args);
}
