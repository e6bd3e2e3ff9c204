#include "support/postfix_dirs.h"

#include "mail/postfix/DatabaseHelper.h"
#include "utils/MKLock.h"
#include "utils/ProcessPipe.h"
#include "utils/file_tree.h"

#include <sys/stat.h>
#include <sys/time.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testsupport {

std::string runProgram(const std::vector<std::string> &argv, int *status,
                       const std::string &input)
{
    using namespace zarnet::process;
    Pipe pipe(Parameters<PipeProcessFlags>(argv[0], std::vector<std::string>(argv.begin() + 1, argv.end())));
    std::string out, err;
    pipe.stdoutChannel().receiver = makeStringReceiver(out);
    pipe.stderrChannel().receiver = makeStringReceiver(err);
    pipe.setInput([&input](std::vector<char> &buf) {
        buf.assign(input.begin(), input.end());
        return false;
    });
    const int st = pipe.run();
    if (status)
        *status = st;
    return out;
}

PostfixDirs::PostfixDirs()
{
    char tmpl[] = "/tmp/mailtend-postfix-XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    root = tmpl;
    tables = root + "/tables";
    locks = root + "/locks";
    config = root + "/config";
    for (const std::string &d : {tables, locks, config})
        mkdir(d.c_str(), 0755);
    std::ofstream(config + "/main.cf", std::ios::binary)
        << std::ifstream("/etc/postfix/main.cf", std::ios::binary).rdbuf();
    settle();
    setenv("MAIL_CONFIG", config.c_str(), 1);
    mk_lock_set_dir_for_testing(locks.c_str());
}

PostfixDirs::~PostfixDirs()
{
    mk_lock_set_dir_for_testing(nullptr);
    unsetenv("MAIL_CONFIG");
    rm_tree(root.c_str());
}

void PostfixDirs::settle() const
{
    struct timeval past[2];
    gettimeofday(&past[0], nullptr);
    past[0].tv_sec -= 5;
    past[1] = past[0];
    utimes((config + "/main.cf").c_str(), past);
}

std::string PostfixDirs::query(const std::string &table, const std::string &key)
{
    std::string value = runProgram({"/usr/sbin/postmap", "-q", key, table});
    if (!value.empty() && value.back() == '\n')
        value.pop_back();
    return value;
}

std::map<std::string, std::string> PostfixDirs::dump(const std::string &table)
{
    std::map<std::string, std::string> records;
    std::istringstream text(runProgram({"/usr/sbin/postmap", "-s", table}));
    for (std::string line; std::getline(text, line);) {
        const std::string::size_type blank = line.find_first_of(" \t");
        records[line.substr(0, blank)] =
            blank == std::string::npos ? "" : line.substr(line.find_first_not_of(" \t", blank));
    }
    return records;
}

void PostfixDirs::create(const std::string &table)
{
    int status = -1;
    runProgram({"/usr/sbin/postmap", "-i", table}, &status);
    if (status != 0)
        throw std::runtime_error("cannot create " + table);
}

CompilerLog::CompilerLog(const std::string &path) : path_(path)
{
    setenv("MAILTEND_COMPILER_LOG", path_.c_str(), 1);
    zarnet::mail::postfix::DatabaseHelper::setCompilerPathForTesting(
        MAILTEND_TEST_SUPPORT_DIR "/compiler_logger.py");
}

CompilerLog::~CompilerLog()
{
    zarnet::mail::postfix::DatabaseHelper::setCompilerPathForTesting("");
    for (const char *v : {"MAILTEND_COMPILER_LOG", "MAILTEND_PROBE_LOCK", "MAILTEND_COMPILER_FAIL"})
        unsetenv(v);
}

std::vector<std::string> CompilerLog::runs() const
{
    std::vector<std::string> lines;
    std::ifstream in(path_);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

} // namespace testsupport
