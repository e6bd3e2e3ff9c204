// The start/stop scripts of the mail services under "/etc/init.d".
//
// A script runs from an argument vector (script, action) with standard
// input on /dev/null, its messages on this program's standard output, and
// an environment of exactly "LANG=C": nothing the panel passed to this
// program, passwords included, reaches it.
//
// "courier-imap" stands for the POP3/IMAP servers as installed: the scripts
// "courier-imap", "courier-imap-ssl", "courier-pop" and "courier-pop-ssl",
// of which those present are run, in that order. Any other service name is
// its own single script.
#ifndef MAILTEND_MAIL_SERVICES_SERVICE_SCRIPTS_H
#define MAILTEND_MAIL_SERVICES_SERVICE_SCRIPTS_H

#include <string>

namespace zarnet {
namespace mail {

// The exit code of "path action", or 255 when a signal ended the script.
// Pending output of this program is flushed first, so its lines keep their
// place among the script's. Throws the process layer's SystemError when the
// script cannot be run.
int runInitScript(const std::string &path, const std::string &action);

} // namespace mail
} // namespace zarnet

// Runs every present script of the service with the action, even after one
// failed; "restart" is "stop" for every script, then "start" for every
// script. Returns 0 when each exited 0 (for "status": each service runs),
// else the first non-zero code; -1 after a message when the names are
// unusable, no script of the service is present or a script could not be
// run.
int restart_daemon(const char *service, const char *action);

// Writes "is running" for status 0 and "is stopped" otherwise, with a line
// feed, after name and a blank when name is not null.
void print_status(const char *name, int status);

// Tests point the script directory elsewhere; null restores "/etc/init.d".
void service_scripts_set_dir_for_testing(const char *dir);

#endif
