#include "utils/file_tree.h"

#include "utils/dir_walk.h"
#include "utils/fd_io.h"
#include "utils/product_log.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

namespace {

enum class Op { Remove, Chown, Chmod };

class Walk {
public:
    Walk(Op op, const char *who, bool quiet = false) : op_(op), who_(who), quiet_(quiet) {}

    uid_t owner = uid_t(-1);
    gid_t group = gid_t(-1);
    mode_t dir_mode = FILE_TREE_KEEP_MODE;
    mode_t file_mode = FILE_TREE_KEEP_MODE;

    int run(const char *path);

private:
    int fail(const char *verb, const std::string &path)
    {
        const int saved = errno;
        if (!quiet_)
            messlog2(0, 0, "%s: Unable to %s %s: %s", who_, verb, path.c_str(),
                     std::strerror(saved));
        errno = saved;
        return -1;
    }

    int entry(int dirfd, const char *name, const std::string &path);
    int directory(int fd, const std::string &path);
    int chmod_regular(int dirfd, const char *name, const std::string &path);

    Op op_;
    const char *who_;
    bool quiet_;
};

int Walk::run(const char *path)
{
    std::string top(path);
    while (top.size() > 1 && top.back() == '/')
        top.pop_back();
    const std::string::size_type slash = top.rfind('/');
    const std::string base = slash == std::string::npos ? top : top.substr(slash + 1);
    const std::string parent = fd_io::parent_directory(top);
    const char *verb = op_ == Op::Remove ? "remove" : op_ == Op::Chown ? "chown" : "chmod";
    if (base.empty() || base == "." || base == "..") {
        errno = EINVAL;
        return fail(verb, top);
    }

    const int dirfd = fd_io::open_retry(parent.c_str(), O_RDONLY | O_DIRECTORY);
    if (dirfd < 0) {
        if (op_ == Op::Remove && (errno == ENOENT || errno == ENOTDIR))
            return 0;
        return fail("open directory", parent);
    }
    const int rc = entry(dirfd, base.c_str(), top);
    fd_io::close_quietly(dirfd);
    return rc;
}

int Walk::entry(int dirfd, const char *name, const std::string &path)
{
    struct stat st;
    if (fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (op_ == Op::Remove && errno == ENOENT)
            return 0; // gone already, which is what was wanted
        return fail("stat", path);
    }

    if (S_ISDIR(st.st_mode)) {
        // O_NOFOLLOW: the entry may have become a link since fstatat.
        const int fd = fd_io::openat_retry(dirfd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
        if (fd < 0)
            return fail("open directory", path);
        int rc = 0;
        if (op_ == Op::Chown && fd_io::retry_eintr([&] { return fchown(fd, owner, group); }) != 0)
            rc = fail("chown", path);
        else if (op_ == Op::Chmod && dir_mode != FILE_TREE_KEEP_MODE &&
                 fd_io::retry_eintr([&] { return fchmod(fd, dir_mode); }) != 0)
            rc = fail("chmod", path);
        if (rc == 0)
            rc = directory(fd, path);
        fd_io::close_quietly(fd);
        if (rc != 0)
            return rc;
        if (op_ == Op::Remove && unlinkat(dirfd, name, AT_REMOVEDIR) != 0 && errno != ENOENT)
            return fail("remove", path);
        return 0;
    }

    switch (op_) {
    case Op::Remove:
        if (unlinkat(dirfd, name, 0) != 0 && errno != ENOENT)
            return fail("remove", path);
        return 0;
    case Op::Chown:
        // AT_SYMLINK_NOFOLLOW makes the change itself refuse to follow, so a
        // swap after fstatat cannot redirect it.
        if (fd_io::retry_eintr([&] {
                return fchownat(dirfd, name, owner, group, AT_SYMLINK_NOFOLLOW);
            }) != 0)
            return fail("chown", path);
        return 0;
    case Op::Chmod:
        if (S_ISREG(st.st_mode) && file_mode != FILE_TREE_KEEP_MODE)
            return chmod_regular(dirfd, name, path);
        return 0;
    }
    return 0;
}

// There is no chmod that refuses to follow a link, so the file is opened
// with O_NOFOLLOW and changed through its descriptor; O_NONBLOCK keeps a FIFO
// swapped in meanwhile from hanging the open.
int Walk::chmod_regular(int dirfd, const char *name, const std::string &path)
{
    const int fd = fd_io::openat_retry(dirfd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (fd < 0)
        return fail("chmod", path);
    struct stat st;
    int rc = 0;
    if (fstat(fd, &st) != 0)
        rc = fail("chmod", path);
    else if (S_ISREG(st.st_mode) && fd_io::retry_eintr([&] { return fchmod(fd, file_mode); }) != 0)
        rc = fail("chmod", path);
    fd_io::close_quietly(fd);
    return rc;
}

int Walk::directory(int fd, const std::string &path)
{
    // The names are read first and the stream closed, so that removals do
    // not disturb the reading and only one descriptor per level stays open.
    const int dup_fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (dup_fd < 0)
        return fail("read directory", path);
    std::vector<std::string> names;
    const dir_walk::Result read = dir_walk::each_entry(dup_fd, [&](const dir_walk::Entry &e) {
        names.emplace_back(e.name);
        return true;
    });
    if (read == dir_walk::Result::Unreadable)
        return fail("read directory", path);

    for (const std::string &name : names) {
        const int rc = entry(fd, name.c_str(), path + "/" + name);
        if (rc != 0)
            return rc;
    }
    return 0;
}

long long entrySize(const struct stat &st, int block)
{
    return block ? static_cast<long long>(st.st_blocks) * 512 : static_cast<long long>(st.st_size);
}

void addSaturated(long long &total, long long amount)
{
    if (__builtin_add_overflow(total, amount, &total))
        total = LLONG_MAX;
}

// Adds everything below the directory open as fd; takes fd over.
bool addTree(int fd, int block, long long &total)
{
    return dir_walk::all_visited(dir_walk::each_entry(fd, [&](const dir_walk::Entry &e) {
        struct stat st;
        if (!e.stat(st))
            return errno == ENOENT;
        addSaturated(total, entrySize(st, block));
        if (!S_ISDIR(st.st_mode))
            return true;
        const int sub = e.open_dir();
        if (sub < 0)
            return errno == ENOENT;
        return addTree(sub, block, total);
    }));
}

} // namespace

int rm_tree(const char *path)
{
    return Walk(Op::Remove, "rm_tree").run(path);
}

int rm_tree_quiet(const char *path)
{
    return Walk(Op::Remove, "rm_tree", true).run(path);
}

int chown_tree(const char *path, uid_t owner, gid_t group)
{
    Walk walk(Op::Chown, "chown_tree");
    walk.owner = owner;
    walk.group = group;
    return walk.run(path);
}

int chmod_tree(const char *path, mode_t dir_mode, mode_t file_mode)
{
    Walk walk(Op::Chmod, "chmod_tree");
    walk.dir_mode = dir_mode;
    walk.file_mode = file_mode;
    return walk.run(path);
}

long long tree_size(const char *path, int block)
{
    struct stat st;
    if (::lstat(path, &st) != 0)
        return -1;
    long long total = entrySize(st, block);
    if (!S_ISDIR(st.st_mode))
        return total;
    const int fd = dir_walk::open_dir(AT_FDCWD, path);
    if (fd < 0 || !addTree(fd, block, total))
        return -1;
    return total;
}
