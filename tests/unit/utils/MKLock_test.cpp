#include "utils/MKLock.h"

#include "support/background.h"
#include "support/child_capture.h"
#include "support/files.h"
#include "support/probes.h"
#include "support/temp_dir.h"
#include "support/thrown.h"
#include "utils/md5.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace {

using zarnet::MKLock;

// Each test starts without a lock directory: the first lock must create it.
class MKLockTest : public ::testing::Test {
protected:
    void SetUp() override { mk_lock_set_dir_for_testing(lockDir_.c_str()); }
    void TearDown() override { mk_lock_set_dir_for_testing(nullptr); }

    // Whether another open file description is kept out of name's lock.
    bool excluded(const std::string &name, int derive = 1)
    {
        lock_struct_t *other = mk_nonblock_lock(name.c_str(), derive);
        const bool out = is_already_locked(other) && !is_locked(other);
        free_lock(other);
        return out;
    }

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
    testsupport::BackgroundChild holder([&] {
        close(up[0]);
        MKLock lock(name_);
        struct stat st;
        if (write(up[1], "H", 1) != 1 || stat(path.c_str(), &st) != 0)
            return 2;
        if (!testsupport::waitUntilBlocked(parent, st.st_ino))
            return 4;
        // Written while still holding: the parent must find it after it
        // gets the lock, never before.
        return write(up[1], "U", 1) == 1 ? 0 : 2;
    });
    close(up[1]);
    char c = 0;
    ASSERT_EQ(read(up[0], &c, 1), 1);
    ASSERT_EQ(c, 'H');

    const auto nonblocking = [&] { MKLock lock(name_, MKLock::DeriveName, MKLock::NonBlock); };
    EXPECT_EQ(testsupport::thrown(nonblocking),
              "runtime_error: lock(" + name_ + ") failed: file is already locked");
    EXPECT_TRUE(excluded(name_)) << "mk_nonblock_lock got a held lock";
    {
        MKLock lock(name_);
        struct pollfd p = {up[0], POLLIN, 0};
        ASSERT_EQ(poll(&p, 1, 0), 1) << "got the lock before the holder let it go";
        ASSERT_EQ(read(up[0], &c, 1), 1);
        EXPECT_EQ(c, 'U');
    }
    close(up[0]);
    EXPECT_EQ(holder.wait(), "exit 0") << "4: the parent never waited for the lock";
}

TEST_F(MKLockTest, EveryFormHoldsTheRightFileUntilReleased)
{
    {
        MKLock lock(name_);
        EXPECT_EQ(std::string(lock.path()), lockDir_ + "/" + zarnet::md5Hex(name_));
        EXPECT_FALSE(testsupport::exists(name_)) << "derived lock created the protected file";
        EXPECT_TRUE(excluded(name_)) << "a second open file description got the lock";
        errno = EXDEV;
    }
    EXPECT_EQ(errno, EXDEV) << "the destructor changed errno";
    EXPECT_FALSE(excluded(name_)) << "lock still held after destruction";
    {
        MKLock lock(name_, MKLock::UseName);
        EXPECT_TRUE(lock.path() == name_ && excluded(name_, 0)) << "the name itself not locked";
    }
    lock_struct_t *held = mk_held_lock(name_.c_str(), 1);
    EXPECT_TRUE(is_locked(held) && excluded(name_)) << "mk_held_lock returned a lock that is not held";
    EXPECT_EQ(rm_lock(held), 0);
    // With standard input closed, open() hands out 0, which reads as "held elsewhere".
    const auto r = testsupport::runInChild([&] {
        close(0);
        lock_struct_t *lock = mk_lock(name_.c_str(), 1);
        const bool ok = is_locked(lock) && excluded(name_);
        free_lock(lock);
        return ok ? 0 : 1;
    });
    EXPECT_EQ(r.status, 0) << "fd 0 taken for a held lock: " << r;
    // A null record (no memory) counts as locked elsewhere and frees quietly.
    EXPECT_TRUE(is_already_locked(nullptr) && !is_locked(nullptr) && rm_lock(nullptr) == 0);
    // The production lock file of a name is one absolute path, whatever the working directory.
    mk_lock_set_dir_for_testing(nullptr);
    char *cwd = getcwd(nullptr, 0);
    for (const std::string &dir : {root_, std::string("/")}) {
        ASSERT_EQ(chdir(dir.c_str()), 0);
        char *path = mk_flock_path("/etc/postfix/main.cf");
        EXPECT_EQ(std::string(path), "/var/lock/files/" + zarnet::md5Hex("/etc/postfix/main.cf")) << "from " << dir;
        free(path);
    }
    EXPECT_EQ(chdir(cwd), 0);
    free(cwd);
}

TEST_F(MKLockTest, UnusableLockDirectoryFailsWithTheReason)
{
    testsupport::spit(root_ + "/plain", "x");
    const std::string dir = root_ + "/plain/locks";
    mk_lock_set_dir_for_testing(dir.c_str());
    const auto r = testsupport::runInChild([&] {
        errno = 0;
        if (mk_held_lock(name_.c_str(), 1) != nullptr || errno != ENOTDIR)
            return 1;
        const std::string got = testsupport::thrown([&] { MKLock lock(name_); });
        return got == "SystemError: lock() failed (" + std::to_string(ENOTDIR) + ")" ? 0 : 2;
    });
    EXPECT_EQ(r.status, 0) << "1: mk_held_lock, 2: MKLock; " << r;
    const std::string report = "Unable to open file \"" + dir + "/" + zarnet::md5Hex(name_) +
                               "\": Not a directory.\nSystem error 20: Not a directory\n";
    EXPECT_EQ(r.out, report + report);
}

} // namespace
