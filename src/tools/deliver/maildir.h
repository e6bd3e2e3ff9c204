// Plain Maildir delivery, without a quota (the ".qmail" line "./Maildir/").
//
// DIR is relative to the mailbox home and never climbs out of it
// (staysInHome). The walk home -> DIR -> tmp and new opens every directory
// from its parent's descriptor without following a link, so nothing the
// mailbox owner links into the tree redirects the write. The message is
// written under a unique name to DIR/tmp (created exclusively), synced,
// then linked into DIR/new and the tmp name removed: a reader sees the
// whole message or nothing. The name is
// "SECONDS.MMICROSECONDSPPID.HOST,S=SIZE" so the Maildir++ counting reads
// the size from it. Any failure removes what was written and throws a
// temporary Failure.
#ifndef MAILTEND_TOOLS_DELIVER_MAILDIR_H
#define MAILTEND_TOOLS_DELIVER_MAILDIR_H

#include "tools/deliver/spool.h"

#include <string>

namespace deliver {

// True for a relative path without a ".." component.
bool staysInHome(const std::string &dir);

void deliverToMaildir(const std::string &home, const std::string &dir, const Spool &message);

} // namespace deliver

#endif
