#include "utils/dbconnect.h"

#include "utils/liblog.h"
#include "utils/mysql_client.h"
#include "utils/product_log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace {

const char *const password_file = "/etc/zrn/.zrn.shadow";

void set_error(std::string *error, const std::string &text)
{
    if (error != nullptr)
        *error = text;
}

// The first line of the password file without its line feed.
bool read_password(char (&buf)[100], std::string *error)
{
    FILE *f = std::fopen(password_file, "re");
    if (f == nullptr) {
        set_error(error, std::string("Unable to open admin password file: ") +
                             std::strerror(errno));
        return false;
    }
    errno = 0;
    const bool got = std::fgets(buf, sizeof buf, f) != nullptr;
    const int saved = errno;
    const bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (!got) {
        errno = failed ? saved : 0;
        set_error(error, std::string("Unable to read admin password file: ") +
                             (failed ? std::strerror(saved) : "the file is empty"));
        return false;
    }
    const size_t len = std::strlen(buf);
    if (len > 0 && buf[len - 1] == '\n')
        buf[len - 1] = '\0';
    return true;
}

// A panel database that accepts the connection but never answers must end
// the command with an error, not hang it; a healthy local server answers in
// milliseconds. Some client libraries try a timed-out read three times, so
// a stalled query may take up to three times read_timeout.
const unsigned int connect_timeout = 5; // seconds, the server's greeting included
const unsigned int read_timeout = 3;
const unsigned int write_timeout = 3;

// Timeouts, and the character set named at connect time so that the
// client's escaping follows the same charset as "SET NAMES utf8" selects.
bool set_options(MYSQL *conn)
{
    return mysql_options(conn, MYSQL_OPT_CONNECT_TIMEOUT, &connect_timeout) == 0 &&
           mysql_options(conn, MYSQL_OPT_READ_TIMEOUT, &read_timeout) == 0 &&
           mysql_options(conn, MYSQL_OPT_WRITE_TIMEOUT, &write_timeout) == 0 &&
           mysql_options(conn, MYSQL_SET_CHARSET_NAME, "utf8") == 0;
}

std::string db_error(MYSQL *conn, const char *context)
{
    const unsigned int code = mysql_errno(conn);
    if (code == 0)
        return std::string("DB error (") + context + "): unknown error";
    return std::string("DB error (") + context + ") " + std::to_string(code) + ": " +
           mysql_error(conn);
}

} // namespace

MYSQL *db_connect_nothrow(std::string *error)
{
    std::string load_error;
    if (!mysql_client_load(&load_error)) {
        set_error(error, load_error);
        errno = 0;
        return nullptr;
    }
    char password[100];
    if (!read_password(password, error))
        return nullptr;

    MYSQL *conn = mysql_init(nullptr);
    if (conn == nullptr) {
        explicit_bzero(password, sizeof password);
        errno = ENOMEM;
        set_error(error, std::string("Unable to initialize MySQL connection structure: ") +
                             std::strerror(ENOMEM));
        return nullptr;
    }
    if (!set_options(conn)) {
        explicit_bzero(password, sizeof password);
        set_error(error, std::string("Unable to initialize MySQL connection structure: ") +
                             "the client refused the connection options");
        mysql_close(conn);
        errno = 0;
        return nullptr;
    }
    MYSQL *ok = mysql_real_connect(conn, "localhost", "admin", password, "zrn", 0, nullptr, 0);
    explicit_bzero(password, sizeof password);
    if (ok == nullptr) {
        set_error(error, std::string("Unable to connect to Zarnet Database: ") +
                             mysql_error(conn));
        mysql_close(conn);
        // The client's text says it all; its errno is left over from inside.
        errno = 0;
        return nullptr;
    }
    if (mysql_query(conn, "SET NAMES utf8") != 0) {
        set_error(error, db_error(conn, "set names query"));
        mysql_close(conn);
        errno = 0;
        return nullptr;
    }
    return conn;
}

namespace {

// The shared connection. Closed only by the process that opened it: a
// forked child's exit would otherwise end the parent's session.
struct Shared {
    MYSQL *conn = nullptr;
    pid_t owner = 0;
    MYSQL *inherited = nullptr; // the parent's, kept reachable in a child
} held;

void close_shared()
{
    if (held.conn != nullptr && held.owner == getpid())
        mysql_close(held.conn);
    held.conn = nullptr;
}

MYSQL *shared(MYSQL *(*open)(std::string *), std::string *error)
{
    if (held.conn != nullptr && held.owner != getpid()) {
        held.inherited = held.conn;
        held.conn = nullptr;
    }
    if (held.conn == nullptr && (held.conn = open(error)) != nullptr) {
        held.owner = getpid();
        // Registered after the client library is up, so it runs before
        // anything the library set up for exit.
        static const bool registered = std::atexit(close_shared) == 0;
        static_cast<void>(registered);
    }
    return held.conn;
}

MYSQL *connect_reporting(std::string *) { return db_connect(); }

} // namespace

MYSQL *db_shared_nothrow(std::string *error) { return shared(db_connect_nothrow, error); }

MYSQL *db_shared() { return shared(connect_reporting, nullptr); }

MYSQL *db_connect()
{
    std::string error;
    MYSQL *conn = db_connect_nothrow(&error);
    if (conn == nullptr)
        messlog2(0, 0, "%s", error.c_str());
    return conn;
}

char **string_to_mas(char **array, const char *text)
{
    size_t count = 0;
    if (array != nullptr)
        while (array[count] != nullptr)
            ++count;
    char *copy = strdup(text);
    if (copy == nullptr) {
        zarnet_log(3, "System error: %s\n", std::strerror(errno));
        return nullptr;
    }
    char **grown = static_cast<char **>(std::realloc(array, (count + 2) * sizeof(char *)));
    if (grown == nullptr) {
        const int saved = errno;
        std::free(copy);
        zarnet_log(3, "System error: %s\n", std::strerror(saved));
        return nullptr;
    }
    grown[count] = copy;
    grown[count + 1] = nullptr;
    return grown;
}

void free_array(char **array)
{
    if (array == nullptr)
        return;
    for (char **p = array; *p != nullptr; ++p)
        std::free(*p);
    std::free(array);
}

int exec_mysql_query(MYSQL *conn, const char *query, char ***out)
{
    if (conn == nullptr && (conn = db_shared()) == nullptr) {
        zarnet_log(3, "Unable to connect to mysql database");
        return -1;
    }

    int rc = -1;
    char **array = nullptr;
    MYSQL_RES *res = nullptr;
    if (mysql_real_query(conn, query, std::strlen(query)) != 0 ||
        ((res = mysql_store_result(conn)) == nullptr && mysql_field_count(conn) != 0)) {
        zarnet_log(3, "Unable to get data from mysql database");
    } else {
        rc = 0;
        MYSQL_ROW row;
        while (res != nullptr && (row = mysql_fetch_row(res)) != nullptr) {
            const char *text = mysql_num_fields(res) > 0 && row[0] != nullptr ? row[0] : "";
            char **grown = string_to_mas(array, text);
            if (grown == nullptr) {
                zarnet_log(3, "Query error: %s", mysql_error(conn));
                free_array(array);
                array = nullptr;
                rc = -1;
                break;
            }
            array = grown;
        }
    }

    if (res != nullptr)
        mysql_free_result(res);
    *out = rc == 0 ? array : nullptr;
    return rc;
}
