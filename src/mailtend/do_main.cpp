#include "mailtend/do_main.h"

#include "mail/auth/mail_database.h"
#include "mailtend/usage.h"
#include "utils/Traceback.h"
#include "utils/UtilityErrorStream.h"

#include <cxxabi.h>

#include <cstdlib>
#include <iostream>
#include <typeinfo>

namespace zarnet::mail::postfix::mailtend_commands {

CommandMapAssigner &CommandMapAssigner::operator()(const std::string &word,
                                                   const Command &command)
{
    map_[word] = &command;
    return *this;
}

void fillCommandMap(CommandMap &map)
{
    CommandMapAssigner assign(map);
    for (std::size_t i = 0; i < command_table_size; ++i) {
        const Command &c = command_table[i];
        if (c.handler == nullptr)
            continue;
        // "-p, --start-smtpd": both words reach the same handler.
        const std::string text(c.text);
        const std::string::size_type comma = text.find(", ");
        if (comma == std::string::npos) {
            assign(text, c);
        } else {
            assign(text.substr(0, comma), c)(text.substr(comma + 2), c);
        }
    }
}

void printFatalError(const std::exception &e)
{
    const char *raw = typeid(e).name();
    int status = 0;
    char *demangled = abi::__cxa_demangle(raw, nullptr, nullptr, &status);
    uerr << "Fatal error: " << (status == 0 && demangled != nullptr ? demangled : raw) << '('
         << e.what() << ')' << std::endl;
    std::free(demangled);
    if (const Traceback *tb = dynamic_cast<const Traceback *>(&e))
        uerr << *tb;
}

int runGuarded(int (*run)(int, char **), int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &e) {
        printFatalError(e);
        return 1;
    } catch (...) {
        uerr << "UNSPECIFIED ERROR OCCURED" << std::endl;
        return 2;
    }
}

} // namespace zarnet::mail::postfix::mailtend_commands

namespace mc = zarnet::mail::postfix::mailtend_commands;

int do_main(int argc, char **argv)
{
    if (argc <= 1) {
        std::cerr << "Error: " << "no command specified" << std::endl;
        mc::usageShort(1, std::cerr);
    }

    mc::CommandMap commands;
    mc::fillCommandMap(commands);

    const auto found = commands.find(argv[1]);
    if (found == commands.end()) {
        std::cerr << "Error: " << "invalid command " << argv[1] << std::endl;
        mc::usageShort(1, std::cerr);
    }

    mailAuthDBSelectStyle(1);
    return mc::runCommand(*found->second, argc - 1, argv + 1);
}
