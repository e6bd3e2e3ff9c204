"""The mail-handler store on disk, refreshed once per change and never for a query."""

import pytest

from conftest import EXPECTED

ROOT = "/usr/local/zrn/handlers"
AUTORESPONDER = ROOT + "/hooks/autoresponder"
REFRESH = "/usr/lib/zarnet-9.0/handlers-tmpfs"
EXE = "/usr/local/bin/spamfilter"
NAMING = ["--handler-name=spam", "--handler-type=recipient",
          "--handler-type-name=info@example.com", "--hook=before-local"]
ADD = ["--add-handler", "--handler-name=spam", "--handler-type=Recipient",
       "--handler-type-name=Info@Example.COM", f"--executable={EXE}", "--context=from panel",
       "--hook=before-local", "--priority=10"]
QUEUE = "before-local/recipient/Info@example.com"
EMPTIED = ["before-local/recipient/"]  # the queue directory goes, the type directory stays


@pytest.fixture
def sb(module_sandbox):
    """An empty store; the panel's refresh program replaced by a recorder of its calls."""
    sb = module_sandbox
    for name in sb.listdir(ROOT):
        sb.remove(f"{ROOT}/{name}")
    sb.record(REFRESH, exit_code=0)
    sb.calls(REFRESH)
    sb.write(EXE, "#!/bin/sh\nexit 0\n", mode=0o755)
    return sb


def refreshes(sb):
    """How often the refresh program ran since the last look."""
    calls = sb.calls(REFRESH)
    assert all(args == ["refresh"] for args, _ in calls), calls
    return len(calls)


def store(sb):
    """({handler: {parameter: value}}, sorted queue entries) as the store lies on disk."""
    handlers, queue = {}, []
    for path, value in sb.tree(ROOT).items():
        if path.startswith("info/") and path != "info/":
            name, param = path[5:].split("/")
            handlers.setdefault(name, {})[param] = value.removeprefix("-> ").rstrip("\n")
        elif not path.startswith(("info/", "hooks/")):
            queue.append(path)
    return handlers, sorted(queue)


def test_handler_life_cycle(sb):
    sb.mailtend(*ADD).expect()
    (name, params), = store(sb)[0].items()
    assert (name[:8], params) == ("10-spam-", {"hook": "before-local", "context": "from panel",
        "handler-type": "recipient", "recipient": "Info@example.com", "executable": EXE})
    assert (store(sb)[1], refreshes(sb)) == ([f"{QUEUE}/{name}"], 1)
    message = "Handler spam for Info@example.com already exists in queue before-local\n"
    sb.mailtend(*ADD).expect(1, message, message)
    refreshes(sb)
    for command, enabled, refreshed in [
            ("--check-handler", True, 0), ("--disable-handler", False, 1),
            ("--disable-handler", False, 1), ("--check-handler", False, 0),  # still exists
            ("--enable-handler", True, 1), ("--enable-handler", True, 1)]:
        sb.mailtend(command, *NAMING).expect()
        want = [f"{QUEUE}/{name}"] if enabled else EMPTIED
        assert (store(sb)[1], refreshes(sb)) == (want, refreshed), command

    # without an executable: new name and priority, the same target, still enabled
    sb.mailtend("--update-handler", *NAMING, "--priority=20").expect()
    (name, params), = store(sb)[0].items()
    assert (name[:8], params["executable"], params["context"]) == ("20-spam-", EXE, "from panel")
    assert [q.rsplit("/", 1)[1] for q in store(sb)[1]] == [name]

    refreshes(sb)
    sb.mailtend("--remove-handler", *NAMING).expect()
    assert (store(sb), refreshes(sb)) == (({}, EMPTIED), 1)
    sb.mailtend("--check-handler", *NAMING).expect(1)

    naming = ["--handler-name=av", "--handler-type=global", "--hook=before-queue"]
    sb.mailtend("--add-handler", *naming, f"--executable={EXE}", "--context=av",
                "--priority=5").expect()
    (name, params), = store(sb)[0].items()
    assert params["global"] == "" and "handler-type-name" not in params
    assert store(sb)[1] == EMPTIED + [f"before-queue/global/{name}"]
    sb.mailtend("--check-handler", *naming).expect()
    sb.mailtend("--remove-handler", *naming).expect()
    assert store(sb)[0] == {}


def changed(option, value):
    return [f"{option}={value}" if a.startswith(option + "=") else a for a in ADD
            if value is not None or not a.startswith(option + "=")]


HELP = EXPECTED[("--add-handler", "--help")]
MISSING = "Handler spam for info@example.com does not exist in queue before-local\n"
FAILURES = [  # fault, arguments, message, what follows it on stdout
    ("unknown type accepted", changed("--handler-type", "recipients"),
     'unknown handler type "recipients" (one of global, sender, recipient, sender-domain, '
     'recipient-domain)\n', HELP),
    ("unknown hook accepted", changed("--hook", "after-local"),
     'unknown hook "after-local" (one of before-queue, before-local, before-remote)\n', HELP),
    ("type name not required", changed("--handler-type-name", None),
     'option "--handler-type-name" is required for handler type "recipient"\n', HELP),
    ("type name taken for a global handler", changed("--handler-type", "global"),
     'option "--handler-type-name" does not apply to handler type "global"\n', HELP),
    ("priority not checked", changed("--priority", "1-2"),
     'handler priority "1-2" is not a decimal number\n', HELP),
    ("missing executable accepted", changed("--executable", "/usr/bin/absent"),
     "Unable to stat executable '/usr/bin/absent': No such file or directory\n", ""),
    *((f"{c} of a missing handler succeeded", [c, *NAMING], MISSING, "") for c in (
        "--remove-handler", "--enable-handler", "--disable-handler", "--update-handler")),
    ("check of a missing handler talked", ["--check-handler", *NAMING], "", ""),
]


@pytest.mark.parametrize("fault,args,message,then", FAILURES, ids=[f[0] for f in FAILURES])
def test_failures_change_nothing(sb, fault, args, message, then):
    sb.mailtend(*args).expect(1, message + then, message)
    assert (store(sb), refreshes(sb)) == (({}, []), 0)


def test_autoresponder_lists_cover_every_address_once(sb):
    message = (f"Unable to stat executable '{AUTORESPONDER}': No such file or directory\n"
               "Unable to make action for some autoresponder handlers\n")
    sb.mailtend("--set-autoresponder", "--mailname=info", "--domain-name=example.com").expect(
        1, message, message)
    assert store(sb)[0] == {}

    sb.write(AUTORESPONDER, "#!/bin/sh\nexit 0\n", mode=0o755)
    args = ["--mailname=info, sales", "--domain-name=example.com, Example.ORG"]
    want = sorted(f"{n}@{d}" for n in ("info", "sales") for d in ("example.com", "example.org"))
    refreshes(sb)
    for refreshed in (1, 0):  # an unchanged set is not refreshed
        sb.mailtend("--set-autoresponder", *args).expect()
        handlers, queue = store(sb)
        assert sorted(p["recipient"] for p in handlers.values()) == want
        assert {(p["hook"], p["context"], p["executable"]) for p in handlers.values()} == {
            ("before-local", "responder", AUTORESPONDER)}
        assert (len(queue), refreshes(sb)) == (4, refreshed)

    sb.mailtend("--reset-autoresponder", "--mailname=sales", "--domain-name=example.org").expect()
    assert sorted(p["recipient"] for p in store(sb)[0].values()) == want[:3]
    sb.mailtend("--reset-autoresponder", *args).expect()
    assert store(sb)[0] == {} and all(q.endswith("/") for q in store(sb)[1])
