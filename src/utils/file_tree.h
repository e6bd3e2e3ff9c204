// Removing, chowning, chmodding and measuring whole directory trees (Maildir
// homes, attachment folders).
//
// Mailbox trees hold entries their users control, and these run as root, so
// the walk never follows a symbolic link: it works through directory
// descriptors (fstatat with AT_SYMLINK_NOFOLLOW, openat with O_NOFOLLOW,
// unlinkat, fchownat), and a directory is changed through the descriptor it
// is descended by. A link inside the tree, or one swapped in during the walk,
// can therefore never carry a remove, chown or chmod outside the tree. The
// leading components of path are followed; they are the caller's to trust.
//
// A symbolic link met in the tree (or as path itself) is removed by rm_tree,
// chowned itself (not its target) by chown_tree and left alone by
// chmod_tree. chmod_tree changes directories and regular files only.
//
// Procedural style: 0 on success; -1 on failure, after a messlog2 report
// (status 0) that names the failing entry's path, e.g.
// "chown_tree: Unable to chown /x/y: Operation not permitted", with errno
// left at that failure's value. The walk stops at the first failure, so a
// failed call may have done part of its work. rm_tree of a missing path
// succeeds (there is nothing to remove); the others fail on it. A path whose
// last component is "/", "." or ".." is refused with EINVAL.
#ifndef MAILTEND_UTILS_FILE_TREE_H
#define MAILTEND_UTILS_FILE_TREE_H

#include <sys/types.h>

// For chmod_tree: leave that kind of entry's mode as it is.
constexpr mode_t FILE_TREE_KEEP_MODE = static_cast<mode_t>(-1);

int rm_tree(const char *path);
// rm_tree without the report, for callers that report the failure in a
// form of their own; errno says why.
int rm_tree_quiet(const char *path);
// owner (uid_t)-1 or group (gid_t)-1 leave that id unchanged.
int chown_tree(const char *path, uid_t owner, gid_t group);
int chmod_tree(const char *path, mode_t dir_mode, mode_t file_mode);

// The size of a file, or of a directory with everything below it and
// itself, in bytes or (block set) in allocated 512-byte blocks times 512;
// saturates at LLONG_MAX. -1 with errno on failure, without a report.
// Entries that vanish meanwhile count nothing; a link counts as itself.
long long tree_size(const char *path, int block);

#endif
