#include "mail/services/courier_configure.h"

#include "mail/services/service_scripts.h"
#include "utils/fd_io.h"
#include "utils/text_lines.h"
#include "utils/product_log.h"
#include "utils/read_configuration.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace {

const char *const kFiles[] = {"imapd", "imapd-ssl", "pop3d", "pop3d-ssl"};
const size_t kPathSize = 4096;
const int kMaxParams = 31;

int (*restart)(const char *, const char *) = restart_daemon;

// The whole file; false with errno when it could not be read to its end.
bool read_all(int fd, std::string *text)
{
    char buf[8192];
    for (;;) {
        const ssize_t got = fd_io::read_retry(fd, buf, sizeof buf);
        if (got < 0)
            return false;
        if (got == 0)
            return true;
        text->append(buf, static_cast<size_t>(got));
    }
}

bool sets(const std::string &line, const char *name)
{
    const size_t len = std::strlen(name);
    return line.size() > len && line.compare(0, len, name) == 0 && line[len] == '=';
}

std::string assignment(const courier_param &p)
{
    return std::string(p.name) + "=" + (p.value != nullptr ? p.value : "") + "\n";
}

std::string edited(const std::string &text, const courier_param *params)
{
    bool seen[kMaxParams] = {};
    std::string out;
    out.reserve(text.size() + 256);
    for (const std::string &line : zarnet::splitLines(text, true)) {
        bool copy = true;
        for (int i = 0; params[i].name != nullptr; ++i) {
            if (i >= kMaxParams) {
                errno = 0; // about the input: no system error text
                messlog2(0, 0, "Too many variables specified, tail is ignored\n");
                break;
            }
            if (!sets(line, params[i].name))
                continue;
            copy = false;
            if (params[i].action == COURIER_PARAM_SET && !seen[i])
                out += assignment(params[i]);
            seen[i] = true;
            break;
        }
        if (copy)
            out += line;
    }
    if (!out.empty() && out.back() != '\n')
        out += '\n';
    for (int i = 0; i < kMaxParams && params[i].name != nullptr; ++i)
        if (params[i].action == COURIER_PARAM_SET && !seen[i])
            out += assignment(params[i]);
    return out;
}

// 0 when the file was rewritten or is missing, -1 after a report otherwise.
int edit_file(const char *name, const courier_param *params)
{
    const char *root = zrnConfGetDefaultByIndex(COURIER_IMAP_ROOT_D);
    const std::string path = std::string(root) + "/etc/courier-imap/" + name;
    if (path.size() >= kPathSize) {
        errno = 0;
        messlog2(0, 0, "File path too long %s\n", path.c_str());
        return -1;
    }

    std::string tmp = path + ".XXXXXX";
    const int in = fd_io::open_retry(path.c_str(), O_RDONLY);
    if (in < 0) {
        messlog2(0, 0, "Unable to open %s: %s\n", path.c_str(), std::strerror(errno));
        return 0;
    }
    const int out = mkostemp(&tmp[0], O_CLOEXEC);
    if (out < 0) {
        messlog2(0, 0, "Unable to create temporary file for %s: %s\n", path.c_str(),
                 std::strerror(errno));
        fd_io::close_quietly(in);
        return -1;
    }

    std::string text, result;
    bool ok;
    try {
        ok = read_all(in, &text);
        if (ok)
            result = edited(text, params);
    } catch (const std::bad_alloc &) {
        fd_io::close_quietly(in);
        fd_io::close_quietly(out);
        unlink(tmp.c_str());
        throw;
    }
    fd_io::close_quietly(in);
    if (ok) {
        errno = 0;
        ok = fd_io::write_all(out, result.data(), result.size()) ==
                 static_cast<ssize_t>(result.size()) &&
             fd_io::fsync_retry(out) == 0;
    }
    if (!ok) {
        fd_io::close_quietly(out);
    } else if (fd_io::close_fd(out) != 0) {
        ok = false;
    }
    if (!ok) {
        messlog2(0, 0, "Unable to write temporary file content for %s: %s\n", path.c_str(),
                 errno != 0 ? std::strerror(errno) : "");
        const int saved = errno;
        unlink(tmp.c_str());
        errno = saved;
        return -1;
    }
    if (rename(tmp.c_str(), path.c_str()) != 0) {
        messlog2(0, 0, "Unable to move changed file to its location %s: %s\n", path.c_str(),
                 std::strerror(errno));
        const int saved = errno;
        unlink(tmp.c_str());
        errno = saved;
        return -1;
    }
    fd_io::sync_parent_directory(path);
    return 0;
}

} // namespace

int set_courier_params_list(const courier_param *params)
{
    try {
        for (const char *name : kFiles)
            if (edit_file(name, params) != 0)
                return -1;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        messlog2(0, 0, "Unable to change Courier-IMAP settings");
        return -1;
    }
    return restart("courier-imap", "restart");
}

int set_courier_params(int relayclient, int popauth, int16_t poplock_time, int shortnames)
{
    char time[8];
    std::snprintf(time, sizeof time, "%d", poplock_time);
    courier_param params[5] = {
        {"RELAYCLIENT", relayclient ? COURIER_PARAM_SET : COURIER_PARAM_REMOVE, ""},
        {"POPAUTH", popauth ? COURIER_PARAM_SET : COURIER_PARAM_REMOVE, "1"},
        {"SHORTNAMES", shortnames ? COURIER_PARAM_SET : COURIER_PARAM_REMOVE, "1"},
        {nullptr, 0, nullptr},
        {nullptr, 0, nullptr},
    };
    if (poplock_time >= 0)
        params[3] = {"POPLOCK_TIME", poplock_time > 0 ? COURIER_PARAM_SET : COURIER_PARAM_REMOVE,
                     time};
    return set_courier_params_list(params);
}

int set_courier_shortnames_params(int shortnames)
{
    const courier_param params[] = {
        {"SHORTNAMES", shortnames ? COURIER_PARAM_SET : COURIER_PARAM_REMOVE, "1"},
        {nullptr, 0, nullptr},
    };
    return set_courier_params_list(params);
}

void courier_set_restart_for_testing(int (*fn)(const char *service, const char *action))
{
    restart = fn != nullptr ? fn : restart_daemon;
}
