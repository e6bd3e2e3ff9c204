#include "utils/ProcessPipe.h"

#include "support/child_capture.h"
#include "support/children.h"
#include "utils/ExSystemError.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <sstream>

using zarnet::SystemError;
using zarnet::process::makePipe;
using zarnet::process::makeStringReceiver;
using zarnet::process::nonblock_write;
using zarnet::process::Parameters;
using zarnet::process::Pipe;
using zarnet::process::PipeEnds;
using zarnet::process::PipeProcessFlags;

namespace {

using P = Parameters<PipeProcessFlags>;
const char *const kPython = "/usr/bin/python3";

std::string pattern(size_t n, unsigned mul, unsigned add)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i)
        s[i] = static_cast<char>((i * mul + add) % 251);
    return s;
}

// Short verdict for large texts: sizes and the first differing offset.
std::string compare(const std::string &got, const std::string &want)
{
    if (got == want)
        return "equal";
    size_t i = 0;
    while (i < got.size() && i < want.size() && got[i] == want[i])
        ++i;
    std::ostringstream os;
    os << "got " << got.size() << " bytes, want " << want.size() << ", first difference at "
       << i;
    return os.str();
}

// Hands out `text` in pieces of `chunk` bytes; with lastWithFalse the final
// piece comes together with the end-of-input answer.
zarnet::process::InputSource source(const std::string &text, size_t chunk, bool lastWithFalse)
{
    auto pos = std::make_shared<size_t>(0);
    return [&text, chunk, lastWithFalse, pos](std::vector<char> &buf) {
        const size_t n = std::min(chunk, text.size() - *pos);
        buf.assign(text.begin() + *pos, text.begin() + *pos + n);
        *pos += n;
        if (lastWithFalse)
            return *pos < text.size();
        return n > 0;
    };
}

bool exitedWith(int status, int code)
{
    return WIFEXITED(status) && WEXITSTATUS(status) == code;
}

} // namespace

TEST(Pipe, BothStreamsCapturedBeyondPipeBuffer)
{
    // Alternating 16 KB writes: a pump that reads one stream to its end
    // before the other deadlocks once the other's pipe fills.
    const char *script =
        "import sys\n"
        "n = 1 << 20\n"
        "o = bytes((i * 1 + 0) % 251 for i in range(n))\n"
        "e = bytes((i * 7 + 3) % 251 for i in range(n))\n"
        "for k in range(0, n, 16384):\n"
        "    sys.stdout.buffer.write(o[k:k + 16384]); sys.stdout.buffer.flush()\n"
        "    sys.stderr.buffer.write(e[k:k + 16384]); sys.stderr.buffer.flush()\n";
    Pipe pipe(P(kPython, "-c", script));
    std::string out, err;
    pipe.stdoutChannel().receiver = makeStringReceiver(out);
    pipe.stderrChannel().receiver = makeStringReceiver(err);
    const int status = pipe.run();
    EXPECT_TRUE(exitedWith(status, 0)) << "status " << status;
    EXPECT_EQ(compare(out, pattern(1 << 20, 1, 0)), "equal") << "stdout";
    EXPECT_EQ(compare(err, pattern(1 << 20, 7, 3)), "equal") << "stderr";
}

TEST(Pipe, LargeInputArrivesIntact)
{
    const std::string input = pattern(4 << 20, 13, 5);
    const struct {
        const char *name;
        size_t chunk;
        bool lastWithFalse;
    } cases[] = {
        {"one buffer larger than the pipe", input.size(), false},
        {"many odd-sized buffers", 100003, false},
        {"final bytes arrive with false", 100003, true},
    };
    for (const auto &c : cases) {
        Pipe pipe(P("/bin/cat"));
        pipe.setInput(source(input, c.chunk, c.lastWithFalse));
        std::string out;
        pipe.stdoutChannel().receiver = makeStringReceiver(out);
        EXPECT_TRUE(exitedWith(pipe.run(), 0)) << c.name;
        EXPECT_EQ(compare(out, input), "equal") << c.name;
    }
}

TEST(Pipe, ChainReportsEveryProcess)
{
    const std::string input = pattern(4 << 20, 3, 1);
    Pipe pipe(P("/bin/cat"));
    pipe.append(P("/usr/bin/head", "-c", "1000"));
    pipe.append(P("/bin/cat"));
    pipe.setInput(source(input, 65536, false));
    std::string out;
    pipe.stdoutChannel().receiver = makeStringReceiver(out);
    std::map<unsigned, std::vector<int>> seen;
    pipe.setExitCallback([&](unsigned index, int status) { seen[index].push_back(status); });

    // head ends early: the first cat dies of a broken pipe, and the input it
    // never took must not break the run.
    const int status = pipe.run();
    EXPECT_EQ(compare(out, input.substr(0, 1000)), "equal");
    ASSERT_EQ(seen.size(), 3u) << "the exit callback missed a process";
    for (const auto &s : seen)
        EXPECT_EQ(s.second.size(), 1u) << "process " << s.first << " reported more than once";
    EXPECT_TRUE(exitedWith(seen[1][0], 0)) << "head status " << seen[1][0];
    EXPECT_TRUE(exitedWith(seen[2][0], 0)) << "last cat status " << seen[2][0];

    const auto &statuses = pipe.statuses();
    ASSERT_EQ(statuses.size(), 3u);
    for (unsigned i = 0; i < 3; ++i) {
        EXPECT_TRUE(statuses[i].changed) << i;
        EXPECT_EQ(statuses[i].status, seen[i][0]) << i;
        EXPECT_GT(statuses[i].pid, 0) << i;
    }
    EXPECT_EQ(status, statuses.back().status);
}

TEST(Pipe, RunReturnsTheLastStatusAndNeverThrowsForIt)
{
    const struct {
        const char *name;
        std::vector<const char *> programs;
        std::vector<int> wantExits;
    } cases[] = {
        {"single failing program", {"/bin/false"}, {1}},
        {"failure before success", {"/bin/false", "/bin/true"}, {1, 0}},
        {"success before failure", {"/bin/true", "/bin/false"}, {0, 1}},
    };
    for (const auto &c : cases) {
        Pipe pipe(P(c.programs[0]));
        for (size_t i = 1; i < c.programs.size(); ++i)
            pipe.append(P(c.programs[i]));
        std::map<unsigned, int> seen;
        pipe.setExitCallback([&](unsigned index, int status) { seen[index] = status; });
        int status = -1;
        EXPECT_NO_THROW(status = pipe.run()) << c.name;
        EXPECT_TRUE(exitedWith(status, c.wantExits.back()))
            << c.name << ": run() gave " << status << ", want exit " << c.wantExits.back();
        for (size_t i = 0; i < c.wantExits.size(); ++i)
            EXPECT_TRUE(exitedWith(seen[i], c.wantExits[i]))
                << c.name << ": process " << i << " status " << seen[i];
    }
}

TEST(Pipe, OutputWrittenAfterTheLastExitIsStillRead)
{
    // A grandchild holding the output pipe writes only once the exit callback
    // has seen its parent end: the pump must wait for end of file, not for
    // the last exit.
    int trigger[2];
    ASSERT_EQ(pipe(trigger), 0);
    const char *script = "import os, sys\n"
                         "if os.fork() == 0:\n"
                         "    os.read(int(sys.argv[1]), 1)\n"
                         "    os.write(1, b'late')\n"
                         "    os._exit(0)\n"
                         "os.write(1, b'early ')\n";
    Pipe pipe(P(kPython, "-c", script, std::to_string(trigger[0])));
    std::string out;
    pipe.stdoutChannel().receiver = makeStringReceiver(out);
    pipe.setExitCallback([&](unsigned, int) { (void)!write(trigger[1], "x", 1); });
    EXPECT_EQ(pipe.run(), 0);
    EXPECT_EQ(out, "early late");
    close(trigger[0]);
    close(trigger[1]);
}

TEST(Pipe, InputNobodyReadsIsDropped)
{
    // More than a pipe buffer into a program that never reads: the write
    // end breaks, which must neither kill this process nor fail the run.
    const std::string input = pattern(1 << 20, 1, 1);
    Pipe pipe(P("/bin/true"));
    pipe.setInput(source(input, input.size(), false));
    int status = -1;
    EXPECT_NO_THROW(status = pipe.run());
    EXPECT_TRUE(exitedWith(status, 0)) << "status " << status;
}

TEST(Pipe, MisuseIsRefused)
{
    Pipe empty;
    Pipe ran(P("/bin/true"));
    ran.run();
    const struct {
        const char *name;
        Pipe *pipe;
        const char *want;
    } cases[] = {
        {"empty chain", &empty, "No processes to launch were assigned so far"},
        {"second run", &ran, "the pipe has been launched already"},
    };
    for (const auto &c : cases) {
        try {
            c.pipe->run();
            ADD_FAILURE() << c.name << ": ran, want " << c.want;
        } catch (const std::logic_error &e) {
            EXPECT_STREQ(e.what(), c.want) << c.name;
        }
    }
}

TEST(Pipe, UnrunnableProgramInChainThrowsAndLeavesNoZombie)
{
    const std::string before = testsupport::children();
    const std::string input = pattern(1 << 20, 1, 2);
    Pipe pipe(P("/bin/cat"));
    pipe.append(P("/nonexistent/filter"));
    pipe.append(P("/bin/cat"));
    pipe.setInput(source(input, input.size(), false));
    std::string out;
    pipe.stdoutChannel().receiver = makeStringReceiver(out);
    try {
        pipe.run();
        FAIL() << "a missing program did not throw";
    } catch (const SystemError &e) {
        EXPECT_STREQ(e.std::runtime_error::what(), "execv");
        EXPECT_EQ(e.code(), ENOENT);
    }
    EXPECT_EQ(testsupport::children(), before) << "a started process was left behind";
}

TEST(Pipe, UnsetStderrIsInherited)
{
    const auto r = testsupport::runInChild([] {
        Pipe pipe(P(kPython, "-c", "import os; os.write(2, b'to-stderr'); os.write(1, b'to-out')"));
        std::string out;
        pipe.stdoutChannel().receiver = makeStringReceiver(out);
        return pipe.run() == 0 && out == "to-out" ? 0 : 1;
    });
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.err, "to-stderr") << r;
    EXPECT_EQ(r.out, "") << "uncaptured stdout must not leak past the channel: " << r;
}

TEST(Pipe, NoDescriptorLeaksIntoChildren)
{
    // Each process copies its input through and reports the descriptors above
    // 2 it holds; only those this process opened without close-on-exec may show.
    std::string inherited = "[";
    for (int fd = 3; fd < 256; ++fd) {
        const int flags = fcntl(fd, F_GETFD);
        if (flags >= 0 && !(flags & FD_CLOEXEC))
            inherited += (inherited.size() > 1 ? ", " : "") + std::to_string(fd);
    }
    inherited += "]\n";
    const char *script = "import os, sys\n"
                         "sys.stdout.buffer.write(sys.stdin.buffer.read()); sys.stdout.flush()\n"
                         "fds = []\n"
                         "for fd in range(3, 256):\n"
                         "    try:\n"
                         "        os.fstat(fd); fds.append(fd)\n"
                         "    except OSError:\n"
                         "        pass\n"
                         "os.write(2, (repr(fds) + '\\n').encode())\n";
    Pipe pipe(P(kPython, "-c", script));
    pipe.append(P(kPython, "-c", script));
    pipe.append(P(kPython, "-c", script));
    const std::string input = "through three";
    pipe.setInput(source(input, input.size(), false));
    std::string out, err;
    pipe.stdoutChannel().receiver = makeStringReceiver(out);
    pipe.stderrChannel().receiver = makeStringReceiver(err);
    EXPECT_EQ(pipe.run(), 0) << err;
    EXPECT_EQ(out, input);
    EXPECT_EQ(err, inherited + inherited + inherited);
}

TEST(Pipe, ChildrenDoNotInheritTheRunsSignalBlock)
{
    // The run blocks SIGCHLD and SIGPIPE for itself; a program started with
    // them blocked would never see its own children end or a broken pipe.
    const char *script = "import signal\n"
                         "m = signal.pthread_sigmask(signal.SIG_BLOCK, [])\n"
                         "print(signal.SIGCHLD in m, signal.SIGPIPE in m)\n";
    Pipe pipe(P(kPython, "-c", script));
    pipe.append(P("/bin/cat"));
    std::string out;
    pipe.stdoutChannel().receiver = makeStringReceiver(out);
    pipe.run();
    EXPECT_EQ(out, "False False\n");
}

TEST(NonblockWrite, LengthsAndFullPipes)
{
    char buf[4096] = {};
    PipeEnds p = makePipe("pipe", O_CLOEXEC | O_NONBLOCK);

    EXPECT_EQ(nonblock_write(-1, buf, 0), 0) << "length 0 must not reach write(2)";

    // Fill the pipe, free one page and leave less room than an atomic write needs.
    while (write(p.write.get(), buf, sizeof buf) > 0) {
    }
    ASSERT_EQ(read(p.read.get(), buf, sizeof buf), 4096);
    ASSERT_EQ(write(p.write.get(), buf, 3000), 3000);
    errno = E2BIG;
    const int n = nonblock_write(p.write.get(), buf, 2000);
    EXPECT_GT(n, 0) << "an atomic write that does not fit must be retried shorter";
    EXPECT_LT(n, 2000);
    EXPECT_EQ(errno, E2BIG) << "errno changed by a successful write";

    while (write(p.write.get(), buf, 1) > 0) {
    }
    try {
        nonblock_write(p.write.get(), buf, 1000);
        ADD_FAILURE() << "writing to a full pipe did not throw";
    } catch (const SystemError &e) {
        EXPECT_STREQ(e.std::runtime_error::what(), "write");
        EXPECT_EQ(e.code(), EAGAIN);
    }
}
