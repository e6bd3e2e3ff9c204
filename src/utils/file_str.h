// Editing files that are sets of lines (delivery files and the like).
//
// file_strings adds lines to a file or removes lines from it while holding the
// file's lock (mk_lock, derived name) for the whole edit, so concurrent panel
// tools serialise on it. Rewrites go through "<path>.tmp" in the same
// directory: the new content is written, given the old file's owner, group
// and mode on its descriptor, fsynced and renamed over the path, so readers
// see the old file or the new one and a failed edit leaves the old one.
// Appending (FILE_STR_ADD at FILE_STR_APPEND) writes in place. The file is
// opened as fd_io::open_regular does: a symbolic link, a FIFO or anything
// else that is not a regular file is refused at once, never waited on.
//
// Returns 0 on success and 1 on failure, after reporting through messlog2;
// the lock is released on every return. A copied line that cannot be written
// ends the process with status 1 instead ("cannot write a line to PATH.tmp"),
// after removing the temporary file. FILE_STR_REMOVE on a file that does not
// exist returns 1 without a message (errno ENOENT) and creates nothing; the
// other operations that need the old file report that they cannot open it.
//
// Lines are compared without their line feed and without one trailing line
// feed of the string, whatever their length. When appending to a file whose
// last line lacks its line feed, one is added first so the lines stay apart.
#ifndef MAILTEND_UTILS_FILE_STR_H
#define MAILTEND_UTILS_FILE_STR_H

// Operations.
constexpr int FILE_STR_ADD = 0;
constexpr int FILE_STR_REMOVE = 1;         // lines equal to a string
constexpr int FILE_STR_REMOVE_PATTERN = 2; // lines matching a string at a position
// The first string becomes the first line and no other line equals any of
// the strings, in one rewrite: a reader never sees the line missing.
constexpr int FILE_STR_MOVE_TO_TOP = 3;

// Positions for FILE_STR_ADD.
constexpr int FILE_STR_PREPEND = 0;
constexpr int FILE_STR_APPEND = 1;

// Positions for FILE_STR_REMOVE_PATTERN. (FILE_STR_REMOVE ignores position.)
constexpr int FILE_STR_MATCH_BEGIN = 0;
constexpr int FILE_STR_MATCH_END = 1;
constexpr int FILE_STR_MATCH_CONTAIN = 2;

// strings: null-terminated array; the array and the strings stay the caller's.
int file_strings(const char *path, const char *const *strings, int operation, int position);
int file_str(const char *path, const char *string, int operation, int position);

#endif
