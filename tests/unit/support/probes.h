// Observations of processes, locks and bytes for the foundation's tests.
#ifndef MAILTEND_TESTS_PROBES_H
#define MAILTEND_TESTS_PROBES_H

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace testsupport {

// This single-threaded process's children, zombies included ("" for none).
std::string children();

// True once /proc/locks shows pid waiting for an flock on inode ino; false
// after about ten seconds, so a lock that never blocks fails instead of hanging.
bool waitUntilBlocked(pid_t pid, ino_t ino);

// n bytes of (i * mul + add) % 251: a period that divides no pipe or block
// size, so a lost, doubled or reordered chunk shows.
std::string pattern(std::size_t n, unsigned mul = 1, unsigned add = 0);

// "equal", or both sizes and the first differing offset, where printing
// megabytes would drown the failure.
std::string sameBytes(const std::string &got, const std::string &want);

} // namespace testsupport

#endif
