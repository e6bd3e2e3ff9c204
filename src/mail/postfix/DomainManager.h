// Domain-level changes: the lookup-table records a mail domain and its domain
// aliases own, and the domain's storage root.
//
// A domain D owns: "D" -> "D/" in virtual_domains while enabled; its six
// standard addresses in virtual while it exists; "@D" in virtual for its
// catch-all or its bounce (one replaces the other); "_zarnet_bounce_D" in
// aliases for the bounce command. A domain alias A of D owns only virtual
// records: A's standard addresses and every mailname and mail alias of D at
// A pointing to the mailname at D.
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
    static void enableDomain(const std::string &domain);
    static void disableDomain(const std::string &domain);

    static void createStandardDomainAddresses(BatchDatabaseHelper &batch,
                                              const std::string &domain);
    static void createStandardDomainAddresses(const std::string &domain);
    static void removeStandardDomainAddresses(BatchDatabaseHelper &batch,
                                              const std::string &domain);
    static void removeStandardDomainAddresses(const std::string &domain);

    // A failure of the storage step is ignored: the records go regardless.
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

    // Reads the domain's mailnames and mail aliases from the panel.
    static void createDomainAlias(BatchDatabaseHelper &batch, const std::string &domain,
                                  const std::string &alias);
    static void createDomainAlias(const std::string &domain, const std::string &alias);
    static void removeDomainAlias(const std::string &alias);
    // Keys and destinations at the old name, the bounce address and the
    // bounce record included, move to the new name.
    static void renameDomainAlias(const std::string &oldAlias, const std::string &newAlias);

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
