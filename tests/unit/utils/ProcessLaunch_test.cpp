#include "utils/ProcessLaunch.h"

#include "support/child_capture.h"
#include "support/children.h"
#include "utils/ExSystemError.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <typeinfo>

using zarnet::SystemError;
using zarnet::process::FdOwner;
using zarnet::process::makePipe;
using zarnet::process::Parameters;
using zarnet::process::PipeEnds;
using zarnet::process::PipeProcessFlags;
using zarnet::process::ProcessLaunch;
using zarnet::process::writeException;

namespace {

const char *const kPython = "/usr/bin/python3";

struct Program {
    std::vector<std::string> argv; // argv[0] is also the path
    const char *cwd = nullptr;
    std::optional<std::vector<std::string>> env;
    bool closeOtherFds = false;
    bool searchPath = false;
    bool newSession = false;
    std::function<void()> hook;
    int in = ProcessLaunch::FD_DEVNULL;
    int out = ProcessLaunch::FD_PIPE;
    int err = ProcessLaunch::FD_INHERIT;
};

std::vector<char *> cArray(std::vector<std::string> &strings)
{
    std::vector<char *> out;
    for (std::string &s : strings)
        out.push_back(&s[0]);
    out.push_back(nullptr);
    return out;
}

std::unique_ptr<ProcessLaunch> start(Program program)
{
    std::vector<char *> argv = cArray(program.argv);
    std::vector<char *> envp;
    if (program.env)
        envp = cArray(*program.env);
    return std::make_unique<ProcessLaunch>(
        argv.data(), program.argv[0].c_str(), program.cwd, program.env ? envp.data() : nullptr,
        program.closeOtherFds, program.searchPath, program.newSession, program.hook, program.in,
        program.out, program.err);
}

std::string readAll(int fd)
{
    std::string text;
    char buf[4096];
    for (;;) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n > 0)
            text.append(buf, static_cast<size_t>(n));
        else if (n == 0 || errno != EINTR)
            return text;
    }
}

// Runs the program to its end: its stdout text and raw wait status.
std::pair<std::string, int> runToEnd(Program program)
{
    auto p = start(std::move(program));
    p->waitExec();
    std::string out = p->stdoutFd().valid() ? readAll(p->stdoutFd().get()) : "";
    return {out, p->waitExit()};
}

// What waitExec threw, in comparable form.
struct Caught {
    std::string type;
    std::string message;
    int code = 0;
};

Caught catchWaitExec(ProcessLaunch &p)
{
    try {
        p.waitExec();
    } catch (const SystemError &e) {
        return {"SystemError", e.std::runtime_error::what(), e.code()};
    } catch (const std::runtime_error &e) {
        return {typeid(e) == typeid(std::runtime_error) ? "std::runtime_error" : typeid(e).name(),
                e.what()};
    } catch (const std::exception &e) {
        return {typeid(e) == typeid(std::exception) ? "std::exception" : typeid(e).name(),
                e.what()};
    }
    return {"nothing", ""};
}

// A literal with its embedded NULs, without the terminating one.
template <size_t N>
std::string bytes(const char (&literal)[N])
{
    return std::string(literal, N - 1);
}

bool alreadyReaped(pid_t pid)
{
    int status;
    return waitpid(pid, &status, WNOHANG) == -1 && errno == ECHILD;
}

} // namespace

// ---------------------------------------------------------------- FdOwner

TEST(FdOwner, QuietClosesKeepErrno)
{
    // Each case sets errno to E2BIG and then closes quietly.
    const struct {
        const char *name;
        void (*act)(int fd);
    } cases[] = {
        {"destructor", [](int fd) { FdOwner owner(fd); errno = E2BIG; }},
        {"close_nothrow", [](int fd) { FdOwner owner(fd); errno = E2BIG; owner.close_nothrow(); }},
        {"reset", [](int fd) { FdOwner owner(fd); errno = E2BIG; owner.reset(); }},
    };
    for (const auto &c : cases) {
        // A descriptor closed behind the owner's back makes its close fail with EBADF.
        const int fd = dup(2);
        ASSERT_GE(fd, 0);
        close(fd);
        c.act(fd);
        EXPECT_EQ(errno, E2BIG) << c.name << ": got " << errno << ", want E2BIG";
    }
}

// ---------------------------------------------------------------- Parameters

TEST(ProcessParameters, ArgumentVectors)
{
    using P = Parameters<PipeProcessFlags>;
    const std::vector<std::string> kept = {"a", "", "b"};
    const struct {
        const char *name;
        P params;
        std::vector<std::string> want;
    } cases[] = {
        {"empty string ends the list", P("/p", "a", "", "b"), {"/p", "a"}},
        {"vector keeps empty strings", P("/p", kept), {"/p", "a", "", "b"}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.params.argv, c.want) << c.name;
        EXPECT_EQ(c.params.path, c.want[0]) << c.name;
    }
}

// ---------------------------------------------------------------- ProcessLaunch

TEST(ProcessLaunch, InvalidSelectorRejectedBeforeFork)
{
    const struct {
        int in, out, err;
        const char *want;
    } cases[] = {
        {-1, ProcessLaunch::FD_PIPE, ProcessLaunch::FD_INHERIT, "invalid FD for stdin"},
        {ProcessLaunch::FD_SAME_AS_STDOUT, ProcessLaunch::FD_PIPE, ProcessLaunch::FD_INHERIT,
         "invalid FD for stdin"},
        {ProcessLaunch::FD_INHERIT, -1, ProcessLaunch::FD_INHERIT, "invalid FD for stdout"},
        {ProcessLaunch::FD_INHERIT, ProcessLaunch::FD_SAME_AS_STDOUT, ProcessLaunch::FD_INHERIT,
         "invalid FD for stdout"},
        {ProcessLaunch::FD_INHERIT, ProcessLaunch::FD_PIPE, -1, "invalid FD for stderr"},
        {ProcessLaunch::FD_INHERIT, ProcessLaunch::FD_PIPE, -6, "invalid FD for stderr"},
    };
    const std::string before = testsupport::children();
    for (const auto &c : cases) {
        Program s;
        s.argv = {"/bin/true"};
        s.in = c.in;
        s.out = c.out;
        s.err = c.err;
        try {
            start(s);
            ADD_FAILURE() << c.in << "/" << c.out << "/" << c.err << " accepted, want " << c.want;
        } catch (const std::invalid_argument &e) {
            EXPECT_STREQ(e.what(), c.want);
        }
    }
    EXPECT_EQ(testsupport::children(), before) << "a child was forked for a rejected selector";
}

TEST(ProcessLaunch, UnrunnableProgramThrowsFromWaitExecAndIsReaped)
{
    const struct {
        const char *name;
        std::vector<std::string> argv;
        bool searchPath;
        bool withEnv;
        const char *wantStep;
        int wantCode;
    } cases[] = {
        {"missing path", {"/nonexistent/prog"}, false, false, "execv", ENOENT},
        {"missing name on PATH", {"no-such-program-here"}, true, false, "execvp", ENOENT},
        {"missing path with environment", {"/nonexistent/prog"}, false, true, "execve", ENOENT},
        {"directory", {"/"}, false, false, "execv", EACCES},
    };
    for (const auto &c : cases) {
        Program s;
        s.argv = c.argv;
        s.searchPath = c.searchPath;
        if (c.withEnv)
            s.env = std::vector<std::string>{"A=1"};
        auto p = start(s);
        const Caught got = catchWaitExec(*p);
        EXPECT_EQ(got.type, "SystemError") << c.name;
        EXPECT_EQ(got.message, c.wantStep) << c.name;
        EXPECT_EQ(got.code, c.wantCode) << c.name << ": got " << got.code;
        EXPECT_TRUE(alreadyReaped(p->pid())) << c.name << ": the failed child was left a zombie";
        const int status = p->waitExit();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 67)
            << c.name << ": child status " << status << ", want exit 67";
    }
}

TEST(ProcessLaunch, HookFailureComesBackAsItsOwnKind)
{
    const struct {
        const char *name;
        std::function<void()> hook;
        Caught want;
        int wantExit;
    } cases[] = {
        {"runtime_error keeps its message", [] { throw std::runtime_error("hook refused"); },
         {"std::runtime_error", "hook refused"}, 66},
        {"SystemError keeps its errno", [] { throw SystemError("hook step", EACCES); },
         {"SystemError", "hook step", EACCES}, 67},
        {"other std::exception becomes std::exception",
         [] { throw std::logic_error("lost detail"); }, {"std::exception", "std::exception"}, 66},
        {"non-exception becomes unknown error", [] { throw 42; },
         {"std::runtime_error", "unknown error"}, 65},
        {"empty message is named", [] { throw std::runtime_error(""); },
         {"std::runtime_error", "an error in child process"}, 66},
    };
    for (const auto &c : cases) {
        Program s;
        s.argv = {"/bin/true"};
        s.hook = c.hook;
        auto p = start(s);
        const Caught got = catchWaitExec(*p);
        EXPECT_EQ(got.type, c.want.type) << c.name;
        EXPECT_EQ(got.message, c.want.message) << c.name;
        EXPECT_EQ(got.code, c.want.code) << c.name;
        const int status = p->waitExit();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == c.wantExit)
            << c.name << ": child status " << status << ", want exit " << c.wantExit;
    }
}

TEST(ProcessLaunch, UnknownControlRecordsAreShownAsChildOutput)
{
    const std::string longRecord(1500, 'x'); // spans two 1024-byte reads
    const auto r = testsupport::runInChild([&] {
        Program s;
        s.argv = {"/bin/true"};
        s.out = ProcessLaunch::FD_INHERIT;
        // With other descriptors closed, the control pipe is the only one above 2.
        s.closeOtherFds = true;
        s.hook = [&] {
            int fd = 3;
            while (fd < 65536 && fcntl(fd, F_GETFD) < 0)
                ++fd;
            const std::string bytes = std::string("hello", 6) + longRecord + '\0' + "tail";
            if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
                _exit(90);
        };
        try {
            auto p = start(s);
            p->waitExec();
            return p->waitExit() == 0 ? 0 : 2;
        } catch (...) {
            return 3;
        }
    });
    EXPECT_EQ(r.status, 0) << "unknown records must not turn into an error: " << r;
    EXPECT_EQ(r.err, "child output: hello\nchild output: " + longRecord +
                         "\nchild output: tail\n")
        << r;
}

TEST(ProcessLaunch, PipeDescriptorAndSameAsStdoutSelectors)
{
    // The sink has no close-on-exec: only the launcher's close after the
    // dup2 keeps the child from holding a second copy of it.
    int sink[2];
    ASSERT_EQ(pipe(sink), 0);
    Program s;
    s.argv = {kPython, "-c",
              "import os, sys\n"
              "os.write(1, sys.stdin.buffer.read()); os.write(2, b'+err')\n"
              "try:\n    os.fstat(" + std::to_string(sink[1]) + "); os.write(1, b'+leaked')\n"
              "except OSError:\n    pass\n"};
    s.in = ProcessLaunch::FD_PIPE;
    s.out = sink[1];
    s.err = ProcessLaunch::FD_SAME_AS_STDOUT;
    auto p = start(s);
    p->waitExec();
    EXPECT_EQ(close(sink[1]), 0) << "the caller's descriptor was closed by the launch";
    ASSERT_EQ(write(p->stdinFd().get(), "piped", 5), 5);
    p->stdinFd().close();
    EXPECT_EQ(readAll(sink[0]), "piped+err");
    close(sink[0]);
    EXPECT_EQ(p->waitExit(), 0);
}

TEST(ProcessLaunch, LowDescriptorsAreRewiredSafely)
{
    // Each body runs in its own process, so it may rearrange descriptors 0-2;
    // it returns 0 when the launched program's output or error got through.
    const struct {
        const char *name;
        int (*body)();
    } cases[] = {
        {"stdout on fd 0 while stdin becomes /dev/null",
         [] {
             // Wiring stdin first must not clobber the descriptor stdout needs.
             int fds[2];
             if (pipe(fds) != 0 || dup2(fds[1], 0) < 0)
                 return 10;
             close(fds[1]);
             Program s;
             s.argv = {kPython, "-c", "import os; os.write(1, b'reached')"};
             s.in = ProcessLaunch::FD_DEVNULL;
             s.out = 0;
             auto p = start(s);
             p->waitExec();
             close(0);
             const std::string got = readAll(fds[0]);
             p->waitExit();
             return got == "reached" ? 0 : 11;
         }},
        {"own number with close-on-exec stays open",
         [] {
             // fd 1 already is stdout: no dup2 happens, so the flag must be cleared.
             int fds[2];
             if (pipe2(fds, O_CLOEXEC) != 0 || dup3(fds[1], 1, O_CLOEXEC) < 0)
                 return 10;
             close(fds[1]);
             Program s;
             s.argv = {kPython, "-c", "import os; os.write(1, b'kept')"};
             s.out = 1;
             auto p = start(s);
             p->waitExec();
             close(1);
             const std::string got = readAll(fds[0]);
             p->waitExit();
             return got == "kept" ? 0 : 11;
         }},
        {"control pipe on fds 0 and 1",
         [] {
             // The report channel must survive the dup2 onto fd 1, or an exec
             // failure would look like success.
             int fds[2];
             if (pipe(fds) != 0)
                 return 10;
             close(0);
             close(1);
             Program s;
             s.argv = {"/nonexistent/prog"};
             s.out = fds[1];
             auto p = start(s);
             const Caught got = catchWaitExec(*p);
             return got.message == "execv" && got.code == ENOENT ? 0 : 11;
         }},
    };
    for (const auto &c : cases) {
        const auto r = testsupport::runInChild([&] {
            try {
                return c.body();
            } catch (...) {
                return 12;
            }
        });
        EXPECT_EQ(r.status, 0) << c.name << ": " << r;
    }
}

TEST(ProcessLaunch, DirectoryAndSession)
{
    char tmpl[] = "/tmp/proclaunch.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    char *real = realpath(tmpl, nullptr);
    const std::string dir = real;
    free(real);

    Program cwd;
    cwd.argv = {"/bin/pwd"};
    cwd.cwd = dir.c_str();
    EXPECT_EQ(runToEnd(cwd).first, dir + "\n");

    const std::string gone = dir + "/gone";
    cwd.cwd = gone.c_str();
    const Caught got = catchWaitExec(*start(cwd));
    EXPECT_EQ(got.message, "cwd chdir");
    EXPECT_EQ(got.code, ENOENT);
    rmdir(dir.c_str());

    Program session;
    session.argv = {kPython, "-c", "import os; print(os.getsid(0) == os.getpid())"};
    session.newSession = true;
    EXPECT_EQ(runToEnd(session).first, "True\n");
}

TEST(ProcessLaunch, CloseOtherFdsClosesInheritedDescriptor)
{
    // Opened without close-on-exec, as code outside this layer might.
    const int devnull = open("/dev/null", O_RDONLY);
    ASSERT_GE(devnull, 0);
    const int fd = fcntl(devnull, F_DUPFD, 100);
    close(devnull);
    ASSERT_GE(fd, 100);
    const std::string probe = "import os; os.fstat(" + std::to_string(fd) + ")";

    for (const bool closeOthers : {false, true}) {
        Program s;
        s.argv = {kPython, "-c", probe};
        s.closeOtherFds = closeOthers;
        s.err = ProcessLaunch::FD_DEVNULL;
        const int status = runToEnd(s).second;
        // Without the flag the probe must see it, or the check proves nothing.
        EXPECT_EQ(status == 0, !closeOthers)
            << "closeOtherFds=" << closeOthers << ": probe status " << status;
    }
    close(fd);
}

TEST(ProcessLaunch, EnvironmentIsExactlyTheGivenOne)
{
    Program s;
    s.argv = {"/usr/bin/env"};
    s.env = std::vector<std::string>{"A=1", "B=two words"};
    EXPECT_EQ(runToEnd(s).first, "A=1\nB=two words\n");
}

TEST(ProcessLaunch, ControlRecordWireFormat)
{
    PipeEnds p = makePipe("pipe");
    errno = E2BIG;
    writeException(p.write.get(), "SystemError", "execv", true, -12);
    EXPECT_EQ(errno, E2BIG);
    p.write.close();
    EXPECT_EQ(readAll(p.read.get()), bytes("ET: SystemError\0EM: execv\0EC: -12\0"));
}
