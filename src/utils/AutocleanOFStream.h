// An output file that disappears unless it is committed.
//
// The constructor opens the path for writing with truncation; a failure leaves
// the stream in the failed state (no exception), so callers that want one set
// exceptions() as with any stream. Destruction closes the stream and unlinks
// the path, keeping errno and throwing nothing whatever exceptions() asks
// for, so a writer that fails halfway leaves nothing.
//
// To replace a file that others read, write to a path of your own in the
// target's directory (same filesystem, so the rename is atomic) and commit():
// it flushes, sets owner and mode if asked, fsyncs, closes and renames the
// file over the target, so readers see the old content or the new, never a
// part. Any failure throws SystemError (never the stream's own exception)
// and leaves the target untouched (the file is still unlinked at
// destruction). After a commit the stream is closed and destruction leaves
// the path alone, which may already name a new file.
//
// std::ofstream does not expose its descriptor, so commit() reopens the
// written path (O_NOFOLLOW) for fchown/fchmod/fsync: Linux applies all three
// through any descriptor of the inode. The path must therefore be one nobody
// else can replace meanwhile (a directory only root writes to, or a name
// under the caller's lock).
#ifndef MAILTEND_UTILS_AUTOCLEANOFSTREAM_H
#define MAILTEND_UTILS_AUTOCLEANOFSTREAM_H

#include <sys/types.h>

#include <fstream>
#include <string>

namespace zarnet {

class AutocleanOFStream : public std::ofstream {
public:
    explicit AutocleanOFStream(const std::string &path);
    ~AutocleanOFStream() override;

    AutocleanOFStream(const AutocleanOFStream &) = delete;
    AutocleanOFStream &operator=(const AutocleanOFStream &) = delete;

    const std::string &path() const { return path_; }

    // Keeps the owner the file was created with and the mode the umask gave.
    void commit(const std::string &target);
    // Owner (uid_t)-1 or group (gid_t)-1 leave that id as created.
    void commit(const std::string &target, uid_t owner, gid_t group, mode_t mode);

private:
    void commit(const std::string &target, bool set_attributes, uid_t owner, gid_t group,
                mode_t mode);

    std::string path_;
    bool committed_ = false;
};

} // namespace zarnet

#endif
