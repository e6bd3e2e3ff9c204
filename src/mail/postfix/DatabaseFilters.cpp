#include "mail/postfix/DatabaseFilters.h"

namespace zarnet {
namespace mail {
namespace postfix {
namespace database {

bool belongsToDomain(const std::string &element, const std::string &domain, bool subdomains)
{
    if (domain.empty() || element.size() < domain.size())
        return false;
    const std::string::size_type at = element.size() - domain.size();
    if (element.compare(at, std::string::npos, domain) != 0)
        return false;
    if (at == 0)
        return true;
    const char before = element[at - 1];
    return before == '@' || (subdomains && before == '.');
}

bool ReplaceElementFilterRef::operator()(std::string &element) const
{
    if (element == from_)
        element = to_;
    return true;
}

bool NotInDomainFilter::operator()(std::string &element) const
{
    return !belongsToDomain(element, domain_, subdomains_);
}

bool ReplaceDomainPart::operator()(std::string &element) const
{
    if (belongsToDomain(element, from_, subdomains_))
        element.replace(element.size() - from_.size(), from_.size(), to_);
    return true;
}

bool ReplaceDomainPath::operator()(std::string &value) const
{
    if (!from_.empty() && value.compare(0, from_.size(), from_) == 0)
        value.replace(0, from_.size(), to_);
    return true;
}

} // namespace database
} // namespace postfix
} // namespace mail
} // namespace zarnet
