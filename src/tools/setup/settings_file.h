// Settings files that the operator edits too: one setting a line, a key at
// the start of the line, a separator, the value. The tool owns the keys it
// sets and nothing else: every other line stays byte for byte.
//
// applySettings is pure. editSettingsFile reads the file, applies, and when
// the text changed replaces it atomically under the file's lock, keeping its
// owner and mode. Failures throw SystemError naming the step and the path;
// the file is then as it was.
#ifndef MAILTEND_TOOLS_SETUP_SETTINGS_FILE_H
#define MAILTEND_TOOLS_SETUP_SETTINGS_FILE_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace zarnet {
namespace setup {

struct SettingsSyntax {
    char separator;      // after the key: '=', ':', or ' ' for a run of blanks and tabs
    const char *written; // between key and value in a line written here
};

extern const SettingsSyntax shellSyntax; // KEY=value
extern const SettingsSyntax colonSyntax; // key: value
extern const SettingsSyntax blankSyntax; // KEY<tab>value

struct Setting {
    std::string key;
    std::string value;
};

// The first line setting a key keeps its text when its value (blanks around
// it ignored) is the wanted one and is replaced otherwise; later lines
// setting the key go. A key set nowhere is added before the "##NAME: MARKER"
// trailer, which the file's readers need last, or else at the end. The lines
// written are added to *written.
std::string applySettings(const std::string &text, const SettingsSyntax &syntax,
                          const std::vector<Setting> &settings, std::vector<std::string> *written);

struct NewFile {
    bool allowed;
    uid_t owner;
    gid_t group;
    mode_t mode;
};

// The lines written, for the report; none when the file already said it all.
// A missing file is created as newFile says, or is an error.
std::vector<std::string> editSettingsFile(const std::string &path, const SettingsSyntax &syntax,
                                          const std::vector<Setting> &settings,
                                          const NewFile &newFile);

} // namespace setup
} // namespace zarnet

#endif
