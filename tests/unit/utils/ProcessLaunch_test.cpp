#include "utils/ProcessLaunch.h"

#include "test_common.h"

#include "utils/ExSystemError.h"

using namespace zarnet::process;

namespace {

using P = Parameters<PipeProcessFlags>;
const int INH = ProcessLaunch::FD_INHERIT, NUL = ProcessLaunch::FD_DEVNULL, PIPE = ProcessLaunch::FD_PIPE;

std::unique_ptr<ProcessLaunch> start(P s, int in = NUL, int out = PIPE, int err = INH)
{
    const auto cArray = [](std::vector<std::string> &strings) {
        std::vector<char *> out;
        for (std::string &s : strings)
            out.push_back(&s[0]);
        return out.push_back(nullptr), out;
    };
    std::vector<char *> argv = cArray(s.argv), envp = s.flags.env ? cArray(*s.flags.env) : argv;
    const PipeProcessFlags &f = s.flags;
    return std::make_unique<ProcessLaunch>(argv.data(), s.path.c_str(), f.cwd ? f.cwd->c_str() : nullptr,
                                           f.env ? envp.data() : nullptr, f.closeOtherFds, f.searchPath,
                                           f.newSession, f.preExecHook, in, out, err);
}

std::string sys(const char *step, int code) { return std::string("SystemError: ") + step + " (" + std::to_string(code) + ")"; }

} // namespace

TEST(ProcessLaunch, QuietClosesKeepErrnoBadSelectorsForkNothingAndEmptyArgumentEndsTheList)
{
    const int fd = dup(2);
    ASSERT_EQ(close(fd), 0); // so both owners' closes fail with EBADF
    {
        FdOwner byReset(fd), byDestructor(fd);
        errno = E2BIG;
        byReset.reset();
        EXPECT_EQ(errno, E2BIG) << "reset";
    }
    EXPECT_EQ(errno, E2BIG) << "destructor";
    EXPECT_EQ(P("/p", "a", "", "b").argv, (std::vector<std::string>{"/p", "a"}));
    EXPECT_EQ(P("/p", std::vector<std::string>{"a", "", "b"}).argv, (std::vector<std::string>{"/p", "a", "", "b"}));
    const int SAME = ProcessLaunch::FD_SAME_AS_STDOUT;
    const struct { int in, out, err; const char *want; } cases[] = {
        {SAME, INH, INH, "stdin"}, {INH, -1, INH, "stdout"}, {INH, INH, -6, "stderr"}};
    for (const auto &c : cases)
        EXPECT_EQ(thrown([&] { start(P("/bin/true"), c.in, c.out, c.err); }),
                  std::string("invalid_argument: invalid FD for ") + c.want);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was forked for a rejected selector";
}

TEST(ProcessLaunch, CallersDescriptorsAndLowNumbersAreRewiredSafely)
{
    // The sink has no close-on-exec: only the close after the dup2 keeps the
    // child from holding a second copy of it.
    int sink[2];
    ASSERT_EQ(pipe(sink), 0);
    auto p = start(P("/usr/bin/python3", "-c", "import os, sys\nos.write(1, sys.stdin.buffer.read()); os.write(2, b'+err')\n"
                     "try:\n    os.fstat(" + std::to_string(sink[1]) + "); os.write(1, b'+leaked')\n"
                     "except OSError:\n    pass\n"),
                   PIPE, sink[1], ProcessLaunch::FD_SAME_AS_STDOUT);
    p->waitExec();
    EXPECT_EQ(close(sink[1]), 0) << "the caller's descriptor was closed by the launch";
    ASSERT_EQ(write(p->stdinFd().get(), "piped", 5), 5);
    p->stdinFd().close();
    EXPECT_EQ(readAll(sink[0]), "piped+err");
    close(sink[0]);
    EXPECT_EQ(exitText(p->waitExit()), "exit 0");

    // The program's stdout on a low number (-1: fds 0 and 1 freed first, so the pipe lands there).
    const struct { const char *fault; int target, flags; const char *program, *want; } cases[] = {
        {"wiring stdin clobbers stdout's source on fd 0", 0, 0, "/usr/bin/printf", "reached exit 0"},
        {"own number keeps close-on-exec (no dup2 clears it)", 1, O_CLOEXEC, "/usr/bin/printf", "reached exit 0"},
        {"report channel lost around fd 1: exec failure taken for success", -1, 0, "/none", "SystemError: execv (2)"},
    };
    for (const auto &c : cases) {
        const auto r = runInChild([&] {
            int fds[2];
            for (int fd = 0; c.target < 0 && fd < 2; ++fd)
                close(fd);
            if (pipe(fds) != 0 || (c.target >= 0 && dup3(fds[1], c.target, c.flags) < 0))
                return 10;
            const int out = c.target < 0 ? fds[1] : c.target;
            if (out != fds[1])
                close(fds[1]);
            std::string got;
            const std::string error = thrown([&] {
                auto p = start(P(c.program, "reached"), NUL, out);
                p->waitExec();
                close(out);
                got = readAll(fds[0]) + " " + exitText(p->waitExit());
            });
            return (error == "nothing" ? got : error) == c.want ? 0 : 11;
        });
        EXPECT_EQ(r.status, 0) << c.fault << ": " << r;
    }
}

TEST(ProcessLaunch, ChildGetsTheRequestedSetupOrItsFailureBack)
{
    using F = PipeProcessFlags &;
    const auto hook = [](std::function<void()> h) { return [h](F f) { f.preExecHook = h; }; };
    // want: what waitExec threw, else the program's output
    const struct { const char *fault; P program; std::function<void(F)> setup; std::string want;
                     int wantExit; } cases[] = {
        {"environment not exactly the given one", P("/usr/bin/env"), [](F f) { f.env = {{"A=1", "B=two words"}}; },
         "A=1\nB=two words\n", 0},
        {"missing program not reported", P("/nonexistent"), [](F) {}, sys("execv", ENOENT), 67},
        {"PATH search failure lost", P("no-such-program"), [](F f) { f.searchPath = true; }, sys("execvp", ENOENT), 67},
        {"exec with environment misnamed", P("/none"), [](F f) { f.env = {{"A=1"}}; }, sys("execve", ENOENT), 67},
        {"chdir failure ignored", P("/bin/true"), [](F f) { f.cwd = "/none"; }, sys("cwd chdir", ENOENT), 67},
        {"hook message lost", P("/bin/true"), hook([] { throw std::runtime_error("no"); }), "runtime_error: no", 66},
        {"hook errno lost", P("/bin/true"), hook([] { throw zarnet::SystemError("h", EACCES); }), sys("h", EACCES), 67},
        {"other exception mistyped", P("/bin/true"), hook([] { throw std::logic_error("x"); }), "exception: std::exception", 66},
        {"non-exception mishandled", P("/bin/true"), hook([] { throw 42; }), "runtime_error: unknown error", 65},
        {"record cut at a read boundary", P("/bin/true"), hook([] { throw std::runtime_error(std::string(1500, 'm')); }),
         "runtime_error: " + std::string(1500, 'm'), 66},
        {"empty message not named", P("/bin/true"), hook([] { throw std::runtime_error(""); }),
         "runtime_error: an error in child process", 66},
    };
    for (const auto &c : cases) {
        P s = c.program;
        c.setup(s.flags);
        auto p = start(s);
        std::string got = thrown([&] { p->waitExec(); });
        if (got == "nothing")
            got = readAll(p->stdoutFd().get());
        else
            EXPECT_EQ(waitpid(p->pid(), nullptr, WNOHANG), -1) << c.fault << ": left a zombie";
        EXPECT_EQ(got + " " + exitText(p->waitExit()), c.want + " exit " + std::to_string(c.wantExit)) << c.fault;
    }
}
