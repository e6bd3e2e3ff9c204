// Panel-wide switches kept as name/value rows in the panel's "misc" table.
//
// The parameter name goes into the query escaped like any value.
// getBoolMiscParamSafe never throws for a database problem: it
// writes one warning line to zarnet::uerr and reads the switch as off.
// getStringMiscParam lets mError through.
#ifndef MAILTEND_MAIL_PANEL_RESTORE_PARAMS_H
#define MAILTEND_MAIL_PANEL_RESTORE_PARAMS_H

#include "utils/cpp_mysql.h"

#include <string>

namespace zarnet {
namespace mail {
namespace restore {

// True only when the row exists and its value is exactly "true".
bool getBoolMiscParamSafe(const std::string &param, zarnet::mysql::Connection &conn);

// The row's value; "" when there is no such row or the value is NULL.
std::string getStringMiscParam(const std::string &param, zarnet::mysql::Connection &conn);

} // namespace restore
} // namespace mail
} // namespace zarnet

#endif
