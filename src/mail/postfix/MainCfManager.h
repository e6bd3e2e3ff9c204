// The only way this system reads or changes the mail server's main.cf:
// every read runs the configuration tool with -h, every write with -e.
// Writes hold the main.cf file lock, list edits from their read to their
// write. main.cf is never parsed or written here.
//
// Lists come in two shapes. Simple lists (networks) split at any run of
// blanks, tabs and commas. Compound lists (restrictions) split at commas only
// and trim each piece, so a piece may hold blanks ("check_client_access
// pcre:/x"). Lists are written back joined with ", ".
//
// Postfix programs re-read a main.cf younger than about two seconds until it
// has aged, a guard against files caught in the middle of an edit. The tool
// replaces the file whole and under the lock, so after each write it dates
// the file back out of that window: nothing waits for it.
//
// Throws PostfixConfigurationError with the tool's diagnostics (or "unknown
// error"); process-layer and lock errors pass through.
#ifndef MAILTEND_MAIL_POSTFIX_MAINCFMANAGER_H
#define MAILTEND_MAIL_POSTFIX_MAINCFMANAGER_H

#include "utils/MKLock.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace zarnet {
namespace mail {
namespace postfix {

// Rewrites the pieces of a compound list in place: keep, replace, drop, or
// add pieces anywhere.
typedef std::function<void(std::vector<std::string> &pieces)> CompoundListFilter;

// Appends value as the last piece unless a piece already equals it.
class SingleCompoundStringValueAppender {
public:
    explicit SingleCompoundStringValueAppender(const std::string &value) : value_(value) {}
    void operator()(std::vector<std::string> &pieces) const;

private:
    std::string value_;
};

typedef std::map<std::string, std::string> ParameterValues;

class MainCfManager {
public:
    static constexpr const char *configTool = "/usr/sbin/postconf";

    static MainCfManager &getInstance();

    // The value trimmed of surrounding white space; with defaultValue, the
    // built-in default instead of the configured value.
    std::string getStringValue(const std::string &name, bool defaultValue) const;
    // The configured values of several parameters from one run of the tool.
    ParameterValues getStringValues(const std::vector<std::string> &names) const;
    void replaceStringValue(const std::string &name, const std::string &value) const;

    void appendStringValue(const std::string &name, const std::string &value) const;
    void removeListElement(const std::string &name, const std::string &value) const;
    void appendCompoundStringValue(const std::string &name, const std::string &value) const;
    void filterStringValues(const std::string &name, const CompoundListFilter &filter) const;
    // Several parameters in one step under one lock hold: edit gets the
    // current values of names and leaves the values to write (it may add
    // parameters), which one run of the tool writes, so every change lands
    // or none does, and main.cf is read only before it is written.
    void editValues(const std::vector<std::string> &names,
                    const std::function<void(ParameterValues &)> &edit) const;

    // Asked of the tool once per process, unless a read told it already.
    const std::string &mainCfPath() const;

    // Splitting rules, shared with the tests.
    static std::vector<std::string> splitSimpleList(const std::string &value);
    static std::vector<std::string> splitCompoundList(const std::string &value);
    static std::string joinList(const std::vector<std::string> &elements);
    // A compound list as filterStringValues writes it back.
    static std::string filteredList(const std::string &value, const CompoundListFilter &filter);

private:
    MainCfManager();
    MainCfManager(const MainCfManager &) = delete;
    void setConfigDirectory(const std::string &dir) const;
    void query(const std::vector<std::string> &args, std::string &output,
               std::string &errors) const;
    static std::string expectedMainCfPath();
    // The values of names, read under the main.cf lock that lock then holds.
    ParameterValues lockAndRead(const std::vector<std::string> &names,
                                std::unique_ptr<MKLock> &lock) const;
    void writeValue(const std::string &name, const std::string &value) const;
    void writeValues(const ParameterValues &values) const;
    MainCfManager &operator=(const MainCfManager &) = delete;

    mutable std::string mainCf_;
};

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
