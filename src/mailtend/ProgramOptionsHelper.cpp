#include "mailtend/ProgramOptionsHelper.h"

#include "utils/UtilityErrorStream.h"

#include <cstdlib>
#include <iostream>

namespace po = boost::program_options;

namespace zarnet::mail::postfix::mailtend_commands {

namespace {

const unsigned help_line_length = 80;

// "domain-name" for both "domain-name" and "help,h".
std::string longName(const char *name)
{
    std::string s(name);
    const std::string::size_type comma = s.find(',');
    return comma == std::string::npos ? s : s.substr(0, comma);
}

} // namespace

MissingMandatoryOption::MissingMandatoryOption(const std::string &name)
    : po::error("mandatory option \"--" + name + "\" is not specified")
{
}

ProgramOptionsHelper::ProgramOptionsHelper(const std::string &description,
                                           const std::string &usage)
    : options("Allowed options to " + description, help_line_length),
      description_(description),
      usage_(usage)
{
}

ProgramOptionsHelper::OptionAppender &
ProgramOptionsHelper::OptionAppender::operator()(const char *name, const char *help,
                                                 bool mandatory)
{
    return (*this)(name, nullptr, help, mandatory);
}

ProgramOptionsHelper::OptionAppender &
ProgramOptionsHelper::OptionAppender::operator()(const char *name,
                                                 const po::value_semantic *semantic,
                                                 const char *help, bool mandatory)
{
    std::string text(help);
    if (mandatory) {
        helper_->mandatory_.push_front(longName(name));
        text += " (mandatory)";
    }
    if (semantic != nullptr)
        helper_->options.add_options()(name, semantic, text.c_str());
    else
        helper_->options.add_options()(name, text.c_str());
    return *this;
}

void ProgramOptionsHelper::printHelp(std::ostream &os) const
{
    os << description_ << std::endl;
    os << "Usage: " << usage_ << std::endl;
    os << options << std::endl;
}

void ProgramOptionsHelper::checkMandatory() const
{
    for (const std::string &name : mandatory_)
        if (variables.count(name) == 0)
            throw MissingMandatoryOption(name);
}

void standardOptionsParse(ProgramOptionsHelper &helper, int argc, char **argv)
{
    try {
        helper.addOptions()("help,h", "displays this help message");

        // Unix style, but an abbreviated long name is an unknown option: the
        // panel must never reach a different option than the one it named.
        const int style =
            po::command_line_style::unix_style & ~po::command_line_style::allow_guessing;
        // No positional arguments: a stray word is a surplus value, never ignored.
        const po::positional_options_description no_positional;
        po::store(po::command_line_parser(argc, argv)
                      .options(helper.options)
                      .positional(no_positional)
                      .style(style)
                      .run(),
                  helper.variables);
        po::notify(helper.variables);

        if (helper.variables.count("help") != 0) {
            helper.printHelp(std::cout);
            std::exit(0);
        }
        helper.checkMandatory();
    } catch (const po::error &e) {
        optionError(helper, e.what());
    }
}

void optionError(const ProgramOptionsHelper &helper, const std::string &message)
{
    uerr << message << std::endl;
    helper.printHelp(std::cout);
    std::exit(1);
}

} // namespace zarnet::mail::postfix::mailtend_commands
