"""Files that a mailbox owner or the panel's upload controls, planted hostile: no run waits on a
FIFO, follows a link or deletes what it did not read; a refusal names the file and exits 1."""

import pytest

from sandbox import MAILNAMES, POPUSER, TOOL_PATH

DOMAIN = f"{MAILNAMES}/example.com"
HOME = DOMAIN + "/info"
QMAIL, MAILDIR = HOME + "/.qmail", HOME + "/Maildir"
SECRET, UPLOAD, KEY = "/etc/zrn/secret", "/tmp/upload", "/etc/domainkeys/a.example/default"
INFO = ["--domain-name=example.com", "--mailname=info"]
FIFO = "not a regular file\nSystem error 22: Invalid argument\n"
LINK = "Too many levels of symbolic links\nSystem error 40: Too many levels of symbolic links\n"


@pytest.fixture
def sb(module_sandbox):
    sb = module_sandbox
    sb.make_home("example.com", "info")
    sb.write(SECRET, "root only\n", mode=0o600)
    sb.run(["rm", "-rf", UPLOAD, "/etc/domainkeys/a.example"]).check()
    return sb


def plant(sb, path, kind):
    """A FIFO, a link to the secret or a plain file at path, as the mailbox owner leaves it."""
    sb.run(["rm", "-rf", path]).check()
    make = {"fifo": ["mkfifo", path], "link": ["ln", "-s", SECRET, path],
            "file": ["touch", path]}[kind]
    sb.run(make).check()
    sb.run(["chown", "-h", f"{POPUSER}:{POPUSER}", path]).check()


def mailtend(sb, *args):
    # a run that waits on a FIFO fails the test instead of hanging it
    return sb.run([TOOL_PATH, *args], timeout=20)


ADD_ATTACHMENT = ["--add-attachment", *INFO, "--attachment-file-name=a.txt",
                  "--file-name=" + UPLOAD]
REFUSED = [  # fault, planted file and kind, command, what the report says
    ("redirect waited on a FIFO .qmail", QMAIL, "fifo",
     ["--add-redirect", *INFO, "--redirect-email=a@x.example"], f"Unable to open file {QMAIL}: " + FIFO),
    ("mailbox removal waited on a FIFO .qmail", QMAIL, "fifo", ["--remove-mailbox", *INFO],
     f"Unable to open file {QMAIL}: " + FIFO),
    ("redirect removal followed a .qmail link", QMAIL, "link",
     ["--remove-redirect", *INFO, "--redirect-email=a@x.example"], f"{QMAIL} file."),
    ("attachment copied through the upload's link", UPLOAD, "link", ADD_ATTACHMENT,
     f"Unable to open file {UPLOAD}: " + LINK.split("\n")[0]),
    ("attachment upload waited on a FIFO", UPLOAD, "fifo", ADD_ATTACHMENT,
     f"Unable to open file {UPLOAD}: not a regular file"),
    ("domain key copied through the upload's link", UPLOAD, "link",
     ["--set-domain-key", "--domain-name=a.example", "--file-name=" + UPLOAD],
     f"No source file '{UPLOAD}': " + LINK),
]


@pytest.mark.parametrize("fault,path,kind,args,message", REFUSED, ids=[c[0] for c in REFUSED])
def test_hostile_file_refused(sb, fault, path, kind, args, message):
    plant(sb, path, kind)
    r = mailtend(sb, *args)
    assert r.rc == 1 and message in r.err, r
    assert sb.read_text(SECRET) == "root only\n" and sb.stat(SECRET).st_uid == 0
    assert sb.listdir(HOME + "/@attachments") == [] and not sb.exists("/etc/domainkeys/a.example")
    assert sb.stat(path, follow=False).st_uid == POPUSER, "the planted file was replaced"


def test_maildirsize_link_and_stray_folders_skipped(sb):
    plant(sb, MAILDIR + "/maildirsize", "link")
    plant(sb, MAILDIR + "/.Stray", "file")
    plant(sb, MAILDIR + "/.Linked", "link")
    sb.write(MAILDIR + "/cur/1.M1P1.host,S=300:2,S", "x", uid=POPUSER, gid=POPUSER)
    bad = "".join(f"Bad/unrecognized entry {n} within Maildir folder Maildir\n"
                  for n in sorted([".Stray", ".Linked"], key=lambda n: sb.listdir(MAILDIR).index(n)))
    for quota in (5000, 7000):  # the strays do not break the next run either
        mailtend(sb, "--set-mailbox-disk-quota", *INFO, f"--disk-quota={quota}").expect(0, bad, bad)
        assert sb.read_text(MAILDIR + "/maildirsize").startswith(f"{quota - sb.stat(HOME + '/@attachments').st_size}S,0C\n")
    assert sb.read_text(SECRET) == "root only\n"
    plant(sb, MAILDIR + "/maildirsize", "fifo")
    mailtend(sb, "--get-mailbox-size", *INFO).expect(0, str(300 + sb.stat(HOME + "/@attachments").st_size))


def test_domain_key_consumes_only_the_file_it_read(sb):
    """The upload named by the key it replaces: by the time it would go, its name leads to the key
    just installed, which must stay."""
    sb.write(KEY, "old key\n")
    mailtend(sb, "--set-domain-key", "--domain-name=a.example", "--file-name=" + KEY).expect()
    assert sb.read_text(KEY) == "old key\n"
    sb.write(UPLOAD, "new key\n", mode=0o600)
    mailtend(sb, "--set-domain-key", "--domain-name=a.example", "--file-name=" + UPLOAD).expect()
    assert (sb.read_text(KEY), sb.exists(UPLOAD)) == ("new key\n", False)


def test_listing_of_all_homes_fails_with_one_unreadable(sb):
    sb.make_home("example.com", "sales")
    sb.write(HOME + "/@attachments/a.txt", "12345", uid=POPUSER, gid=POPUSER)
    sb.remove(DOMAIN + "/sales/@attachments")
    message = f"Unable to open dir {DOMAIN}/sales/@attachments: No such file or directory\n"
    mailtend(sb, "--list-attachments", "--domain-name=example.com", "--mail-all").expect(
        1, "a.txt\t5\n" + message, message)


def test_compiler_killed_by_a_signal_names_it(sb):
    postmap = "/usr/sbin/postmap"
    real = sb.read(postmap)
    sb.write(postmap, "#!/bin/sh\nkill -KILL $$\n", mode=0o755)
    try:
        line = ("Fatal error: zarnet::mail::postfix::PostfixConfigurationError("
                "terminated by signal 9 (Killed))\n")
        mailtend(sb, "--add-badmailfrom", "--domain-name=x.example").expect(1, line, line)
    finally:
        sb.write(postmap, real, mode=0o755)
