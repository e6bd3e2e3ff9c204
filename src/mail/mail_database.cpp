#include "mail/mail_database.h"

namespace {

const char *const style_paths[] = {
    "/var/lib/zarnet/mail/auth/passwd.db",
    "/var/spool/postfix/zarnet/passwd.db",
};

} // namespace

const char *mailAuthDB = style_paths[0];

void mailAuthDBSelectStyle(int style)
{
    if (style == 0 || style == 1)
        mailAuthDB = style_paths[style];
}
