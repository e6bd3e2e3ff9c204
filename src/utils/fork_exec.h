// Running one program to completion from the procedural modules.
//
// fork_execv_log forks, executes path with argv (no shell, no PATH search,
// the environment inherited), waits for the child and returns 0 when it
// exited with status 0. Anything else returns -1 after one report through
// zarnet_log at level 3: the failing step with the system's error text, the
// program's non-zero exit status, or the signal that ended it. A child that
// could not execute the program ends with status 67 and its errno travels
// back to the parent, so the report names the real cause. Standard streams
// are flushed before the fork and inherited by the child.
#ifndef MAILTEND_UTILS_FORK_EXEC_H
#define MAILTEND_UTILS_FORK_EXEC_H

// argv is null-terminated; argv[0] is what the program sees as its name.
int fork_execv_log(const char *path, char *const argv[]);

#endif
