#include "tools/deliver/before_local.h"

#include "mail/handlers/handlers.h"
#include "mail/handlers/handlers_internal.h"
#include "tools/deliver/outcome.h"
#include "utils/fd_io.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace deliver {

namespace {

const char *const hook = "before-local";

// The queue entries (regular files) or queue directories in dir; a
// missing dir has none.
std::vector<std::string> entries(const std::string &dir, bool wantDirectories)
{
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR *)> d(::opendir(dir.c_str()), ::closedir);
    if (!d) {
        if (errno == ENOENT || errno == ENOTDIR)
            return names;
        throw temporary("cannot read handler queue " + dir + ": " + std::strerror(errno));
    }
    for (;;) {
        errno = 0;
        const dirent *e = ::readdir(d.get());
        if (e == nullptr) {
            if (errno != 0)
                throw temporary("cannot read handler queue " + dir + ": " + std::strerror(errno));
            break;
        }
        if (e->d_name[0] == '.')
            continue;
        struct stat st;
        if (::fstatat(::dirfd(d.get()), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (wantDirectories ? S_ISDIR(st.st_mode) : S_ISREG(st.st_mode))
            names.push_back(e->d_name);
    }
    return names;
}

void addQueue(const std::string &dir, std::vector<std::string> &names)
{
    for (const std::string &n : entries(dir, false))
        if (std::find(names.begin(), names.end(), n) == names.end())
            names.push_back(n);
}

// The queues of one type whose value matches, whatever its case.
void addQueues(const std::string &typeDir, const std::string &value,
               std::vector<std::string> &names)
{
    if (value.empty())
        return;
    for (const std::string &v : entries(typeDir, true))
        if (::strcasecmp(v.c_str(), value.c_str()) == 0)
            addQueue(typeDir + "/" + v, names);
}

bool firstLine(const std::string &path, std::string &line)
{
    const int fd = fd_io::open_regular(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0)
        return false;
    char buffer[4096];
    const ssize_t n = fd_io::read_retry(fd, buffer, sizeof buffer);
    fd_io::close_quietly(fd);
    if (n < 0)
        return false;
    line.assign(buffer, static_cast<size_t>(n));
    line = line.substr(0, line.find('\n'));
    return true;
}

void skip(const std::string &name, const std::string &why)
{
    note("mailtend-deliver: handler " + name + " skipped: " + why);
}

} // namespace

Verdict runBeforeLocal(const std::string &sender, const Recipient &recipient,
                       const Spool &message)
{
    const std::string root = handlers_root();
    const std::string hookDir = root + "/" + hook;
    std::vector<std::string> names;
    addQueue(hookDir + "/global", names);
    addQueues(hookDir + "/recipient", recipient.address, names);
    addQueues(hookDir + "/recipient-domain", recipient.domain, names);
    if (!sender.empty()) {
        addQueues(hookDir + "/sender", sender, names);
        addQueues(hookDir + "/sender-domain", addressDomain(sender), names);
    }
    // Only names the comparison can split reach it; it reports the others.
    std::vector<std::string> runnable;
    for (const std::string &n : names) {
        handlers_internal::NameParts parts;
        if (handlers_internal::splitName(n, parts))
            runnable.push_back(n);
        else
            skip(n, "malformed name");
    }
    std::stable_sort(runnable.begin(), runnable.end(),
                     [](const std::string &a, const std::string &b) {
                         return handlers_compare(a.c_str(), b.c_str()) < 0;
                     });

    for (const std::string &name : runnable) {
        const std::string info = root + "/info/" + name;
        std::string context;
        if (!firstLine(info + "/context", context)) {
            skip(name, std::string("cannot read its context: ") + fd_io::open_error_text(errno));
            continue;
        }
        std::unique_ptr<char, void (*)(void *)> program(::realpath((info + "/executable").c_str(),
                                                                   nullptr),
                                                        std::free);
        struct stat st;
        if (!program || ::stat(program.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
            ::access(program.get(), X_OK) != 0) {
            skip(name, "no executable program");
            continue;
        }
        ProgramRun run;
        run.path = program.get();
        run.env = {safePath,
                   "SENDER=" + sender,
                   "RECIPIENT=" + recipient.address,
                   "LOCAL=" + recipient.mailname,
                   "HOST=" + recipient.domain,
                   std::string("HANDLER_HOOK=") + hook,
                   "HANDLER_CONTEXT=" + context,
                   "HANDLER_NAME=" + name};
        run.cwd = "/";
        const zarnet::process::FdOwner input = message.open();
        run.input = input.get();
        if (judgeProgram(runProgram(run), "handler " + name) == Verdict::Stop)
            return Verdict::Stop;
    }
    return Verdict::Go;
}

} // namespace deliver
