#include "mail/panel/restore_params.h"

#include "utils/UtilityErrorStream.h"

#include <ostream>

namespace zarnet {
namespace mail {
namespace restore {

namespace {

using zarnet::mysql::Connection;
using zarnet::mysql::Query;
using zarnet::mysql::Result;

// The row of param, if any; the Result frees the set on every path.
bool fetchMiscRow(const std::string &param, Connection &conn, Result::row_t *row)
{
    Result result = conn << "SELECT    val  FROM misc    WHERE param='" << zarnet::mysql::value
                         << param << "'" << Query::fetch;
    return result.fetch(row);
}

} // namespace

bool getBoolMiscParamSafe(const std::string &param, Connection &conn)
{
    try {
        Result::row_t row;
        if (!fetchMiscRow(param, conn, &row))
            return false;
        return row["val"].str() == "true";
    } catch (const zarnet::mysql::mError &e) {
        zarnet::uerr << "Warning: MySQL Error on Mail Authentication Type query: " << e.what()
                     << ", ignored" << std::endl;
        return false;
    }
}

std::string getStringMiscParam(const std::string &param, Connection &conn)
{
    Result::row_t row;
    if (!fetchMiscRow(param, conn, &row))
        return std::string();
    return row["val"];
}

} // namespace restore
} // namespace mail
} // namespace zarnet
