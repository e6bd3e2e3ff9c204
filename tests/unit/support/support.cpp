#include "support/background.h"
#include "support/child_capture.h"
#include "support/files.h"
#include "support/named_child.h"
#include "support/postfix_dirs.h"
#include "support/probes.h"
#include "support/temp_dir.h"
#include "support/thrown.h"
#include "mail/postfix/DatabaseHelper.h"
#include "utils/ExSystemError.h"
#include "utils/MKLock.h"
#include "utils/ProcessPipe.h"
#include "utils/file_tree.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <typeinfo>

namespace testsupport {
namespace {

pid_t forkFlushed()
{
    // Unflushed parent output would otherwise be written twice.
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    return pid;
}

int reap(pid_t pid)
{
    int status = -1;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

} // namespace

BackgroundChild::BackgroundChild(const std::function<int()> &body) : pid_(forkFlushed())
{
    if (pid_ == 0) {
        int status = 99;
        try {
            status = body();
        } catch (...) {
        }
        _exit(status);
    }
}

BackgroundChild::~BackgroundChild()
{
    if (!reaped_)
        kill(pid_, SIGKILL), wait();
}

std::string BackgroundChild::wait()
{
    reaped_ = true;
    return exitText(reap(pid_));
}

std::string exitText(int status)
{
    return WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                             : "signal " + std::to_string(WTERMSIG(status));
}

std::string readAll(int fd)
{
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) != 0 && (n > 0 || errno == EINTR);)
        text.append(buf, n > 0 ? static_cast<size_t>(n) : 0);
    return text;
}

std::ostream &operator<<(std::ostream &os, const ChildResult &r)
{
    return os << "{status " << r.status << ", out \"" << r.out << "\", err \"" << r.err << "\"}";
}

ChildResult runInChild(const std::function<int()> &body)
{
    // Files, not pipes: a child writing much to one stream never waits for a reader.
    FILE *files[2] = {std::tmpfile(), std::tmpfile()};
    if (!files[0] || !files[1])
        throw std::runtime_error("cannot capture the child");
    const pid_t pid = forkFlushed();
    if (pid == 0) {
        dup2(fileno(files[0]), 1);
        dup2(fileno(files[1]), 2);
        std::exit(body());
    }
    const int status = reap(pid);
    // Opened anew through /dev/fd, each file is read from its start.
    const auto text = [](FILE *f) { return slurp("/dev/fd/" + std::to_string(fileno(f))); };
    ChildResult r{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), text(files[0]), text(files[1])};
    std::fclose(files[0]), std::fclose(files[1]);
    return r;
}

std::string slurp(const std::string &path)
{
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

void spit(const std::string &path, const std::string &text) { std::ofstream(path, std::ios::binary) << text; }

bool exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

NamedChild::NamedChild(const std::string &name)
{
    int ready[2];
    if (pipe(ready) != 0)
        throw std::runtime_error("pipe");
    if ((pid_ = forkFlushed()) == 0) {
        prctl(PR_SET_NAME, name.c_str(), 0, 0, 0);
        // The parent's read then meets end of file: the name is in place.
        close(ready[1]);
        for (;;)
            pause();
    }
    close(ready[1]);
    readAll(ready[0]);
    close(ready[0]);
}

NamedChild::~NamedChild() { kill(pid_, SIGKILL), reap(pid_); }

bool waitUntilBlocked(pid_t pid, ino_t ino)
{
    // A waiter's line: "N: -> FLOCK  ADVISORY  WRITE PID MAJ:MIN:INODE ...".
    const std::string who = " " + std::to_string(pid) + " ", inode = ":" + std::to_string(ino) + " ";
    for (int i = 0; i < 20000; ++i, usleep(500)) {
        std::istringstream locks(slurp("/proc/locks"));
        for (std::string line; std::getline(locks, line);)
            if (line.find("-> FLOCK ") != line.npos && line.find(inode, line.find(who)) != line.npos)
                return true;
    }
    return false;
}

std::string pattern(std::size_t n, unsigned mul, unsigned add)
{
    std::string s(n, '\0');
    for (std::size_t i = 0; i < n; ++i)
        s[i] = static_cast<char>((i * mul + add) % 251);
    return s;
}

std::string sameBytes(const std::string &got, const std::string &want)
{
    std::size_t i = 0;
    while (i < got.size() && i < want.size() && got[i] == want[i])
        ++i;
    return got == want ? "equal"
                       : "got " + std::to_string(got.size()) + " bytes, want " + std::to_string(want.size()) +
                             ", first difference at " + std::to_string(i);
}

TempDir::TempDir(const std::string &prefix) : path_(::testing::TempDir() + prefix + "-XXXXXX")
{
    if (mkdtemp(&path_[0]) == nullptr)
        throw std::runtime_error("mkdtemp " + path_ + ": " + std::strerror(errno));
}

TempDir::~TempDir() { rm_tree(path_.c_str()); }

std::string thrown(const std::function<void()> &fn)
{
    try {
        fn();
    } catch (const zarnet::SystemError &e) {
        return std::string("SystemError: ") + e.std::runtime_error::what() + " (" + std::to_string(e.code()) + ")";
    } catch (const std::exception &e) {
        const std::type_info &t = typeid(e);
        const char *kind = t == typeid(std::exception)          ? "exception"
                           : t == typeid(std::logic_error)      ? "logic_error"
                           : t == typeid(std::invalid_argument) ? "invalid_argument"
                           : t == typeid(std::runtime_error)    ? "runtime_error"
                                                                : t.name();
        return std::string(kind) + ": " + e.what();
    } catch (...) {
        return "non-exception";
    }
    return "nothing";
}

std::string runProgram(const std::vector<std::string> &argv, int *status, const std::string &input)
{
    using namespace zarnet::process;
    Pipe pipe(Parameters<PipeProcessFlags>(argv[0], std::vector<std::string>(argv.begin() + 1, argv.end())));
    std::string out, err;
    pipe.stdoutChannel().receiver = makeStringReceiver(out);
    pipe.stderrChannel().receiver = makeStringReceiver(err);
    pipe.setInput([&input](std::vector<char> &buf) { return buf.assign(input.begin(), input.end()), false; });
    const int st = pipe.run();
    if (status)
        *status = st;
    return out;
}

PostfixDirs::PostfixDirs()
{
    char tmpl[] = "/tmp/mailtend-postfix-XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    root = tmpl, tables = root + "/tables", locks = root + "/locks", config = root + "/config";
    for (const std::string &d : {tables, locks, config})
        mkdir(d.c_str(), 0755);
    spit(config + "/main.cf", slurp("/etc/postfix/main.cf"));
    settle();
    setenv("MAIL_CONFIG", config.c_str(), 1);
    mk_lock_set_dir_for_testing(locks.c_str());
}

PostfixDirs::~PostfixDirs()
{
    mk_lock_set_dir_for_testing(nullptr);
    unsetenv("MAIL_CONFIG");
    rm_tree(root.c_str());
}

void PostfixDirs::settle() const
{
    const struct timeval past = {time(nullptr) - 5, 0}, both[2] = {past, past};
    utimes((config + "/main.cf").c_str(), both);
}

std::string PostfixDirs::query(const std::string &table, const std::string &key)
{
    std::string value = runProgram({"/usr/sbin/postmap", "-q", key, table});
    if (!value.empty() && value.back() == '\n')
        value.pop_back();
    return value;
}

std::map<std::string, std::string> PostfixDirs::dump(const std::string &table)
{
    std::map<std::string, std::string> records;
    std::istringstream text(runProgram({"/usr/sbin/postmap", "-s", table}));
    for (std::string line; std::getline(text, line);) {
        const std::string::size_type blank = line.find_first_of(" \t");
        records[line.substr(0, blank)] =
            blank == std::string::npos ? "" : line.substr(line.find_first_not_of(" \t", blank));
    }
    return records;
}

void PostfixDirs::create(const std::string &table)
{
    int status = -1;
    runProgram({"/usr/sbin/postmap", "-i", table}, &status);
    if (status != 0)
        throw std::runtime_error("cannot create " + table);
}

CompilerLog::CompilerLog(const std::string &path) : path_(path)
{
    setenv("MAILTEND_COMPILER_LOG", path_.c_str(), 1);
    const char *dir = std::getenv("MAILTEND_TEST_SUPPORT_DIR"); // where a sandbox hides the checkout
    zarnet::mail::postfix::DatabaseHelper::setCompilerPathForTesting(std::string(dir ? dir : MAILTEND_TEST_SUPPORT_DIR) + "/compiler_logger.py");
}

CompilerLog::~CompilerLog()
{
    zarnet::mail::postfix::DatabaseHelper::setCompilerPathForTesting("");
    for (const char *v : {"MAILTEND_COMPILER_LOG", "MAILTEND_PROBE_LOCK", "MAILTEND_COMPILER_FAIL",
                          "MAILTEND_COMPILER_FAIL_RUNS"})
        unsetenv(v);
}

std::vector<std::string> CompilerLog::runs() const
{
    std::vector<std::string> lines;
    std::istringstream in(slurp(path_));
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

} // namespace testsupport
