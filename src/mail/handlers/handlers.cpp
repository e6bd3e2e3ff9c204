#include "mail/handlers/handlers.h"

#include "mail/handlers/handlers_internal.h"
#include "utils/MKLock.h"
#include "utils/fd_io.h"
#include "utils/file_tree.h"
#include "utils/fork_exec.h"
#include "utils/liblog.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

const char *const installed_root = "/usr/local/zrn/handlers";
const char *const installed_refresh = "/usr/lib/zarnet-9.0/handlers-tmpfs";

std::string g_root = installed_root;
std::string g_refresh = installed_refresh;

int g_scope_depth = 0;
bool g_refresh_pending = false;
int g_lock_depth = 0;
lock_struct_t *g_lock = nullptr;

const char *const type_names[] = {"sender", "recipient", "sender-domain", "recipient-domain",
                                  "global"};

char *duplicate(const std::string &s)
{
    char *copy = ::strdup(s.c_str());
    if (copy == nullptr)
        zarnet_log(3, "Insufficient memory");
    return copy;
}

// One level of a path: queue directories are named after these values.
bool nameable(const std::string &s)
{
    return !s.empty() && s != "." && s != ".." && s.find('/') == std::string::npos;
}

// mkdir -p; directories it creates get exactly mode, whatever the umask.
bool makeDirectories(const std::string &path, mode_t mode)
{
    std::string::size_type pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        const std::string prefix = path.substr(0, pos);
        if (::mkdir(prefix.c_str(), mode) == 0) {
            if (::chmod(prefix.c_str(), mode) != 0)
                return false;
        } else if (errno != EEXIST) {
            return false;
        }
    }
    struct stat st;
    if (::stat(path.c_str(), &st) != 0)
        return false;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

bool createEmptyFile(const std::string &path)
{
    const int fd = fd_io::open_retry(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW, 0644);
    if (fd < 0)
        return false;
    const bool ok = ::fchmod(fd, 0644) == 0;
    return fd_io::close_fd(fd) == 0 && ok;
}

std::string queueDirectory(int type, const std::string &hook, const std::string &value)
{
    if (type == HANDLER_TYPE_GLOBAL)
        return g_root + "/" + hook + "/global";
    return g_root + "/" + hook + "/" + type_names[type] + "/" + value;
}

int removeHandlerFiles(const char *name);

// The new handler has the old one's template, priority, hook, type, context
// and executable; it is enabled, or for a re-assignment as active as before.
int cloneHandler(const char *name, int type, const std::string &hook, const char *new_value,
                 bool keep_state)
{
    using handlers_internal::NameParts;
    const std::string link = handlers_internal::infoDir() + "/" + name + "/executable";
    if (!handlers_internal::fitsPath(link)) {
        zarnet_log(3, "HandlerName '%s' is too long to form a valid hook filename", name);
        return -1;
    }
    char *executable = ::realpath(link.c_str(), nullptr);
    if (executable == nullptr) {
        zarnet_log(3, "Unable to get executable file name for handler\n");
        return -1;
    }
    std::string exe(executable);
    std::free(executable);
    std::string context;
    NameParts parts;
    if (!handlers_internal::readParameter(name, "context", context, false) ||
        !handlers_internal::splitName(name, parts))
        return -1;
    int action = HANDLER_ACTION_ENABLE;
    if (keep_state && control_handler_queue(name, HANDLER_ACTION_QUERY, nullptr) != 1)
        action = HANDLER_ACTION_QUERY;
    return mail_handler_add(parts.tmpl.c_str(), type_names[type], new_value, exe.c_str(),
                            context.c_str(), hook.c_str(), parts.priority.c_str(), action);
}

int removeHandlerFiles(const char *name)
{
    const int disabled = control_handler_queue(name, HANDLER_ACTION_DISABLE, nullptr);
    const std::string dir = handlers_internal::infoDir() + "/" + name;
    if (!handlers_internal::fitsPath(dir)) {
        zarnet_log(3, "handler name is too long to form a valid filesystem object name");
        return -1;
    }
    // A handler whose parameters are unreadable cannot be disabled; it is
    // still removed, and the failure reported.
    handlers_internal::markChanged();
    if (rm_tree(dir.c_str()) != 0)
        return -1;
    return disabled;
}

} // namespace

HandlerStoreLock::HandlerStoreLock()
{
    if (g_lock_depth == 0) {
        g_lock = mk_held_lock(g_root.c_str(), 1);
        if (g_lock == nullptr) {
            zarnet_log(3, "Unable to lock the handler store %s: %s", g_root.c_str(),
                       std::strerror(errno));
            return;
        }
    }
    ++g_lock_depth;
    held_ = true;
}

HandlerStoreLock::~HandlerStoreLock()
{
    if (held_ && --g_lock_depth == 0) {
        const int saved = errno;
        rm_lock(std::exchange(g_lock, nullptr));
        errno = saved;
    }
}

namespace handlers_internal {

const std::string &root()
{
    return g_root;
}

std::string infoDir()
{
    return g_root + "/info";
}

bool fitsPath(const std::string &path)
{
    return path.size() < PATH_MAX;
}

RefreshScope::RefreshScope()
{
    ++g_scope_depth;
}

RefreshScope::~RefreshScope()
{
    if (--g_scope_depth == 0 && g_refresh_pending) {
        g_refresh_pending = false;
        const int saved = errno;
        tmpfs_handlers_refresh();
        errno = saved;
    }
}

void markChanged()
{
    g_refresh_pending = true;
}

bool readNames(const std::string &dir, const std::function<bool(const dir_walk::Entry &)> &keep,
               std::vector<std::string> &names)
{
    const int fd = fd_io::open_retry(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK);
    if (fd < 0)
        return errno == ENOENT;
    return dir_walk::all_visited(dir_walk::each_entry(fd, [&](const dir_walk::Entry &e) {
        if (!keep || keep(e))
            names.emplace_back(e.name);
        return true;
    }));
}

int listHandlers(std::vector<std::string> &names)
{
    const std::string dir = infoDir();
    if (!readNames(dir, nullptr, names)) {
        zarnet_log(3, "Unable to open directory %s: %s", dir.c_str(), std::strerror(errno));
        return -1;
    }
    // Names that do not split go last, without a report for every pair.
    std::stable_sort(names.begin(), names.end(), [](const std::string &a, const std::string &b) {
        NameParts pa, pb;
        const bool sa = splitName(a, pa), sb = splitName(b, pb);
        if (sa != sb)
            return sa;
        if (!sa)
            return a < b;
        return handlers_compare(a.c_str(), b.c_str()) < 0;
    });
    return 0;
}

bool readParameter(const std::string &name, const char *parameter, std::string &value,
                   bool quiet)
{
    const std::string path = infoDir() + "/" + name + "/" + parameter;
    if (!fitsPath(path)) {
        if (!quiet)
            zarnet_log(3,
                       "either handler name '%s' or param '%s' are too long to be stored in "
                       "the filesystem",
                       name.c_str(), parameter);
        return false;
    }
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) {
        if (!quiet)
            zarnet_log(3, "No such parameter '%s' for handler '%s'", parameter, name.c_str());
        return false;
    }
    errno = 0;
    FILE *f = std::fopen(path.c_str(), "re");
    char *line = nullptr;
    size_t size = 0;
    ssize_t n = -1;
    int read_errno = errno;
    if (f != nullptr) {
        n = ::getline(&line, &size, f);
        read_errno = errno;
        std::fclose(f);
    }
    if (n < 0) {
        std::free(line);
        errno = read_errno;
        if (errno == ENOMEM)
            zarnet_log(3, "Unable to allocate sufficient memory: %s", std::strerror(errno));
        else if (!quiet)
            zarnet_log(3, "Unable to get string from file: %s\n", path.c_str());
        return false;
    }
    if (n > 0 && line[n - 1] == '\n')
        line[n - 1] = '\0';
    value = line;
    std::free(line);
    return true;
}

bool splitName(const std::string &name, NameParts &parts)
{
    const auto first = name.find('-');
    const auto last = name.rfind('-');
    if (first == std::string::npos || first == 0 || last - first < 2 ||
        last + 1 == name.size())
        return false;
    parts.priority = name.substr(0, first);
    parts.tmpl = name.substr(first + 1, last - first - 1);
    parts.random = name.substr(last + 1);
    return true;
}

} // namespace handlers_internal

using handlers_internal::NameParts;

int get_handler_type(const char *type_name)
{
    if (type_name == nullptr)
        return HANDLER_TYPE_UNKNOWN;
    for (int i = 0; i < 5; ++i)
        if (::strcasecmp(type_name, type_names[i]) == 0)
            return i;
    return HANDLER_TYPE_UNKNOWN;
}

const char *handler_type_name(int type)
{
    return type >= 0 && type < 5 ? type_names[type] : nullptr;
}

namespace {

// Splits with the report of what is wrong with the name.
bool splitReported(const char *name, NameParts &parts)
{
    if (handlers_internal::splitName(name, parts))
        return true;
    const std::string n(name);
    const auto first = n.find('-');
    if (first == std::string::npos || first == 0)
        zarnet_log(3, "Invalid handler name '%s': missing priority section", name);
    else if (n.rfind('-') - first < 2)
        zarnet_log(3, "Invalid handler name '%s': empty template part", name);
    else
        zarnet_log(3, "Invalid handler name '%s': missing random part", name);
    return false;
}

} // namespace

char *get_priority_from_name(const char *name)
{
    NameParts parts;
    return splitReported(name, parts) ? duplicate(parts.priority) : nullptr;
}

char *get_template_from_name(const char *name)
{
    NameParts parts;
    return splitReported(name, parts) ? duplicate(parts.tmpl) : nullptr;
}

char *get_handler_parameter(const char *name, const char *parameter)
{
    std::string value;
    if (!handlers_internal::readParameter(name, parameter, value, false))
        return nullptr;
    return duplicate(value);
}

char *get_handler_name(const char *tmpl, const char *type_name, const char *value,
                       const char *hook)
{
    if (tmpl == nullptr || type_name == nullptr || value == nullptr || hook == nullptr) {
        zarnet_log(3, "Some parameter(s) were not defined");
        return nullptr;
    }
    const int type = get_handler_type(type_name);
    std::vector<std::string> names;
    if (handlers_internal::listHandlers(names) != 0)
        return nullptr;
    for (const std::string &name : names) {
        NameParts parts;
        if (!handlers_internal::splitName(name, parts) || parts.tmpl != tmpl)
            continue;
        // Handlers being created or removed meanwhile lack files: not a match.
        std::string stored_hook, stored_type, stored_value;
        if (!handlers_internal::readParameter(name, "hook", stored_hook, true) ||
            stored_hook != hook ||
            !handlers_internal::readParameter(name, "handler-type", stored_type, true) ||
            ::strcasecmp(stored_type.c_str(), type_name) != 0)
            continue;
        if (type != HANDLER_TYPE_GLOBAL &&
            (!handlers_internal::readParameter(name, stored_type.c_str(), stored_value, true) ||
             ::strcasecmp(stored_value.c_str(), value) != 0))
            continue;
        return duplicate(name);
    }
    return nullptr;
}

int string_to_file(const char *dir, const char *file, const char *value)
{
    const std::string path = std::string(dir) + "/" + file;
    const int fd =
        fd_io::open_retry(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0644);
    if (fd < 0) {
        zarnet_log(3, "Unable to create file '%s': %s", path.c_str(), std::strerror(errno));
        return -1;
    }
    const std::string line = std::string(value) + "\n";
    bool ok = ::fchmod(fd, 0644) == 0 &&
              fd_io::write_all(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    const int saved = errno;
    ok = fd_io::close_fd(fd) == 0 && ok;
    if (!ok) {
        zarnet_log(3, "Unable to write file '%s': %s", path.c_str(),
                   std::strerror(saved != 0 ? saved : errno));
        return -1;
    }
    return 0;
}

namespace {

int storeParameters(const std::string &dir, int type, const char *value,
                    const std::string &executable, const char *context, const char *hook)
{
    if (string_to_file(dir.c_str(), "hook", hook) != 0 ||
        string_to_file(dir.c_str(), "context", context) != 0 ||
        string_to_file(dir.c_str(), "handler-type", type_names[type]) != 0)
        return -1;
    if (type == HANDLER_TYPE_GLOBAL) {
        const std::string flag = dir + "/global";
        if (!handlers_internal::fitsPath(flag)) {
            zarnet_log(3, "global handler flag name is too long to be stored in the filesystem");
            return -1;
        }
        if (!createEmptyFile(flag)) {
            zarnet_log(3, "Unable to create file '%s'", flag.c_str());
            return -1;
        }
    } else if (string_to_file(dir.c_str(), type_names[type], value) != 0) {
        return -1;
    }
    const std::string link = dir + "/executable";
    if (!handlers_internal::fitsPath(link)) {
        zarnet_log(3, "executable link name is too long to be stored in the filesystem");
        return -1;
    }
    if (::symlink(executable.c_str(), link.c_str()) != 0) {
        zarnet_log(3, "Unable to symlink '%s' to '%s'", executable.c_str(), link.c_str());
        return -1;
    }
    return 0;
}

bool checkNameable(const char *what, const char *value)
{
    if (nameable(value))
        return true;
    zarnet_log(3, "Value '%s' of handler parameter '%s' cannot be part of a file name", value,
               what);
    return false;
}

} // namespace

int mail_handler_add(const char *tmpl, const char *type_name, const char *value,
                     const char *executable, const char *context, const char *hook,
                     const char *priority, int action)
{
    handlers_internal::RefreshScope scope;
    if (!scope.held())
        return -1;
    if (type_name == nullptr) {
        zarnet_log(3, "HandlerTypeName parameter is not defined");
        return -1;
    }
    const int type = get_handler_type(type_name);
    if (tmpl == nullptr || executable == nullptr || hook == nullptr || priority == nullptr ||
        (type != HANDLER_TYPE_GLOBAL && type != HANDLER_TYPE_UNKNOWN && value == nullptr)) {
        zarnet_log(3, "Some parameter(s) were not defined");
        return -1;
    }
    struct stat st;
    if (::stat(executable, &st) != 0) {
        zarnet_log(3, "Unable to stat executable '%s': %s", executable, std::strerror(errno));
        return -1;
    }
    if (type == HANDLER_TYPE_UNKNOWN) {
        zarnet_log(3, "Handler type is invalid: %s", type_name);
        return -1;
    }
    // The priority ends at the name's first "-".
    if (!checkNameable("template", tmpl) || !checkNameable("hook", hook) ||
        !checkNameable("priority", priority) ||
        (type != HANDLER_TYPE_GLOBAL && !checkNameable(type_names[type], value)))
        return -1;
    if (std::strchr(priority, '-') != nullptr) {
        zarnet_log(3, "Value '%s' of handler parameter '%s' cannot be part of a file name",
                   priority, "priority");
        return -1;
    }

    // The link is read from the handler's own directory: relative paths
    // would not resolve there.
    std::string exe(executable);
    if (exe[0] != '/') {
        char *cwd = ::getcwd(nullptr, 0);
        if (cwd == nullptr) {
            zarnet_log(3, "Unable to stat executable '%s': %s", executable, std::strerror(errno));
            return -1;
        }
        exe = std::string(cwd) + "/" + exe;
        std::free(cwd);
    }

    const std::string info = handlers_internal::infoDir();
    const std::string base = std::string(priority) + "-" + tmpl + "-XXXXXX";
    std::string dir = info + "/" + base;
    if (!handlers_internal::fitsPath(dir) || base.size() > NAME_MAX) {
        zarnet_log(3, "Name template '%s' or priority '%s' are too long to form a valid handler name",
                   tmpl, priority);
        return -1;
    }
    if (!makeDirectories(info, 0755)) {
        zarnet_log(3, "Unable to create directory %s: %s", info.c_str(), std::strerror(errno));
        return -1;
    }
    std::vector<char> buf(dir.begin(), dir.end());
    buf.push_back('\0');
    if (::mkdtemp(buf.data()) == nullptr) {
        zarnet_log(3, "Unable to create directory %s: %s", dir.c_str(), std::strerror(errno));
        return -1;
    }
    dir = buf.data();
    const std::string name = dir.substr(info.size() + 1);
    if (::chmod(dir.c_str(), 0755) != 0) {
        zarnet_log(3, "Unable to change permissions for directory '%s': %s", dir.c_str(),
                   std::strerror(errno));
        rm_tree_quiet(dir.c_str());
        return -1;
    }
    if (storeParameters(dir, type, value, exe, context == nullptr ? "" : context, hook) != 0) {
        zarnet_log(3, "Unable to store handler parameters into directory '%s'", dir.c_str());
        rm_tree_quiet(dir.c_str());
        return -1;
    }
    if (control_handler_queue(name.c_str(), action, nullptr) < 0) {
        // An entry may have been made before the failure.
        control_handler_queue(name.c_str(), HANDLER_ACTION_DISABLE, nullptr);
        rm_tree_quiet(dir.c_str());
        return -1;
    }
    handlers_internal::markChanged();
    return 0;
}

int mail_handler_remove(const char *name)
{
    handlers_internal::RefreshScope scope;
    if (!scope.held())
        return -1;
    return removeHandlerFiles(name);
}

int control_handler_queue(const char *name, int action, const char *new_value)
{
    if (action < HANDLER_ACTION_REMOVE || action > HANDLER_ACTION_REASSIGN) {
        zarnet_log(3, "UKNOWN ACTION %d requested for handler %s", action, name);
        return -1;
    }
    handlers_internal::RefreshScope scope;
    if (!scope.held())
        return -1;
    std::string type_text, hook, value;
    if (!handlers_internal::readParameter(name, "handler-type", type_text, false)) {
        zarnet_log(3, "Unable to fetch 'handler-type' parameter value for handler '%s'", name);
        return -1;
    }
    const int type = get_handler_type(type_text.c_str());
    if (type == HANDLER_TYPE_UNKNOWN) {
        zarnet_log(3, "Invalid handler type '%s' for handler '%s'", type_text.c_str(), name);
        return -1;
    }
    if (!handlers_internal::readParameter(name, "hook", hook, false)) {
        zarnet_log(3, "Unable to fetch 'hook' parameter value for handler '%s'", name);
        return -1;
    }
    if (type != HANDLER_TYPE_GLOBAL &&
        !handlers_internal::readParameter(name, type_names[type], value, false)) {
        zarnet_log(3, "Unable to fetch '%s' parameter value for handler '%s'", type_names[type],
                   name);
        return -1;
    }
    const std::string queue = queueDirectory(type, hook, value);
    if (!handlers_internal::fitsPath(queue)) {
        zarnet_log(3, "handler parameters values are too long to form a valid filesystem object name");
        return -1;
    }
    const std::string entry = queue + "/" + name;
    if (!handlers_internal::fitsPath(entry)) {
        zarnet_log(3, "handler name is too long to form a valid filesystem object name");
        return -1;
    }

    int result = 0;
    switch (action) {
    case HANDLER_ACTION_QUERY: {
        struct stat st;
        return ::lstat(entry.c_str(), &st) == 0 ? 1 : 0;
    }
    case HANDLER_ACTION_REMOVE:
        result = removeHandlerFiles(name);
        break;
    case HANDLER_ACTION_ENABLE:
        if (!makeDirectories(queue, 0755)) {
            zarnet_log(3, "Unable to create directory '%s'", queue.c_str());
            result = -1;
        } else if (!createEmptyFile(entry)) {
            zarnet_log(3, "Unable to create file '%s': %s", entry.c_str(), std::strerror(errno));
            result = -1;
        }
        break;
    case HANDLER_ACTION_DISABLE:
        if (::unlink(entry.c_str()) != 0 && errno != ENOENT) {
            zarnet_log(3, "Unable to remove hook '%s' from directory '%s': %s", name,
                       queue.c_str(), std::strerror(errno));
            result = -1;
        }
        break;
    case HANDLER_ACTION_CLONE:
    case HANDLER_ACTION_REASSIGN:
        result = cloneHandler(name, type, hook, new_value, action == HANDLER_ACTION_REASSIGN);
        if (result == 0 && action == HANDLER_ACTION_REASSIGN)
            result = removeHandlerFiles(name);
        break;
    }
    handlers_internal::markChanged();
    // Only an emptied queue goes; the hook directory above it stays.
    const int saved = errno;
    ::rmdir(queue.c_str());
    errno = saved;
    return result;
}

int tmpfs_handlers_refresh()
{
    struct stat st;
    if (::stat(g_refresh.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || !(st.st_mode & S_IXUSR))
        return 0;
    std::string arg0 = g_refresh, arg1 = "refresh";
    char *const argv[] = {&arg0[0], &arg1[0], nullptr};
    if (fork_execv_log(g_refresh.c_str(), argv) != 0) {
        zarnet_log(3, "Cannot sync tmps storage to fs");
        return -1;
    }
    return 0;
}

int handlers_compare(const char *a, const char *b)
{
    NameParts pa, pb;
    if (!handlers_internal::splitName(a, pa) || !handlers_internal::splitName(b, pb)) {
        zarnet_log(3, "Unable to split handlers name. Skipping sorting handlers..");
        return 0;
    }
    // As "%i" reads them (octal and hex prefixes included), without its
    // undefined overflow.
    const long ia = std::strtol(pa.priority.c_str(), nullptr, 0);
    const long ib = std::strtol(pb.priority.c_str(), nullptr, 0);
    if (ia != ib)
        return ia < ib ? -1 : 1;
    const int by_template = std::strcoll(pa.tmpl.c_str(), pb.tmpl.c_str());
    if (by_template != 0)
        return by_template;
    return std::strcoll(pa.random.c_str(), pb.random.c_str());
}

void handlers_sort(char **names, std::size_t count)
{
    // A stable merge keeps the pairs the comparison calls equal in place.
    std::stable_sort(names, names + count,
                     [](const char *a, const char *b) { return handlers_compare(a, b) < 0; });
}

const char *handlers_root()
{
    return g_root.c_str();
}

void handlers_set_paths_for_testing(const char *root, const char *refresh_program)
{
    g_root = root != nullptr ? root : installed_root;
    g_refresh = refresh_program != nullptr ? refresh_program : installed_refresh;
}
