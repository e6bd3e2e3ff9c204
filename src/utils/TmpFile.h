// A uniquely named temporary file written through a stream.
//
// TmpFile(prefix, autoclean) creates prefix + six unique characters with
// mode 0600 (and close-on-exec, since the program runs children as root);
// failure throws SystemError "mkstemp() failed". The object owns the
// descriptor and closes it at destruction; with autoclean it also unlinks the
// file then, and an unlink failure is written to standard error as
// "TmpFile autoclean failed: <system text>" rather than thrown. errno is kept
// across destruction.
//
// TmpFileBase exists so that the descriptor and its stream buffer are built
// before the std::ostream base that writes through them.
#ifndef MAILTEND_UTILS_TMPFILE_H
#define MAILTEND_UTILS_TMPFILE_H

#include <ext/stdio_filebuf.h>

#include <ostream>
#include <string>

namespace zarnet {

class TmpFileBase {
public:
    TmpFileBase(const std::string &path, int fd);
    ~TmpFileBase();

    TmpFileBase(const TmpFileBase &) = delete;
    TmpFileBase &operator=(const TmpFileBase &) = delete;

protected:
    std::string path_;
    int fd_;
    __gnu_cxx::stdio_filebuf<char> buf_;
};

class TmpFile : private TmpFileBase, public std::ostream {
public:
    TmpFile(const std::string &prefix, bool autoclean);
    ~TmpFile() override;

    const std::string &path() const { return path_; }
    int fd() const { return fd_; }

private:
    struct Created {
        std::string path;
        int fd;
    };
    static Created create(const std::string &prefix);
    TmpFile(Created created, bool autoclean);

    bool autoclean_;
};

} // namespace zarnet

#endif
