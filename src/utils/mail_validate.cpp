#include "utils/mail_validate.h"

#include "utils/liblog.h"

#include <syslog.h>

#include <cstring>

int mail_validate(const char *name, validation_type type)
{
    if (type != VALIDATE_MAILNAME) {
        zarnet_log(LOG_INFO, "unknown validation_type: %d", type);
        return 0;
    }
    if (name == nullptr)
        return 0;
    return std::strstr(name, "..") == nullptr;
}
