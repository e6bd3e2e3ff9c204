"""Mail-handler and autoresponder commands through the real binary: the store on disk, the
refresh program run once per change (never for a query), and the refusals that change nothing."""

import pytest

import handlers as H

EXE = "/usr/local/bin/spamfilter"
NAMING = ["--handler-name=spam", "--handler-type=recipient",
          "--handler-type-name=info@example.com", "--hook=before-local"]
ADD = ["--add-handler", "--handler-name=spam", "--handler-type=Recipient",
       "--handler-type-name=Info@Example.COM", f"--executable={EXE}", "--context=from panel",
       "--hook=before-local", "--priority=10"]
QUEUE = "before-local/recipient/Info@example.com"


@pytest.fixture
def store(sandbox):
    H.install_refresh_recorder(sandbox)
    H.install_executable(sandbox, EXE)
    return sandbox


def ok(r):
    assert (r.rc, r.out, r.err) == (0, "", ""), r


def only_handler(sb):
    found = H.handlers(sb)
    assert len(found) == 1, found
    return next(iter(found.items()))


def test_handler_life_cycle(store):
    sb = store
    ok(sb.mailtend(*ADD))
    name, params = only_handler(sb)
    assert name.startswith("10-spam-")
    assert params == {"hook": "before-local", "context": "from panel",
                      "handler-type": "recipient", "recipient": "Info@example.com",
                      "executable": EXE}
    assert H.queue_entries(sb) == [f"{QUEUE}/{name}"]
    assert H.refresh_calls(sb) == ["refresh"]

    steps = [  # command, exit status, enabled afterwards, refreshes
        ("--check-handler", 0, True, 0),
        ("--disable-handler", 0, False, 1),
        ("--disable-handler", 0, False, 1),
        ("--check-handler", 0, False, 0),  # a disabled handler still exists
        ("--enable-handler", 0, True, 1),
        ("--enable-handler", 0, True, 1),
    ]
    for command, rc, enabled, refreshes in steps:
        before = len(H.refresh_calls(sb))
        r = sb.mailtend(command, *NAMING)
        assert (r.rc, r.out, r.err) == (rc, "", ""), (command, r)
        assert H.queue_entries(sb) == ([f"{QUEUE}/{name}"] if enabled else []), command
        assert len(H.refresh_calls(sb)) - before == refreshes, command
        if not enabled:
            assert sb.listdir(H.ROOT + "/before-local/recipient") == [], "emptied queue kept"

    # update without an executable: new name and priority, same target, still enabled
    ok(sb.mailtend("--update-handler", *NAMING, "--priority=20"))
    new_name, params = only_handler(sb)
    assert new_name.startswith("20-spam-") and params["executable"] == EXE
    assert params["context"] == "from panel"
    assert len(H.queue_entries(sb)) == 1

    before = len(H.refresh_calls(sb))
    ok(sb.mailtend("--remove-handler", *NAMING))
    assert (H.handlers(sb), H.queue_entries(sb)) == ({}, [])
    assert len(H.refresh_calls(sb)) == before + 1
    r = sb.mailtend("--check-handler", *NAMING)
    assert (r.rc, r.out, r.err) == (1, "", ""), r
    assert sb.exists(H.ROOT + "/before-local"), "hook directory removed"


def test_global_handler_needs_no_type_name(store):
    sb = store
    naming = ["--handler-name=av", "--handler-type=global", "--hook=before-queue"]
    ok(sb.mailtend("--add-handler", *naming, f"--executable={EXE}", "--context=av",
                   "--priority=5"))
    name, params = only_handler(sb)
    assert params["global"] == "" and "handler-type-name" not in params
    assert H.queue_entries(sb) == [f"before-queue/global/{name}"]
    ok(sb.mailtend("--check-handler", *naming))
    ok(sb.mailtend("--remove-handler", *naming))
    assert H.handlers(sb) == {}


MISSING = "Handler spam for info@example.com does not exist in queue before-local\n"

REFUSALS = [
    # fault, arguments, message (first line of stderr)
    ("unknown type accepted",
     [a if not a.startswith("--handler-type=") else "--handler-type=recipients" for a in ADD],
     'unknown handler type "recipients" (one of global, sender, recipient, sender-domain, '
     'recipient-domain)\n'),
    ("unknown hook accepted",
     [a if not a.startswith("--hook=") else "--hook=after-local" for a in ADD],
     'unknown hook "after-local" (one of before-queue, before-local, before-remote)\n'),
    ("type name not required",
     [a for a in ADD if not a.startswith("--handler-type-name=")],
     'option "--handler-type-name" is required for handler type "recipient"\n'),
    ("type name taken for a global handler",
     [a if not a.startswith("--handler-type=") else "--handler-type=global" for a in ADD],
     'option "--handler-type-name" does not apply to handler type "global"\n'),
    ("priority not checked",
     [a if not a.startswith("--priority=") else "--priority=1-2" for a in ADD],
     'handler priority "1-2" is not a decimal number\n'),
    ("mandatory hook not enforced", [a for a in ADD if not a.startswith("--hook=")],
     'mandatory option "--hook" is not specified\n'),
    ("type name escaping the store accepted",
     [a if not a.startswith("--handler-type-name=") else "--handler-type-name=../x" for a in ADD],
     "Fatal error: std::invalid_argument(invalid handler type name '../x')\n"),
]


@pytest.mark.parametrize("fault,args,message", REFUSALS, ids=[r[0] for r in REFUSALS])
def test_refusals_change_nothing(store, fault, args, message):
    r = store.mailtend(*args)
    assert (r.rc, r.err) == (1, message), r
    assert r.out.startswith(message), r
    if not message.startswith("Fatal"):
        assert "\nUsage: --add-handler " in r.out, "help block missing"
    assert (H.handlers(store), H.refresh_calls(store)) == ({}, [])


FAILURES = [
    # fault, arguments, exit status, output on both streams
    ("missing executable accepted",
     [a if not a.startswith("--executable=") else "--executable=/usr/bin/absent" for a in ADD], 1,
     "Unable to stat executable '/usr/bin/absent': No such file or directory\n"),
    ("remove of a missing handler succeeded", ["--remove-handler", *NAMING], 1, MISSING),
    ("enable of a missing handler succeeded", ["--enable-handler", *NAMING], 1, MISSING),
    ("disable of a missing handler succeeded", ["--disable-handler", *NAMING], 1, MISSING),
    ("update of a missing handler succeeded", ["--update-handler", *NAMING], 1, MISSING),
    ("check of a missing handler talked", ["--check-handler", *NAMING], 1, ""),
]


@pytest.mark.parametrize("fault,args,rc,message", FAILURES, ids=[f[0] for f in FAILURES])
def test_store_failures(store, fault, args, rc, message):
    r = store.mailtend(*args)
    assert (r.rc, r.out, r.err) == (rc, message, message), r
    assert (H.handlers(store), H.queue_entries(store)) == ({}, [])


def test_adding_twice_is_refused(store):
    ok(store.mailtend(*ADD))
    r = store.mailtend(*ADD)
    message = "Handler spam for Info@example.com already exists in queue before-local\n"
    assert (r.rc, r.out, r.err) == (1, message, message), r
    assert len(H.handlers(store)) == 1


def test_autoresponder_lists_cover_every_address_once(store):
    sb = store
    H.install_executable(sb)
    args = ["--mailname=info, sales", "--domain-name=example.com, Example.ORG"]
    want = sorted(f"{n}@{d}" for n in ("info", "sales") for d in ("example.com", "example.org"))
    for _ in range(2):
        ok(sb.mailtend("--set-autoresponder", *args))
        found = H.handlers(sb).values()
        assert sorted(p["recipient"] for p in found) == want
        assert {(p["hook"], p["context"], p["executable"]) for p in found} == {
            ("before-local", "responder", H.AUTORESPONDER)}
        assert len(H.queue_entries(sb)) == 4
    assert H.refresh_calls(sb) == ["refresh"], "unchanged set refreshed"

    ok(sb.mailtend("--reset-autoresponder", "--mailname=sales", "--domain-name=example.org"))
    assert sorted(p["recipient"] for p in H.handlers(sb).values()) == want[:3]
    ok(sb.mailtend("--reset-autoresponder", *args))
    assert (H.handlers(sb), H.queue_entries(sb)) == ({}, [])


def test_autoresponder_without_its_program_fails(store):
    r = store.mailtend("--set-autoresponder", "--mailname=info", "--domain-name=example.com")
    message = (f"Unable to stat executable '{H.AUTORESPONDER}': No such file or directory\n"
               "Unable to make action for some autoresponder handlers\n")
    assert (r.rc, r.out, r.err) == (1, message, message), r
    assert H.handlers(store) == {}
