// Per-command option sets and their parsing.
//
// runCommand (Command.h) builds one ProgramOptionsHelper per run from the
// command's declaration, declares its options through an OptionAppender
// (mandatory ones flagged), calls standardOptionsParse and hands the helper
// to the handler, which reads the values. standardOptionsParse returns only
// when the arguments parsed and no help was asked for; on help it prints the
// help block and exits 0, on any option error (including a missing mandatory
// option) it prints the error on zarnet::uerr and the help block on standard
// output and exits 1. Nothing may change on disk before it returns.
#ifndef MAILTEND_MAILTEND_PROGRAMOPTIONSHELPER_H
#define MAILTEND_MAILTEND_PROGRAMOPTIONSHELPER_H

#include <boost/program_options.hpp>

#include <forward_list>
#include <string>

namespace zarnet::mail::postfix::mailtend_commands {

class MissingMandatoryOption : public boost::program_options::error {
public:
    explicit MissingMandatoryOption(const std::string &name);
};

class ProgramOptionsHelper {
public:
    class OptionAppender {
    public:
        explicit OptionAppender(ProgramOptionsHelper *helper) : helper_(helper) {}

        OptionAppender &operator()(const char *name, const char *help, bool mandatory = false);
        OptionAppender &operator()(const char *name,
                                   const boost::program_options::value_semantic *semantic,
                                   const char *help, bool mandatory = false);

    private:
        ProgramOptionsHelper *helper_;
    };

    ProgramOptionsHelper(const std::string &description, const std::string &usage);
    ProgramOptionsHelper(const ProgramOptionsHelper &) = delete;
    ProgramOptionsHelper &operator=(const ProgramOptionsHelper &) = delete;

    OptionAppender addOptions() { return OptionAppender(this); }

    // The help block: description, usage line, option list, empty line.
    void printHelp(std::ostream &os) const;

    // Reading parsed values: presence, and the value as its declared type.
    bool has(const char *name) const { return variables.count(name) != 0; }
    template <class T>
    const T &get(const char *name) const
    {
        return variables[name].as<T>();
    }
    const std::string &text(const char *name) const { return get<std::string>(name); }

    // Throws MissingMandatoryOption for the mandatory option declared last
    // among those absent from `variables`.
    void checkMandatory() const;

    boost::program_options::options_description options;
    boost::program_options::variables_map variables;

private:
    std::string description_;
    std::forward_list<std::string> mandatory_;
    std::string usage_;
};

void standardOptionsParse(ProgramOptionsHelper &helper, int argc, char **argv);

// Ends the run as an option error does: the message on zarnet::uerr, the help
// block on standard output, exit status 1. For checks the parser cannot make
// (combinations, values of a closed set).
[[noreturn]] void optionError(const ProgramOptionsHelper &helper, const std::string &message);

} // namespace zarnet::mail::postfix::mailtend_commands

#endif
