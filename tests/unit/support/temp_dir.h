// A private scratch directory for one test.
#ifndef MAILTEND_TESTS_TEMP_DIR_H
#define MAILTEND_TESTS_TEMP_DIR_H

#include <string>

namespace testsupport {

// "<test temporary directory><prefix>-XXXXXX", or std::runtime_error; removed
// with everything in it by rm_tree, which never follows a link out of it.
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
