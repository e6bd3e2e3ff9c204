#include "mail/storage/DotQMailManager.h"

#include "mail/storage/mailname_delivery.h"
#include "mail/storage/mailname_forward.h"
#include "utils/ExSystemError.h"

#include <cerrno>

namespace zarnet {
namespace mail {

void DotQMailManager::check(int result) const
{
    if (result != 0)
        refuse(errno);
}

void DotQMailManager::reset()
{
    check(dotqmail_reset(path_.c_str()));
}

void DotQMailManager::enableDelivery()
{
    check(dotqmail_add_delivery(path_.c_str()));
}

void DotQMailManager::disableDelivery()
{
    check(dotqmail_remove_delivery(path_.c_str()));
}

void DotQMailManager::addRedirect(const std::string &address, Position position)
{
    if (position != MoveToTop)
        refuse(EINVAL);
    checkAddress(address);
    check(dotqmail_add_forward(path_.c_str(), address.c_str()));
}

void DotQMailManager::removeRedirect(const std::string &address)
{
    checkAddress(address);
    check(dotqmail_remove_forward(path_.c_str(), address.c_str()));
}

void DotQMailManager::checkAddress(const std::string &address) const
{
    // Cut at a NUL, it would name another forward.
    if (address.find('\0') != std::string::npos)
        refuse(EINVAL);
}

void DotQMailManager::refuse(int code) const
{
    throw SystemError("unable to modify " + path_, code);
}

} // namespace mail
} // namespace zarnet
