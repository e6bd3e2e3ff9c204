// Domain-level changes: the lookup-table records a mail domain and its domain
// aliases own, and the domain's storage root.
//
// A domain D owns: "D" -> "D/" in virtual_domains while enabled; its six
// standard addresses in virtual while it exists; "@D" in virtual for its
// catch-all or its bounce (one replaces the other); "_zarnet_bounce_D" in
// aliases for the bounce command. A domain alias A of D owns virtual
// records: A's standard addresses, every mailname and mail alias of D at A
// pointing to the mailname at D, and, while D is enabled, the bare "A" -> "D"
// that makes A a virtual alias domain (main.cf keeps virtual_alias_domains
// at its default, $virtual_alias_maps), without which the mail server would
// refuse mail for A from outside as relaying. It goes while D is turned off,
// so that no address of A is taken and rewritten to a domain the server no
// longer hosts, which it would then try to relay.
//
// A also owns the link "<mail-names root>/A" -> "D". The authentication
// database keeps a login through A as a user of A and forms its home from
// A's name, so the link is what brings such a login to D's Maildirs; no
// copy of the homes or second login database can drift from D's. The link
// is created, moved and removed with A's records, and with D's removal. It
// is safe: the root directory is root's alone, so only the tool creates
// names there, and the tool never follows a link in it: a link is not a
// domain root to create in, back up or remove (Maildir storage), and the
// walks over domain trees never descend into one. An alias name held by
// anything but such a link is refused and left as it is.
//
// Names are already validated, in ASCII form and lower case. Every batch
// operation has an overload without the batch that writes each change at
// once. Failures are those of the table layer (PostfixConfigurationError,
// PostfixDatabaseError, SystemError) and of the storage layer
// (boost::filesystem::filesystem_error); what was written before a failure
// stays written, except in renameDomain, which restores the tables.
#ifndef MAILTEND_MAIL_POSTFIX_DOMAINMANAGER_H
#define MAILTEND_MAIL_POSTFIX_DOMAINMANAGER_H

#include "mail/postfix/BatchDatabaseHelper.h"

#include <string>
#include <vector>

namespace zarnet {
namespace mail {

// What removing a domain does with its mail storage.
enum OnRemoval { keepStorage = 0, removeStorage = 1, backupStorage = 2 };

namespace postfix {

typedef std::vector<std::string> DomainList;

class DomainManager {
public:
    static const char *const stdAddresses[6];
    static constexpr const char *bounceProgram = "/usr/lib/zarnet-9.0/bouncemessage";
    static constexpr const char *bouncePrefix = "_zarnet_bounce_";
    static constexpr const char *doubleErrorHead = "CRITICAL ERROR: Unable to properly restore ";
    static constexpr const char *doubleErrorTail =
        " used by Zarnet.\nMail system may be not usable at the moment and it cannot be "
        "repaired automatically.\nConstact Orvanta support to resolve this issue.";

    // Storage root, quota, leftovers of an alias of the same name, records.
    static void createDomain(const std::string &domain, long long quota, bool disabled);
    static void createDomain(const std::string &domain, bool disabled);
    static void createDomainRecord(BatchDatabaseHelper &batch, const std::string &domain,
                                   bool disabled);
    static void createDomainRecord(const std::string &domain, bool disabled);

    static void enableDomain(BatchDatabaseHelper &batch, const std::string &domain);
    // Also the bare records of the domain's aliases that the panel lists
    // and whose records are in place (the batch overload leaves them).
    static void enableDomain(const std::string &domain);
    static void disableDomain(const std::string &domain);

    static void createStandardDomainAddresses(BatchDatabaseHelper &batch,
                                              const std::string &domain);
    static void createStandardDomainAddresses(const std::string &domain);
    static void removeStandardDomainAddresses(BatchDatabaseHelper &batch,
                                              const std::string &domain);
    static void removeStandardDomainAddresses(const std::string &domain);

    // A failure of the storage step (the root, the alias links) is ignored:
    // the records go regardless.
    static void removeDomain(const std::string &domain, OnRemoval mode);

    static void createCatchallFor(BatchDatabaseHelper &batch, const DomainList &domains,
                                  const std::string &target);
    static void createCatchallFor(const DomainList &domains, const std::string &target);
    static void createCatchall(BatchDatabaseHelper &batch, const std::string &domain,
                               const std::string &target);
    static void createCatchall(const std::string &domain, const std::string &target);
    // Also for every domain alias the panel lists for the domain.
    static void removeCatchall(BatchDatabaseHelper &batch, const std::string &domain);
    static void removeCatchall(const std::string &domain);

    static void setBounceFor(BatchDatabaseHelper &batch, const DomainList &domains,
                             const std::string &text);
    static void setBounceFor(const DomainList &domains, const std::string &text);
    static void setBounce(BatchDatabaseHelper &batch, const std::string &domain,
                          const std::string &text);
    static void setBounce(const std::string &domain, const std::string &text);
    // The aliases value of a bounce: a pipe to the bounce program, the text
    // (line feeds made blanks) quoted twice for the shell as its argument.
    static std::string bounceCommand(const std::string &text);

    // Reads the domain's mailnames and mail aliases from the panel, makes
    // the link, then the records; a failure of the records takes a new link
    // back.
    static void createDomainAlias(BatchDatabaseHelper &batch, const std::string &domain,
                                  const std::string &alias);
    static void createDomainAlias(const std::string &domain, const std::string &alias);
    static void removeDomainAlias(const std::string &alias);
    // Keys and destinations at the old name, the bounce address and the
    // bounce record included, move to the new name, and so does the link; a
    // failure of the first table puts the link back.
    static void renameDomainAlias(const std::string &domain, const std::string &oldAlias,
                                  const std::string &newAlias);

    // Every record keyed by an address of the domain goes, and its addresses
    // leave every destination list, in virtual and vmailbox.
    static void removeDomainReferences(const std::string &domain, bool subdomains);

    // virtual_domains, virtual, vmailbox and aliases as renameDomainAlias
    // does, then the storage root. A failure restores the tables already
    // changed and is thrown on; a table that cannot be restored is named on
    // zarnet::uerr in a "CRITICAL ERROR" diagnostic.
    static void renameDomain(const std::string &oldDomain, const std::string &newDomain);
};

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
