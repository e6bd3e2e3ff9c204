#include "tools/deliver/run_program.h"

#include "tools/deliver/outcome.h"
#include "utils/ProcessLaunch.h"
#include "utils/fd_io.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>

namespace deliver {

namespace {

const std::size_t kept_line = 512;

double now()
{
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void keep(std::string &line, bool &lineDone, const char *data, ssize_t n)
{
    for (ssize_t i = 0; i < n && !lineDone; ++i) {
        const unsigned char c = static_cast<unsigned char>(data[i]);
        if (c == '\n' || line.size() >= kept_line)
            lineDone = true;
        else if (c >= 0x20 && c != 0x7f)
            line += static_cast<char>(c);
    }
}

} // namespace

ProgramResult runProgram(const ProgramRun &run)
{
    using zarnet::process::ProcessLaunch;
    std::vector<std::string> argv{run.path};
    argv.insert(argv.end(), run.args.begin(), run.args.end());
    std::vector<char *> cargv, cenv;
    for (const std::string &a : argv)
        cargv.push_back(const_cast<char *>(a.c_str()));
    cargv.push_back(nullptr);
    for (const std::string &e : run.env)
        cenv.push_back(const_cast<char *>(e.c_str()));
    cenv.push_back(nullptr);

    ProgramResult result;
    std::unique_ptr<ProcessLaunch> child;
    const pid_t parent = ::getpid();
    // No program outlives the run: a program left behind by a killed or
    // finished delivery could still write into its mailbox.
    const std::function<void()> tieToParent = [parent] {
        if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent)
            ::_exit(EX_TEMPFAIL);
    };
    try {
        child.reset(new ProcessLaunch(cargv.data(), run.path.c_str(),
                                      run.cwd.empty() ? nullptr : run.cwd.c_str(), cenv.data(),
                                      true, false, true, tieToParent, run.input,
                                      ProcessLaunch::FD_PIPE, ProcessLaunch::FD_SAME_AS_STDOUT));
        child->waitExec();
    } catch (const std::exception &e) {
        throw temporary("cannot run " + run.path + ": " + e.what());
    }
    const pid_t pid = child->pid();
    const int out = child->stdoutFd().get();
    ::fcntl(out, F_SETFL, ::fcntl(out, F_GETFL) | O_NONBLOCK);

    const double deadline = now() + run.seconds;
    bool lineDone = false, open = true, reaped = false;
    int status = 0;
    char buffer[4096];
    while (!reaped) {
        if (now() >= deadline) {
            ::kill(-pid, SIGKILL);
            fd_io::retry_eintr([&] { return ::waitpid(pid, &status, 0); });
            result.timedOut = true;
            return result;
        }
        if (open) {
            pollfd p{out, POLLIN, 0};
            ::poll(&p, 1, 50);
            // One read a cycle: a program that never stops writing still
            // meets the deadline check above.
            const ssize_t n = ::read(out, buffer, sizeof buffer);
            if (n > 0)
                keep(result.firstLine, lineDone, buffer, n);
            else if (n == 0)
                open = false;
        } else {
            ::poll(nullptr, 0, 20);
        }
        const pid_t got = fd_io::retry_eintr([&] { return ::waitpid(pid, &status, WNOHANG); });
        reaped = got == pid;
        if (got < 0) {
            const int saved = errno;
            ::kill(-pid, SIGKILL);
            throw temporary("cannot wait for " + run.path + ": " + std::strerror(saved));
        }
    }
    // The session is the program's alone: whatever it left running goes too.
    ::kill(-pid, SIGKILL);
    // What it wrote just before it ended, bounded: the pipe may still hold a
    // lot.
    for (int i = 0; open && i < 16; ++i) {
        const ssize_t n = ::read(out, buffer, sizeof buffer);
        if (n <= 0)
            break;
        keep(result.firstLine, lineDone, buffer, n);
    }
    if (WIFSIGNALED(status))
        result.signalled = true;
    else
        result.exitCode = WEXITSTATUS(status);
    return result;
}

} // namespace deliver

namespace deliver {

namespace {

bool hasPermanentCode(const std::string &line)
{
    return line.size() > 6 && line[0] == '5' && line[1] == '.' && std::isdigit(
               static_cast<unsigned char>(line[2])) && line.find(' ') != std::string::npos;
}

} // namespace

Verdict judgeProgram(const ProgramResult &result, const std::string &what)
{
    if (result.timedOut)
        throw temporary(what + " timed out");
    if (result.signalled)
        throw temporary(what + " was killed by a signal");
    switch (result.exitCode) {
    case 0:
        return Verdict::Go;
    case 99:
        return Verdict::Stop;
    case 100:
        if (hasPermanentCode(result.firstLine))
            throw Failure(EX_UNAVAILABLE, result.firstLine);
        throw Failure(EX_UNAVAILABLE,
                      "5.7.1 " + (result.firstLine.empty() ? "Message refused" : result.firstLine));
    default:
        throw temporary(what + " failed with status " + std::to_string(result.exitCode) +
                        (result.firstLine.empty() ? "" : ": " + result.firstLine));
    }
}

} // namespace deliver
