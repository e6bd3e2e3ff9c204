#include "utils/dir_walk.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

TEST(DirWalk, LinksAndFifosAreSeenAsThemselvesNeverEntered)
{
    testsupport::TempDir tmp("dir_walk");
    const std::string d = tmp.path();
    ASSERT_EQ(::mkdir((d + "/real").c_str(), 0700), 0);
    ASSERT_EQ(::symlink("real", (d + "/link").c_str()), 0);
    ASSERT_EQ(::mkfifo((d + "/fifo").c_str(), 0600), 0);
    ::alarm(10); // an open that waits for a FIFO writer ends the run
    std::vector<std::string> seen;
    const dir_walk::Result r =
        dir_walk::each_entry(dir_walk::open_dir(AT_FDCWD, d.c_str()), [&](const dir_walk::Entry &e) {
            struct stat st;
            EXPECT_TRUE(e.stat(st)) << e.name;
            const int fd = e.open_dir();
            seen.push_back(std::string(e.name) + (S_ISLNK(st.st_mode) ? "@" : "") +
                           (fd >= 0 ? "/" : ""));
            if (fd >= 0)
                ::close(fd);
            return true;
        });
    ::alarm(0);
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(r, dir_walk::Result::Done);
    EXPECT_EQ(seen, (std::vector<std::string>{"fifo", "link@", "real/"}));
    EXPECT_EQ(dir_walk::open_dir(AT_FDCWD, (d + "/link").c_str()), -1);
}

TEST(DirWalk, UnreadableDirectoryAndStoppedWalkAreTold)
{
    testsupport::TempDir tmp("dir_walk");
    ASSERT_EQ(::mkdir((tmp.path() + "/a").c_str(), 0700), 0);
    errno = 0;
    const auto never = [](const dir_walk::Entry &) { return false; };
    EXPECT_EQ(dir_walk::each_entry(::open(tmp.path().c_str(), O_PATH), never),
              dir_walk::Result::Unreadable);
    EXPECT_NE(errno, 0);
    EXPECT_EQ(dir_walk::each_entry(dir_walk::open_dir(AT_FDCWD, tmp.path().c_str()), never),
              dir_walk::Result::Stopped);
}
