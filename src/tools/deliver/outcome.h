// How a delivery ends, as the mail server's pipe transport reads it.
//
// A Failure carries the exit status and one line of text that begins with
// an enhanced status code; the transport puts that line into the notice it
// sends or logs with the deferral. Temporary failures use EX_TEMPFAIL and a
// 4.x.x code so the server tries again later; permanent ones a sysexits code
// and a 5.x.x code.
#ifndef MAILTEND_TOOLS_DELIVER_OUTCOME_H
#define MAILTEND_TOOLS_DELIVER_OUTCOME_H

#include <sysexits.h>

#include <stdexcept>
#include <string>

namespace deliver {

class Failure : public std::runtime_error {
public:
    Failure(int status, const std::string &line) : std::runtime_error(line), status_(status) {}
    int status() const noexcept { return status_; }

private:
    int status_;
};

inline Failure temporary(const std::string &why)
{
    return Failure(EX_TEMPFAIL, "4.3.0 " + why);
}

// The mailname does not take mail: unknown, or its delivery is switched off.
inline Failure noSuchUser(const std::string &why)
{
    return Failure(EX_NOUSER, "5.1.1 " + why);
}

// Diagnostics for standard error, held back until the verdict line has been
// written: the transport reads an enhanced status code only at the very
// start of the output.
void note(const std::string &line);
void writeNotes();

} // namespace deliver

#endif
