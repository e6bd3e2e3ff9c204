// Acceptance checks for names that end up as path components.
//
// mail_validate returns 1 when the name is acceptable for the given check
// type and 0 when it is not; an unknown type is logged (level 6) and gives 0.
// A null name is never acceptable. Nothing is owned or kept.
#ifndef MAILTEND_UTILS_MAIL_VALIDATE_H
#define MAILTEND_UTILS_MAIL_VALIDATE_H

typedef int validation_type;

// The mailname check: the name must not contain "..", which would let it
// climb out of the domain directory.
const validation_type VALIDATE_MAILNAME = 0;

int mail_validate(const char *name, validation_type type);

#endif
