// Operations above the handler store: changing a handler in place, applying
// an action to many handlers at once, and the consistency check.
//
// Same conventions as the store (mail/handlers.h): reports through
// zarnet_log at level 3, one refresh of the mirror per call that changed
// something. Mass operations never stop at a failed handler: they return the
// number of failures (after one summary report), or -1 when the store could
// not be listed.
#ifndef MAILTEND_MAIL_HANDLERS_HANDLERS_MASS_H
#define MAILTEND_MAIL_HANDLERS_HANDLERS_MASS_H

// Replaces the handler (tmpl, type, value, hook) by one with the given
// executable, context and priority; null or empty ones keep the old ones
// (the old link target for the executable). The replacement has a new name
// and is active exactly when the old one was. The new handler is made
// before the old one goes, so a failure leaves the old one in place.
int mail_handler_update(const char *tmpl, const char *type_name, const char *value,
                        const char *executable, const char *context, const char *hook,
                        const char *priority);

// The action for every handler with this template, or for all with "all".
int mass_control_handler_queue(const char *tmpl, int action);

// The action for every handler whose value is name, and, when name is a
// domain, for every handler of an address at it; the copies made by clone
// and re-assign get new_name, or the address's local part at new_name.
// Global handlers are never touched.
int mass_control_handler_by_mailname(const char *name, const char *new_name, int action);

// Walks every hook's queue directories and repairs them: an entry whose
// handler has no information directory any more, or whose handler's hook,
// type or value place it in another queue, is deleted; a queue directory
// left empty is removed (hook and type directories stay). Handlers whose
// parameters cannot be read are left alone. 0, or -1 when a directory could
// not be read or an entry not deleted (the walk goes on).
int mail_handler_check_all();

#endif
