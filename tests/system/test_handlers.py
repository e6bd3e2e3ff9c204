"""Mail-handler and autoresponder commands through the real binary: the store on disk, the refresh
program run once per change (never for a query), and the refusals that change nothing."""

import pytest

from conftest import EXPECTED

ROOT = "/usr/local/zrn/handlers"
AUTORESPONDER = ROOT + "/hooks/autoresponder"
REFRESH_LOG = "/var/log/handlers-tmpfs.calls"
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
    for path in [f"{ROOT}/{name}" for name in sb.listdir(ROOT)] + [REFRESH_LOG]:
        if sb.exists(path):
            sb.remove(path)
    sb.write("/usr/lib/zarnet-9.0/handlers-tmpfs", f'#!/bin/sh\necho "$@" >> {REFRESH_LOG}\n',
             mode=0o755)
    sb.write(EXE, "#!/bin/sh\nexit 0\n", mode=0o755)
    return sb


def refreshes(sb):
    """How often the refresh program ran since the last look."""
    calls = sb.read_text(REFRESH_LOG).splitlines() if sb.exists(REFRESH_LOG) else []
    assert set(calls) <= {"refresh"}, calls
    if calls:
        sb.remove(REFRESH_LOG)
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
    assert name.startswith("10-spam-")
    assert params == {"hook": "before-local", "context": "from panel", "handler-type": "recipient",
                      "recipient": "Info@example.com", "executable": EXE}
    assert (store(sb)[1], refreshes(sb)) == ([f"{QUEUE}/{name}"], 1)

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
    assert name.startswith("20-spam-") and (params["executable"], params["context"]) == (
        EXE, "from panel")
    assert [q.rsplit("/", 1)[1] for q in store(sb)[1]] == [name]

    refreshes(sb)
    sb.mailtend("--remove-handler", *NAMING).expect()
    assert (store(sb), refreshes(sb)) == (({}, EMPTIED), 1)
    sb.mailtend("--check-handler", *NAMING).expect(1)


def test_global_handler_needs_no_type_name(sb):
    naming = ["--handler-name=av", "--handler-type=global", "--hook=before-queue"]
    sb.mailtend("--add-handler", *naming, f"--executable={EXE}", "--context=av",
                "--priority=5").expect()
    handlers, queue = store(sb)
    (name, params), = handlers.items()
    assert params["global"] == "" and "handler-type-name" not in params
    assert queue == [f"before-queue/global/{name}"]
    sb.mailtend("--check-handler", *naming).expect()
    sb.mailtend("--remove-handler", *naming).expect()
    assert store(sb)[0] == {}


def changed(option, value):
    return [f"{option}={value}" if a.startswith(option + "=") else a for a in ADD
            if value is not None or not a.startswith(option + "=")]


MISSING = "Handler spam for info@example.com does not exist in queue before-local\n"
FAILURES = [  # fault, arguments, message; True: the command's help follows on stdout
    ("unknown type accepted", changed("--handler-type", "recipients"), True,
     'unknown handler type "recipients" (one of global, sender, recipient, sender-domain, '
     'recipient-domain)\n'),
    ("unknown hook accepted", changed("--hook", "after-local"), True,
     'unknown hook "after-local" (one of before-queue, before-local, before-remote)\n'),
    ("type name not required", changed("--handler-type-name", None), True,
     'option "--handler-type-name" is required for handler type "recipient"\n'),
    ("type name taken for a global handler", changed("--handler-type", "global"), True,
     'option "--handler-type-name" does not apply to handler type "global"\n'),
    ("priority not checked", changed("--priority", "1-2"), True,
     'handler priority "1-2" is not a decimal number\n'),
    ("mandatory hook not enforced", changed("--hook", None), True,
     'mandatory option "--hook" is not specified\n'),
    ("type name escaping the store accepted", changed("--handler-type-name", "../x"), False,
     "Fatal error: std::invalid_argument(invalid handler type name '../x')\n"),
    ("missing executable accepted", changed("--executable", "/usr/bin/absent"), False,
     "Unable to stat executable '/usr/bin/absent': No such file or directory\n"),
    ("remove of a missing handler succeeded", ["--remove-handler", *NAMING], False, MISSING),
    ("enable of a missing handler succeeded", ["--enable-handler", *NAMING], False, MISSING),
    ("disable of a missing handler succeeded", ["--disable-handler", *NAMING], False, MISSING),
    ("update of a missing handler succeeded", ["--update-handler", *NAMING], False, MISSING),
    ("check of a missing handler talked", ["--check-handler", *NAMING], False, ""),
]


@pytest.mark.parametrize("fault,args,help_follows,message", FAILURES,
                         ids=[f[0] for f in FAILURES])
def test_failures_change_nothing(sb, fault, args, help_follows, message):
    sb.mailtend(*args).expect(
        1, message + (EXPECTED[("--add-handler", "--help")] if help_follows else ""), message)
    assert (store(sb), refreshes(sb)) == (({}, []), 0)


def test_adding_twice_is_refused(sb):
    sb.mailtend(*ADD).expect()
    message = "Handler spam for Info@example.com already exists in queue before-local\n"
    sb.mailtend(*ADD).expect(1, message, message)
    assert len(store(sb)[0]) == 1


def test_autoresponder_lists_cover_every_address_once(sb):
    message = (f"Unable to stat executable '{AUTORESPONDER}': No such file or directory\n"
               "Unable to make action for some autoresponder handlers\n")
    sb.mailtend("--set-autoresponder", "--mailname=info", "--domain-name=example.com").expect(
        1, message, message)
    assert store(sb)[0] == {}
    refreshes(sb)

    sb.write(AUTORESPONDER, "#!/bin/sh\nexit 0\n", mode=0o755)
    args = ["--mailname=info, sales", "--domain-name=example.com, Example.ORG"]
    want = sorted(f"{n}@{d}" for n in ("info", "sales") for d in ("example.com", "example.org"))
    for again in (False, True):
        sb.mailtend("--set-autoresponder", *args).expect()
        handlers, queue = store(sb)
        assert sorted(p["recipient"] for p in handlers.values()) == want
        assert {(p["hook"], p["context"], p["executable"]) for p in handlers.values()} == {
            ("before-local", "responder", AUTORESPONDER)}
        assert (len(queue), refreshes(sb)) == (4, 0 if again else 1), "unchanged set refreshed"

    sb.mailtend("--reset-autoresponder", "--mailname=sales", "--domain-name=example.org").expect()
    assert sorted(p["recipient"] for p in store(sb)[0].values()) == want[:3]
    sb.mailtend("--reset-autoresponder", *args).expect()
    assert store(sb)[0] == {} and all(q.endswith("/") for q in store(sb)[1])
