"""Attachment commands on mailbox homes in the sandbox."""

import pytest

from conftest import EXPECTED
from sandbox import MAILNAMES, POPUSER

HOME = f"{MAILNAMES}/example.com"


@pytest.fixture(scope="module")
def homes(module_sandbox):
    homes = {name: module_sandbox.make_home("example.com", name) for name in ("info", "sales")}
    for name, file, data in (("info", "price list.pdf", "p" * 1000), ("info", "a.txt", "12345"),
                             ("sales", "logo.png", "xyz")):
        module_sandbox.write(f"{homes[name]}/@attachments/{file}", data, uid=POPUSER, gid=POPUSER)
    return module_sandbox


def test_listings(homes):
    blocks = {n: homes.stat(f"{HOME}/info/@attachments/{n}").st_blocks * 512
              for n in ("a.txt", "price list.pdf")}
    for args, want in [
        (["--mailname=info"], "a.txt\t5\nprice list.pdf\t1000\n"),
        (["--in-blocks", "--mailname=info"],
         f"a.txt\t{blocks['a.txt']}\nprice list.pdf\t{blocks['price list.pdf']}\n"),
        (["--fullname", "--mailname=sales"], f"{HOME}/sales/@attachments/logo.png\t3\n"),
        (["--mail-all"], "a.txt\t5\nprice list.pdf\t1000\nlogo.png\t3\n"),
    ]:
        homes.mailtend("--list-attachments", "--domain-name=Example.COM", *args).expect(0, want)


@pytest.mark.parametrize("args,message", [
    (["--mailname=info", "--mail-all"], "you should not use --mailname and --mail-all together\n"),
    ([], "neither --mailname nor --mail-all are specified\n"),
])
def test_listing_option_combinations(homes, args, message):
    homes.mailtend("--list-attachments", "--domain-name=example.com", *args).expect(
        1, message + EXPECTED[("--list-attachments", "--help")], message)


def test_add_and_remove(homes):
    homes.write("/tmp/upload", "new attachment", mode=0o600)
    common = ["--domain-name=example.com", "--mailname=sales", "--attachment-file-name=terms.txt"]
    homes.mailtend("--add-attachment", *common, "--file-name=/tmp/upload").expect()
    target = f"{HOME}/sales/@attachments/terms.txt"
    assert homes.read_text(target) == "new attachment"
    assert homes.stat(target).st_mode & 0o7777 == 0o644

    homes.mailtend("--remove-attachment", *common).expect()
    assert not homes.exists(target)
    message = f"Unable to delete the attachment file {target}: No such file or directory\n"
    homes.mailtend("--remove-attachment", *common).expect(1, message, message)
    homes.mailtend("--remove-attachment", *common[::2]).expect(
        1, None, 'mandatory option "--mailname" is not specified\n')
