#include "tools/setup/setup_steps.h"

#include "mail/postfix/MainCfManager.h"
#include "mail/postfix/lookup_tables.h"

#include <algorithm>

namespace zarnet {
namespace setup {

namespace {

namespace pf = mail::postfix;

enum Kind {
    Exact,   // the value as given
    Element, // an element of a simple list, added
    Piece,   // a piece of a compound list (a restriction with its table), added
};

struct Wanted {
    const char *name;
    std::string value;
    Kind kind;
};

// A list still at Postfix's built-in default, when that default is nothing
// or only a reference to another parameter, holds nothing of the operator's:
// the element replaces it. Any other list keeps what it has.
// The parameter "$name" or "${name}" refers to.
std::string referenced(const std::string &reference)
{
    std::string name = reference.substr(1);
    if (name.size() >= 2 && name.front() == '{' && name.back() == '}')
        name = name.substr(1, name.size() - 2);
    return name;
}

std::string withElement(const pf::MainCfManager &mainCf, const Wanted &w,
                        const std::string &current)
{
    const std::vector<std::string> elements = pf::MainCfManager::splitSimpleList(current);
    if (std::find(elements.begin(), elements.end(), w.value) != elements.end())
        return current;
    // A default reference to a parameter that holds something (the operator's
    // virtual_mailbox_maps behind virtual_mailbox_domains) is kept.
    if (elements.empty() || (elements.size() == 1 && elements[0][0] == '$' &&
                             current == mainCf.getStringValue(w.name, true) &&
                             mainCf.getStringValue(referenced(elements[0]), false).empty()))
        return w.value;
    return current + ", " + w.value;
}

std::string withPiece(const Wanted &w, const std::string &current)
{
    const std::vector<std::string> pieces = pf::MainCfManager::splitCompoundList(current);
    if (std::find(pieces.begin(), pieces.end(), w.value) != pieces.end())
        return current;
    return pf::MainCfManager::filteredList(current,
                                           pf::SingleCompoundStringValueAppender(w.value));
}

} // namespace

void setUpMainCf(const MailIds &ids)
{
    const std::string uid = "static:" + std::to_string(ids.popuserUid);
    const std::string gid = "static:" + std::to_string(ids.popuserGid);
    // alias_database stays as it is: newaliases rebuilds the tables named
    // there from their text sources, and the tool's aliases table has none.
    const Wanted wanted[] = {
        {"virtual_mailbox_domains", pf::tables::virtual_domains, Element},
        {"virtual_mailbox_maps", pf::tables::vmailbox, Element},
        {"virtual_alias_maps", pf::tables::virtual_addresses, Element},
        // a domain alias is a bare-domain record of the virtual table
        {"virtual_alias_domains", "$virtual_alias_maps", Element},
        {"virtual_mailbox_base", ids.mailnamesRoot, Exact},
        {"virtual_uid_maps", uid, Exact},
        {"virtual_gid_maps", gid, Exact},
        {"virtual_transport", "zarnet", Exact},
        {"zarnet_destination_recipient_limit", "1", Exact},
        {"alias_maps", pf::tables::aliases, Element},
        // the domain the standard addresses and bounce records send to
        {"mydestination", "localhost.localdomain", Element},
        {"smtpd_sender_restrictions",
         std::string("check_sender_access ") + pf::tables::blacklists, Piece},
        // SMTP authentication through the authentication daemon; whether it
        // is offered is the relay settings' decision
        {"cyrus_sasl_config_path", "/etc/postfix/sasl", Exact},
        {"smtpd_sasl_type", "cyrus", Exact},
        {"smtpd_sasl_path", "smtpd", Exact},
    };
    std::vector<std::string> names;
    for (const Wanted &w : wanted)
        names.push_back(w.name);

    const pf::MainCfManager &mainCf = pf::MainCfManager::getInstance();
    pf::ParameterValues changed;
    mainCf.editValues(names, [&](pf::ParameterValues &values) {
        for (const Wanted &w : wanted) {
            const std::string &current = values[w.name];
            const std::string value = w.kind == Exact     ? w.value
                                      : w.kind == Element ? withElement(mainCf, w, current)
                                                          : withPiece(w, current);
            if (value != current)
                changed[w.name] = value;
        }
        values = changed;
    });
    for (const auto &c : changed)
        report("main.cf", c.first + " = " + c.second);
}

} // namespace setup
} // namespace zarnet
