#include "mail/panel/panel_queries.h"

#include "utils/dbconnect.h"
#include "utils/liblog.h"
#include "utils/product_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

struct FreeDeleter {
    void operator()(char *p) const { std::free(p); }
};
using QueryText = std::unique_ptr<char, FreeDeleter>;

// The formatted text, or null when it could not be built.
__attribute__((format(printf, 1, 2)))
QueryText asprintf_safe(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    char *text = nullptr;
    const int n = vasprintf(&text, format, args);
    va_end(args);
    if (n < 0)
        return QueryText();
    return QueryText(text);
}

// Runs a built query; a null text is a formatting failure.
int run_list_query(MYSQL *conn, char ***out, const QueryText &query)
{
    if (!query) {
        zarnet_log(3, "Unable to create database query");
        return -1;
    }
    return exec_mysql_query(conn, query.get(), out);
}

} // namespace

int get_domaliases_by_domain(MYSQL *conn, char ***out, const char *domain)
{
    const QueryText query = asprintf_safe(
        "SELECT da.name FROM domainaliases da JOIN domains d WHERE da.dom_id=d.id and "
        "d.name='%s'",
        domain);
    if (run_list_query(conn, out, query) != 0) {
        zarnet_log(3, "Unable to get domain aliases from database for: %s", domain);
        return -1;
    }
    return 0;
}

int get_mailnames_by_domain(MYSQL *conn, char ***out, const char *domain)
{
    const QueryText query = asprintf_safe(
        "SELECT m.mail_name FROM mail m JOIN domains d WHERE m.dom_id=d.id AND d.name='%s'",
        domain);
    if (run_list_query(conn, out, query) != 0) {
        zarnet_log(3, "Unable to get mailnames from domain: %s", domain);
        return -1;
    }
    return 0;
}

int get_aliases_by_mailname(MYSQL *conn, char ***out, const char *mailname,
                            const char *domain)
{
    const QueryText query = asprintf_safe(
        "SELECT ma.alias FROM mail_aliases ma JOIN mail m, domains d WHERE ma.mn_id=m.id AND "
        "m.mail_name='%s' AND m.dom_id=d.id AND d.name='%s'",
        mailname, domain);
    if (run_list_query(conn, out, query) != 0) {
        zarnet_log(3, "Unable to get aliases for mailname: %s@%s", mailname, domain);
        return -1;
    }
    return 0;
}

int get_domain_by_domainalias(MYSQL *conn, char ***out, const char *alias)
{
    const QueryText query = asprintf_safe(
        "SELECT d.name FROM domains d JOIN domainaliases da WHERE d.id=da.dom_id AND "
        "da.name='%s'",
        alias);
    if (run_list_query(conn, out, query) != 0) {
        zarnet_log(3, "Unable to get domain by domainalias: %s", alias);
        return -1;
    }
    return 0;
}

int get_dom_Limit(const char *dom_id, const char *name, char *out, size_t size)
{
    if (size > 0)
        out[0] = '\0';
    char query[1024];
    const int n = std::snprintf(query, sizeof query,
                                "select l.value from domains d, Limits l \t\t\t\t where "
                                "d.id='%s' and d.limits_id=l.id  and l.limit_name='%s'",
                                dom_id, name);
    if (n < 0 || static_cast<size_t>(n) >= sizeof query) {
        zarnet_log(3, "Unable to create database query");
        return -1;
    }

    MYSQL *conn = db_connect();
    if (conn == nullptr) {
        messlog2(0, 0, "Unable to connect to the mysql database\n");
        return -1;
    }

    int rc = -1;
    MYSQL_RES *res = nullptr;
    if (mysql_real_query(conn, query, static_cast<unsigned long>(n)) != 0 ||
        (res = mysql_store_result(conn)) == nullptr) {
        // errno here is a leftover of the client library, not this failure's cause.
        errno = 0;
        messlog2(0, 0, "Unable to query domain limit %s: %s\n", name, mysql_error(conn));
    } else {
        const MYSQL_ROW row = mysql_fetch_row(res);
        const char *value = row != nullptr && row[0] != nullptr ? row[0] : "";
        if (std::strlen(value) >= size) {
            errno = 0;
            messlog2(0, 0, "Unable to query domain limit %s: %s\n", name,
                     "the value does not fit the buffer");
        } else {
            std::memcpy(out, value, std::strlen(value) + 1);
            rc = 0;
        }
    }
    if (res != nullptr)
        mysql_free_result(res);
    mysql_close(conn);
    return rc;
}
