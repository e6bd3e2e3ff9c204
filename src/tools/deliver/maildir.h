// Plain Maildir delivery, without a quota (the ".qmail" line "./Maildir/").
//
// The message is written under a unique name to DIR/tmp (created
// exclusively, never through a link), synced, then linked into DIR/new and
// the tmp name removed: a reader sees the whole message or nothing. The
// name is "SECONDS.MMICROSECONDSPPID.HOST,S=SIZE" so the Maildir++ counting
// reads the size from it. DIR is taken relative to the working directory
// (the mailbox home). Any failure removes what was written and throws a
// temporary Failure.
#ifndef MAILTEND_TOOLS_DELIVER_MAILDIR_H
#define MAILTEND_TOOLS_DELIVER_MAILDIR_H

#include <sys/types.h>

#include <string>

namespace deliver {

void deliverToMaildir(const std::string &dir, int message, off_t size);

} // namespace deliver

#endif
