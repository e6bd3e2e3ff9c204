// File copies for the procedural modules.
//
// copy_file copies src over dst in place, under dst's lock (mk_lock, derived
// name); a new dst gets src's mode (less the umask), an existing one keeps
// its own. A dst of "-" is standard output, which is flushed but not closed.
// A dst that is src itself, by the same path or another name, is a no-op.
// Returns 0, or 1 after a messlog2 report; a failure partway leaves dst
// partly written, so use it only where nobody reads dst meanwhile.
//
// copy_file_atomic replaces dst by a copy of src that readers never see half
// written: the copy goes to a unique file beside dst, gets owner, group and
// mode on its descriptor, is fsynced and renamed over dst. It returns only on
// success; any failure removes the temporary file and ends the process with
// status 1 after "copy_file_atomic(SRC -> DST): <step> failed". It takes no
// lock: the rename is the only change others can observe. copy_fd_atomic
// does the same from an open descriptor, read from its start whatever its
// offset (src only names it in messages) and left open.
//
// Sources and a copy_file destination are opened as fd_io::open_regular
// does: a symbolic link, a FIFO or a device there is refused, never followed
// or waited on.
#ifndef MAILTEND_UTILS_COPY_FILE_H
#define MAILTEND_UTILS_COPY_FILE_H

#include <sys/types.h>

int copy_file(const char *src, const char *dst);
void copy_file_atomic(const char *src, const char *dst, uid_t owner, gid_t group, mode_t mode);
void copy_fd_atomic(int in, const char *src, const char *dst, uid_t owner, gid_t group, mode_t mode);

#endif
