"""The .deb (MAILTEND_PACKAGE, else cpack of the build under test) in a stock server: set up on
install, mailtend(8) lists the command words, remove and purge keep the mail data."""

import gzip
import os
import re
import subprocess as sp

from conftest import EXPECTED, built
from mailflow import stock_server
from sandbox import AUTH_DB, MAIN_CF, TABLE_DIR

MAN = "/usr/share/man/man8/%s.8.gz"
PAGES = ("mailtend", "mailtend-setup", "mailauth-dbinit", "mailtend-deliver")
FILES = {*(f"/usr/local/zrn/admin/sbin/{p}" for p in ("mailtend", "mailauth-dbinit",
                                                        "mailtend-setup")),
         "/usr/lib/zarnet-9.0/mailtend-deliver", "/usr/lib/zarnet-9.0/bouncemessage",
         "/usr/local/zrn/handlers/hooks/autoresponder", *(MAN % p for p in PAGES),
         *(f"/usr/share/doc/mailtend/{f}" for f in ("copyright", "changelog.Debian.gz")),
         "/usr/share/lintian/overrides/mailtend"}
KEPT = [MAIN_CF, "/etc/postfix/master.cf", "/etc/zrn/zrn.conf", "/etc/passwd", AUTH_DB,
        f"{TABLE_DIR}/blacklists.db"]


def test_package_sets_up_the_server_and_leaves_the_mail_data(sandbox, sandbox_base):
    deb = os.environ.get("MAILTEND_PACKAGE")
    if not deb:
        sp.run(["cpack", "-G", "DEB", "-B", sandbox_base], cwd=built("MAILTEND_BIN", "mailtend")
               .parent, check=True, capture_output=True, timeout=600)
        deb = next(sandbox_base.glob("mailtend_*.deb"))
    control, listing = (sp.run(["dpkg-deb", a, deb], check=True, capture_output=True,
                               text=True).stdout for a in ("-f", "-c"))
    depends = set(re.findall(r"(?:^Depends: |, )([^ ,(]+)", control, re.M))
    assert {"postfix", "courier-authlib-sqlite", "maildrop", "libsqlite3-0",
            "libmariadb3"} <= depends, depends
    assert {ln.split()[-1][1:] for ln in listing.splitlines() if ln[0] == "-"} == FILES

    sb = sandbox  # the rig's copies of the programs are replaced by the package's
    stock_server(sb)
    sb.write("/tmp/mailtend.deb", open(deb, "rb").read())
    r = sb.run(["dpkg", "-i", "/tmp/mailtend.deb"], timeout=300)
    assert r.rc == 0 and "master.cf: added zarnet unix pipe\n" in r.out, r  # postinst's setup
    sb.mailtend("--features").expect(0, EXPECTED[("--features",)], "")
    sb.mailtend("--add-badmailfrom", "--domain-name=spam.example").expect()
    assert "spam.example" in sb.postmap_s("blacklists")

    page = gzip.decompress(sb.read(MAN % "mailtend")).decode()
    tags = page.split("\n.SH COMMANDS\n")[1].split("\n.SH ")[0].split(".TP\n")[1:]
    helped = [w for ln in sb.mailtend("--help-commands").check().out.splitlines()[1:]
              if ln[0] != " " for w in ln.split("  ")[0].split(", ")]
    assert [w.replace("\\-", "-") for t in tags for w in re.findall(r"\\fB(.*?)\\fR",
            t.split("\n")[0])] == helped and len(helped) == 82
    assert [sp.run(["groff", "-ww", "-z", "-man", "-Tutf8"], capture_output=True,
                   input=gzip.decompress(sb.read(MAN % p))).stderr for p in PAGES] == [b""] * 4

    kept = {p: sb.read(p) for p in KEPT}
    for action in ("-r", "-P"):
        assert sb.run(["dpkg", action, "mailtend"], timeout=300).rc == 0
        assert ([p for p in FILES if sb.exists(p)], {p: sb.read(p) for p in KEPT}) == ([], kept)
