"""Files that a mailbox owner or the panel's upload controls, planted hostile: no run waits on a
FIFO, follows a link or deletes what it did not read; a refusal names the file and exits 1."""

import pytest

from sandbox import MAILNAMES, POPUSER

HOME = f"{MAILNAMES}/example.com/info"
QMAIL, MAILDIR = HOME + "/.qmail", HOME + "/Maildir"
SECRET, UPLOAD, KEY = "/etc/zrn/secret", "/tmp/upload", "/etc/domainkeys/a.example/default"
INFO = ["--domain-name=example.com", "--mailname=info"]
FIFO = f"Unable to open file {QMAIL}: not a regular file\n"
LINK = "Too many levels of symbolic links\n"
WAIT = 20  # a run waiting on a FIFO fails instead of hanging the test


@pytest.fixture
def sb(module_sandbox):
    module_sandbox.make_home("example.com", "info")
    module_sandbox.write(SECRET, "root only\n", mode=0o600)
    module_sandbox.run(["rm", "-rf", UPLOAD, "/etc/domainkeys/a.example"]).check()
    return module_sandbox


def plant(sb, path, kind):
    """A FIFO, a link to the secret or an empty file at path, the mailbox owner's."""
    make = {"fifo": ["mkfifo"], "link": ["ln", "-s", SECRET], "file": ["touch"]}[kind]
    sb.run(["rm", "-rf", path]).check()
    sb.run([*make, path]).check()
    sb.run(["chown", "-h", f"{POPUSER}:{POPUSER}", path]).check()


ADD_ATTACHMENT = ["--add-attachment", *INFO, "--attachment-file-name=a", "--file-name=" + UPLOAD]
REFUSED = [  # fault, planted file and kind, command, what the report says
    ("redirect waited on a FIFO .qmail", QMAIL, "fifo",
     ["--add-redirect", *INFO, "--redirect-email=a@x.example"], FIFO),
    ("attachment copied through the upload's link", UPLOAD, "link", ADD_ATTACHMENT,
     f"Unable to open file {UPLOAD}: " + LINK),
    ("attachment upload waited on a FIFO", UPLOAD, "fifo", ADD_ATTACHMENT,
     f"Unable to open file {UPLOAD}: not a regular file\n"),
    ("domain key copied through the upload's link", UPLOAD, "link",
     ["--set-domain-key", "--domain-name=a.example", "--file-name=" + UPLOAD],
     f"No source file '{UPLOAD}': " + LINK),
]


@pytest.mark.parametrize("fault,path,kind,args,message", REFUSED, ids=[c[0] for c in REFUSED])
def test_hostile_file_refused(sb, fault, path, kind, args, message):
    plant(sb, path, kind)
    r = sb.mailtend(*args, timeout=WAIT)
    assert r.rc == 1 and message in r.err, r
    assert sb.read_text(SECRET) == "root only\n" and sb.stat(SECRET).st_uid == 0
    assert sb.listdir(HOME + "/@attachments") == [] and not sb.exists("/etc/domainkeys/a.example")
    assert sb.stat(path, follow=False).st_uid == POPUSER, "the planted file was replaced"


def test_maildirsize_link_and_stray_folders_skipped(sb):
    sb.makedirs(MAILDIR + "/.Foo/cur", uid=POPUSER, gid=POPUSER)
    for path, kind in [("maildirsize", "link"), (".Stray", "file"), (".Linked", "link"),
                       (".Foo/new", "file")]:
        plant(sb, f"{MAILDIR}/{path}", kind)
    sb.write(MAILDIR + "/cur/1.M1P1.host,S=300:2,S", "x", uid=POPUSER, gid=POPUSER)
    attachments = sb.stat(HOME + "/@attachments").st_size
    bad = [f"Bad/unrecognized entry {n} within Maildir folder Maildir" for n in
           (".Foo/new", ".Linked", ".Stray")]
    for quota in (5000, 7000):  # the strays break no later run either
        r = sb.mailtend("--set-mailbox-disk-quota", *INFO, f"--disk-quota={quota}", timeout=WAIT)
        assert r.rc == 0 and r.out == r.err and sorted(r.err.splitlines()) == bad, r
        assert sb.read_text(MAILDIR + "/maildirsize") == "%dS,0C\n%12d%12d\n" % (
            quota - attachments, 300, 1)
    assert sb.read_text(SECRET) == "root only\n"
    plant(sb, MAILDIR + "/maildirsize", "fifo")
    sb.mailtend("--get-mailbox-size", *INFO, timeout=WAIT).expect(0, str(attachments + 300))


def test_domain_key_consumes_only_the_file_it_read(sb):
    # named by the key it replaces, the upload's name leads to the new key when it would go
    sb.write(KEY, "old key\n")
    sb.mailtend("--set-domain-key", "--domain-name=a.example", "--file-name=" + KEY, timeout=WAIT).expect()
    assert sb.read_text(KEY) == "old key\n"

