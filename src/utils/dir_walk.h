// Reading directories that someone else controls (mailboxes, attachment and
// handler folders) from a process that runs as root.
//
// Contract: everything goes through descriptors. An entry's status is its
// own (a symbolic link is seen as a link), a directory is opened below the
// descriptor of its parent without following a link in its name, and no
// open ever waits on a FIFO or a device put in a directory's place. Nothing
// is reported and nothing throws: failures come back with errno set by the
// failing call, for each caller to word in its own messages.
#ifndef MAILTEND_UTILS_DIR_WALK_H
#define MAILTEND_UTILS_DIR_WALK_H

#include <sys/stat.h>

#include <functional>

namespace dir_walk {

// Opens name (relative to dirfd, or a path with AT_FDCWD) as a directory,
// refusing a symbolic link as its last component; -1 with errno (ELOOP or
// ENOTDIR for a link, ENOTDIR for anything else that is not a directory).
int open_dir(int dirfd, const char *name);

// One entry of the directory being read.
struct Entry {
    int dir; // descriptor of the directory read
    const char *name;

    // The entry's own status; false with errno (ENOENT: gone meanwhile).
    bool stat(struct stat &st) const;
    // open_dir(dir, name).
    int open_dir() const;
};

enum class Result {
    Done,        // every entry visited
    Stopped,     // visit returned false; errno as it left it
    Unreadable,  // the descriptor is not a readable directory, or reading failed
    CloseFailed, // every entry visited, but closing the directory failed
};

// Every entry was visited; a failed close lost nothing that was read.
inline bool all_visited(Result r)
{
    return r == Result::Done || r == Result::CloseFailed;
}

// Calls visit for every entry but "." and ".." in directory order, until it
// returns false. Takes fd over and closes it on every way out.
Result each_entry(int fd, const std::function<bool(const Entry &)> &visit);

} // namespace dir_walk

#endif
