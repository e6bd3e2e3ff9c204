// Private table, lock and configuration directories (main.cf copied, given
// through MAIL_CONFIG) so tests of the real tools touch no machine files or locks.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace testsupport {

class PostfixDirs {
public:
    PostfixDirs();
    ~PostfixDirs();
    PostfixDirs(const PostfixDirs &) = delete;
    PostfixDirs &operator=(const PostfixDirs &) = delete;
    std::string table(const std::string &name) const { return "hash:" + tables + "/" + name; }
    std::string source(const std::string &name) const { return tables + "/" + name; }

    // postmap -q; "" when the key is absent.
    static std::string query(const std::string &table, const std::string &key);
    static std::map<std::string, std::string> dump(const std::string &table);
    static void create(const std::string &table);
    // Moves main.cf back in time so the tools do not wait for it to settle.
    void settle() const;

    std::string root, tables, locks, config;
};

// For its lifetime every table-compiler run goes through compiler_logger.py.
class CompilerLog {
public:
    explicit CompilerLog(const std::string &path);
    ~CompilerLog();
    CompilerLog(const CompilerLog &) = delete;
    CompilerLog &operator=(const CompilerLog &) = delete;
    std::vector<std::string> runs() const;

private:
    std::string path_;
};

// Runs argv, returns stdout; status in *status when given.
std::string runProgram(const std::vector<std::string> &argv, int *status = nullptr,
                       const std::string &input = std::string());

} // namespace testsupport
