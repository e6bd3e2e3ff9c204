// A small query-building and result-reading wrapper over the MySQL client.
//
// A Connection collects a query from a chain of insertions and runs it when
// a Query tag is inserted:
//
//     conn << "DELETE FROM misc WHERE param='" << value << p << "'" << Query::exec;
//     Result r = conn << "SELECT val FROM misc" << Query::fetch;
//     Result::row_t row;
//     while (r.fetch(&row)) use(std::string(row["val"]));
//
// Inserting `value` or `name` selects how the next string is quoted (escaped
// for a '...' literal or for a `...` identifier; the quotes themselves are
// the caller's); after every insertion the mode is raw again. Query::exec
// returns the connection, Query::fetch the query's Result, which owns the
// stored result set and may outlive the chain but not the connection.
//
// Every database failure throws mError; the connection is the process's
// shared one (db_shared_nothrow), taken on first use, and a failed open
// throws mError "connection failed" (the detailed reason stays with
// db_shared_nothrow). A Connection closes its handle at destruction only
// when it owns it.
#ifndef MAILTEND_UTILS_CPP_MYSQL_H
#define MAILTEND_UTILS_CPP_MYSQL_H

#include <mysql.h>

#include <boost/lexical_cast.hpp>

#include <exception>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace zarnet {
namespace mysql {

class mError : public std::exception {
public:
    explicit mError(const char *message);
    explicit mError(const std::string &message);
    // "MySQL error N: TEXT" + context, or "Unknown error\n" when the client
    // reports no error number.
    mError(MYSQL *handle, const std::string &context);

    const char *what() const noexcept override { return message_.c_str(); }

private:
    std::string message_;
};

// One column of a fetched row: its bytes, or SQL NULL. NULL reads as the
// empty string; a number conversion of NULL or of text that is not a number
// throws boost::bad_lexical_cast.
class Field {
public:
    Field() = default;
    Field(const char *bytes, unsigned long length);

    bool isNull() const { return null_; }
    const std::string &str() const { return bytes_; }

    template <typename T> T as() const { return boost::lexical_cast<T>(bytes_); }

    operator std::string() const { return bytes_; }
    explicit operator short() const { return as<short>(); }
    explicit operator int() const { return as<int>(); }
    explicit operator long() const { return as<long>(); }
    explicit operator long long() const { return as<long long>(); }

private:
    std::string bytes_;
    bool null_ = true;
};

class Result {
public:
    class row_t {
    public:
        // Throws mError "No field named X in result set".
        const Field &operator[](const std::string &column) const;

    private:
        friend class Result;
        std::map<std::string, Field> fields_;
    };

    Result() = default;
    // Takes over res (freed at destruction); throws mError with context when
    // the column names cannot be read.
    Result(MYSQL_RES *res, MYSQL *handle, const std::string &context);
    ~Result();
    Result(Result &&other) noexcept;
    Result &operator=(Result &&other) noexcept;
    Result(const Result &) = delete;
    Result &operator=(const Result &) = delete;

    // Replaces *row with the next row; false when there is none. Two columns
    // of one name throw mError "duplicated field X in query".
    bool fetch(row_t *row);
    unsigned long long rowCount() const;

private:
    MYSQL_RES *res_ = nullptr;
    std::vector<std::string> names_;
};

struct Query {
    struct exec_t {};
    struct fetch_t {};
    static constexpr exec_t exec{};
    static constexpr fetch_t fetch{};
};

enum class Quoting { raw, value, name };

struct QuotingMode {
    Quoting mode;
};

inline constexpr QuotingMode raw{Quoting::raw};
inline constexpr QuotingMode value{Quoting::value};
inline constexpr QuotingMode name{Quoting::name};

class Connection {
public:
    explicit Connection(bool openNow = false);
    Connection(MYSQL *handle, bool own);
    ~Connection();
    Connection(Connection &&other) noexcept;
    Connection &operator=(Connection &&other) noexcept;
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    // The handle, connecting first when there is none.
    MYSQL *open();

    // Escaped for a '...' literal (connects first: escaping follows the
    // connection's character set). length 0: strlen(text).
    std::string escape(const char *text, unsigned long length = 0);
    // Every backquote doubled, for a `...` identifier. length 0: strlen(text).
    static std::string escape_name(const char *text, unsigned long length = 0);

    Connection &operator<<(QuotingMode mode);
    Connection &operator<<(const char *text);
    Connection &operator<<(const std::string &text);
    Connection &operator<<(int number);
    Connection &operator<<(double number);
    Connection &operator<<(unsigned long long number);
    // Both run the text built so far and leave the buffer empty, also when
    // they throw.
    Connection &operator<<(Query::exec_t);
    [[nodiscard]] Result operator<<(Query::fetch_t);

    // The text built since the last run.
    std::string queryText() const { return query_.str(); }

private:
    void append(const char *text, unsigned long length);
    void appendNumber(const std::string &text);
    std::string takeQuery();

    MYSQL *handle_ = nullptr;
    bool own_ = true;
    std::ostringstream query_;
    Quoting mode_ = Quoting::raw;
};

} // namespace mysql
} // namespace zarnet

#endif
