#include "mailtend/commands.h"

#include "mail/handlers/handlers.h"
#include "mail/handlers/handlers_mass.h"
#include "mailtend/CommandNames.h"
#include "mailtend/OptionChecks.h"
#include "utils/UtilityErrorStream.h"
#include "utils/mail_validate.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

namespace zarnet::mail::postfix::mailtend_commands {

namespace {

const char *const hooks[] = {"before-queue", "before-local", "before-remote"};
// The store reads priorities as int and keeps a template inside a file name.
const std::size_t max_priority_digits = 9;
const std::size_t max_template = 64;

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

std::string templateProblem(const std::string &tmpl)
{
    if (tmpl.size() > max_template)
        return "is longer than " + std::to_string(max_template) + " bytes";
    for (const char c : tmpl)
        if (!std::isalnum(static_cast<unsigned char>(c)) && std::strchr("._-", c) == nullptr)
            return "holds a character other than letters, digits, '.', '_' and '-'";
    return "";
}

// A missing executable is the store's to report, with the system's reason.
std::string executableProblem(const std::string &path)
{
    if (path.empty() || path.front() != '/')
        return "is not an absolute path";
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 &&
        (!S_ISREG(st.st_mode) || (st.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) == 0))
        return "is not an executable file";
    return "";
}

// The checks of the handler options that the parser cannot make.
Handler handlerArguments(const Args &args)
{
    Handler h;
    h.tmpl = args.text("handler-name");
    refuseValue(args, "handler name", h.tmpl, templateProblem(h.tmpl));
    const std::string &type_text = args.text("handler-type");
    const int type = get_handler_type(type_text.c_str());
    if (type == HANDLER_TYPE_UNKNOWN)
        optionError(args, "unknown handler type \"" + shownValue(type_text) +
                           "\" (one of global, sender, recipient, sender-domain, "
                           "recipient-domain)");
    h.type = handler_type_name(type);
    h.hook = args.text("hook");
    if (std::find(std::begin(hooks), std::end(hooks), h.hook) == std::end(hooks))
        optionError(args, "unknown hook \"" + shownValue(h.hook) +
                           "\" (one of before-queue, before-local, before-remote)");
    const bool named = args.has("handler-type-name");
    if (type == HANDLER_TYPE_GLOBAL && named)
        optionError(args, "option \"--handler-type-name\" does not apply to handler type \"global\"");
    if (type != HANDLER_TYPE_GLOBAL && !named)
        optionError(args, "option \"--handler-type-name\" is required for handler type \"" + h.type +
                           "\"");
    if (args.has("priority")) {
        const std::string &priority = args.text("priority");
        if (priority.empty() || priority.find_first_not_of("0123456789") != std::string::npos)
            optionError(args, "handler priority \"" + shownValue(priority) +
                                   "\" is not a decimal number");
        if (priority.size() > max_priority_digits)
            optionError(args, "handler priority \"" + shownValue(priority) + "\" is too large");
    }
    if (args.has("executable"))
        refuseValue(args, "handler executable", args.text("executable"),
                    executableProblem(args.text("executable")));
    checkPathComponent("handler name", h.tmpl);
    if (named) {
        const std::string &value = args.text("handler-type-name");
        const bool domain = type == HANDLER_TYPE_SENDER_DOMAIN || type == HANDLER_TYPE_RECIPIENT_DOMAIN;
        refuseValue(args, domain ? "domain name" : "mail address", value,
                    domain ? zarnet::validate::domainName(value)
                           : zarnet::validate::mailAddress(value));
        h.value = normalValue(type, value);
        checkPathComponent("handler type name", h.value);
    }
    return h;
}

const char *given(const Args &args, const char *name)
{
    return args.has(name) ? args.text(name).c_str() : nullptr;
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
int onExisting(const Args &args, int (*act)(const char *name))
{
    const Handler h = handlerArguments(args);
    const CString name = find(h);
    if (!name) {
        uerr << describe(h, "does not exist") << std::endl;
        return 1;
    }
    return act(name.get()) < 0 ? 1 : 0;
}

} // namespace

int addHandler(const Args &args)
{
    const Handler h = handlerArguments(args);
    // Held across the lookup and the addition: twins run at once add one.
    const HandlerStoreLock lock;
    if (!lock.held())
        return 1;
    if (find(h)) {
        uerr << describe(h, "already exists") << std::endl;
        return 1;
    }
    return mail_handler_add(h.tmpl.c_str(), h.type.c_str(), h.value.c_str(),
                            given(args, "executable"), given(args, "context"), h.hook.c_str(),
                            given(args, "priority"), HANDLER_ACTION_ENABLE) == 0
               ? 0
               : 1;
}

int updateHandler(const Args &args)
{
    const Handler h = handlerArguments(args);
    return mail_handler_update(h.tmpl.c_str(), h.type.c_str(), h.value.c_str(),
                               given(args, "executable"), given(args, "context"),
                               h.hook.c_str(), given(args, "priority")) == 0
               ? 0
               : 1;
}

int removeHandler(const Args &args)
{
    return onExisting(args, [](const char *name) { return mail_handler_remove(name); });
}

int disableHandler(const Args &args)
{
    return onExisting(args, [](const char *name) {
        return control_handler_queue(name, HANDLER_ACTION_DISABLE, nullptr);
    });
}

int enableHandler(const Args &args)
{
    return onExisting(args, [](const char *name) {
        return control_handler_queue(name, HANDLER_ACTION_ENABLE, nullptr);
    });
}

int checkHandler(const Args &args)
{
    return find(handlerArguments(args)) ? 0 : 1;
}

} // namespace zarnet::mail::postfix::mailtend_commands
