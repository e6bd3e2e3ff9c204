#include "mail/postfix/MailnameManager.h"

#include "mail/storage/DotQMailManager.h"
#include "mail/storage/MaildirManager.h"

namespace zarnet {
namespace mail {
namespace postfix {

std::string MailnameManager::deliveryFilePath(const std::string &domain,
                                              const std::string &mailname)
{
    return (MaildirManager::getInstance().getMailnameHome(domain, mailname) / ".qmail").string();
}

void MailnameManager::enableDelivery(const std::string &domain, const std::string &mailname)
{
    DotQMailManager(deliveryFilePath(domain, mailname)).enableDelivery();
}

void MailnameManager::disableDelivery(const std::string &domain, const std::string &mailname)
{
    DotQMailManager(deliveryFilePath(domain, mailname)).disableDelivery();
}

void MailnameManager::addForward(const std::string &domain, const std::string &mailname,
                                 const std::string &email)
{
    DotQMailManager(deliveryFilePath(domain, mailname))
        .addRedirect(email, DotQMailManager::MoveToTop);
}

void MailnameManager::removeForward(const std::string &domain, const std::string &mailname,
                                    const std::string &email)
{
    DotQMailManager(deliveryFilePath(domain, mailname)).removeRedirect(email);
}

} // namespace postfix
} // namespace mail
} // namespace zarnet
