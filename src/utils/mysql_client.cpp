#include "utils/mysql_client.h"

#include <mysql.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

// Every client function the program calls: adding a call to another one
// fails at link time until it is listed here and forwarded below.
#define MYSQL_CLIENT_FUNCTIONS(X)                                                            \
    X(mysql_init)                                                                            \
    X(mysql_options)                                                                         \
    X(mysql_real_connect)                                                                    \
    X(mysql_close)                                                                           \
    X(mysql_errno)                                                                           \
    X(mysql_error)                                                                           \
    X(mysql_query)                                                                           \
    X(mysql_real_query)                                                                      \
    X(mysql_real_escape_string)                                                              \
    X(mysql_field_count)                                                                     \
    X(mysql_store_result)                                                                    \
    X(mysql_free_result)                                                                     \
    X(mysql_num_rows)                                                                        \
    X(mysql_num_fields)                                                                      \
    X(mysql_fetch_row)                                                                       \
    X(mysql_fetch_lengths)                                                                   \
    X(mysql_fetch_fields)

namespace {

struct Client {
#define MYSQL_CLIENT_POINTER(f) decltype(&::f) f = nullptr;
    MYSQL_CLIENT_FUNCTIONS(MYSQL_CLIENT_POINTER)
#undef MYSQL_CLIENT_POINTER
};

std::string load_error(const char *detail)
{
    return std::string("Unable to load MySQL client library: ") +
           (detail != nullptr ? detail : "unknown error");
}

// The library's handle with every function resolved, or null with *error set.
void *open_client(const char *soname, Client *client, std::string *error)
{
    void *handle = dlopen(soname, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        *error = load_error(dlerror());
        return nullptr;
    }
    // dlsym may legitimately return null only for a symbol whose value is
    // null, which no function has; the error text tells the two apart.
#define MYSQL_CLIENT_RESOLVE(f)                                                              \
    dlerror();                                                                               \
    client->f = reinterpret_cast<decltype(&::f)>(dlsym(handle, #f));                         \
    if (client->f == nullptr) {                                                              \
        *error = load_error(dlerror());                                                      \
        dlclose(handle);                                                                     \
        return nullptr;                                                                      \
    }
    MYSQL_CLIENT_FUNCTIONS(MYSQL_CLIENT_RESOLVE)
#undef MYSQL_CLIENT_RESOLVE
    return handle;
}

struct Loaded {
    Client client;
    bool ready = false;
    std::string error;
};

// Never closed: handles and results may live until exit.
const Loaded &loaded()
{
    static const Loaded once = [] {
        Loaded l;
        l.ready = open_client(mysql_client_soname, &l.client, &l.error) != nullptr;
        return l;
    }();
    return once;
}

const Client &client()
{
    const Loaded &l = loaded();
    if (!l.ready) {
        std::fprintf(stderr, "MySQL client function called before the library was loaded\n");
        std::abort();
    }
    return l.client;
}

} // namespace

bool mysql_client_load(std::string *error)
{
    const Loaded &l = loaded();
    if (!l.ready && error != nullptr)
        *error = l.error;
    return l.ready;
}

std::string mysql_client_probe(const char *soname)
{
    Client probe;
    std::string error;
    if (void *handle = open_client(soname, &probe, &error))
        dlclose(handle);
    return error;
}

extern "C" {

MYSQL *STDCALL mysql_init(MYSQL *mysql)
{
    return mysql_client_load() ? loaded().client.mysql_init(mysql) : nullptr;
}

int STDCALL mysql_options(MYSQL *mysql, enum mysql_option option, const void *arg)
{
    return client().mysql_options(mysql, option, arg);
}

MYSQL *STDCALL mysql_real_connect(MYSQL *mysql, const char *host, const char *user,
                                  const char *passwd, const char *db, unsigned int port,
                                  const char *unix_socket, unsigned long clientflag)
{
    return client().mysql_real_connect(mysql, host, user, passwd, db, port, unix_socket,
                                       clientflag);
}

// The library ignores a null handle or result; so must these, loaded or not.
void STDCALL mysql_close(MYSQL *sock)
{
    if (sock != nullptr)
        client().mysql_close(sock);
}

unsigned int STDCALL mysql_errno(MYSQL *mysql) { return client().mysql_errno(mysql); }
const char *STDCALL mysql_error(MYSQL *mysql) { return client().mysql_error(mysql); }
int STDCALL mysql_query(MYSQL *mysql, const char *q) { return client().mysql_query(mysql, q); }

int STDCALL mysql_real_query(MYSQL *mysql, const char *q, unsigned long length)
{
    return client().mysql_real_query(mysql, q, length);
}

unsigned long STDCALL mysql_real_escape_string(MYSQL *mysql, char *to, const char *from,
                                               unsigned long length)
{
    return client().mysql_real_escape_string(mysql, to, from, length);
}

unsigned int STDCALL mysql_field_count(MYSQL *mysql) { return client().mysql_field_count(mysql); }
MYSQL_RES *STDCALL mysql_store_result(MYSQL *mysql) { return client().mysql_store_result(mysql); }
void STDCALL mysql_free_result(MYSQL_RES *result)
{
    if (result != nullptr)
        client().mysql_free_result(result);
}

my_ulonglong STDCALL mysql_num_rows(MYSQL_RES *res) { return client().mysql_num_rows(res); }
unsigned int STDCALL mysql_num_fields(MYSQL_RES *res) { return client().mysql_num_fields(res); }
MYSQL_ROW STDCALL mysql_fetch_row(MYSQL_RES *result) { return client().mysql_fetch_row(result); }

unsigned long *STDCALL mysql_fetch_lengths(MYSQL_RES *result)
{
    return client().mysql_fetch_lengths(result);
}

MYSQL_FIELD *STDCALL mysql_fetch_fields(MYSQL_RES *res) { return client().mysql_fetch_fields(res); }

} // extern "C"
