#pragma once
#include <sys/types.h>

#include <cstddef>
#include <string>

namespace testsupport {

// True once pid waits for an flock on inode ino; false after about ten seconds.
bool waitUntilBlocked(pid_t pid, ino_t ino);
// n bytes of (i * mul + add) % 251: a lost, doubled or reordered chunk shows.
std::string pattern(std::size_t n, unsigned mul = 1, unsigned add = 0);
// "equal", or both sizes and the first differing offset.
std::string sameBytes(const std::string &got, const std::string &want);

} // namespace testsupport
