#include "mailtend/MailnameValidators.h"

#include <stdexcept>

namespace zarnet::mail::postfix::mailname_validators {

int mailValidateExc(const std::string &name, validation_type type)
{
    // A NUL inside the name would hide whatever follows it from the check.
    const int result = name.find('\0') == std::string::npos
                           ? mail_validate(name.c_str(), type)
                           : 0;
    if (result == 0)
        throw std::invalid_argument(name);
    return result;
}

} // namespace zarnet::mail::postfix::mailname_validators
