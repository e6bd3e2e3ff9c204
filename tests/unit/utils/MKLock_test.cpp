#include "utils/MKLock.h"

#include "support/child_capture.h"
#include "support/lock_wait.h"
#include "support/temp_dir.h"
#include "utils/ExSystemError.h"
#include "utils/md5.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

class MKLockTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(mkdir(lockDir_.c_str(), 0755), 0);
        mk_lock_set_dir_for_testing(lockDir_.c_str());
    }

    void TearDown() override { mk_lock_set_dir_for_testing(nullptr); }

    const testsupport::TempDir temp_{"mklock"};
    const std::string root_ = temp_.path();
    const std::string lockDir_ = root_ + "/locks";
    const std::string name_ = root_ + "/protected.cf";
};

TEST_F(MKLockTest, HeldLockRefusesNonBlockingAndMakesBlockingWait)
{
    const std::string path = lockDir_ + "/" + zarnet::md5Hex(name_);
    int up[2];
    ASSERT_EQ(pipe(up), 0);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(up[0]);
        int status = 0;
        try {
            zarnet::MKLock lock(name_);
            char c = 'H';
            if (write(up[1], &c, 1) != 1)
                _exit(2);
            struct stat st;
            if (stat(path.c_str(), &st) != 0 || !testsupport::waitUntilBlocked(parent, st.st_ino))
                _exit(4);
            // Written while still holding: the parent must find it after it
            // gets the lock, never before.
            c = 'U';
            if (write(up[1], &c, 1) != 1)
                status = 2;
        } catch (...) {
            status = 3;
        }
        _exit(status);
    }
    close(up[1]);
    char c = 0;
    ASSERT_EQ(read(up[0], &c, 1), 1);
    ASSERT_EQ(c, 'H');

    try {
        zarnet::MKLock lock(name_, zarnet::MKLock::DeriveName, zarnet::MKLock::NonBlock);
        ADD_FAILURE() << "no exception for a held lock";
    } catch (const zarnet::SystemError &e) {
        ADD_FAILURE() << "held lock reported as a system error: " << e.what();
    } catch (const std::runtime_error &e) {
        EXPECT_EQ(std::string(e.what()), "lock(" + name_ + ") failed: file is already locked");
    }
    lock_struct_t *probe = mk_nonblock_lock(name_.c_str(), 1);
    EXPECT_TRUE(is_already_locked(probe) && !is_locked(probe));
    EXPECT_EQ(rm_lock(probe), 0);

    {
        zarnet::MKLock lock(name_);
        struct pollfd p = {up[0], POLLIN, 0};
        ASSERT_EQ(poll(&p, 1, 0), 1) << "got the lock before the holder let it go";
        ASSERT_EQ(read(up[0], &c, 1), 1);
        EXPECT_EQ(c, 'U');
    }
    close(up[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 0) << "4: the parent never waited for the lock";
}

TEST_F(MKLockTest, DestructorReleasesAndKeepsErrno)
{
    {
        zarnet::MKLock lock(name_);
        lock_struct_t *other = mk_nonblock_lock(name_.c_str(), 1);
        EXPECT_TRUE(is_already_locked(other)) << "a second open file description got the lock";
        free_lock(other);
        errno = EXDEV;
    }
    EXPECT_EQ(errno, EXDEV);
    lock_struct_t *after = mk_nonblock_lock(name_.c_str(), 1);
    EXPECT_TRUE(is_locked(after)) << "lock still held after destruction";
    EXPECT_EQ(rm_lock(after), 0);
}

TEST_F(MKLockTest, LockFileIsTheDigestPathOrTheNameItself)
{
    {
        zarnet::MKLock lock(name_);
        EXPECT_EQ(std::string(lock.path()), lockDir_ + "/" + zarnet::md5Hex(name_));
        EXPECT_EQ(access(lock.path(), F_OK), 0);
        EXPECT_NE(access(name_.c_str(), F_OK), 0) << "derived lock created the protected file";
    }
    zarnet::MKLock lock(name_, zarnet::MKLock::UseName);
    EXPECT_EQ(std::string(lock.path()), name_);
    lock_struct_t *other = mk_nonblock_lock(name_.c_str(), 0);
    EXPECT_TRUE(is_already_locked(other));
    free_lock(other);
}

TEST_F(MKLockTest, ProductionPathDoesNotDependOnWorkingDirectory)
{
    mk_lock_set_dir_for_testing(nullptr);
    ASSERT_EQ(MK_LOCK_DIR[0], '/');
    const std::string want = std::string("/var/lock/files/") + zarnet::md5Hex("/etc/postfix/main.cf");

    char *cwd = getcwd(nullptr, 0);
    for (const std::string &dir : {root_, std::string("/")}) {
        ASSERT_EQ(chdir(dir.c_str()), 0);
        char *path = mk_flock_path("/etc/postfix/main.cf");
        EXPECT_EQ(std::string(path), want) << "from " << dir;
        free(path);
    }
    EXPECT_EQ(chdir(cwd), 0);
    free(cwd);
}

TEST_F(MKLockTest, MissingLockDirectoryIsCreated)
{
    const std::string dir = root_ + "/fresh";
    mk_lock_set_dir_for_testing(dir.c_str());
    zarnet::MKLock lock(name_);
    EXPECT_EQ(std::string(lock.path()), dir + "/" + zarnet::md5Hex(name_));
}

TEST_F(MKLockTest, UnusableLockDirectoryThrowsSystemErrorAndReports)
{
    const std::string file = root_ + "/plain";
    std::ofstream(file) << "x";
    const std::string dir = file + "/locks";
    mk_lock_set_dir_for_testing(dir.c_str());
    const std::string path = dir + "/" + zarnet::md5Hex(name_);

    const auto r = testsupport::runInChild([&] {
        try {
            zarnet::MKLock lock(name_);
        } catch (const zarnet::SystemError &e) {
            return e.code() == ENOTDIR && std::string(e.what()) == "lock() failed: Not a directory" ? 0 : 2;
        }
        return 1;
    });
    EXPECT_EQ(r.status, 0) << r;
    const std::string want =
        "Unable to open file \"" + path + "\": Not a directory.\nSystem error 20: Not a directory\n";
    EXPECT_EQ(r.out, want);
}

TEST_F(MKLockTest, HeldLockIsHeldOrNullWithTheReason)
{
    lock_struct_t *lock = mk_held_lock(name_.c_str(), 1);
    ASSERT_NE(lock, nullptr);
    EXPECT_TRUE(is_locked(lock));
    lock_struct_t *other = mk_nonblock_lock(name_.c_str(), 1);
    EXPECT_TRUE(is_already_locked(other)) << "returned a lock that is not held";
    free_lock(other);
    EXPECT_EQ(rm_lock(lock), 0);

    const std::string file = root_ + "/plain";
    std::ofstream(file) << "x";
    mk_lock_set_dir_for_testing((file + "/locks").c_str());
    const auto r = testsupport::runInChild([&] {
        errno = 0;
        return mk_held_lock(name_.c_str(), 1) == nullptr && errno == ENOTDIR ? 0 : 1;
    });
    EXPECT_EQ(r.status, 0) << r;
}

TEST_F(MKLockTest, ClosedStandardInputDoesNotLookLikeAHeldLock)
{
    const auto r = testsupport::runInChild([&] {
        close(0);
        lock_struct_t *lock = mk_lock(name_.c_str(), 1);
        const bool held = is_locked(lock);
        lock_struct_t *other = mk_nonblock_lock(name_.c_str(), 1);
        const bool excluded = is_already_locked(other);
        free_lock(other);
        free_lock(lock);
        return held && excluded ? 0 : 1;
    });
    EXPECT_EQ(r.status, 0) << r;
}

TEST(MKLockRecord, NullRecordCountsAsAlreadyLockedAndFreesQuietly)
{
    EXPECT_TRUE(is_already_locked(nullptr));
    EXPECT_FALSE(is_locked(nullptr));
    EXPECT_EQ(rm_lock(nullptr), 0);
}

} // namespace
