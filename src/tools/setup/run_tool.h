// Running a system administration program (useradd and its kin) by
// argument vector. A failure throws std::runtime_error naming the program
// with what it printed; one that cannot be started throws the process
// layer's SystemError.
#ifndef MAILTEND_TOOLS_SETUP_RUN_TOOL_H
#define MAILTEND_TOOLS_SETUP_RUN_TOOL_H

#include <string>
#include <vector>

namespace zarnet {
namespace setup {

void runTool(const std::string &path, const std::vector<std::string> &args);

} // namespace setup
} // namespace zarnet

#endif
