// Running one Postfix command-line tool: an argument vector (never a shell),
// optional standard input, each output stream handed to a receiver (unset:
// inherited). Returns the raw wait status; a tool that cannot be started
// throws the process layer's SystemError.
#ifndef MAILTEND_MAIL_POSTFIX_POSTFIX_TOOL_H
#define MAILTEND_MAIL_POSTFIX_POSTFIX_TOOL_H

#include "utils/ProcessPipe.h"

#include <string>
#include <vector>

namespace zarnet {
namespace mail {
namespace postfix {

int runPostfixTool(const std::string &path, const std::vector<std::string> &args,
                   const process::InputSource &input, const process::Receiver &out,
                   const process::Receiver &err);

// Ended by exit status 0 (not by a signal).
bool exitedZero(int status);

// The message of a failed tool run: what it said, or "unknown error". With
// the run's wait status, a tool ended by a signal says so after its output:
// "terminated by signal 9 (Killed)".
std::string failureText(const std::string &output, int status);

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
