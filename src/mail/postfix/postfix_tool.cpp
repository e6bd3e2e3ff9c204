#include "mail/postfix/postfix_tool.h"

#include <sys/wait.h>

#include <cstring>

namespace zarnet {
namespace mail {
namespace postfix {

int runPostfixTool(const std::string &path, const std::vector<std::string> &args,
                   const process::InputSource &input, const process::Receiver &out,
                   const process::Receiver &err)
{
    process::Pipe pipe(process::Parameters<process::PipeProcessFlags>(path, args));
    if (input)
        pipe.setInput(input);
    pipe.stdoutChannel().receiver = out;
    pipe.stderrChannel().receiver = err;
    return pipe.run();
}

bool exitedZero(int status)
{
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string failureText(const std::string &output, int status)
{
    if (!WIFSIGNALED(status))
        return output.empty() ? "unknown error" : output;
    const int sig = WTERMSIG(status);
    const char *name = strsignal(sig);
    std::string text = output;
    if (!text.empty() && text.back() != '\n')
        text += '\n';
    return text + "terminated by signal " + std::to_string(sig) + " (" +
           (name != nullptr ? name : "unknown signal") + ")";
}

} // namespace postfix
} // namespace mail
} // namespace zarnet
