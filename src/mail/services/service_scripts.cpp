#include "mail/services/service_scripts.h"

#include "utils/ProcessLaunch.h"
#include "utils/product_log.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>
#include <vector>

namespace zarnet {
namespace mail {

int runInitScript(const std::string &path, const std::string &action)
{
    // std::cout shares stdout's buffer
    std::fflush(stdout);

    std::string argv0 = path, argv1 = action, lang = "LANG=C";
    char *const argv[] = {&argv0[0], &argv1[0], nullptr};
    char *const envp[] = {&lang[0], nullptr};
    process::ProcessLaunch launch(argv, path.c_str(), nullptr, envp, false, false, false,
                                  std::function<void()>(), process::ProcessLaunch::FD_DEVNULL,
                                  process::ProcessLaunch::FD_INHERIT,
                                  // the panel reads only standard output
                                  STDOUT_FILENO);
    launch.waitExec();
    const int status = launch.waitExit();
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

} // namespace mail
} // namespace zarnet

namespace {

const char defaultScriptDir[] = "/etc/init.d";
std::string scriptDir = defaultScriptDir;

// On Debian the POP3 and IMAP servers, plain and TLS, are four services.
const char *const courierScripts[] = {"courier-imap", "courier-imap-ssl", "courier-pop",
                                      "courier-pop-ssl"};

bool usableName(const char *name)
{
    return name != nullptr && *name != '\0' && std::strchr(name, '/') == nullptr &&
           std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0;
}

std::vector<std::string> presentScripts(const char *service)
{
    std::vector<const char *> names;
    if (std::strcmp(service, "courier-imap") == 0)
        names.assign(std::begin(courierScripts), std::end(courierScripts));
    else
        names.push_back(service);

    std::vector<std::string> present;
    for (const char *name : names) {
        const std::string path = scriptDir + "/" + name;
        struct stat st;
        if (::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
            present.push_back(path);
    }
    return present;
}

// Runs every script, even after one failed; the first failure counts.
int runAll(const std::vector<std::string> &scripts, const char *action)
{
    int result = 0;
    for (const std::string &path : scripts) {
        int code;
        try {
            code = zarnet::mail::runInitScript(path, action);
        } catch (const std::exception &e) {
            errno = 0;
            messlog2(0, 0, "Unable to run %s %s: %s", path.c_str(), action, e.what());
            code = -1;
        }
        if (result == 0)
            result = code;
    }
    return result;
}

} // namespace

int restart_daemon(const char *service, const char *action)
{
    errno = 0;
    if (!usableName(service)) {
        messlog2(0, 0, "Invalid service name '%s'", service ? service : "");
        return -1;
    }
    if (action == nullptr || *action == '\0') {
        messlog2(0, 0, "No action given for %s", service);
        return -1;
    }
    const std::vector<std::string> scripts = presentScripts(service);
    if (scripts.empty()) {
        errno = 0;
        messlog2(0, 0, "No start/stop script of %s in %s", service, scriptDir.c_str());
        return -1;
    }

    // A script's own restart starts the new server a few milliseconds after
    // telling the old one to go, and the new one then finds the port still
    // taken: every server is stopped before the first is started again.
    if (std::strcmp(action, "restart") == 0) {
        const int stopped = runAll(scripts, "stop");
        const int started = runAll(scripts, "start");
        return stopped != 0 ? stopped : started;
    }
    return runAll(scripts, action);
}

void print_status(const char *name, int status)
{
    if (name != nullptr)
        std::printf("%s ", name);
    std::printf("%s\n", status == 0 ? "is running" : "is stopped");
    std::fflush(stdout);
}

void service_scripts_set_dir_for_testing(const char *dir)
{
    scriptDir = dir ? dir : defaultScriptDir;
}
