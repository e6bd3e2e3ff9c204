#include "tools/setup/run_tool.h"

#include "mail/postfix/postfix_tool.h"

#include <stdexcept>

namespace zarnet {
namespace setup {

void runTool(const std::string &path, const std::vector<std::string> &args)
{
    namespace pf = mail::postfix;
    std::string output;
    const process::Receiver collect = process::makeStringReceiver(output);
    const int status = pf::runPostfixTool(path, args, process::InputSource(), collect, collect);
    if (!pf::exitedZero(status)) {
        std::string text = pf::failureText(output, status);
        while (!text.empty() && text.back() == '\n')
            text.pop_back();
        throw std::runtime_error(path + " failed: " + text);
    }
}

} // namespace setup
} // namespace zarnet
