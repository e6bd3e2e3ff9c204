// Large byte strings for tests that move data through pipes and files.
#ifndef MAILTEND_TESTS_BYTES_H
#define MAILTEND_TESTS_BYTES_H

#include <cstddef>
#include <string>

namespace testsupport {

// n bytes of (i * mul + add) % 251: every byte value below 251 and a period
// that divides no pipe or block size, so a lost, doubled or reordered chunk
// shows.
std::string pattern(std::size_t n, unsigned mul = 1, unsigned add = 0);

// "equal", or both sizes and the first differing offset: a readable verdict
// where printing megabytes would drown the failure.
std::string sameBytes(const std::string &got, const std::string &want);

} // namespace testsupport

#endif
