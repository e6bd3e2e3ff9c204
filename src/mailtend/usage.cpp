#include "mailtend/usage.h"

#include "mailtend/command_table.h"
#include "mailtend/commands.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

namespace zarnet::mail::postfix::mailtend_commands {

namespace {

// Help that did not reach its reader is a failure too.
[[noreturn]] void finish(int status, std::ostream &os)
{
    os.flush();
    std::exit(os ? status : 1);
}

} // namespace

void writeUsageShort(std::ostream &os)
{
    os << "Usage: mailtend <COMMAND> <COMMAND OPTIONS...>" << std::endl
       << "\t for a complete list of commands use ``mailtend --help-commands''" << std::endl
       << "\t for help on syntax for a particular command use ``mailtend <COMMAND> --help''"
       << std::endl
       << "\t for legacy complete help use ``mailtend --help-legacy''" << std::endl;
}

void writeUsageCommands(std::ostream &os)
{
    std::size_t width = 0;
    for (std::size_t i = 0; i < command_table_size; ++i)
        width = std::max(width, std::strlen(command_table[i].text));
    width += 2;

    os << "Mailtend commands:" << std::endl;
    for (std::size_t i = 0; i < command_table_size; ++i) {
        const Command &e = command_table[i];
        const std::size_t len = std::strlen(e.text);
        os << e.text << std::string(width - len, ' ') << e.summary << std::endl;
    }
}

void writeUsageLegacy(std::ostream &os)
{
    os << "Usage: mailtend [OPTIONS]... " << std::endl;
    for (std::size_t i = 0; i < command_table_size; ++i) {
        const Command &e = command_table[i];
        os << "  " << e.text << ' ' << e.syntax << std::endl
           << "        " << e.summary << std::endl;
    }
}

void usageShort(int status, std::ostream &os)
{
    writeUsageShort(os);
    finish(status, os);
}

void usageCommands(int status, std::ostream &os)
{
    writeUsageCommands(os);
    finish(status, os);
}

void usageLegacy(int status, std::ostream &os)
{
    writeUsageLegacy(os);
    finish(status, os);
}

} // namespace zarnet::mail::postfix::mailtend_commands

namespace mc = zarnet::mail::postfix::mailtend_commands;

int usageShortCmd(const mc::Args &)
{
    mc::usageShort(0, std::cout);
}

int usageCommandsCmd(const mc::Args &)
{
    mc::usageCommands(0, std::cout);
}

int usageLegacyCmd(const mc::Args &)
{
    mc::usageLegacy(0, std::cout);
}
