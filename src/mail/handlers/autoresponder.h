// Switching the autoresponder of a set of addresses on and off.
//
// The autoresponder of an address is a recipient handler of the handler
// store (mail/handlers.h) with the template "autoresponder", run before
// local delivery with priority 90 and context "responder", whose executable
// is "hooks/autoresponder" under the handler root.
#ifndef MAILTEND_MAIL_HANDLERS_AUTORESPONDER_H
#define MAILTEND_MAIL_HANDLERS_AUTORESPONDER_H

// mailnames and domains are lists joined by ", "; the action (2 set,
// 3 reset; others do nothing) applies to every mailname at every domain.
// Setting an address that has one, or resetting one that has none, changes
// nothing. A failed address is reported and the others are still done;
// the result is then -1. A domain that does not convert, or an address over
// 254 characters, stops at once with -1.
int autoresponder_action(const char *mailnames, const char *domains, int action);

#endif
