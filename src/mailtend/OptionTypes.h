// Option value types with their own text rules.
//
// The option library calls the validate() overloads (found by argument-
// dependent lookup) for each occurrence of an option of these types; a bad
// text raises boost::program_options::invalid_option_value, which
// standardOptionsParse reports as an option error (exit 1).
//
//   IPMask                  a prefix length, decimal 0..128, once.
//   ShortnameFormat         "compound" (0) or "both" (1), case-sensitive, once.
//   SelectedMailComponents  component words OR-ed together; repeatable when
//                           declared through selectedMailComponentsValue().
#ifndef MAILTEND_MAILTEND_OPTIONTYPES_H
#define MAILTEND_MAILTEND_OPTIONTYPES_H

#include <boost/any.hpp>
#include <boost/program_options.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace zarnet::mail::postfix::mailtend_commands {

struct IPMask {
    uint16_t prefix = 0;
};

struct ShortnameFormat {
    enum Format { compound = 0, both = 1 };
    Format format = compound;
};

struct SelectedMailComponents {
    enum MailComponents : unsigned {
        mta = 0x1,
        smtp = 0x2,
        smtps = 0x4,
        submission = 0x8,
        pop3 = 0x10,
        imap = 0x20,
        pop3s = 0x40,
        imaps = 0x80,
        all = 0xffff,
    };
    unsigned components = 0;

    bool has(MailComponents c) const { return (components & c) == c; }
};

void validate(boost::any &v, const std::vector<std::string> &values, IPMask *, int);
void validate(boost::any &v, const std::vector<std::string> &values, ShortnameFormat *, int);
void validate(boost::any &v, const std::vector<std::string> &values, SelectedMailComponents *,
              int);

// The value semantic of a "mail-component" option: repeated occurrences and
// several words per occurrence accumulate into one bit set.
boost::program_options::typed_value<SelectedMailComponents> *selectedMailComponentsValue();

// Exposed for the validator's tests: the strict decimal reading of a
// netmask text, false for anything the option must reject.
bool parseIPMask(const std::string &text, uint16_t &prefix);

} // namespace zarnet::mail::postfix::mailtend_commands

#endif
