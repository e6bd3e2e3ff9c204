"""mailtend-setup on a stock server: each change reported once, nothing changed by a second run,
the operator's settings kept, main.cf left alone by a failed step, and a server that then takes
mail for a mailbox and lets its owner in over SMTP authentication, POP3 and IMAP."""

from conftest import SETUP_PATH as SETUP
from mailflow import mail_logins, stock_server
from panel_db import PanelDB
from sandbox import (AUTH_DB, AUTHDAEMON_LOG, AUTHDAEMON_SOCKET, AUTHDAEMOND, MAIN_CF, TABLE_DIR,
                     wait_for)

DAEMONRC, SQLITERC = "/etc/courier/authdaemonrc", "/etc/courier/authsqliterc"
SASL = "/etc/postfix/sasl/smtpd.conf"
INFO = "--mailname=info"
TABLES = ("virtual_domains", "virtual", "vmailbox", "aliases", "blacklists", "poplock")
TRANSPORT = ("zarnet    unix  -       n       n       -       -       pipe\n"
             "  flags=DROh user=popuser null_sender= argv=/usr/lib/zarnet-9.0/mailtend-deliver"
             " ${sender} ${recipient}\n")
SELECT = ("SELECT u.name || '@' || d.name, u.cmusaslsecretPLAIN, u.userPassword, {uid}, {gid},"
          " '/var/qmail/mailnames/' || d.name || '/' || u.name, 'Maildir', '', '', '' FROM users AS"
          " u, domains AS d WHERE u.dom_id = d.id AND u.name = '$(local_part)' AND d.name ="
          " '$(domain)' AND u.status = 0 AND d.status = 0")
EXPECTED = "\n".join([
    "account: added group popuser", "account: added user popuser",
    "directory: created /var/qmail/mailnames", f"directory: created {TABLE_DIR}",
    "directory: created /usr/local/zrn/handlers", "file: created /etc/zrn/zrn.conf",
    *(f"table: created hash:{TABLE_DIR}/{t}" for t in TABLES),
    f"table: created {TABLE_DIR}/no_relay.re", f"database: created {AUTH_DB}",
    f"{SASL}: pwcheck_method: authdaemond",
    f"{SASL}: authdaemond_path: /run/courier/authdaemon/socket", f"{SASL}: mech_list: PLAIN LOGIN",
    "account: added postfix to group courier", f'{DAEMONRC}: authmodulelist="authsqlite"',
    f"{SQLITERC}: SQLITE_DATABASE\t{AUTH_DB}", f"{SQLITERC}: SQLITE_USER_TABLE\tusers",
    f"{SQLITERC}: SQLITE_CRYPT_PWFIELD\tcmusaslsecretPLAIN",
    f"{SQLITERC}: SQLITE_CLEAR_PWFIELD\tuserPassword",
    f"{SQLITERC}: SQLITE_SELECT_CLAUSE\t{SELECT}",
    "master.cf: added zarnet unix pipe", "master.cf: smtp inet chroot = n",
    f"main.cf: alias_maps = hash:/etc/aliases, hash:{TABLE_DIR}/aliases",
    "main.cf: cyrus_sasl_config_path = /etc/postfix/sasl",
    "main.cf: smtpd_sender_restrictions = reject_non_fqdn_sender, check_sender_access "
    f"hash:{TABLE_DIR}/blacklists",
    f"main.cf: virtual_alias_maps = hash:{TABLE_DIR}/virtual",
    "main.cf: virtual_gid_maps = static:{gid}",
    "main.cf: virtual_mailbox_base = /var/qmail/mailnames",
    f"main.cf: virtual_mailbox_domains = hash:{TABLE_DIR}/virtual_domains",
    f"main.cf: virtual_mailbox_maps = hash:{TABLE_DIR}/vmailbox",
    "main.cf: virtual_transport = zarnet",
    "main.cf: virtual_uid_maps = static:{uid}", "main.cf: zarnet_destination_recipient_limit = 1",
    ""])
# what a run may touch, with owner and mode
WATCHED = [MAIN_CF, "/etc/postfix/master.cf", SASL, DAEMONRC, SQLITERC, "/etc/zrn/zrn.conf",
           "/etc/passwd", "/etc/group", AUTH_DB, f"{TABLE_DIR}/no_relay.re",
           *(f"{TABLE_DIR}/{t}.db" for t in TABLES)]


def snapshot(sb):
    return {p: (sb.read(p), *(getattr(sb.stat(p), a) for a in ("st_mode", "st_uid", "st_gid")))
            for p in WATCHED}


def test_setup_makes_a_stock_server_serve(sandbox, panel_template):
    sb = sandbox
    stock_server(sb)
    # the operator's own settings
    sb.postconf_e("maillog_file = /var/log/postfix.log", "inet_protocols = ipv4",
                  "smtpd_sender_restrictions = reject_non_fqdn_sender",
                  "message_size_limit = 2048000")
    stock_rc, rc_stat = sb.read_text(DAEMONRC), sb.stat(DAEMONRC)
    sb.write(DAEMONRC, stock_rc.replace("daemons=5", "daemons=3"), mode=0o640, gid=rc_stat.st_gid)

    r = sb.run([SETUP])
    pw = next(line.split(":") for line in sb.read_text("/etc/passwd").splitlines()
              if line.startswith("popuser:"))
    assert (r.rc, r.out, r.err) == (0, EXPECTED.format(uid=pw[2], gid=pw[3]), ""), r
    sb.run(["postfix", "check"]).expect(0, "", "")
    before = snapshot(sb)
    sb.run([SETUP]).expect(0, "", "")
    assert snapshot(sb) == before

    master = sb.read_text("/etc/postfix/master.cf")
    smtpd = "\nsmtp      inet  n       -       n       -       -       smtpd\n"
    assert (master.count(TRANSPORT), master.count(smtpd)) == (1, 1)
    assert sb.read_text(SASL) == ("pwcheck_method: authdaemond\nauthdaemond_path: "
                                  "/run/courier/authdaemon/socket\nmech_list: PLAIN LOGIN\n")
    expected_rc = stock_rc.replace("daemons=5", "daemons=3").replace(
        'authmodulelist="authpam"', 'authmodulelist="authsqlite"')
    st = sb.stat(DAEMONRC)
    assert ((sb.read_text(DAEMONRC), st.st_mode, st.st_gid)
            == (expected_rc, 0o100640, rc_stat.st_gid))
    assert sb.postconf_h("message_size_limit") == "2048000"

    sb.postconf_e("smtpd_sasl_auth_enable = yes")  # the relay commands' part
    main_cf = sb.read(MAIN_CF)
    sb.fail_call("/usr/sbin/postconf", 1)
    sb.run([SETUP]).expect(1, "", "mailtend-setup: master.cf: postconf: fatal: "
                                  "injected failure\n")
    sb.restore("/usr/sbin/postconf")
    assert sb.read(MAIN_CF) == main_cf

    # the panel's database first: its first start restarts the sandbox
    with PanelDB(sb, panel_template).start() as db:
        db.add_mail_domain("example.com", ())
        for args in (["--add-domain"], ["--add-mailname", INFO], ["--add-mailbox", INFO]):
            sb.mailtend(*args, "--domain-name=example.com",
                        env={"ZRN_PASSWORD": "s3cret"}).expect()
    sb.spawn([AUTHDAEMOND], log=AUTHDAEMON_LOG)
    assert wait_for(lambda: sb.exists(AUTHDAEMON_SOCKET)), sb.read_text(AUTHDAEMON_LOG)
    for script in ("/etc/init.d/courier-imap", "/etc/init.d/courier-pop"):
        sb.run([script, "start"]).check()
    assert wait_for(lambda: {110, 143} <= sb.listening_ports())
    sb.start_postfix()
    r = sb.run(["swaks", "--server", "127.0.0.1", "--timeout", "10", "--to", "info@example.com",
                "--auth", "PLAIN", "--auth-user", "info@example.com", "--auth-password", "s3cret"])
    assert r.rc == 0, r
    new = "/var/qmail/mailnames/example.com/info/Maildir/new"
    assert wait_for(lambda: len(sb.listdir(new)) == 1, 20), sb.read_text("/var/log/postfix.log")
    assert mail_logins(sb, "info@example.com", "s3cret") == "1 1"
    assert mail_logins(sb, "info@example.com", "wrong") == "error"
    sb.mailtend("--remove-mailbox", "--domain-name=example.com", INFO).expect()
    assert mail_logins(sb, "info@example.com", "s3cret") == "error"
