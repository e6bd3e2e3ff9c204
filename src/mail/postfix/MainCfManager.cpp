#include "mail/postfix/MainCfManager.h"

#include "mail/postfix/DatabaseHelper.h"
#include "mail/postfix/PostfixError.h"
#include "mail/postfix/postfix_tool.h"
#include "utils/MKLock.h"
#include "utils/text_lines.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

namespace zarnet {
namespace mail {
namespace postfix {

namespace {

std::string trim(const std::string &s, const char *blanks)
{
    const std::string::size_type first = s.find_first_not_of(blanks);
    if (first == std::string::npos)
        return std::string();
    return s.substr(first, s.find_last_not_of(blanks) - first + 1);
}

// Only a file written in the last two seconds is moved: an older one makes
// nobody wait, and one dated ahead was not written by the tool just now.
void ageWrittenFile(const std::string &path)
{
    struct stat st;
    const time_t now = ::time(nullptr);
    if (::stat(path.c_str(), &st) != 0 || st.st_mtime > now || st.st_mtime < now - 2)
        return;
    const struct timespec times[2] = {{0, UTIME_OMIT}, {now - 2, 0}};
    // A failure costs the readers their wait, nothing else.
    (void)::utimensat(AT_FDCWD, path.c_str(), times, 0);
}

} // namespace

void SingleCompoundStringValueAppender::operator()(std::vector<std::string> &pieces) const
{
    const std::string wanted = trim(value_, " \t");
    for (const std::string &piece : pieces)
        if (trim(piece, " \t") == wanted)
            return;
    pieces.push_back(value_);
}

MainCfManager &MainCfManager::getInstance()
{
    static MainCfManager instance;
    return instance;
}

MainCfManager::MainCfManager() = default;

void MainCfManager::setConfigDirectory(const std::string &dir) const
{
    if (dir.empty())
        throw PostfixConfigurationError("unable to determine Postfix config_directory parameter");
    mainCf_ = dir + "/main.cf";
}

const std::string &MainCfManager::mainCfPath() const
{
    if (mainCf_.empty())
        setConfigDirectory(getStringValue("config_directory", false));
    return mainCf_;
}

// Where the tool finds main.cf when nothing says otherwise, as Postfix does.
std::string MainCfManager::expectedMainCfPath()
{
    const char *env = ::getenv("MAIL_CONFIG");
    return std::string(env != nullptr && *env != '\0' ? env : "/etc/postfix") + "/main.cf";
}

// The lock is keyed by main.cf's path, which only the tool can tell; the run
// that reads the values tells it too. The lock taken on the expected path
// stands when the tool agrees; otherwise the read is repeated under the
// right one.
ParameterValues MainCfManager::lockAndRead(const std::vector<std::string> &names,
                                           std::unique_ptr<MKLock> &lock) const
{
    const std::string guess = mainCf_.empty() ? expectedMainCfPath() : mainCf_;
    lock.reset(new MKLock(guess));
    ParameterValues values = getStringValues(names);
    if (mainCfPath() != guess) {
        lock.reset();
        lock.reset(new MKLock(mainCf_));
        values = getStringValues(names);
    }
    return values;
}

// One read run: the values on output, the tool's warnings on errors.
void MainCfManager::query(const std::vector<std::string> &args, std::string &output,
                          std::string &errors) const
{
    const int status = runPostfixTool(configTool, args, process::InputSource(),
                                      process::makeStringReceiver(output),
                                      process::makeStringReceiver(errors));
    if (!exitedZero(status))
        throw PostfixConfigurationError(failureText(errors, status));
}

std::string MainCfManager::getStringValue(const std::string &name, bool defaultValue) const
{
    std::vector<std::string> args{"-h"};
    if (defaultValue)
        args.push_back("-d");
    args.push_back(name);

    std::string value, errors;
    query(args, value, errors);
    if (value.empty() && !DatabaseHelper::checkOutput(errors, false))
        throw PostfixConfigurationError(errors);
    return trim(value, " \t\r\n");
}

ParameterValues MainCfManager::getStringValues(const std::vector<std::string> &names) const
{
    ParameterValues values;
    std::vector<std::string> args{"-h"};
    // The first run of a process learns main.cf's place on the way.
    const bool learn = mainCf_.empty();
    if (names.empty() && !learn)
        return values;
    if (learn)
        args.push_back("config_directory");
    args.insert(args.end(), names.begin(), names.end());
    std::string output, errors;
    query(args, output, errors);
    // One line per name in the order asked; anything else (an unknown name
    // prints no line) is read name by name, which reports it as before.
    std::vector<std::string> lines = splitLines(output);
    for (std::string &line : lines)
        line = trim(line, " \t\r");
    if (lines.size() != args.size() - 1 || !errors.empty()) {
        mainCfPath();
        for (const std::string &name : names)
            values[name] = getStringValue(name, false);
        return values;
    }
    if (learn)
        setConfigDirectory(lines[0]);
    for (std::vector<std::string>::size_type i = 0; i < names.size(); ++i)
        values[names[i]] = lines[i + (learn ? 1 : 0)];
    return values;
}

void MainCfManager::replaceStringValue(const std::string &name, const std::string &value) const
{
    MKLock lock(mainCfPath());
    writeValue(name, value);
}

// Callers hold the main.cf lock. The lock is not reentrant: a second MKLock
// on the same name in this process would wait for itself.
void MainCfManager::writeValue(const std::string &name, const std::string &value) const
{
    writeValues({{name, value}});
}

void MainCfManager::writeValues(const ParameterValues &values) const
{
    std::vector<std::string> args{"-e"};
    for (const auto &v : values)
        args.push_back(v.first + "=" + v.second);
    std::string output;
    const process::Receiver collect = process::makeStringReceiver(output);
    const int status = runPostfixTool(configTool, args, process::InputSource(), collect, collect);
    if (!exitedZero(status))
        throw PostfixConfigurationError(failureText(output, status));
    ageWrittenFile(mainCf_);
}

std::vector<std::string> MainCfManager::splitSimpleList(const std::string &value)
{
    std::vector<std::string> elements;
    std::string::size_type i = 0;
    while (i < value.size()) {
        const std::string::size_type start = value.find_first_not_of(" \t,", i);
        if (start == std::string::npos)
            break;
        std::string::size_type end = value.find_first_of(" \t,", start);
        if (end == std::string::npos)
            end = value.size();
        elements.push_back(value.substr(start, end - start));
        i = end;
    }
    return elements;
}

std::vector<std::string> MainCfManager::splitCompoundList(const std::string &value)
{
    std::vector<std::string> pieces;
    std::string::size_type start = 0;
    while (start <= value.size()) {
        std::string::size_type comma = value.find(',', start);
        if (comma == std::string::npos)
            comma = value.size();
        const std::string piece = trim(value.substr(start, comma - start), " \t");
        if (!piece.empty())
            pieces.push_back(piece);
        start = comma + 1;
    }
    return pieces;
}

std::string MainCfManager::joinList(const std::vector<std::string> &elements)
{
    std::string joined;
    for (const std::string &e : elements) {
        if (!joined.empty())
            joined += ", ";
        joined += e;
    }
    return joined;
}

// The list edits hold the lock from the read to the write, so two runs
// editing one list cannot lose each other's change.
void MainCfManager::appendStringValue(const std::string &name, const std::string &value) const
{
    std::unique_ptr<MKLock> lock;
    const std::string current = lockAndRead({name}, lock)[name];
    const std::vector<std::string> elements = splitSimpleList(current);
    if (std::find(elements.begin(), elements.end(), value) != elements.end()) {
        // Only the network list is written back when already present.
        if (name == "mynetworks")
            writeValue(name, current);
        return;
    }
    writeValue(name, elements.empty() ? value : current + ", " + value);
}

void MainCfManager::removeListElement(const std::string &name, const std::string &value) const
{
    std::unique_ptr<MKLock> lock;
    std::vector<std::string> elements = splitSimpleList(lockAndRead({name}, lock)[name]);
    elements.erase(std::remove(elements.begin(), elements.end(), value), elements.end());
    writeValue(name, joinList(elements));
}

void MainCfManager::appendCompoundStringValue(const std::string &name,
                                              const std::string &value) const
{
    filterStringValues(name, SingleCompoundStringValueAppender(value));
}

void MainCfManager::filterStringValues(const std::string &name,
                                       const CompoundListFilter &filter) const
{
    std::unique_ptr<MKLock> lock;
    writeValue(name, filteredList(lockAndRead({name}, lock)[name], filter));
}

std::string MainCfManager::filteredList(const std::string &value, const CompoundListFilter &filter)
{
    std::vector<std::string> pieces = splitCompoundList(value);
    filter(pieces);
    pieces.erase(std::remove(pieces.begin(), pieces.end(), std::string()), pieces.end());
    return joinList(pieces);
}

void MainCfManager::editValues(const std::vector<std::string> &names,
                               const std::function<void(ParameterValues &)> &edit) const
{
    std::unique_ptr<MKLock> lock;
    ParameterValues values = lockAndRead(names, lock);
    edit(values);
    if (!values.empty())
        writeValues(values);
}

} // namespace postfix
} // namespace mail
} // namespace zarnet
