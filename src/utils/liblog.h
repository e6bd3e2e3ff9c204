// Level-filtered logging of the procedural modules.
//
// Callers go through the pointers zarnet_log / zarnet_logv so the target can
// be switched at run time. The console form (the default, and the only one
// this program uses) writes a message at or below the threshold to standard
// error and then to standard output, each with a line feed. Levels are the
// syslog priorities; the program logs at 2, 3 and 6 and the threshold is 6.
#ifndef MAILTEND_UTILS_LIBLOG_H
#define MAILTEND_UTILS_LIBLOG_H

#include <cstdarg>

typedef void (*zarnet_log_fn)(int level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
typedef void (*zarnet_logv_fn)(int level, const char *format, va_list args)
    __attribute__((format(printf, 2, 0)));

extern zarnet_log_fn zarnet_log;
extern zarnet_logv_fn zarnet_logv;

// A positive level becomes the threshold and enables logging; otherwise
// logging is off. A null target switches to the system log under ident; a
// target not beginning with "console" keeps the console form but disables it.
void zarnet_log_init(const char *target, int level, int facility, int options,
                     const char *ident);

// Current settings, for callers that must know whether a message would show.
int zarnet_log_level();
int zarnet_log_enabled();
int zarnet_log_facility();

#endif
