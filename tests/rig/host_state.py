"""Fingerprints of the host files a leaking sandbox would change first.

snapshot() records every file below the watched paths (type, mode, owner, size, content digest
or, for big files, mtime; link targets; directory mtimes, so even a file created and removed
again shows) and the absence of the paths the tool creates. diff() lists what changed.
"""

import hashlib
import os
import stat as stat_mod

WATCHED = (
    "/etc/postfix",
    "/var/spool/postfix",
    "/etc/passwd",
    "/etc/group",
    "/etc/shadow",
    "/etc/gshadow",
    "/etc/hosts",
    "/etc/aliases.db",
    "/var/lib/mysql",
    "/run/mysqld",
    "/run/courier",
    # created by the tool or the rig; must stay absent on the host
    "/etc/zrn",
    "/etc/domainkeys",
    "/etc/zrn-spf",
    "/etc/courier-imap",
    "/var/qmail",
    "/var/lib/zarnet",
    "/usr/local/zrn",
    "/usr/lib/zarnet-9.0",
    "/var/log/postfix.log",
)

_DIGEST_LIMIT = 1 << 20


def _entry(path):
    st = os.lstat(path)
    kind = stat_mod.S_IFMT(st.st_mode)
    rec = [kind, stat_mod.S_IMODE(st.st_mode), st.st_uid, st.st_gid]
    if stat_mod.S_ISREG(kind):
        rec.append(st.st_size)
        if st.st_size <= _DIGEST_LIMIT:
            with open(path, "rb") as f:
                rec.append(hashlib.sha256(f.read()).hexdigest())
        else:
            rec.append(st.st_mtime_ns)
    elif stat_mod.S_ISLNK(kind):
        rec.append(os.readlink(path))
    elif stat_mod.S_ISDIR(kind):
        rec.append(st.st_mtime_ns)
    return tuple(rec)


def snapshot(paths=WATCHED):
    state = {}
    for top in paths:
        if not os.path.lexists(top):
            state[top] = "absent"
            continue
        state[top] = _entry(top)
        if os.path.isdir(top) and not os.path.islink(top):
            for dirpath, dirnames, filenames in os.walk(top):
                for name in dirnames + filenames:
                    p = os.path.join(dirpath, name)
                    try:
                        state[p] = _entry(p)
                    except FileNotFoundError:
                        state[p] = "absent"
    return state


def diff(before, after):
    """Human-readable lines, one per path that differs; empty when nothing changed."""
    lines = []
    for path in sorted(set(before) | set(after)):
        b, a = before.get(path, "absent"), after.get(path, "absent")
        if b != a:
            lines.append(f"{path}: {b!r} -> {a!r}")
    return lines
