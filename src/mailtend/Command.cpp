#include "mailtend/Command.h"

#include "mailtend/OptionChecks.h"
#include "mailtend/OptionTypes.h"

#include <boost/lexical_cast.hpp>

#include <cstdint>
#include <string>

namespace zarnet::mail::postfix::mailtend_commands {

namespace po = boost::program_options;

namespace {

template <class T>
po::typed_value<T> *withDefault(const Option &option)
{
    po::typed_value<T> *semantic = po::value<T>();
    if (option.defaultText != nullptr)
        semantic->default_value(boost::lexical_cast<T>(option.defaultText), option.defaultText);
    return semantic;
}

const po::value_semantic *semantic(const Option &option)
{
    switch (option.value) {
    case Value::none:
        return nullptr;
    case Value::string:
    case Value::domain:
    case Value::domainList:
    case Value::domainWords:
    case Value::mailname:
    case Value::mailnameList:
    case Value::address:
    case Value::ipAddress:
    case Value::line:
    case Value::lines:
    case Value::fileName:
    case Value::path:
        return withDefault<std::string>(option);
    case Value::int64:
        return withDefault<int64_t>(option);
    case Value::int16:
        return withDefault<int16_t>(option);
    case Value::strings:
        return po::value<std::vector<std::string>>();
    case Value::ipMask:
        return po::value<IPMask>();
    case Value::shortnameFormat:
        return po::value<ShortnameFormat>();
    case Value::mailComponents:
        return selectedMailComponentsValue();
    }
    return nullptr;
}

void declareOptions(ProgramOptionsHelper &helper, const Options &options)
{
    ProgramOptionsHelper::OptionAppender add = helper.addOptions();
    for (const Option &o : options.list())
        add(o.name, semantic(o), o.help, o.presence == mandatory);
}

} // namespace

Options::Options(const char *name, Value value, const char *help, Presence presence,
                 const char *defaultText)
    : list_{{name, value, help, presence, defaultText}}
{
}

Options::Options(std::initializer_list<Options> parts)
{
    for (const Options &part : parts)
        list_.insert(list_.end(), part.list_.begin(), part.list_.end());
}

int runCommand(const Command &command, int argc, char **argv)
{
    if (command.description == nullptr) {
        const ProgramOptionsHelper none("", "");
        return command.handler(none);
    }
    ProgramOptionsHelper helper(command.description, command.usage);
    declareOptions(helper, command.options);
    standardOptionsParse(helper, argc, argv);
    checkValues(helper, command.options);
    return command.handler(helper);
}

} // namespace zarnet::mail::postfix::mailtend_commands
