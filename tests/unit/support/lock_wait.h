// Waiting until another process blocks on an flock, for tests that must
// prove a lock holder kept a second locker out.
#ifndef MAILTEND_TESTS_LOCK_WAIT_H
#define MAILTEND_TESTS_LOCK_WAIT_H

#include <sys/types.h>

namespace testsupport {

// True once /proc/locks shows pid waiting for an flock on inode ino; false
// after about ten seconds, so a lock that never blocks fails the test
// instead of hanging it.
bool waitUntilBlocked(pid_t pid, ino_t ino);

} // namespace testsupport

#endif
