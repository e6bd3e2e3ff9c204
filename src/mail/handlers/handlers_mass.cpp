#include "mail/handlers/handlers_mass.h"

#include "mail/handlers/handlers.h"
#include "mail/handlers/handlers_internal.h"
#include "utils/liblog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using handlers_internal::NameParts;

namespace {

int summarize(int failures)
{
    if (failures != 0)
        zarnet_log(3, "Some errors was occured in mass hook operation. errors: %i", failures);
    return failures;
}

// Names of the entries of dir of the wanted kind (directories or not),
// sorted; a missing dir is empty; false after "Unable to open dir %s: %s".
bool listDirectory(const std::string &dir, bool directories, std::vector<std::string> &names)
{
    const auto wanted = [&](const dir_walk::Entry &e) {
        struct stat st;
        return e.stat(st) && S_ISDIR(st.st_mode) == directories;
    };
    if (!handlers_internal::readNames(dir, wanted, names)) {
        zarnet_log(3, "Unable to open dir %s: %s", dir.c_str(), std::strerror(errno));
        return false;
    }
    std::sort(names.begin(), names.end());
    return true;
}

// Whether the handler's own parameters place it in this queue; true as well
// when they cannot be read, since nothing is known against it.
bool belongsHere(const std::string &name, const std::string &hook, int type,
                 const std::string &value)
{
    std::string stored_hook, stored_type, stored_value;
    if (!handlers_internal::readParameter(name, "hook", stored_hook, true) ||
        !handlers_internal::readParameter(name, "handler-type", stored_type, true))
        return true;
    const int stored = get_handler_type(stored_type.c_str());
    if (stored == HANDLER_TYPE_UNKNOWN)
        return true;
    if (stored_hook != hook || stored != type)
        return false;
    if (type == HANDLER_TYPE_GLOBAL)
        return true;
    if (!handlers_internal::readParameter(name, stored_type.c_str(), stored_value, true))
        return true;
    return stored_value == value;
}

int checkQueue(const std::string &queue, const std::string &hook, int type,
               const std::string &value)
{
    std::vector<std::string> entries;
    if (!listDirectory(queue, false, entries))
        return -1;
    int result = 0;
    for (const std::string &entry : entries) {
        struct stat st;
        const std::string info = handlers_internal::infoDir() + "/" + entry;
        const bool orphan = ::lstat(info.c_str(), &st) != 0 && errno == ENOENT;
        if (!orphan && belongsHere(entry, hook, type, value))
            continue;
        handlers_internal::markChanged();
        const std::string path = queue + "/" + entry;
        if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
            zarnet_log(3, "Unable to remove hook '%s' from directory '%s': %s", entry.c_str(),
                       queue.c_str(), std::strerror(errno));
            result = -1;
        }
    }
    if (::rmdir(queue.c_str()) == 0)
        handlers_internal::markChanged();
    return result;
}

int checkHook(const std::string &hook)
{
    const std::string &root = handlers_internal::root();
    int result = checkQueue(root + "/" + hook + "/global", hook, HANDLER_TYPE_GLOBAL, "");
    for (int type = HANDLER_TYPE_SENDER; type < HANDLER_TYPE_GLOBAL; ++type) {
        const char *type_name = handler_type_name(type);
        std::vector<std::string> values;
        if (!listDirectory(root + "/" + hook + "/" + type_name, true, values)) {
            result = -1;
            continue;
        }
        for (const std::string &value : values) {
            const std::string queue = root + "/" + hook + "/" + type_name + "/" + value;
            if (!handlers_internal::fitsPath(queue)) {
                zarnet_log(3, "Path %s/%s/%s/%s too long to be stored in the filesystem",
                           root.c_str(), hook.c_str(), type_name, value.c_str());
                result = -1;
                continue;
            }
            if (checkQueue(queue, hook, type, value) != 0)
                result = -1;
        }
    }
    return result;
}

} // namespace

int mail_handler_update(const char *tmpl, const char *type_name, const char *value,
                        const char *executable, const char *context, const char *hook,
                        const char *priority)
{
    handlers_internal::RefreshScope scope;
    if (!scope.held())
        return -1;
    char *found = get_handler_name(tmpl, type_name, value, hook);
    if (found == nullptr) {
        const bool global = get_handler_type(type_name) == HANDLER_TYPE_GLOBAL;
        zarnet_log(3, "Handler %s for %s does not exist in queue %s", tmpl ? tmpl : "",
                   global ? "global" : (value ? value : ""), hook ? hook : "");
        return -1;
    }
    const std::string name(found);
    std::free(found);

    std::string exe;
    if (executable != nullptr && *executable != '\0') {
        struct stat st;
        if (::stat(executable, &st) != 0) {
            zarnet_log(3, "Unable to stat executable '%s': %s", executable,
                       std::strerror(errno));
            return -1;
        }
        exe = executable;
    } else {
        const std::string link = handlers_internal::infoDir() + "/" + name + "/executable";
        if (!handlers_internal::fitsPath(link)) {
            zarnet_log(3, "handler name '%s' is too long to form a valid filesystem object name",
                       name.c_str());
            return -1;
        }
        std::vector<char> target(PATH_MAX);
        const ssize_t n = ::readlink(link.c_str(), target.data(), target.size());
        if (n < 0 || static_cast<size_t>(n) >= target.size()) {
            zarnet_log(4, "Unable to fetch executable link target: %s",
                       std::strerror(n < 0 ? errno : ENAMETOOLONG));
            return -1;
        }
        exe.assign(target.data(), static_cast<size_t>(n));
    }

    std::string new_context;
    if (context != nullptr)
        new_context = context;
    else if (!handlers_internal::readParameter(name, "context", new_context, false))
        return -1;

    NameParts parts;
    if (!handlers_internal::splitName(name, parts)) {
        // Only for the report of what is wrong with the name.
        std::free(get_priority_from_name(name.c_str()));
        return -1;
    }
    const std::string new_priority =
        priority != nullptr && *priority != '\0' ? priority : parts.priority;

    const int active = control_handler_queue(name.c_str(), HANDLER_ACTION_QUERY, nullptr);
    if (active < 0)
        return -1;
    if (mail_handler_add(tmpl, type_name, value, exe.c_str(), new_context.c_str(), hook,
                         new_priority.c_str(),
                         active == 1 ? HANDLER_ACTION_ENABLE : HANDLER_ACTION_QUERY) != 0)
        return -1;
    return mail_handler_remove(name.c_str());
}

int mass_control_handler_queue(const char *tmpl, int action)
{
    handlers_internal::RefreshScope scope;
    if (!scope.held())
        return -1;
    std::vector<std::string> names;
    if (handlers_internal::listHandlers(names) != 0)
        return -1;
    const bool all = std::strcmp(tmpl, "all") == 0;
    int failures = 0;
    for (const std::string &name : names) {
        if (!all) {
            NameParts parts;
            if (!handlers_internal::splitName(name, parts) || parts.tmpl != tmpl)
                continue;
        }
        if (control_handler_queue(name.c_str(), action, nullptr) < 0)
            ++failures;
    }
    return summarize(failures);
}

int mass_control_handler_by_mailname(const char *name, const char *new_name, int action)
{
    handlers_internal::RefreshScope scope;
    if (!scope.held())
        return -1;
    std::vector<std::string> names;
    if (handlers_internal::listHandlers(names) != 0)
        return -1;
    int failures = 0;
    for (const std::string &handler : names) {
        std::string type_text, value;
        if (!handlers_internal::readParameter(handler, "handler-type", type_text, false) ||
            get_handler_type(type_text.c_str()) == HANDLER_TYPE_UNKNOWN) {
            zarnet_log(3, "Unable to get type of handler: %s\n", handler.c_str());
            ++failures;
            continue;
        }
        if (get_handler_type(type_text.c_str()) == HANDLER_TYPE_GLOBAL)
            continue;
        if (!handlers_internal::readParameter(handler, type_text.c_str(), value, false)) {
            zarnet_log(3, "Unable to get mailname from handler: %s\n", handler.c_str());
            ++failures;
            continue;
        }
        // The handlers of a domain's addresses follow the domain.
        const auto at = value.rfind('@');
        const bool exact = value == name;
        if (!exact && (at == std::string::npos ||
                       value.compare(at + 1, std::string::npos, name) != 0))
            continue;
        std::string new_value;
        const char *new_value_arg = new_name;
        if (!exact && new_name != nullptr) {
            new_value = value.substr(0, at) + "@" + new_name;
            new_value_arg = new_value.c_str();
        }
        if (control_handler_queue(handler.c_str(), action, new_value_arg) < 0) {
            zarnet_log(3, "Unable to exec action for handler: %s\n", handler.c_str());
            ++failures;
        }
    }
    return summarize(failures);
}

int mail_handler_check_all()
{
    handlers_internal::RefreshScope scope;
    if (!scope.held())
        return -1;
    std::vector<std::string> hooks;
    if (!listDirectory(handlers_internal::root(), true, hooks))
        return -1;
    int result = 0;
    for (const std::string &hook : hooks) {
        // Not hooks: the information directory and the installed executables.
        if (hook == "info" || hook == "hooks")
            continue;
        if (checkHook(hook) != 0)
            result = -1;
    }
    return result;
}
