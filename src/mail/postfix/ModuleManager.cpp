#include "mail/postfix/ModuleManager.h"

#include "mail/postfix/MainCfManager.h"
#include "utils/AutocleanOFStream.h"
#include "utils/ExSystemError.h"
#include "utils/MKLock.h"
#include "utils/fd_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace zarnet {
namespace mail {
namespace postfix {

// The proxy filter stays empty: nothing listens on 127.0.0.1:10025 on a
// stock server, and a filter set there would make smtpd refuse all mail. An
// operator who runs a content filter sets it in the entry, which moves keep.
const ModuleInfo SmtpdModule = {"smtp", "inet", "smtpd", {"smtpd_proxy_filter="}};
const ModuleInfo SmtpsdModule = {"smtps", "inet", "smtpd",
                                 {"smtpd_tls_wrappermode=yes", "smtpd_proxy_filter="}};
// main.cf's recipient restrictions end in reject_unauth_destination:
// without its own list an authenticated client could not relay here.
const ModuleInfo SubmissionModule = {
    "submission", "inet", "smtpd",
    {"smtpd_enforce_tls=yes", "smtpd_tls_security_level=encrypt", "smtpd_sasl_auth_enable=yes",
     "smtpd_client_restrictions=permit_sasl_authenticated,reject",
     "smtpd_recipient_restrictions=permit_sasl_authenticated,reject",
     "smtpd_sender_restrictions=", "smtpd_proxy_filter="}};

namespace {

// The whole file; "" for a missing one when that is allowed. st gets its
// attributes.
std::string readFile(const std::string &path, bool missingIsEmpty, struct stat *st)
{
    const int fd = fd_io::open_regular(path.c_str(), O_RDONLY);
    if (fd < 0) {
        if (missingIsEmpty && errno == ENOENT)
            return std::string();
        throwSystemError("open " + path);
    }
    std::string text;
    char buf[8192];
    ssize_t n;
    while ((n = fd_io::read_retry(fd, buf, sizeof buf)) > 0)
        text.append(buf, static_cast<std::size_t>(n));
    if (n < 0 || (st != nullptr && fstat(fd, st) != 0)) {
        fd_io::close_quietly(fd);
        throwSystemError("read " + path);
    }
    fd_io::close_fd(fd);
    return text;
}

void replaceFile(const std::string &path, const std::string &text, uid_t owner, gid_t group,
                 mode_t mode)
{
    AutocleanOFStream out(path + ".tmp");
    if (!out.is_open())
        throwSystemError("open " + out.path());
    out << text;
    out.commit(path, owner, group, mode);
}

} // namespace

ModuleManager &ModuleManager::getInstance()
{
    static ModuleManager instance;
    return instance;
}

ModuleManager::~ModuleManager() = default;

void ModuleManager::release()
{
    entries_.reset();
    lock_.reset();
}

void ModuleManager::loadModules(bool readOnly)
{
    release();
    if (masterPath_.empty())
        masterPath_ = fd_io::parent_directory(MainCfManager::getInstance().mainCfPath()) +
                      "/master.cf";
    std::unique_ptr<MKLock> lock;
    if (!readOnly)
        lock = std::make_unique<MKLock>(masterPath_);
    struct stat st;
    masterText_ = readFile(masterPath_, false, &st);
    masterUid_ = st.st_uid;
    masterGid_ = st.st_gid;
    masterMode_ = st.st_mode & 07777;
    disabledText_ = readFile(disabledFile, true, nullptr);
    entries_ = std::make_unique<MasterCfEntries>(masterText_, disabledText_);
    lock_ = std::move(lock); // a failed read gives the lock back at once
}

MasterCfEntries &ModuleManager::loaded() const
{
    if (!entries_)
        throw std::logic_error("master.cf modules used before loadModules");
    return *entries_;
}

bool ModuleManager::hasModule(const std::string &name, const std::string &command,
                              boost::logic::tribool state) const
{
    return loaded().has(name, command, state);
}

bool ModuleManager::enableModule(const std::string &name, const std::string &command)
{
    return loaded().enable(name, command);
}

void ModuleManager::disableModule(const std::string &name, const std::string &command)
{
    loaded().disable(name, command);
}

void ModuleManager::addModule(const ModuleInfo &module, bool enabled)
{
    MasterCfEntries &entries = loaded();
    if (!entries.has(module.name, module.command, boost::logic::indeterminate)) {
        // A service the operator runs through another program (a screening
        // daemon in front of smtpd) is left alone: two entries of one name
        // and type would clash.
        if (!entries.serves(module.name, module.type))
            entries.add(formatModule(module), enabled);
    }
    else if (enabled)
        entries.enable(module.name, module.command);
    else
        entries.disable(module.name, module.command);
}

bool ModuleManager::storeModules(bool keepLocked)
{
    MasterCfEntries &entries = loaded();
    if (!lock_)
        throw std::logic_error("master.cf modules stored after a read-only load");

    const std::string master = entries.masterText();
    const std::string disabled = entries.disabledText(false);
    const bool changed = master != masterText_ || disabled != disabledText_;
    // An entry leaving master.cf reaches the disabled file first, and one
    // coming back leaves that file last: in both files it counts as active.
    const std::string interim = entries.disabledText(true);
    if (interim != disabledText_) {
        replaceFile(disabledFile, interim, 0, 0, 0644);
        disabledText_ = interim;
    }
    if (master != masterText_) {
        replaceFile(masterPath_, master, masterUid_, masterGid_, masterMode_);
        masterText_ = master;
    }
    if (disabled != disabledText_) {
        replaceFile(disabledFile, disabled, 0, 0, 0644);
        disabledText_ = disabled;
    }

    if (keepLocked)
        entries_ = std::make_unique<MasterCfEntries>(masterText_, disabledText_);
    else
        release();
    return changed;
}

std::string ModuleManager::formatModule(const ModuleInfo &module)
{
    // Not chrooted: SMTP authentication asks the authentication daemon
    // through its socket outside the chroot.
    return MasterCfEntries::formatEntry(module.name, module.type,
                                        {"n", "-", "n", "-", "-", module.command},
                                        module.options);
}

} // namespace postfix
} // namespace mail
} // namespace zarnet
