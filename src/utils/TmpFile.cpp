#include "utils/TmpFile.h"

#include "utils/ExSystemError.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <utility>

namespace zarnet {

TmpFileBase::TmpFileBase(const std::string &path, int fd)
    : path_(path), fd_(fd), buf_(fd, std::ios::out, BUFSIZ)
{
}

TmpFileBase::~TmpFileBase()
{
    // Closed here rather than by the member's destructor so errno can be
    // restored afterwards.
    const int saved = errno;
    buf_.close();
    errno = saved;
}

TmpFile::Created TmpFile::create(const std::string &prefix)
{
    std::string name = prefix + "XXXXXX";
    const int fd = mkostemp(&name[0], O_CLOEXEC);
    if (fd < 0)
        throwSystemError("mkstemp() failed", errno);
    return Created{std::move(name), fd};
}

TmpFile::TmpFile(const std::string &prefix, bool autoclean) : TmpFile(create(prefix), autoclean)
{
}

TmpFile::TmpFile(Created created, bool autoclean)
    : TmpFileBase(created.path, created.fd), std::ostream(&buf_), autoclean_(autoclean)
{
}

TmpFile::~TmpFile()
{
    const int saved = errno;
    if (autoclean_ && unlink(path_.c_str()) != 0)
        std::cerr << "TmpFile autoclean failed: " << std::strerror(errno) << std::endl;
    errno = saved;
}

} // namespace zarnet
