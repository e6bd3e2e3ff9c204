#include "utils/ProcessLaunch.h"

#include "support/background.h"
#include "support/child_capture.h"
#include "support/children.h"
#include "support/temp_dir.h"
#include "support/thrown.h"
#include "utils/ExSystemError.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>

using namespace zarnet::process;
using testsupport::exitText;
using testsupport::readAll;
using testsupport::thrown;

namespace {

using P = Parameters<PipeProcessFlags>;
const char *const kPython = "/usr/bin/python3";

std::vector<char *> cArray(std::vector<std::string> &strings)
{
    std::vector<char *> out;
    for (std::string &s : strings)
        out.push_back(&s[0]);
    out.push_back(nullptr);
    return out;
}

std::unique_ptr<ProcessLaunch> start(P s, int in = ProcessLaunch::FD_DEVNULL,
                                     int out = ProcessLaunch::FD_PIPE,
                                     int err = ProcessLaunch::FD_INHERIT)
{
    const PipeProcessFlags &f = s.flags;
    std::vector<char *> argv = cArray(s.argv), envp;
    if (s.flags.env)
        envp = cArray(*s.flags.env);
    return std::make_unique<ProcessLaunch>(argv.data(), s.path.c_str(), f.cwd ? f.cwd->c_str() : nullptr,
                                           f.env ? envp.data() : nullptr, f.closeOtherFds, f.searchPath,
                                           f.newSession, f.preExecHook, in, out, err);
}

std::string sys(const char *step, int code)
{
    return std::string("SystemError: ") + step + " (" + std::to_string(code) + ")";
}

} // namespace

TEST(FdOwner, QuietClosesKeepErrno)
{
    // A descriptor closed behind the owners' backs makes their closes fail with EBADF.
    const int fd = dup(2);
    ASSERT_EQ(close(fd), 0);
    {
        FdOwner byReset(fd), byDestructor(fd);
        errno = E2BIG;
        byReset.reset();
        EXPECT_EQ(errno, E2BIG) << "reset: got " << errno;
    }
    EXPECT_EQ(errno, E2BIG) << "destructor: got " << errno;
}

TEST(ProcessParameters, ArgumentVectors)
{
    const std::vector<std::string> kept = {"a", "", "b"};
    EXPECT_EQ(P("/p", "a", "", "b").argv, (std::vector<std::string>{"/p", "a"}))
        << "an empty string must end the list";
    EXPECT_EQ(P("/p", kept).argv, (std::vector<std::string>{"/p", "a", "", "b"}))
        << "the vector form must keep empty strings";
}

TEST(ProcessLaunch, InvalidSelectorRejectedBeforeFork)
{
    const int INH = ProcessLaunch::FD_INHERIT, SAME = ProcessLaunch::FD_SAME_AS_STDOUT;
    const struct {
        int in, out, err;
        const char *want;
    } cases[] = {
        {-1, INH, INH, "invalid FD for stdin"},  {SAME, INH, INH, "invalid FD for stdin"},
        {INH, -1, INH, "invalid FD for stdout"}, {INH, SAME, INH, "invalid FD for stdout"},
        {INH, INH, -1, "invalid FD for stderr"}, {INH, INH, -6, "invalid FD for stderr"},
    };
    const std::string before = testsupport::children();
    for (const auto &c : cases)
        EXPECT_EQ(thrown([&] { start(P("/bin/true"), c.in, c.out, c.err); }),
                  std::string("invalid_argument: ") + c.want)
            << c.in << "/" << c.out << "/" << c.err;
    EXPECT_EQ(testsupport::children(), before) << "a child was forked for a rejected selector";
}

TEST(ProcessLaunch, ChildFailureComesBackFromWaitExecAsItsOwnKind)
{
    using Setup = std::function<void(P &)>;
    const auto hook = [](std::function<void()> h) -> Setup {
        return [h](P &s) { s.flags.preExecHook = h; };
    };
    const struct {
        const char *fault;
        Setup setup;
        std::string want;
        int wantExit;
    } cases[] = {
        {"missing program not reported", [](P &s) { s = P("/nonexistent"); }, sys("execv", ENOENT), 67},
        {"PATH search failure lost", [](P &s) { s = P("no-such-program"); s.flags.searchPath = true; },
         sys("execvp", ENOENT), 67},
        {"exec with environment misnamed", [](P &s) { s = P("/none"); s.flags.env = {{"A=1"}}; },
         sys("execve", ENOENT), 67},
        {"errno of exec lost", [](P &s) { s = P("/"); }, sys("execv", EACCES), 67},
        {"chdir failure ignored", [](P &s) { s.flags.cwd = "/none"; }, sys("cwd chdir", ENOENT), 67},
        {"hook message lost", hook([] { throw std::runtime_error("no"); }), "runtime_error: no", 66},
        {"hook errno lost", hook([] { throw zarnet::SystemError("h", EACCES); }), sys("h", EACCES), 67},
        {"other exception mistyped", hook([] { throw std::logic_error("x"); }), "exception: std::exception",
         66},
        {"non-exception mishandled", hook([] { throw 42; }), "runtime_error: unknown error", 65},
        {"empty message not named", hook([] { throw std::runtime_error(""); }),
         "runtime_error: an error in child process", 66},
    };
    for (const auto &c : cases) {
        P s("/bin/true");
        c.setup(s);
        auto p = start(s);
        EXPECT_EQ(thrown([&] { p->waitExec(); }), c.want) << c.fault;
        int status;
        EXPECT_EQ(waitpid(p->pid(), &status, WNOHANG), -1) << c.fault << ": left a zombie";
        EXPECT_EQ(exitText(p->waitExit()), "exit " + std::to_string(c.wantExit)) << c.fault;
    }
}

TEST(ProcessLaunch, UnknownControlRecordsAreShownAsChildOutput)
{
    const std::string longRecord(1500, 'x'); // spans two 1024-byte reads
    const auto r = testsupport::runInChild([&] {
        P s("/bin/true");
        // With other descriptors closed, the control pipe is the only one above 2.
        s.flags.closeOtherFds = true;
        s.flags.preExecHook = [&] {
            int fd = 3;
            while (fd < 65536 && fcntl(fd, F_GETFD) < 0)
                ++fd;
            const std::string bytes = std::string("hello", 6) + longRecord + '\0' + "tail";
            if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
                _exit(90);
        };
        int status = -1;
        const std::string got = thrown([&] {
            auto p = start(s, ProcessLaunch::FD_DEVNULL, ProcessLaunch::FD_INHERIT);
            p->waitExec();
            status = p->waitExit();
        });
        return got == "nothing" && status == 0 ? 0 : 1;
    });
    EXPECT_EQ(r.status, 0) << "unknown records must not turn into an error: " << r;
    EXPECT_EQ(r.err, "child output: hello\nchild output: " + longRecord + "\nchild output: tail\n");
}

TEST(ProcessLaunch, PipeDescriptorAndSameAsStdoutSelectors)
{
    // The sink has no close-on-exec: only the launcher's close after the
    // dup2 keeps the child from holding a second copy of it.
    int sink[2];
    ASSERT_EQ(pipe(sink), 0);
    const std::string script = "import os, sys\n"
                               "os.write(1, sys.stdin.buffer.read()); os.write(2, b'+err')\n"
                               "try:\n    os.fstat(" + std::to_string(sink[1]) + ")\n"
                               "    os.write(1, b'+leaked')\n"
                               "except OSError:\n    pass\n";
    auto p = start(P(kPython, "-c", script), ProcessLaunch::FD_PIPE, sink[1],
                   ProcessLaunch::FD_SAME_AS_STDOUT);
    p->waitExec();
    EXPECT_EQ(close(sink[1]), 0) << "the caller's descriptor was closed by the launch";
    ASSERT_EQ(write(p->stdinFd().get(), "piped", 5), 5);
    p->stdinFd().close();
    EXPECT_EQ(readAll(sink[0]), "piped+err");
    close(sink[0]);
    EXPECT_EQ(exitText(p->waitExit()), "exit 0");
}

TEST(ProcessLaunch, LowDescriptorsAreRewiredSafely)
{
    // Each case runs in its own process, so it may rearrange descriptors
    // 0-2: the launched program's stdout is a pipe end moved to a low number.
    const struct {
        const char *fault;
        int target, flags;
    } cases[] = {
        {"wiring stdin clobbers stdout's source on fd 0", 0, 0},
        {"own number keeps close-on-exec (no dup2 clears it)", 1, O_CLOEXEC},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            int fds[2];
            if (pipe(fds) != 0 || dup3(fds[1], c.target, c.flags) < 0)
                return 10;
            close(fds[1]);
            std::string got;
            const std::string error = thrown([&] {
                auto p = start(P(kPython, "-c", "import os; os.write(1, b'reached')"),
                               ProcessLaunch::FD_DEVNULL, c.target);
                p->waitExec();
                close(c.target);
                got = readAll(fds[0]) + " " + exitText(p->waitExit());
            });
            return got == "reached exit 0" && error == "nothing" ? 0 : 11;
        });
        EXPECT_EQ(r.status, 0) << c.fault << ": " << r;
    }
    // The report channel must survive the dup2 onto fd 1, or an exec failure
    // would look like success.
    const auto r = testsupport::runInChild([&] {
        int fds[2];
        if (pipe(fds) != 0)
            return 10;
        close(0);
        close(1);
        const auto launch = [&] { start(P("/none"), ProcessLaunch::FD_DEVNULL, fds[1])->waitExec(); };
        return thrown(launch) == sys("execv", ENOENT) ? 0 : 11;
    });
    EXPECT_EQ(r.status, 0) << "control pipe on fds 0 and 1: " << r;
}

TEST(ProcessLaunch, ChildGetsTheRequestedSetup)
{
    const testsupport::TempDir temp("proclaunch");
    const std::string dir = std::filesystem::canonical(temp.path());
    // Opened without close-on-exec, as code outside this layer might.
    const int devnull = open("/dev/null", O_RDONLY);
    const FdOwner stray(fcntl(devnull, F_DUPFD, 100));
    close(devnull);
    ASSERT_GE(stray.get(), 100);
    const P probe(kPython, "-c", "import os\ntry:\n    os.fstat(" + std::to_string(stray.get()) +
                                     "); print('open')\nexcept OSError:\n    print('closed')\n");
    const struct {
        const char *fault;
        P program;
        std::function<void(PipeProcessFlags &)> setup;
        std::string want;
    } cases[] = {
        {"cwd ignored", P("/bin/pwd"), [&](PipeProcessFlags &f) { f.cwd = dir; }, dir + "\n"},
        {"environment not exactly the given one", P("/usr/bin/env"),
         [](PipeProcessFlags &f) { f.env = {{"A=1", "B=two words"}}; }, "A=1\nB=two words\n"},
        {"no new session", P(kPython, "-c", "import os; print(os.getsid(0) == os.getpid())"),
         [](PipeProcessFlags &f) { f.newSession = true; }, "True\n"},
        {"inherited descriptor not closed", probe, [](PipeProcessFlags &f) { f.closeOtherFds = true; },
         "closed\n"},
        {"probe blind to the descriptor", probe, [](PipeProcessFlags &) {}, "open\n"},
    };
    for (const auto &c : cases) {
        P s = c.program;
        c.setup(s.flags);
        auto p = start(s);
        p->waitExec();
        EXPECT_EQ(readAll(p->stdoutFd().get()), c.want) << c.fault;
        EXPECT_EQ(exitText(p->waitExit()), "exit 0") << c.fault;
    }
}
