// The dispatcher: one run executes exactly one command.
//
// do_main looks the first argument up by exact match among the command words,
// selects the authentication-database style every command works with, and
// returns the handler's status. It ends the process itself (status 1, short
// usage on standard error) when no command or an unknown one is given.
// Exceptions from handlers pass through to main.
#ifndef MAILTEND_MAILTEND_DO_MAIN_H
#define MAILTEND_MAILTEND_DO_MAIN_H

#include "mailtend/command_table.h"

#include <exception>
#include <map>
#include <string>

namespace zarnet::mail::postfix::mailtend_commands {

typedef std::map<std::string, const Command *> CommandMap;

class CommandMapAssigner {
public:
    explicit CommandMapAssigner(CommandMap &map) : map_(map) {}

    // A later assignment of the same word replaces the earlier one.
    CommandMapAssigner &operator()(const std::string &word, const Command &command);

private:
    CommandMap &map_;
};

// Every built command under each of its words.
void fillCommandMap(CommandMap &map);

// The "Fatal error: " line for an exception that reached main, with the
// traceback when the object also records one.
void printFatalError(const std::exception &e);

// main's top-level handler around run: its result, or 1 after a
// std::exception and 2 after anything else, each reported on zarnet::uerr.
int runGuarded(int (*run)(int, char **), int argc, char **argv);

} // namespace zarnet::mail::postfix::mailtend_commands

int do_main(int argc, char **argv);

#endif
