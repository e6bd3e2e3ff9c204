"""Fingerprints of the host files a leaking sandbox would change first: type, mode, owner,
content digest (mtime for big files), link target and directory mtime (so even a file created
and removed again shows) of everything below the watched paths, and absence of the rest."""

import hashlib
import os
import stat as stat_mod

WATCHED = (
    "/etc/postfix", "/var/spool/postfix", "/etc/passwd", "/etc/group", "/etc/shadow",
    "/etc/gshadow", "/etc/hosts", "/etc/aliases.db", "/var/lib/mysql", "/run/mysqld",
    "/run/courier", "/etc/init.d", "/var/log/postfix.log",
    # made by the tool or the rig inside; absent on the host
    "/etc/zrn", "/etc/domainkeys", "/etc/zrn-spf", "/etc/courier-imap", "/opt/rig-real",
    "/var/qmail", "/var/lib/zarnet", "/usr/local/zrn", "/usr/lib/zarnet-9.0",
)


def _entry(path):
    st = os.lstat(path)
    rec = (stat_mod.S_IFMT(st.st_mode), stat_mod.S_IMODE(st.st_mode), st.st_uid, st.st_gid)
    if stat_mod.S_ISREG(st.st_mode) and st.st_size <= 1 << 20:
        with open(path, "rb") as f:
            return rec + (hashlib.sha256(f.read()).hexdigest(),)
    if stat_mod.S_ISLNK(st.st_mode):
        return rec + (os.readlink(path),)
    return rec + (st.st_size, st.st_mtime_ns)


def snapshot(paths=WATCHED):
    state = {}
    for top in paths:
        walk = os.walk(top) if os.path.isdir(top) and not os.path.islink(top) else ()
        for path in [top] + [os.path.join(d, n) for d, ds, fs in walk for n in ds + fs]:
            try:
                state[path] = _entry(path)
            except FileNotFoundError:
                state[path] = "absent"
    return state


def diff(before, after):
    """One line per path that differs; empty when nothing changed."""
    return [f"{p}: {before.get(p, 'absent')!r} -> {after.get(p, 'absent')!r}"
            for p in sorted(set(before) | set(after)) 
            if before.get(p, 'absent') != after.get(p, 'absent')]
