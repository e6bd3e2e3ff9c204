// One program run for a delivery: argument vector, fixed environment, the
// message on standard input, a time limit.
//
// The program starts in a session of its own with exactly the given
// environment (no shell, no path search: path is used as given, after the
// change of directory), and is killed should this process die first. Its
// standard output and error are read together; only the first line is
// kept (at most 512 bytes, control characters dropped), the rest is
// discarded so a chatty program never blocks, and reading never holds the
// run past the time limit. At the time limit, and once the program itself
// has ended, its whole process group is killed: nothing it started lingers.
// A program that cannot be started throws a temporary Failure naming it.
#ifndef MAILTEND_TOOLS_DELIVER_RUN_PROGRAM_H
#define MAILTEND_TOOLS_DELIVER_RUN_PROGRAM_H

#include <string>
#include <vector>

namespace deliver {

struct ProgramRun {
    std::string path;
    std::vector<std::string> args; // after argv[0], which is path
    std::vector<std::string> env;  // "NAME=value"
    std::string cwd;               // empty: stay
    int input = -1;                // descriptor for standard input
    unsigned seconds = 60;
};

struct ProgramResult {
    bool timedOut = false;
    bool signalled = false;
    int exitCode = -1; // when it exited
    std::string firstLine;
};

ProgramResult runProgram(const ProgramRun &run);

// The environment every delivery program gets besides its own variables.
const char *const safePath = "PATH=/usr/bin:/bin";

enum class Verdict { Go, Stop };

// The .qmail program conventions: 0 go on; 99 stop, the message counts as
// delivered; 100 a permanent refusal (EX_UNAVAILABLE) whose reason is the
// program's first line, given a 5.7.1 code unless it starts with a 5.x.x
// code of its own; 111, any other status, a signal or the time limit a
// temporary Failure naming `what`.
Verdict judgeProgram(const ProgramResult &result, const std::string &what);

} // namespace deliver

#endif
