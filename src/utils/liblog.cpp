#include "utils/liblog.h"

#include <strings.h>
#include <syslog.h>

#include <cstdio>

namespace {

int log_level = 6;
int log_enabled = 1;
int log_facility = LOG_LOCAL0;

__attribute__((format(printf, 2, 0)))
void console_logv(int level, const char *format, va_list args)
{
    if (!log_enabled || level > log_level)
        return;
    va_list copy;
    va_copy(copy, args);
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
    std::fflush(stderr);
    std::vfprintf(stdout, format, copy);
    std::fputc('\n', stdout);
    std::fflush(stdout);
    va_end(copy);
}

__attribute__((format(printf, 2, 3)))
void console_log(int level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    console_logv(level, format, args);
    va_end(args);
}

__attribute__((format(printf, 2, 0)))
void syslog_logv(int level, const char *format, va_list args)
{
    if (!log_enabled || level > log_level)
        return;
    vsyslog(log_facility | level, format, args);
}

__attribute__((format(printf, 2, 3)))
void syslog_log(int level, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    syslog_logv(level, format, args);
    va_end(args);
}

} // namespace

zarnet_log_fn zarnet_log = console_log;
zarnet_logv_fn zarnet_logv = console_logv;

void zarnet_log_init(const char *target, int level, int facility, int options,
                     const char *ident)
{
    log_facility = facility;
    if (level > 0) {
        log_level = level;
        log_enabled = 1;
    } else {
        log_level = 0;
        log_enabled = 0;
    }

    if (target != nullptr) {
        zarnet_log = console_log;
        zarnet_logv = console_logv;
        if (strncasecmp(target, "console", 7) != 0)
            log_enabled = 0;
        return;
    }

    closelog();
    openlog(ident, options | LOG_PID, facility);
    zarnet_log = syslog_log;
    zarnet_logv = syslog_logv;
}

int zarnet_log_level() { return log_level; }
int zarnet_log_enabled() { return log_enabled; }
int zarnet_log_facility() { return log_facility; }
