// Whole-file reads and writes for tests that check file contents.
#ifndef MAILTEND_TESTS_FILES_H
#define MAILTEND_TESTS_FILES_H

#include <string>

namespace testsupport {

// The file's bytes; "" when it cannot be read.
std::string slurp(const std::string &path);
// Replaces the file's content with text, creating it if needed.
void spit(const std::string &path, const std::string &text);
// Whether anything, a dangling symbolic link included, has the name.
bool exists(const std::string &path);

} // namespace testsupport

#endif
