#include "tools/setup/settings_file.h"

#include "utils/AutocleanOFStream.h"
#include "utils/ExSystemError.h"
#include "utils/FdOwner.h"
#include "utils/MKLock.h"
#include "utils/fd_io.h"
#include "utils/text_lines.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>

namespace zarnet {
namespace setup {

const SettingsSyntax shellSyntax = {'=', "="};
const SettingsSyntax colonSyntax = {':', ": "};
const SettingsSyntax blankSyntax = {' ', "\t"};

namespace {

const char blanks[] = " \t";
const char trailer[] = "##NAME: MARKER";

bool startsWith(const std::string &s, const char *prefix)
{
    return s.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

// The value of line when it sets key (blanks around it dropped); false when
// the line sets another key or none.
bool valueOf(const std::string &line, const std::string &key, const SettingsSyntax &syntax,
             std::string *value)
{
    if (line.compare(0, key.size(), key) != 0)
        return false;
    std::string::size_type at = key.size();
    // "KEY" alone on its line sets the key to nothing: it is still that key's line.
    const char next = at < line.size() ? line[at] : '\n';
    if (syntax.separator == ' ') {
        if (next != ' ' && next != '\t' && next != '\n' && next != '\r')
            return false;
    } else if (next != syntax.separator) {
        return false;
    } else {
        ++at;
    }
    const std::string::size_type first = line.find_first_not_of(blanks, at);
    const std::string::size_type last = line.find_last_not_of(" \t\r\n");
    *value = first == std::string::npos || last < first ? std::string()
                                                        : line.substr(first, last - first + 1);
    return true;
}

std::string readWhole(int fd, const std::string &path)
{
    std::string text;
    char buf[8192];
    ssize_t n;
    while ((n = fd_io::read_retry(fd, buf, sizeof buf)) > 0)
        text.append(buf, static_cast<std::size_t>(n));
    if (n < 0)
        throwSystemError("read " + path);
    return text;
}

} // namespace

std::string applySettings(const std::string &text, const SettingsSyntax &syntax,
                          const std::vector<Setting> &settings, std::vector<std::string> *written)
{
    std::vector<bool> seen(settings.size(), false);
    const std::vector<std::string> lines = splitLines(text, true);

    auto assignment = [&](const Setting &s) {
        const std::string line = s.key + syntax.written + s.value;
        written->push_back(line);
        return line + '\n';
    };
    std::string out;
    std::string::size_type trailerAt = std::string::npos;
    for (const std::string &line : lines) {
        bool copy = true;
        for (std::size_t i = 0; i < settings.size(); ++i) {
            std::string value;
            if (!valueOf(line, settings[i].key, syntax, &value))
                continue;
            copy = false;
            if (seen[i])
                written->push_back(settings[i].key + " (repeated setting removed)");
            else
                out += value == settings[i].value ? line : assignment(settings[i]);
            seen[i] = true;
            break;
        }
        if (trailerAt == std::string::npos && startsWith(line, trailer))
            trailerAt = out.size();
        if (copy)
            out += line;
    }
    std::string added;
    for (std::size_t i = 0; i < settings.size(); ++i)
        if (!seen[i])
            added += assignment(settings[i]);
    if (trailerAt != std::string::npos)
        out.insert(trailerAt, added);
    else if (!added.empty())
        out += (out.empty() || out.back() == '\n' ? "" : "\n") + added;
    return out;
}

std::vector<std::string> editSettingsFile(const std::string &path, const SettingsSyntax &syntax,
                                          const std::vector<Setting> &settings,
                                          const NewFile &newFile)
{
    MKLock lock(path);
    std::string text;
    uid_t owner = newFile.owner;
    gid_t group = newFile.group;
    mode_t mode = newFile.mode;
    bool exists = true;
    {
        process::FdOwner fd(fd_io::open_regular(path.c_str(), O_RDONLY));
        if (!fd.valid()) {
            const int err = errno;
            if (err == EINVAL)
                throw std::runtime_error(path + ": not a regular file");
            if (err != ENOENT || !newFile.allowed)
                throwSystemError("open " + path, err);
            exists = false;
        } else {
            struct stat st;
            if (::fstat(fd.get(), &st) != 0)
                throwSystemError("stat " + path);
            owner = st.st_uid;
            group = st.st_gid;
            mode = st.st_mode & 07777;
            text = readWhole(fd.get(), path);
        }
    }
    std::vector<std::string> written;
    const std::string result = applySettings(text, syntax, settings, &written);
    if (exists && result == text)
        return {};
    AutocleanOFStream out(path + ".tmp");
    if (!out.is_open())
        throwSystemError("open " + out.path());
    out << result;
    out.commit(path, owner, group, mode);
    return written;
}

} // namespace setup
} // namespace zarnet
