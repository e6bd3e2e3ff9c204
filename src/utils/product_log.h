// The message routine of the procedural modules.
//
// messlog2 formats a message, adds "\nSystem error N: text" when errno was
// set on entry, and writes it to standard error and then standard output
// (with a line feed unless it already ends in one). A non-zero status ends
// the process with exit(status); the flag has no effect.
#ifndef MAILTEND_UTILS_PRODUCT_LOG_H
#define MAILTEND_UTILS_PRODUCT_LOG_H

#include <cstdarg>

void messlog2(int status, int flag, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
void vmesslog2(int status, int flag, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

// Writes a finished message to both streams and exits when status is non-zero.
void ex_messlog(int status, const char *message);

#endif
