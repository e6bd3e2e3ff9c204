#pragma once
#include <string>

namespace testsupport {

// "<test temporary directory><prefix>-XXXXXX", removed whole by rm_tree.
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
