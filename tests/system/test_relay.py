"""Relay modes, SMTP authentication and DNS black lists, proved on the real SMTP server."""

import pytest

from panel_db import PanelDB
from sandbox import COURIER, MAIN_CF, POSTFIX_LOG, TABLE_DIR, wait_for

POPLOCK, NO_RELAY = f"hash:{TABLE_DIR}/poplock", f"{TABLE_DIR}/no_relay.re"
CONFIGS = [MAIN_CF] + [f"/etc/courier/{n}" for n in ("imapd", "imapd-ssl", "pop3d", "pop3d-ssl")]
OUT, IN, INFO = ["--to", "outside@example.org"], ["--to", "info@example.com"], "--mailname=info"
AUTH = OUT + ["--auth", "PLAIN", "--auth-user", "info@example.com", "--auth-password"]
DENIED, NO_AUTH, BAD_LOGIN, REFUSED = REFUSALS = (
    "Relay access denied", "did not advertise", "535 5.7.8", "Client host rejected")
# mode, then swaks runs and how each ends (0: recipient taken)
MODES = [
    (["--relayclient", "--poplock-time=30"], [(OUT, 0), (IN, 0)]),
    ([], [(OUT, DENIED), (IN, 0), (AUTH + ["s3cret"], NO_AUTH)]),
    (["--smtpauth"], [(AUTH + ["s3cret"], 0), (AUTH + ["wrong"], BAD_LOGIN), (OUT, DENIED)]),
    (["--popauth", "--smtpauth"], [(AUTH + ["s3cret"], 0), (OUT, DENIED)]),
    (["--popauth"], [(OUT, DENIED), (IN, 0)]),
]


@pytest.fixture(scope="module")
def host(module_sandbox, panel_template):
    """info@example.com with a password; loopback not trusted; Postfix and authdaemond up."""
    sb = module_sandbox
    with PanelDB(sb, panel_template).start() as db:
        db.add_mail_domain("example.com", ())
        sb.init_auth_db()
        sb.start_authdaemon()
        sb.make_home("example.com", "info")
        for args in (["--add-domain"], ["--add-mailname", INFO], ["--add-mailbox", INFO]):
            sb.mailtend(*args, "--domain-name=example.com", env={"ZRN_PASSWORD": "s3cret"}).expect()
        for name in COURIER:
            sb.record(name, exit_code=0)
        for path in (NO_RELAY, f"{TABLE_DIR}/poplock.db"):  # the tool makes them
            sb.remove(path)
        # relayed mail is taken only for a transport that can carry it
        sb.postconf_e("mynetworks = 192.0.2.0/24", "relay_transport = relay", "default_transport = smtp")
        sb.start_postfix()
        yield sb


def changed(sb, *args):
    """mailtend run and Postfix reloaded; its status."""
    reloads = sb.read_text(POSTFIX_LOG).count(": reload -- ")
    rc = sb.mailtend(*args).rc
    assert wait_for(lambda: sb.read_text(POSTFIX_LOG).count(": reload -- ") > reloads, 30)
    sb.run(["postfix", "check"]).expect(0, "", "")
    return rc


def smtp(sb, args):
    """0 when the recipient was taken, else the refusal's words (all of swaks's output when
    it said none of them)."""
    r = sb.run(["swaks", "--server", "127.0.0.1", "--timeout", "10", "--quit-after", "RCPT",
                "--from", "a@client.example", *args])
    return 0 if r.rc == 0 else next((w for w in REFUSALS if w in r.out + r.err), r.out + r.err)


def test_relay_modes(host):
    for mode, runs in MODES:
        assert changed(host, "--set-mail-params", *mode) == 0, mode
        assert [smtp(host, a) for a, _ in runs] == [rc for _, rc in runs], mode
        assert (POPLOCK in host.postconf_h("mynetworks")) == ("--popauth" in mode), mode
    st = host.stat(NO_RELAY)
    assert (host.read(NO_RELAY), st.st_mode, st.st_uid, host.postmap_s("poplock")) == (b"", 0o100644, 0, {})
    # the operator's refused clients come before the relay decision and are kept
    host.write(NO_RELAY, "/^127\\.0\\.0\\.1$/ REJECT\n")
    assert changed(host, "--set-mail-params", "--relayclient") == 0
    assert (smtp(host, OUT), host.read(NO_RELAY)) == (REFUSED, b"/^127\\.0\\.0\\.1$/ REJECT\n")

    before = [host.read(path) for path in CONFIGS]
    r = host.mailtend("--set-mail-params", "--relayclient", "--shortnames")
    assert (r.rc, [host.read(path) for path in CONFIGS]) == (1, before), r

    # POP3/IMAP servers that fail to restart: no relay change
    for name in COURIER:
        host.record(name, exit_code=1)
    r = host.mailtend("--set-mail-params", "--smtpauth")
    assert (r.rc, host.read(MAIN_CF)) == (1, before[0]), r


def test_maps_zones(host):
    host.postconf_e("smtpd_client_restrictions = permit_mynetworks, reject_rbl_client old.example, "
                    "check_policy_service unix:private/policy")
    both = ("permit_mynetworks, reject_rbl_client a.example, reject_rbl_client b.example, "
            "check_policy_service unix:private/policy")
    for args, err, want in [(["--maps-zones=a.example,b.example"], None, both),
                            (["--maps-zones=a.example", "--maps-zones", " b.example,a.example"], None, both),
                            (["--maps-zones=x, permit"], 'MAPS zone "x" has a single label\n', both),
                            (["--maps-zones=a..b"], 'MAPS zone "a..b" has an empty label\n', both),
                            ([], None, "permit_mynetworks, check_policy_service unix:private/policy")]:
        r = host.mailtend("--set-maps-protection", *args)
        assert (r.rc, r.err if err else None) == (1 if err else 0, err), r
        assert host.postconf_h("smtpd_client_restrictions") == want, args
