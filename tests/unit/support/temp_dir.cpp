#include "support/temp_dir.h"

#include "utils/file_tree.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace testsupport {

TempDir::TempDir(const std::string &prefix)
{
    std::string tmpl = ::testing::TempDir() + prefix + "-XXXXXX";
    if (mkdtemp(&tmpl[0]) == nullptr)
        throw std::runtime_error("mkdtemp " + tmpl + ": " + std::strerror(errno));
    path_ = tmpl;
}

TempDir::~TempDir()
{
    rm_tree(path_.c_str());
}

} // namespace testsupport
