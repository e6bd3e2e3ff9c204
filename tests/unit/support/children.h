// The live children of the test process, for tests that check a process
// layer reaps or leaves no child behind.
#ifndef MAILTEND_TESTS_CHILDREN_H
#define MAILTEND_TESTS_CHILDREN_H

#include <string>

namespace testsupport {

// Process ids of this single-threaded process's children, zombies included,
// as the kernel lists them ("" for none).
std::string children();

} // namespace testsupport

#endif
