// The before-local mail handlers of one delivery.
//
// Handlers come from the store (its root, handlers_root()): the
// entries of the queues of hook "before-local" for global mail, for the
// recipient address and its domain, and (when the sender is not empty) for
// the sender address and its domain; addresses and domains match their
// queue directories case-insensitively. A handler in several queues runs
// once; the order is the store's own (handlers_compare). A handler whose
// information directory is broken (bad name, unreadable context, missing or
// non-executable program) is skipped with a line on standard error.
//
// Each runs through its "executable" link with the message on standard
// input, in "/", with only PATH, SENDER, RECIPIENT, LOCAL, HOST,
// HANDLER_HOOK, HANDLER_CONTEXT and HANDLER_NAME set, for at most 60
// seconds; its verdict follows judgeProgram. A queue that cannot be opened
// or read to its end is a temporary Failure: skipping it could let through mail a handler
// exists to stop.
#ifndef MAILTEND_TOOLS_DELIVER_BEFORE_LOCAL_H
#define MAILTEND_TOOLS_DELIVER_BEFORE_LOCAL_H

#include "tools/deliver/recipient.h"
#include "tools/deliver/run_program.h"
#include "tools/deliver/spool.h"

#include <string>

namespace deliver {

// Stop: a handler took the message; nothing more is to be done.
Verdict runBeforeLocal(const std::string &sender, const Recipient &recipient,
                       const Spool &message);

} // namespace deliver

#endif
