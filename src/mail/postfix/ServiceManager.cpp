#include "mail/postfix/ServiceManager.h"

#include "mail/services/service_scripts.h"
#include "utils/FdOwner.h"
#include "utils/proc_status.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fstream>
#include <vector>

namespace zarnet {
namespace mail {
namespace postfix {

namespace {

std::string scriptPath = ServiceManager::initScript;
std::string pidFilePath = ServiceManager::masterPidFile;

pid_t readMasterPid()
{
    std::ifstream in(pidFilePath);
    long pid = -1;
    if (!(in >> pid) || pid <= 0)
        return -1;
    return static_cast<pid_t>(pid);
}

bool queueManagerRuns(pid_t master)
{
    return process::walkChildren(master, [](pid_t, pid_t, const std::string &name) {
        return name == "qmgr";
    });
}

void sleepOneSecond()
{
    timespec left = {1, 0};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

// For a reload the master may also be between queue managers: right after
// a reload the old one has left and the new one is not started yet.
bool masterRuns(pid_t master)
{
    pid_t parent = 0;
    std::string name;
    if (process::readProcess(master, parent, name) && name == "master")
        return true;
    return queueManagerRuns(master);
}

} // namespace

int ServiceManager::rcCommand(const std::string &action)
{
    return runInitScript(scriptPath, action);
}

int ServiceManager::statusServer(long waitSeconds)
{
    for (long attempt = 0;; ++attempt) {
        const pid_t master = readMasterPid();
        if (master != -1 && queueManagerRuns(master))
            return 0;
        if (attempt >= waitSeconds)
            return 1;
        sleepOneSecond();
    }
}

int ServiceManager::startServer()
{
    if (statusServer(0) == 0)
        return 0;
    const int code = rcCommand("start");
    return code != 0 ? code : statusServer(5);
}

int ServiceManager::stopServer()
{
    if (statusServer(0) != 0)
        return 0;
    return rcCommand("stop");
}

int ServiceManager::restartServer()
{
    const int code = rcCommand("restart");
    return code != 0 ? code : statusServer(5);
}

// The init script's reload checks that the master runs and sends it SIGHUP;
// so does this, without the Postfix programs the script runs on the way (they
// add a process chain and wait while main.cf is young). The queue structure
// checks the script also runs only matter after queue layout changes, which
// the tool never makes.
int ServiceManager::reloadServer()
{
    const pid_t master = readMasterPid();
    if (master == -1)
        return 1;
    // Held before the check, so a pid reused after it cannot be signalled.
    // Where the call is missing or filtered (old kernels, container system
    // call filters) the plain signal still has to go out.
    process::FdOwner handle(static_cast<int>(::syscall(SYS_pidfd_open, master, 0)));
    if (!handle.valid() && errno == ESRCH)
        return 1;
    if (!masterRuns(master))
        return 1;
    const long sent = handle.valid()
                          ? ::syscall(SYS_pidfd_send_signal, handle.get(), SIGHUP, nullptr, 0)
                          : ::kill(master, SIGHUP);
    return sent == 0 ? 0 : 1;
}

int ServiceManager::signalServerProcesses(const std::string &name, int sig)
{
    const pid_t master = readMasterPid();
    if (master == -1)
        return 0;
    std::vector<pid_t> found;
    process::walkChildren(master, [&](pid_t pid, pid_t, const std::string &comm) {
        if (comm == name)
            found.push_back(pid);
        return false;
    });
    int signalled = 0;
    for (const pid_t pid : found)
        if (::kill(pid, sig) == 0)
            ++signalled;
    return signalled;
}

void ServiceManager::setPathsForTesting(const std::string &script, const std::string &pidFile)
{
    scriptPath = script.empty() ? initScript : script;
    pidFilePath = pidFile.empty() ? masterPidFile : pidFile;
}

} // namespace postfix
} // namespace mail
} // namespace zarnet
