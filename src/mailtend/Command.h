// A command declared once, as data.
//
// A Command carries everything the tool knows about one command: its words
// and help-table texts, the description and usage line of its own help
// block, its options and its handler. runCommand builds the
// ProgramOptionsHelper from it, declares the options in order, runs
// standardOptionsParse (which ends the run on "--help" and on option errors),
// checks the values of the checked kinds (an option error on refusal) and
// then hands the handler the parsed values. Handlers never parse; a
// check the parser cannot make goes through optionError.
#ifndef MAILTEND_MAILTEND_COMMAND_H
#define MAILTEND_MAILTEND_COMMAND_H

#include "mailtend/ProgramOptionsHelper.h"

#include <initializer_list>
#include <vector>

namespace zarnet::mail::postfix::mailtend_commands {

// What an option takes on the command line. The kinds after "string" are
// strings too (read with Args::text), each checked by checkValues before the
// handler runs.
enum class Value {
    none,            // a switch
    string,
    domain,          // a domain name
    domainList,      // domain names joined by ", "
    domainWords,     // domain names separated by blanks, tabs and commas
    mailname,
    mailnameList,    // mailnames joined by ", "
    address,         // a mail address
    ipAddress,       // a plain IPv4 or IPv6 address
    line,            // one line of free text
    lines,           // free text that may span lines (no other control character)
    fileName,        // one line naming a file, at most NAME_MAX bytes
    path,            // one line naming a path, shorter than PATH_MAX
    int64,
    int16,
    strings,         // list of strings; every occurrence adds to it
    ipMask,          // IPMask
    shortnameFormat, // ShortnameFormat
    mailComponents,  // SelectedMailComponents; repeatable, words accumulate
};

enum Presence { optional, mandatory };

struct Option {
    const char *name; // long name, optionally ",x" with a one-letter short name
    Value value;
    const char *help;
    Presence presence;
    // The default in the value's text form (string and integer values
    // only); the help list shows it. Null: no default.
    const char *defaultText;
};

// Options in declaration (and help) order: one option, or several options
// and shared groups joined, so a group is declared once and spliced in
// wherever a command uses it.
class Options {
public:
    Options() = default;
    Options(const char *name, Value value, const char *help, Presence presence = optional,
            const char *defaultText = nullptr);
    Options(std::initializer_list<Options> parts);

    const std::vector<Option> &list() const { return list_; }

private:
    std::vector<Option> list_;
};

// The parsed values a handler reads (and hands to optionError).
typedef ProgramOptionsHelper Args;
typedef int (*CommandHandler)(const Args &args);

struct Command {
    // The help-table texts: the command as printed ("-p, --start-smtpd":
    // both words are command words), its syntax and its description.
    const char *text;
    const char *syntax;
    const char *summary;
    // Null: listed in the help texts, but its words are not commands yet.
    CommandHandler handler = nullptr;
    // The command's own help block and options. A null description: the
    // command has no option set and ignores its arguments.
    const char *description = nullptr;
    const char *usage = nullptr;
    Options options = {};
};

// Parses argv (argv[0] is the command word) against the command's options
// and returns the handler's status.
int runCommand(const Command &command, int argc, char **argv);

} // namespace zarnet::mail::postfix::mailtend_commands

#endif
