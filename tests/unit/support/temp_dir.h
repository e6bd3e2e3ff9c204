// A private scratch directory for one test.
#ifndef MAILTEND_TESTS_TEMP_DIR_H
#define MAILTEND_TESTS_TEMP_DIR_H

#include <string>

namespace testsupport {

// Creates "<test temporary directory><prefix>-XXXXXX" (mkdtemp) or throws
// std::runtime_error; removes it and everything in it at destruction with
// rm_tree, which never follows a link out of it.
class TempDir {
public:
    explicit TempDir(const std::string &prefix);
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }

private:
    std::string path_;
};

} // namespace testsupport

#endif
