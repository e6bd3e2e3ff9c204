#include "utils/MKLock.h"

#include "test_common.h"

#include "utils/md5.h"

using zarnet::MKLock;

namespace {

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
        return free_lock(other), out;
    }

    const testsupport::TempDir temp_{"mklock"};
    const std::string root_ = temp_.path(), lockDir_ = root_ + "/locks", name_ = root_ + "/protected.cf";
};

} // namespace

TEST_F(MKLockTest, HeldLockRefusesNonBlockingAndMakesBlockingWait)
{
    // The waiter starts before the lock is taken: one that inherited the
    // locked descriptor would wait for itself.
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    testsupport::BackgroundChild waiter([&] {
        char c;
        close(go[1]);
        return read(go[0], &c, 1) == 1 ? (MKLock(name_), 0) : 9;
    });
    close(go[0]);
    {
        MKLock lock(name_);
        EXPECT_EQ(testsupport::thrown([&] { MKLock again(name_, MKLock::DeriveName, MKLock::NonBlock); }),
                  "runtime_error: lock(" + name_ + ") failed: file is already locked");
        EXPECT_TRUE(excluded(name_)) << "mk_nonblock_lock got a held lock";
        ASSERT_EQ(write(go[1], "g", 1), 1);
        struct stat st;
        ASSERT_EQ(stat(lock.path(), &st), 0);
        EXPECT_TRUE(testsupport::waitUntilBlocked(waiter.pid(), st.st_ino)) << "the blocking lock did not wait";
    }
    close(go[1]);
    EXPECT_EQ(waiter.wait(), "exit 0");
}

TEST_F(MKLockTest, EveryFormHoldsTheRightFileUntilReleasedAndAnUnusableDirectoryFailsWithTheReason)
{
    {
        MKLock lock(name_);
        EXPECT_EQ(std::string(lock.path()), lockDir_ + "/" + zarnet::md5Hex(name_));
        EXPECT_FALSE(testsupport::exists(name_)) << "derived lock created the protected file";
        errno = EXDEV;
    }
    EXPECT_EQ(errno, EXDEV) << "the destructor changed errno";
    EXPECT_FALSE(excluded(name_)) << "lock still held after destruction";
    {
        MKLock lock(name_, MKLock::UseName);
        EXPECT_TRUE(lock.path() == name_ && excluded(name_, 0)) << "the name itself not locked";
    }
    // With standard input closed, open() hands out 0, which must not read as "held elsewhere".
    const auto r = testsupport::runInChild([&] {
        close(0);
        lock_struct_t *lock = mk_held_lock(name_.c_str(), 1);
        const bool ok = is_locked(lock) && excluded(name_) && rm_lock(lock) == 0 && !excluded(name_);
        return ok ? 0 : 1;
    });
    EXPECT_EQ(r.status, 0) << "fd 0 taken for a held lock, or not given back: " << r;
    // A null record (no memory) counts as locked elsewhere and frees quietly.
    EXPECT_TRUE(is_already_locked(nullptr) && !is_locked(nullptr) && rm_lock(nullptr) == 0);
    // The production lock file of a name is one absolute path, whatever the working directory.
    mk_lock_set_dir_for_testing(nullptr);
    const auto r2 = runInChild([&] {
        char *path = chdir(root_.c_str()) == 0 ? mk_flock_path("/etc/postfix/main.cf") : nullptr;
        return path && path == "/var/lock/files/" + zarnet::md5Hex("/etc/postfix/main.cf") ? (free(path), 0) : 1;
    });
    EXPECT_EQ(r2.status, 0) << "the lock file depends on the working directory";
    testsupport::spit(root_ + "/plain", "x");
    const std::string dir = root_ + "/plain/locks";
    mk_lock_set_dir_for_testing(dir.c_str());
    const auto r3 = testsupport::runInChild([&] {
        errno = 0;
        if (mk_held_lock(name_.c_str(), 1) != nullptr || errno != ENOTDIR)
            return 1;
        return testsupport::thrown([&] { MKLock lock(name_); }) == "SystemError: lock() failed (20)" ? 0 : 2;
    });
    EXPECT_EQ(r3.status, 0) << "1: mk_held_lock, 2: MKLock; " << r3;
    const std::string report = "Unable to open file \"" + dir + "/" + zarnet::md5Hex(name_) +
                               "\": Not a directory.\nSystem error 20: Not a directory\n";
    EXPECT_EQ(r3.out, report + report);
}
