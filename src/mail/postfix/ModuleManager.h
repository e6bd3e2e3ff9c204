// The mail server's listening services ("modules") as entries of master.cf,
// switched on and off by moving an entry's text between master.cf and
// "/var/spool/postfix/zarnet/master.cf.disabled" (MasterCfEntries has the
// text rules). master.cf is "<config_directory>/master.cf".
//
// An edit is loadModules(false), then hasModule/enableModule/disableModule/
// addModule, then storeModules: the master.cf lock is taken by the load and
// held until the store, so no other panel tool edits in between. Entries
// that exist are moved, never rewritten.
//
// storeModules replaces each changed file atomically (master.cf keeps its
// owner and mode; the disabled file is root's, 0644), ordered so that a
// crash between two writes leaves every entry in at least one file: an
// entry in both counts as active.
//
// Throws SystemError for file failures, PostfixConfigurationError when the
// configuration directory is unknown, std::logic_error for calls out of
// order; lock errors pass through. Nothing is written before storeModules.
#ifndef MAILTEND_MAIL_POSTFIX_MODULEMANAGER_H
#define MAILTEND_MAIL_POSTFIX_MODULEMANAGER_H

#include "mail/postfix/MasterCfEntries.h"

#include <boost/logic/tribool.hpp>

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace zarnet {

class MKLock;

namespace mail {
namespace postfix {

struct ModuleInfo {
    const char *name;    // service name, the first field
    const char *type;    // "inet"
    const char *command; // the last fixed field; with name, the entry's key
    std::vector<std::string> options; // "-o" values, in order
};

extern const ModuleInfo SmtpdModule;
extern const ModuleInfo SmtpsdModule;
extern const ModuleInfo SubmissionModule;

class ModuleManager {
public:
    static constexpr const char *disabledFile = "/var/spool/postfix/zarnet/master.cf.disabled";

    static ModuleManager &getInstance();
    ~ModuleManager();

    // readOnly: look without the lock; storeModules is then refused.
    // Otherwise the lock is held until storeModules releases it.
    void loadModules(bool readOnly);

    // state: true active, false disabled, indeterminate either.
    bool hasModule(const std::string &name, const std::string &command,
                   boost::logic::tribool state) const;
    // False when the entry is in neither file.
    bool enableModule(const std::string &name, const std::string &command);
    void disableModule(const std::string &name, const std::string &command);
    // An entry that exists is switched to the state asked for, not added;
    // nothing is added while master.cf runs the name and type through
    // another command.
    void addModule(const ModuleInfo &module, bool enabled);

    // Writes what changed; true when anything did. keepLocked: the lock and
    // the loaded state stay for further edits; otherwise both are released.
    bool storeModules(bool keepLocked);

    // The entry text addModule writes.
    static std::string formatModule(const ModuleInfo &module);

private:
    ModuleManager() = default;
    ModuleManager(const ModuleManager &) = delete;
    ModuleManager &operator=(const ModuleManager &) = delete;

    MasterCfEntries &loaded() const;
    void release();

    std::unique_ptr<MKLock> lock_;
    std::unique_ptr<MasterCfEntries> entries_;
    std::string masterPath_;
    std::string masterText_, disabledText_; // as on disk
    uid_t masterUid_ = 0;
    gid_t masterGid_ = 0;
    mode_t masterMode_ = 0644;
};

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
