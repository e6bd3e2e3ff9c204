#include "mail/panel/panel_queries.h"

#include "utils/dbconnect.h"
#include "utils/liblog.h"
#include "utils/product_log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

namespace {

// value escaped by the client library for a '...' literal in the
// connection's character set; ok is cleared when the library refuses.
std::string escaped(MYSQL *conn, const char *value, bool *ok)
{
    const size_t length = std::strlen(value);
    std::string out(2 * length + 1, '\0');
    const unsigned long n =
        mysql_real_escape_string(conn, &out[0], value, static_cast<unsigned long>(length));
    if (n == static_cast<unsigned long>(-1)) {
        *ok = false;
        return std::string();
    }
    out.resize(n);
    return out;
}

// format with one escaped value per "%s", in order.
template <std::size_t... I>
int format_query(char **query, const char *format, const std::string *values,
                 std::index_sequence<I...>)
{
    return asprintf(query, format, values[I].c_str()...);
}

// Runs the query formatted from the names, each escaped on the connection it
// runs on (they come from the command line and may hold quotes); any failure,
// formatting included, is also logged as failure with the names as given.
template <typename... Names>
int list_query(MYSQL *conn, char ***out, const char *failure, const char *format, Names... names)
{
    *out = nullptr;
    if (conn == nullptr && (conn = db_shared()) == nullptr) {
        zarnet_log(3, "Unable to connect to mysql database");
        zarnet_log(3, failure, names...);
        return -1;
    }
    bool ok = true;
    const std::string values[] = {escaped(conn, names, &ok)...};
    char *query = nullptr;
    int rc = -1;
    int n = -1;
    if (ok)
        n = format_query(&query, format, values, std::index_sequence_for<Names...>());
    if (n < 0) {
        zarnet_log(3, "Unable to create database query");
    } else {
        rc = exec_mysql_query(conn, query, out);
        std::free(query);
    }
    if (rc != 0)
        zarnet_log(3, failure, names...);
    return rc == 0 ? 0 : -1;
}

} // namespace

int get_domaliases_by_domain(MYSQL *conn, char ***out, const char *domain)
{
    return list_query(conn, out, "Unable to get domain aliases from database for: %s",
                      "SELECT da.name FROM domainaliases da JOIN domains d WHERE da.dom_id=d.id and "
                      "d.name='%s'",
                      domain);
}

int get_mailnames_by_domain(MYSQL *conn, char ***out, const char *domain)
{
    return list_query(conn, out, "Unable to get mailnames from domain: %s",
                      "SELECT m.mail_name FROM mail m JOIN domains d WHERE m.dom_id=d.id AND d.name='%s'",
                      domain);
}

int get_aliases_by_mailname(MYSQL *conn, char ***out, const char *mailname,
                            const char *domain)
{
    return list_query(conn, out, "Unable to get aliases for mailname: %s@%s",
                      "SELECT ma.alias FROM mail_aliases ma JOIN mail m, domains d WHERE ma.mn_id=m.id AND "
                      "m.mail_name='%s' AND m.dom_id=d.id AND d.name='%s'",
                      mailname, domain);
}

int get_domain_by_domainalias(MYSQL *conn, char ***out, const char *alias)
{
    return list_query(conn, out, "Unable to get domain by domainalias: %s",
                      "SELECT d.name FROM domains d JOIN domainaliases da WHERE d.id=da.dom_id AND "
                      "da.name='%s'",
                      alias);
}

int get_dom_Limit(const char *dom_id, const char *name, char *out, size_t size)
{
    if (size > 0)
        out[0] = '\0';
    MYSQL *const conn = db_shared();
    if (conn == nullptr) {
        messlog2(0, 0, "Unable to connect to the mysql database\n");
        return -1;
    }

    bool ok = true;
    const std::string id = escaped(conn, dom_id, &ok);
    const std::string limit = escaped(conn, name, &ok);
    char query[1024];
    const int n = !ok ? -1
                      : std::snprintf(query, sizeof query,
                                      "select l.value from domains d, Limits l \t\t\t\t where "
                                      "d.id='%s' and d.limits_id=l.id  and l.limit_name='%s'",
                                      id.c_str(), limit.c_str());
    if (n < 0 || static_cast<size_t>(n) >= sizeof query) {
        zarnet_log(3, "Unable to create database query");
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
    return rc;
}
