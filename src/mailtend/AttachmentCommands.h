// Commands on the attachment files of a mailname.
#ifndef MAILTEND_MAILTEND_ATTACHMENTCOMMANDS_H
#define MAILTEND_MAILTEND_ATTACHMENTCOMMANDS_H

namespace zarnet {
namespace mail {
namespace postfix {
namespace mailtend_commands {

int listAttachments(int argc, char **argv);
int addAttachment(int argc, char **argv);
int removeAttachment(int argc, char **argv);

} // namespace mailtend_commands
} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
