"""Mail through the real servers of a sandbox."""

import shutil

# --- a stock server for the set-up program -------------------------------------------------

# what the rig's init adds on top of the host's /etc and /var (seen through the stopped
# sandbox's upper layers): gone, the host's stock files show through again
RIG_ADDED = ("etc/postfix/main.cf", "etc/postfix/master.cf", "etc/postfix/sasl",
             "var/spool/postfix/zarnet", "var/qmail", "usr/local/zrn/handlers")


def stock_server(sb):
    """The stopped sandbox as a freshly installed Debian server: stock Postfix and Courier
    settings, no popuser, none of the tool's tables or directories, postfix in no extra group."""
    if sb.started:
        sb.stop()
    upper = sb.root / "upper"
    for rel in RIG_ADDED:
        path = upper / rel
        if path.is_dir():
            shutil.rmtree(path)
        elif path.exists():
            path.unlink()
    for name in ("passwd", "group", "shadow", "gshadow"):
        path = upper / "etc" / name
        lines = path.read_text().splitlines(keepends=True)
        lines = [line for line in lines if not line.startswith("popuser:")]
        if name in ("group", "gshadow"):
            lines = [line.replace(",postfix\n", "\n").replace(":postfix\n", ":\n")
                     if line.startswith("courier:") else line for line in lines]
        path.write_text("".join(lines))


def mail_logins(sb, user, password):
    """The number of messages POP3 and IMAP show user after logging in through the Courier
    servers listening inside, or the error of the first refusal."""
    script = ("import imaplib, poplib, sys\n"
              "u, p = sys.argv[1:]\n"
              "try:\n"
              "    i = imaplib.IMAP4('127.0.0.1'); i.login(u, p)\n"
              "    imap = int(i.select('INBOX')[1][0]); i.logout()\n"
              "    c = poplib.POP3('127.0.0.1'); c.user(u); c.pass_(p)\n"
              "    pop = c.stat()[0]; c.quit()\n"
              "    print(imap, pop)\n"
              "except Exception as e:\n"
              "    print(type(e).__name__)\n")
    return sb.run(["/usr/bin/python3", "-c", script, user, password]).check().out.strip()
