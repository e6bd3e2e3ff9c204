// mailauth-dbinit [STYLE]: the installer's way to create the mail
// authentication database. It deletes whatever database is there.
#include "mail/auth/mail_database.h"

#include <cstdio>
#include <cstring>

namespace {

const char usage_line[] =
    "usage: mailauth-dbinit [0|1]  (deletes and re-creates the mail authentication database empty)\n";

const char help_text[] =
    "Deletes the mail authentication database and creates it again without any\n"
    "rows: every stored mailbox password is lost.\n"
    "  1  (default) /var/spool/postfix/zarnet/passwd.db, owned by the postfix account\n"
    "  0  /var/lib/zarnet/mail/auth/passwd.db, owned by root\n"
    "Exit status: 0 done, 1 failed, 2 usage error.\n";

} // namespace

int main(int argc, char **argv)
{
    int style = 1;
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(usage_line, stdout);
        std::fputs(help_text, stdout);
        return 0;
    }
    if (argc > 2 || (argc == 2 && std::strcmp(argv[1], "0") != 0 && std::strcmp(argv[1], "1") != 0)) {
        std::fputs(usage_line, stderr);
        return 2;
    }
    if (argc == 2)
        style = argv[1][0] - '0';
    return mailAuthDBInitStyle(style) == 0 ? 0 : 1;
}
