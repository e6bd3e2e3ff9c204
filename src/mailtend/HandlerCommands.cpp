#include "mailtend/HandlerCommands.h"

#include "mail/handlers/handlers.h"
#include "mail/handlers/handlers_mass.h"
#include "mailtend/CommandNames.h"
#include "mailtend/ProgramOptionsHelper.h"
#include "utils/UtilityErrorStream.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

namespace po = boost::program_options;

namespace {

#define HANDLER_TYPES "(global|sender|recipient|sender-domain|recipient-domain)"
#define HANDLER_HOOKS "(before-queue|before-local|before-remote)"
#define NAMING "--handler-name=<name> --handler-type=" HANDLER_TYPES \
               " [--handler-type-name=<name>] --hook=" HANDLER_HOOKS
#define NOTE "\n        "
#define TYPE_NAME_NOTE NOTE "--handler-type-name is required for every type except global, and not allowed with it."
#define MISSING_NOTE NOTE "Exit status 1 if the handler does not exist."

const char *const hooks[] = {"before-queue", "before-local", "before-remote"};

struct FreeDeleter {
    void operator()(char *p) const { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

struct Handler {
    std::string tmpl;
    std::string type;  // canonical name
    std::string value; // empty for a global handler
    std::string hook;
};

enum class Kind { Add, Update, Other };

void declare(ProgramOptionsHelper &helper, Kind kind)
{
    const bool add = kind == Kind::Add;
    helper.addOptions()("handler-name", po::value<std::string>(), "handler name", true)(
        "handler-type", po::value<std::string>(), "handler type " HANDLER_TYPES, true)(
        "handler-type-name", po::value<std::string>(), "handler type name");
    if (kind != Kind::Other)
        helper.addOptions()("executable", po::value<std::string>(), "handler executable", add)(
            "context", po::value<std::string>(), "handler context", add);
    helper.addOptions()("hook", po::value<std::string>(), "hook point " HANDLER_HOOKS, true);
    if (kind != Kind::Other)
        helper.addOptions()("priority", po::value<std::string>(), "handler priority", add);
}

// An address keeps its local part; its domain, like a domain, becomes the
// lower-case ASCII form the domain commands use.
std::string normalValue(int type, const std::string &value)
{
    if (type == HANDLER_TYPE_SENDER_DOMAIN || type == HANDLER_TYPE_RECIPIENT_DOMAIN)
        return asciiDomain(value);
    const auto at = value.find('@');
    if (at == std::string::npos)
        return value;
    return value.substr(0, at + 1) + asciiDomain(value.substr(at + 1));
}

Handler parse(ProgramOptionsHelper &helper, int argc, char **argv)
{
    standardOptionsParse(helper, argc, argv);
    const po::variables_map &vm = helper.variables;
    Handler h;
    h.tmpl = vm["handler-name"].as<std::string>();
    const std::string type_text = vm["handler-type"].as<std::string>();
    const int type = get_handler_type(type_text.c_str());
    if (type == HANDLER_TYPE_UNKNOWN)
        optionError(helper, "unknown handler type \"" + type_text +
                           "\" (one of global, sender, recipient, sender-domain, "
                           "recipient-domain)");
    h.type = handler_type_name(type);
    h.hook = vm["hook"].as<std::string>();
    if (std::find(std::begin(hooks), std::end(hooks), h.hook) == std::end(hooks))
        optionError(helper, "unknown hook \"" + h.hook +
                           "\" (one of before-queue, before-local, before-remote)");
    const bool named = vm.count("handler-type-name") != 0;
    if (type == HANDLER_TYPE_GLOBAL && named)
        optionError(helper, "option \"--handler-type-name\" does not apply to handler type \"global\"");
    if (type != HANDLER_TYPE_GLOBAL && !named)
        optionError(helper, "option \"--handler-type-name\" is required for handler type \"" + h.type +
                           "\"");
    if (vm.count("priority") != 0) {
        const std::string priority = vm["priority"].as<std::string>();
        if (priority.empty() || priority.find_first_not_of("0123456789") != std::string::npos)
            optionError(helper, "handler priority \"" + priority + "\" is not a decimal number");
    }
    checkPathComponent("handler name", h.tmpl);
    if (named) {
        h.value = normalValue(type, vm["handler-type-name"].as<std::string>());
        checkPathComponent("handler type name", h.value);
    }
    return h;
}

const char *optional(const ProgramOptionsHelper &helper, const char *name)
{
    return helper.variables.count(name) != 0 ? helper.variables[name].as<std::string>().c_str()
                                             : nullptr;
}

std::string describe(const Handler &h, const char *state)
{
    return "Handler " + h.tmpl + " for " + (h.value.empty() ? "global" : h.value) + " " + state +
           " in queue " + h.hook;
}

CString find(const Handler &h)
{
    return CString(
        get_handler_name(h.tmpl.c_str(), h.type.c_str(), h.value.c_str(), h.hook.c_str()));
}

// The shared shape of the commands acting on one existing handler.
int onExisting(const char *description, const char *usage, int argc, char **argv,
               int (*act)(const char *name))
{
    ProgramOptionsHelper helper(description, usage);
    declare(helper, Kind::Other);
    const Handler h = parse(helper, argc, argv);
    const CString name = find(h);
    if (!name) {
        uerr << describe(h, "does not exist") << std::endl;
        return 1;
    }
    return act(name.get()) < 0 ? 1 : 0;
}

} // namespace

int addHandler(int argc, char **argv)
{
    ProgramOptionsHelper helper(
        "add a mail handler",
        "--add-handler --handler-name=<name> --handler-type=" HANDLER_TYPES
        " [--handler-type-name=<name>] --executable=<handler> --context=<context> --hook=" HANDLER_HOOKS
        " --priority=<number>" TYPE_NAME_NOTE
        NOTE "The handler is added enabled. Exit status 1 if such a handler already exists.");
    declare(helper, Kind::Add);
    const Handler h = parse(helper, argc, argv);
    if (find(h)) {
        uerr << describe(h, "already exists") << std::endl;
        return 1;
    }
    return mail_handler_add(h.tmpl.c_str(), h.type.c_str(), h.value.c_str(),
                            optional(helper, "executable"), optional(helper, "context"),
                            h.hook.c_str(), optional(helper, "priority"),
                            HANDLER_ACTION_ENABLE) == 0
               ? 0
               : 1;
}

int updateHandler(int argc, char **argv)
{
    ProgramOptionsHelper helper(
        "update a mail handler",
        "--update-handler " NAMING
        " [--executable=<handler>] [--context=<context>] [--priority=<number>]" TYPE_NAME_NOTE
        NOTE "Options left out keep the handler's executable, context and priority; it stays"
        NOTE "enabled or disabled as it was." MISSING_NOTE);
    declare(helper, Kind::Update);
    const Handler h = parse(helper, argc, argv);
    return mail_handler_update(h.tmpl.c_str(), h.type.c_str(), h.value.c_str(),
                               optional(helper, "executable"), optional(helper, "context"),
                               h.hook.c_str(), optional(helper, "priority")) == 0
               ? 0
               : 1;
}

int removeHandler(int argc, char **argv)
{
    return onExisting("remove a mail handler",
                      "--remove-handler " NAMING TYPE_NAME_NOTE MISSING_NOTE, argc, argv,
                      [](const char *name) { return mail_handler_remove(name); });
}

int disableHandler(int argc, char **argv)
{
    return onExisting("disable a mail handler",
                      "--disable-handler " NAMING TYPE_NAME_NOTE
                      NOTE "Disabling a disabled handler succeeds." MISSING_NOTE,
                      argc, argv, [](const char *name) {
                          return control_handler_queue(name, HANDLER_ACTION_DISABLE, nullptr);
                      });
}

int enableHandler(int argc, char **argv)
{
    return onExisting("enable a mail handler",
                      "--enable-handler " NAMING TYPE_NAME_NOTE
                      NOTE "Enabling an enabled handler succeeds." MISSING_NOTE,
                      argc, argv, [](const char *name) {
                          return control_handler_queue(name, HANDLER_ACTION_ENABLE, nullptr);
                      });
}

int checkHandler(int argc, char **argv)
{
    ProgramOptionsHelper helper(
        "check whether a mail handler exists",
        "--check-handler " NAMING TYPE_NAME_NOTE
        NOTE "Prints nothing: exit status 0 if the handler exists (enabled or not), 1 if not.");
    declare(helper, Kind::Other);
    const Handler h = parse(helper, argc, argv);
    return find(h) ? 0 : 1;
}

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet
