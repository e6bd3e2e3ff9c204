#include "utils/cpp_mysql.h"

#include "utils/dbconnect.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

namespace zarnet {
namespace mysql {

mError::mError(const char *message) : message_(message != nullptr ? message : "") {}

mError::mError(const std::string &message) : message_(message) {}

mError::mError(MYSQL *handle, const std::string &context)
{
    const unsigned int code = handle != nullptr ? mysql_errno(handle) : 0;
    if (code == 0) {
        message_ = "Unknown error\n";
        return;
    }
    message_ = "MySQL error " + std::to_string(code) + ": " + mysql_error(handle) + context;
}

Field::Field(const char *bytes, unsigned long length)
{
    if (bytes != nullptr) {
        bytes_.assign(bytes, length);
        null_ = false;
    }
}

const Field &Result::row_t::operator[](const std::string &column) const
{
    const auto it = fields_.find(column);
    if (it == fields_.end())
        throw mError("No field named " + column + " in result set");
    return it->second;
}

Result::Result(MYSQL_RES *res, MYSQL *handle, const std::string &context) : res_(res)
{
    const unsigned int count = mysql_num_fields(res_);
    const MYSQL_FIELD *fields = mysql_fetch_fields(res_);
    if (fields == nullptr && count != 0) {
        mysql_free_result(res_);
        res_ = nullptr;
        throw mError(handle, context);
    }
    names_.reserve(count);
    for (unsigned int i = 0; i < count; ++i)
        names_.emplace_back(fields[i].name, fields[i].name_length);
}

Result::~Result()
{
    if (res_ != nullptr)
        mysql_free_result(res_);
}

Result::Result(Result &&other) noexcept
    : res_(std::exchange(other.res_, nullptr)), names_(std::move(other.names_))
{
}

Result &Result::operator=(Result &&other) noexcept
{
    if (this != &other) {
        if (res_ != nullptr)
            mysql_free_result(res_);
        res_ = std::exchange(other.res_, nullptr);
        names_ = std::move(other.names_);
    }
    return *this;
}

bool Result::fetch(row_t *row)
{
    row->fields_.clear();
    if (res_ == nullptr)
        return false;
    const MYSQL_ROW data = mysql_fetch_row(res_);
    if (data == nullptr)
        return false;
    const unsigned long *lengths = mysql_fetch_lengths(res_);
    const unsigned int count = mysql_num_fields(res_);
    for (unsigned int i = 0; i < count && i < names_.size(); ++i) {
        const bool added =
            row->fields_.emplace(names_[i], Field(data[i], lengths[i])).second;
        if (!added) {
            row->fields_.clear();
            throw mError("duplicated field " + names_[i] + " in query");
        }
    }
    return true;
}

unsigned long long Result::rowCount() const
{
    return res_ != nullptr ? mysql_num_rows(res_) : 0;
}

Connection::Connection(bool openNow)
{
    if (openNow)
        open();
}

Connection::Connection(MYSQL *handle, bool own) : handle_(handle), own_(own) {}

Connection::~Connection()
{
    if (own_ && handle_ != nullptr)
        mysql_close(handle_);
}

Connection::Connection(Connection &&other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)), own_(other.own_),
      query_(std::move(other.query_)), mode_(std::exchange(other.mode_, Quoting::raw))
{
}

Connection &Connection::operator=(Connection &&other) noexcept
{
    if (this != &other) {
        if (own_ && handle_ != nullptr)
            mysql_close(handle_);
        handle_ = std::exchange(other.handle_, nullptr);
        own_ = other.own_;
        query_ = std::move(other.query_);
        mode_ = std::exchange(other.mode_, Quoting::raw);
    }
    return *this;
}

MYSQL *Connection::open()
{
    if (handle_ == nullptr) {
        handle_ = db_shared_nothrow();
        if (handle_ == nullptr)
            throw mError("connection failed");
        own_ = false;
    }
    return handle_;
}

std::string Connection::escape(const char *text, unsigned long length)
{
    if (length == 0)
        length = std::strlen(text);
    MYSQL *handle = open();
    std::string out;
    try {
        out.resize(2 * static_cast<size_t>(length) + 1);
    } catch (const std::length_error &) {
        throw std::bad_alloc();
    }
    const unsigned long n = mysql_real_escape_string(handle, &out[0], text, length);
    if (n == static_cast<unsigned long>(-1))
        throw mError(handle, " escaping a value");
    out.resize(n);
    return out;
}

std::string Connection::escape_name(const char *text, unsigned long length)
{
    if (length == 0)
        length = std::strlen(text);
    std::string out;
    out.reserve(length);
    for (unsigned long i = 0; i < length; ++i) {
        out += text[i];
        if (text[i] == '`')
            out += '`';
    }
    return out;
}

Connection &Connection::operator<<(QuotingMode mode)
{
    mode_ = mode.mode;
    return *this;
}

void Connection::append(const char *text, unsigned long length)
{
    const Quoting mode = std::exchange(mode_, Quoting::raw);
    switch (mode) {
    case Quoting::raw:
        query_.write(text, static_cast<std::streamsize>(length));
        break;
    case Quoting::value:
        // escape treats 0 as "use strlen", which is also right for "".
        query_ << escape(text, length);
        break;
    case Quoting::name:
        query_ << escape_name(text, length);
        break;
    }
}

void Connection::appendNumber(const std::string &text)
{
    mode_ = Quoting::raw;
    query_ << text;
}

Connection &Connection::operator<<(const char *text)
{
    append(text, std::strlen(text));
    return *this;
}

Connection &Connection::operator<<(const std::string &text)
{
    append(text.data(), text.size());
    return *this;
}

Connection &Connection::operator<<(int number)
{
    appendNumber(std::to_string(number));
    return *this;
}

Connection &Connection::operator<<(double number)
{
    char buf[400]; // "%f" of the largest double needs 316
    std::snprintf(buf, sizeof buf, "%f", number);
    appendNumber(buf);
    return *this;
}

Connection &Connection::operator<<(unsigned long long number)
{
    appendNumber(std::to_string(number));
    return *this;
}

std::string Connection::takeQuery()
{
    std::string text = query_.str();
    query_.str(std::string());
    query_.clear();
    mode_ = Quoting::raw;
    return text;
}

Connection &Connection::operator<<(Query::exec_t)
{
    const std::string text = takeQuery();
    MYSQL *handle = open();
    if (mysql_real_query(handle, text.data(), text.size()) != 0)
        throw mError(handle, " executing query: " + text);
    // A statement that returns rows anyway must be drained, or the next
    // query on this handle fails as out of sync.
    if (mysql_field_count(handle) != 0) {
        MYSQL_RES *res = mysql_store_result(handle);
        if (res != nullptr)
            mysql_free_result(res);
    }
    return *this;
}

Result Connection::operator<<(Query::fetch_t)
{
    const std::string text = takeQuery();
    MYSQL *handle = open();
    if (mysql_real_query(handle, text.data(), text.size()) != 0)
        throw mError(handle, " executing query: " + text);
    MYSQL_RES *res = mysql_store_result(handle);
    if (res == nullptr)
        throw mError(handle, " fetching result of query: " + text);
    return Result(res, handle, " fetching result of query: " + text);
}

} // namespace mysql
} // namespace zarnet
