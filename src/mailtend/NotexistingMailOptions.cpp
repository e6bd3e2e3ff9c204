#include "mailtend/NotexistingMailOptions.h"

namespace po = boost::program_options;

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

void formNotexistingMailOptions(ProgramOptionsHelper &helper)
{
    helper.addOptions()
        ("set-catchall", "set a domain catchall address")
        ("email", po::value<std::string>(), "domain alias name")
        ("set-bounce", "set a domain bounce")
        ("phrase", po::value<std::string>(), "phrase")
        ("set-reject", "set domain reject flag");
}

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet
