// Starting, stopping and watching the mail server through its init script;
// reloading it by a signal to its master process, as the script does.
//
// The server runs when the master process named in the master pid file has
// its queue manager ("qmgr") as a child: the pid file outlives a stop, and
// its pid may since belong to another process. A missing or unreadable pid
// file means not running, never an error.
//
// Results: 0 for success or running; otherwise the script's exit code (255
// when a signal ended it) or 1 for not running. A failing script is only a
// code; a script that cannot be run throws the process layer's SystemError.
#ifndef MAILTEND_MAIL_POSTFIX_SERVICEMANAGER_H
#define MAILTEND_MAIL_POSTFIX_SERVICEMANAGER_H

#include <string>

namespace zarnet {
namespace mail {
namespace postfix {

class ServiceManager {
public:
    static constexpr const char *initScript = "/etc/init.d/postfix";
    static constexpr const char *masterPidFile = "/var/spool/postfix/pid/master.pid";

    // Runs the init script with the action; its output goes to our stdout.
    static int rcCommand(const std::string &action);
    // Checks once, then once a second until waitSeconds have passed.
    static int statusServer(long waitSeconds);
    static int startServer();
    static int stopServer();
    static int restartServer();
    // 0 when the running master was told to reload, 1 when none runs or the
    // signal failed. It returns at once: the master re-reads its files and
    // replaces idle processes after, open sessions end under the old ones.
    static int reloadServer();
    // Sends sig to the running master's children of that command name; how
    // many got it. Nothing runs, nothing is signalled: no error.
    static int signalServerProcesses(const std::string &name, int sig);

    // Tests use their own script and pid file; empty restores the defaults.
    static void setPathsForTesting(const std::string &script, const std::string &pidFile);
};

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
