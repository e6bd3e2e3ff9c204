// Exclusive per-file locks shared by every panel tool that edits a file.
//
// A lock is an flock() on a lock file. By default the lock file is derived
// from the protected file's name: the lock directory, a slash and the hex MD5
// of the name exactly as given, so every tool that passes the same name meets
// on the same lock whatever its working directory. The lock file is never
// removed: unlinking it would let a later locker flock a fresh inode while an
// earlier one still holds the old.
//
// Procedural face: mk_lock and mk_nonblock_lock return a record the caller
// owns and gives back with rm_lock or free_lock (both close the descriptor,
// which releases the lock). The record's fd is above 0 when the lock is held,
// 0 when a non-blocking attempt found it held elsewhere, negative on failure
// (errno says why; an open failure has also been reported through messlog2).
// A null record means memory ran out.
//
// Class face: zarnet::MKLock holds the lock for its lifetime; its constructor
// throws SystemError ("lock() failed") when the lock cannot be taken and
// std::runtime_error ("lock(NAME) failed: file is already locked") when a
// non-blocking attempt finds it held.
#ifndef MAILTEND_UTILS_MKLOCK_H
#define MAILTEND_UTILS_MKLOCK_H

#include <string>

struct lock_struct_t {
    int fd;
    char *path; // malloc'ed; owned by the record
};

// Production lock directory. Must be absolute: the lock path may not depend
// on the caller's working directory.
extern const char MK_LOCK_DIR[];

// Points the lock directory elsewhere, for unit tests that cannot use the
// production one; null restores MK_LOCK_DIR. Not for production code.
void mk_lock_set_dir_for_testing(const char *dir);

// The lock directory currently in force.
const char *mk_lock_dir();

// Derived lock file path for name ("%s/%s" of the lock directory and the hex
// MD5 of name); malloc'ed, to be freed by the caller; null when out of memory.
char *mk_flock_path(const char *name);

// derive: non-zero locks the derived path, zero locks name itself.
// A missing lock directory is created (mode 0755) on first use, since it
// lives on a tmpfs that a reboot empties.
lock_struct_t *mk_lock(const char *name, int derive);
lock_struct_t *mk_nonblock_lock(const char *name, int derive);
// mk_lock for callers that report failure themselves: a held lock, or null
// with errno saying why (ENOMEM when memory ran out) and nothing to free.
lock_struct_t *mk_held_lock(const char *name, int derive);

int is_locked(const lock_struct_t *lock);
// True also for a null record, so that a caller can test one value for
// "someone else has it or we could not even try".
int is_already_locked(const lock_struct_t *lock);

// Release and free; a null record is accepted. A failed close is reported
// through messlog2 and gives -1; the record is freed either way.
int rm_lock(lock_struct_t *lock);
void free_lock(lock_struct_t *lock);

namespace zarnet {

class MKLock {
public:
    enum FilenameFlag { DeriveName = 0, UseName = 1 };
    enum BlockFlag { Block = 0, NonBlock = 1 };

    explicit MKLock(const std::string &name, FilenameFlag filename = DeriveName,
                    BlockFlag block = Block);
    // Releases the lock; errno is left as it was.
    ~MKLock();

    MKLock(const MKLock &) = delete;
    MKLock &operator=(const MKLock &) = delete;

    const char *path() const { return lock_->path; }

private:
    lock_struct_t *lock_;
};

} // namespace zarnet

#endif
