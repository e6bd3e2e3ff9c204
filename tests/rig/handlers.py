"""The mail-handler store in a sandbox: the refresh program of the in-memory mirror replaced by
a recorder, executables for test handlers, and readers of the store as it lies on disk.

    install_refresh_recorder(sb)   every later run of the refresh program appends its arguments
                                   as one line to REFRESH_LOG
    refresh_calls(sb)              those lines so far
    install_executable(sb, path)   a real executable file at path (default AUTORESPONDER)
    handlers(sb)                   {name: {parameter: value}} from the information directory;
                                   "executable" is the link's target
    queue_entries(sb)              every queue entry as "HOOK/.../QUEUE/NAME", sorted
"""

import stat as stat_mod

ROOT = "/usr/local/zrn/handlers"
INFO = ROOT + "/info"
AUTORESPONDER = ROOT + "/hooks/autoresponder"
REFRESH = "/usr/lib/zarnet-9.0/handlers-tmpfs"
REFRESH_LOG = "/var/log/handlers-tmpfs.calls"


def install_refresh_recorder(sb):
    sb.write(REFRESH, f'#!/bin/sh\necho "$@" >> {REFRESH_LOG}\n', mode=0o755)


def refresh_calls(sb):
    return sb.read_text(REFRESH_LOG).splitlines() if sb.exists(REFRESH_LOG) else []


def install_executable(sb, path=AUTORESPONDER):
    sb.write(path, "#!/bin/sh\nexit 0\n", mode=0o755)
    return path


def _isdir(sb, path):
    try:
        return stat_mod.S_ISDIR(sb.stat(path, follow=False).st_mode)
    except FileNotFoundError:
        return False


def handlers(sb):
    out = {}
    if not _isdir(sb, INFO):
        return out
    for name in sb.listdir(INFO):
        params = {}
        for p in sb.listdir(f"{INFO}/{name}"):
            path = f"{INFO}/{name}/{p}"
            if p == "executable":
                params[p] = sb.readlink(path)
            else:
                params[p] = sb.read_text(path).rstrip("\n")
        out[name] = params
    return out


def queue_entries(sb):
    found = []

    def walk(rel):
        for name in sb.listdir(f"{ROOT}/{rel}"):
            sub = f"{rel}/{name}"
            if _isdir(sb, f"{ROOT}/{sub}"):
                walk(sub)
            else:
                found.append(sub)

    if _isdir(sb, ROOT):
        for hook in sb.listdir(ROOT):
            if hook not in ("info", "hooks") and _isdir(sb, f"{ROOT}/{hook}"):
                walk(hook)
    return sorted(found)
