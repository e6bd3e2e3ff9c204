"""Courier's side of the rig: the authentication daemon reading the tool's passwd.db, and the
quota-enforcing delivery program. The Sandbox methods that use these live in sandbox.py.

authdaemond logs to syslog when started through its wrapper script; there is no syslog
inside, so the rig runs the daemon binary itself with its stderr going to AUTHDAEMON_LOG.
It runs as root, which is what lets it read passwd.db (owner postfix, group 0, mode 0460).

It keeps passwd.db open once it has answered a query: rows may change under it, but a file
replaced by rename goes unnoticed (it keeps reading the old one). So the database is created
before the daemon starts, and changed in place afterwards.

deliverquota exits 0 when it delivered, 77 (EX_NOPERM) with "Mail quota exceeded." on stderr
when the Maildir is over its maildirsize quota, and 75 (EX_TEMPFAIL) when it could not deliver
at all (missing Maildir, no access). Over quota it recounts the Maildir and rewrites
maildirsize from the count before it refuses.
"""

import os
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]

AUTH_DB = "/var/spool/postfix/zarnet/passwd.db"
DBINIT_PATH = "/usr/local/zrn/admin/sbin/mailauth-dbinit"

AUTHDAEMONRC = "/etc/courier/authdaemonrc"
AUTHSQLITERC = "/etc/courier/authsqliterc"
AUTHDAEMOND = "/usr/lib/courier/courier-authlib/authdaemond"
AUTHDAEMON_SOCKET = "/run/courier/authdaemon/socket"
AUTHDAEMON_LOG = "/var/log/authdaemond.log"

MAILNAMES = "/var/qmail/mailnames"
DELIVERQUOTA = "/usr/bin/deliverquota"
QUOTA_EXCEEDED = 77


def dbinit_binary():
    """The installer program under test: MAILTEND_DBINIT_BIN, else this checkout's build."""
    return Path(os.environ.get("MAILTEND_DBINIT_BIN") or REPO / "build" / "mailauth-dbinit")


def authdaemonrc():
    return ('authmodulelist="authsqlite"\n'
            "daemons=2\n"
            "authdaemonvar=/run/courier/authdaemon\n"
            "DEBUG_LOGIN=0\n"
            'DEFAULTOPTIONS=""\n')


# authsqlite wants the table and a password field named even though the select clause
# replaces its own query. It escapes the quotes in $(local_part) and $(domain). A row counts
# only while both the user and its domain have status 0.
def authsqliterc(uid, gid):
    select = ("SELECT u.name || '@' || d.name, u.cmusaslsecretPLAIN, u.userPassword, "
              f"{uid:d}, {gid:d}, '{MAILNAMES}/' || d.name || '/' || u.name, 'Maildir', "
              "'', '', '' FROM users AS u, domains AS d WHERE u.dom_id = d.id "
              "AND u.name = '$(local_part)' AND d.name = '$(domain)' "
              "AND u.status = 0 AND d.status = 0")
    return (f"SQLITE_DATABASE\t{AUTH_DB}\n"
            "SQLITE_USER_TABLE\tusers\n"
            "SQLITE_CRYPT_PWFIELD\tcmusaslsecretPLAIN\n"
            "SQLITE_CLEAR_PWFIELD\tuserPassword\n"
            f"SQLITE_SELECT_CLAUSE\t{select}\n"
            "##NAME: MARKER:0\n")


def maildirsize(quota_bytes, used_bytes=0, used_count=0):
    """A maildirsize file: the quota line (no message-count limit) and one usage line."""
    return "%dS,0C\n%12d%12d\n" % (quota_bytes, used_bytes, used_count)
