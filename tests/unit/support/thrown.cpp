#include "support/thrown.h"

#include "utils/ExSystemError.h"

#include <stdexcept>
#include <typeinfo>

namespace testsupport {

std::string thrown(const std::function<void()> &fn)
{
    try {
        fn();
    } catch (const zarnet::SystemError &e) {
        return std::string("SystemError: ") + e.std::runtime_error::what() + " (" +
               std::to_string(e.code()) + ")";
    } catch (const std::exception &e) {
        const std::type_info &t = typeid(e);
        const char *kind = t == typeid(std::exception)          ? "exception"
                           : t == typeid(std::logic_error)      ? "logic_error"
                           : t == typeid(std::invalid_argument) ? "invalid_argument"
                           : t == typeid(std::runtime_error)    ? "runtime_error"
                                                                : t.name();
        return std::string(kind) + ": " + e.what();
    } catch (...) {
        return "non-exception";
    }
    return "nothing";
}

} // namespace testsupport
