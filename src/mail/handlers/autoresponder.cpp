#include "mail/handlers/autoresponder.h"

#include "mail/handlers/handlers.h"
#include "mail/handlers/handlers_internal.h"
#include "utils/idn.h"
#include "utils/liblog.h"
#include "utils/product_log.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

const std::size_t max_address = 254;

std::vector<std::string> splitList(const std::string &list)
{
    std::vector<std::string> items;
    std::string::size_type start = 0;
    for (;;) {
        const auto end = list.find(", ", start);
        const std::string item = list.substr(start, end - start);
        if (!item.empty())
            items.push_back(item);
        if (end == std::string::npos)
            return items;
        start = end + 2;
    }
}

} // namespace

int autoresponder_action(const char *mailnames, const char *domains, int action)
{
    if (mailnames == nullptr) {
        messlog2(0, 0, "Unable to split mailnames list");
        return -1;
    }
    if (domains == nullptr) {
        messlog2(0, 0, "Unable to split domains list");
        return -1;
    }
    handlers_internal::RefreshScope scope;
    if (!scope.held())
        return -1;
    const std::string executable = handlers_internal::root() + "/hooks/autoresponder";
    bool failed = false;
    for (const std::string &mailname : splitList(mailnames)) {
        for (const std::string &domain : splitList(domains)) {
            char *ascii = idn_toascii(domain.c_str());
            if (ascii == nullptr) {
                errno = 0;
                messlog2(0, 0, "idn_toascii() failed: %s", idn_strerror(idn_errno));
                return -1;
            }
            std::string address = mailname + "@" + ascii;
            std::free(ascii);
            if (address.size() > max_address) {
                errno = 0;
                messlog2(0, 0, "domain name too long\n");
                return -1;
            }
            // Handler values are looked up as the domain layer stores them.
            for (auto i = mailname.size() + 1; i < address.size(); ++i)
                address[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(address[i])));

            char *name = get_handler_name("autoresponder", "recipient", address.c_str(),
                                          "before-local");
            if (action == HANDLER_ACTION_ENABLE && name == nullptr) {
                if (mail_handler_add("autoresponder", "recipient", address.c_str(),
                                     executable.c_str(), "responder", "before-local", "90",
                                     HANDLER_ACTION_ENABLE) != 0)
                    failed = true;
            } else if (action == HANDLER_ACTION_DISABLE && name != nullptr) {
                if (mail_handler_remove(name) != 0)
                    failed = true;
            }
            std::free(name);
        }
    }
    if (failed) {
        zarnet_log(3, "Unable to make action for some autoresponder handlers");
        return -1;
    }
    return 0;
}
