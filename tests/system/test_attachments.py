"""Attachment commands through the real binary on mailbox homes in the sandbox."""

import pytest

POPUSER = 30110
MAILNAMES = "/var/qmail/mailnames"
DOMAIN = "example.com"


def attachments(name):
    return f"{MAILNAMES}/{DOMAIN}/{name}/@attachments"


@pytest.fixture
def homes(sandbox):
    for name in ("info", "sales"):
        sandbox.makedirs(attachments(name), mode=0o700, uid=POPUSER, gid=POPUSER)
    sandbox.write(attachments("info") + "/price list.pdf", b"p" * 1000, uid=POPUSER, gid=POPUSER)
    sandbox.write(attachments("info") + "/a.txt", "12345", uid=POPUSER, gid=POPUSER)
    sandbox.write(attachments("sales") + "/logo.png", "xyz", uid=POPUSER, gid=POPUSER)
    return sandbox


def blocks(sb, path):
    return sb.stat(path).st_blocks * 512


def test_listings(homes):
    sb = homes
    info = attachments("info")
    cases = [
        (["--mailname=info"], f"a.txt\t5\nprice list.pdf\t1000\n"),
        (["--in-blocks", "--mailname=info"],
         f"a.txt\t{blocks(sb, info + '/a.txt')}\n"
         f"price list.pdf\t{blocks(sb, info + '/price list.pdf')}\n"),
        (["--fullname", "--mailname=sales"], f"{attachments('sales')}/logo.png\t3\n"),
        (["--mail-all"], "a.txt\t5\nprice list.pdf\t1000\nlogo.png\t3\n"),
    ]
    for args, want in cases:
        r = sb.mailtend("--list-attachments", "--domain-name=Example.COM", *args)
        assert (r.rc, r.out, r.err) == (0, want, ""), r


@pytest.mark.parametrize("args,message", [
    (["--mailname=info", "--mail-all"], "you should not use --mailname and --mail-all together"),
    ([], "neither --mailname nor --mail-all are specified"),
])
def test_listing_option_combinations(homes, args, message):
    r = homes.mailtend("--list-attachments", f"--domain-name={DOMAIN}", *args)
    assert (r.rc, r.err) == (1, message + "\n"), r
    usage = ("--list-attachments [--in-blocks] [--fullname] --domain-name=<domain_name> "
             "(--mailname=<mail_name>|--mail-all)")
    assert r.out.startswith(f"{message}\nlist attachments\nUsage: {usage}\n"), r
    assert "\t" not in r.out, "something was listed"


def test_add_and_remove(homes):
    sb = homes
    sb.write("/tmp/upload", "new attachment", mode=0o600)
    common = [f"--domain-name={DOMAIN}", "--mailname=sales"]
    r = sb.mailtend("--add-attachment", *common, "--file-name=/tmp/upload",
                    "--attachment-file-name=terms.txt")
    assert (r.rc, r.out, r.err) == (0, "", ""), r
    target = attachments("sales") + "/terms.txt"
    assert sb.read_text(target) == "new attachment"
    assert sb.stat(target).st_mode & 0o7777 == 0o644

    r = sb.mailtend("--remove-attachment", *common, "--attachment-file-name=terms.txt")
    assert (r.rc, r.out, r.err) == (0, "", ""), r
    assert not sb.exists(target)
    r = sb.mailtend("--remove-attachment", *common, "--attachment-file-name=terms.txt")
    message = f"Unable to delete the attachment file {target}: No such file or directory\n"
    assert (r.rc, r.out, r.err) == (1, message, message), r

    r = sb.mailtend("--remove-attachment", f"--domain-name={DOMAIN}",
                    "--attachment-file-name=terms.txt")
    assert r.rc == 1 and r.err == 'mandatory option "--mailname" is not specified\n', r
