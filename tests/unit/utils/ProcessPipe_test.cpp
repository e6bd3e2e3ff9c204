#include "utils/ProcessPipe.h"

#include "test_common.h"

using namespace zarnet::process;

namespace {

using P = Parameters<PipeProcessFlags>;

P python(const std::string &script, const std::string &arg = "") { return P("/usr/bin/python3", "-c", script, arg); }

// Hands out text in pieces of chunk bytes; with lastWithFalse the final
// piece comes together with the end-of-input answer.
InputSource source(const std::string &text, size_t chunk, bool lastWithFalse = false)
{
    auto pos = std::make_shared<size_t>(0);
    return [&text, chunk, lastWithFalse, pos](std::vector<char> &buf) {
        const size_t n = std::min(chunk, text.size() - *pos);
        buf.assign(text.begin() + *pos, text.begin() + *pos + n);
        *pos += n;
        return lastWithFalse ? *pos < text.size() : n > 0;
    };
}

// Runs the pipe with both streams captured: status, stdout, stderr.
std::tuple<int, std::string, std::string> run(Pipe &pipe)
{
    std::string out, err;
    pipe.stdoutChannel().receiver = makeStringReceiver(out);
    pipe.stderrChannel().receiver = makeStringReceiver(err);
    const int status = pipe.run();
    return {status, out, err};
}

} // namespace

TEST(Pipe, StreamsArriveWholeThroughFullPipes)
{
    const std::string input = pattern(4 << 20, 13, 5);
    // Alternating 16 KB writes: a pump that reads one stream to its end
    // before the other deadlocks once the other's pipe fills.
    const P both = python("import sys\nn = 1 << 20\n"
                          "o = bytes(i % 251 for i in range(n)); e = bytes((i * 7 + 3) % 251 for i in range(n))\n"
                          "for k in range(0, n, 16384):\n"
                          "    sys.stdout.buffer.write(o[k:k + 16384]); sys.stdout.buffer.flush()\n"
                          "    sys.stderr.buffer.write(e[k:k + 16384]); sys.stderr.buffer.flush()\n");
    // Copies its input through and reports the descriptors above 2 it holds
    // and whether SIGCHLD or SIGPIPE is blocked (it would never see its own
    // children end or a broken pipe).
    const P probe = python("import os, signal, sys\n"
                           "sys.stdout.buffer.write(sys.stdin.buffer.read()); sys.stdout.flush()\n"
                           "fds = []\nfor fd in range(3, 256):\n    try: os.fstat(fd); fds.append(fd)\n    except OSError: pass\n"
                           "m = signal.pthread_sigmask(signal.SIG_BLOCK, [])\n"
                           "print(fds, signal.SIGCHLD in m, signal.SIGPIPE in m, file=sys.stderr)\n");
    std::string inherited = "["; // only what this process opened without close-on-exec may show
    for (int fd = 3; fd < 256; ++fd)
        if (fcntl(fd, F_GETFD) >= 0 && !(fcntl(fd, F_GETFD) & FD_CLOEXEC))
            inherited += (inherited.size() > 1 ? ", " : "") + std::to_string(fd);
    // chunk: input handed out per call, 0 for no input
    const struct { const char *fault; P program; size_t chunk; bool lastWithFalse; std::string out, err; } cases[] = {
        {"one stream starved while the other fills", both, 0, false, pattern(1 << 20), pattern(1 << 20, 7, 3)},
        {"rest of an input buffer larger than the pipe lost", P("/bin/cat"), input.size(), false, input, ""},
        {"odd-sized input given with the end answer dropped", P("/bin/cat"), 100003, true, input, ""},
        {"descriptors or the signal block inherited", probe, 1 << 20, false, input, inherited + "] False False\n"},
    };
    for (const auto &c : cases) {
        Pipe pipe(c.program);
        if (c.chunk)
            pipe.setInput(source(input, c.chunk, c.lastWithFalse));
        const auto [status, out, err] = run(pipe);
        EXPECT_EQ(exitText(status), "exit 0") << c.fault;
        EXPECT_EQ(sameBytes(out, c.out), "equal") << c.fault << ": stdout";
        EXPECT_EQ(sameBytes(err, c.err), "equal") << c.fault << ": stderr " << err.substr(0, 200);
    }
}

TEST(Pipe, UnreadInputIsDroppedAndOutputAfterTheExitStillRead)
{
    // head ends early: the input it never took must neither kill this process
    // nor break the run, and its status reaches the exit callback once.
    const std::string input = pattern(4 << 20, 3, 1);
    Pipe head(P("/usr/bin/head", "-c", "1000"));
    head.setInput(source(input, 65536));
    std::string seen;
    head.setExitCallback([&](unsigned index, int status) { seen += std::to_string(index) + ":" + exitText(status) + ";"; });
    const auto [status, out, err] = run(head);
    EXPECT_EQ(sameBytes(out, input.substr(0, 1000)), "equal");
    EXPECT_EQ(seen + exitText(status) + exitText(head.statuses().at(0).status), "0:exit 0;exit 0exit 0");
    // A grandchild holding the output pipe writes only once the exit callback
    // has seen its parent end: the pump must wait for end of file.
    int trigger[2];
    ASSERT_EQ(pipe(trigger), 0);
    Pipe late(python("import os, sys\nif os.fork() == 0:\n"
                     "    os.read(int(sys.argv[1]), 1); os.write(1, b'late'); os._exit(0)\nos.write(1, b'early ')\n",
                     std::to_string(trigger[0])));
    late.setExitCallback([&](unsigned, int) { (void)!write(trigger[1], "x", 1); });
    EXPECT_EQ(std::get<1>(run(late)), "early late");
    close(trigger[0]);
    close(trigger[1]);
}

TEST(Pipe, MisuseAndFailuresThrowAndLeaveNoZombieAndNonblockWriteKeepsErrno)
{
    Pipe empty, ran(P("/bin/true"));
    EXPECT_EQ(thrown([&] { empty.run(); }), "logic_error: No processes to launch were assigned so far");
    ran.run();
    EXPECT_EQ(thrown([&] { ran.run(); }), "logic_error: the pipe has been launched already");
    // A failure mid-chain: the processes started around it must be closed and reaped.
    const std::string input = pattern(1 << 20, 1, 2);
    Pipe pipe(P("/bin/cat"));
    pipe.append(P("/nonexistent/filter"));
    pipe.append(P("/bin/cat"));
    pipe.setInput(source(input, input.size()));
    EXPECT_EQ(thrown([&] { run(pipe); }), "SystemError: execv (" + std::to_string(ENOENT) + ")");
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a started process was left behind";
    char buf[4096] = {};
    PipeEnds p = makePipe("pipe", O_CLOEXEC | O_NONBLOCK);
    // Fill the pipe, free one page and leave less room than an atomic write needs.
    while (write(p.write.get(), buf, sizeof buf) > 0) {
    }
    ASSERT_EQ(read(p.read.get(), buf, sizeof buf), 4096);
    ASSERT_EQ(write(p.write.get(), buf, 3000), 3000);
    errno = E2BIG;
    const int n = nonblock_write(p.write.get(), buf, 2000);
    EXPECT_TRUE(n > 0 && n < 2000 && errno == E2BIG) << "got " << n << ", errno " << errno;
    while (write(p.write.get(), buf, 1) > 0) {
    }
    EXPECT_EQ(thrown([&] { nonblock_write(p.write.get(), buf, 1000); }), "SystemError: write (" + std::to_string(EAGAIN) + ")");
}
