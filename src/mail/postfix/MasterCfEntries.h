// master.cf service entries as text, and their moves between master.cf and
// the file that keeps the disabled ones (same format). Pure: text in, text
// out; reading, locking and writing the files is ModuleManager's.
//
// A logical entry starts at a line beginning with text other than "#" and
// goes on over the following lines that begin with a blank; comment and
// blank lines between its first line and a later continuation line belong
// to it, as the mail system reads past them. Every other line (comments,
// blank lines, stray continuation lines before any entry) is kept byte for
// byte, and so is every entry that is not moved. An entry is known by its
// service name (first field) and command (eighth field), so that
// "smtp inet ... smtpd" and "smtp unix ... smtp" stay apart.
//
// An entry found in both texts counts as active; its disabled copies are
// dropped. Moved entries keep their raw text and go to the end of the other
// text; a text without a final line feed gets one only where an entry is
// appended to it.
#ifndef MAILTEND_MAIL_POSTFIX_MASTERCFENTRIES_H
#define MAILTEND_MAIL_POSTFIX_MASTERCFENTRIES_H

#include <boost/logic/tribool.hpp>

#include <string>
#include <vector>

namespace zarnet {
namespace mail {
namespace postfix {

class MasterCfEntries {
public:
    MasterCfEntries(const std::string &masterText, const std::string &disabledText);

    // state: true active, false disabled, indeterminate either.
    bool has(const std::string &service, const std::string &command,
             boost::logic::tribool state) const;
    // Whether master.cf runs the service name and type with any command.
    bool serves(const std::string &service, const std::string &type) const;
    // Moves the entry into master.cf unless it is active already. False when
    // there is no such entry at all.
    bool enable(const std::string &service, const std::string &command);
    // Moves every active copy of the entry out of master.cf.
    void disable(const std::string &service, const std::string &command);
    // Appends a new entry; entryText is whole lines, each with its line feed.
    void add(const std::string &entryText, bool enabled);

    std::string masterText() const;
    // withLeaving: the copies of entries that go back to master.cf are still
    // in, for the write that must precede master.cf's.
    std::string disabledText(bool withLeaving) const;

    // One entry's first line in the stock file's columns, then each option
    // as a continuation line "  -o OPTION".
    static std::string formatEntry(const std::string &service, const std::string &type,
                                   const std::vector<std::string> &fields,
                                   const std::vector<std::string> &options);

private:
    struct Piece {
        std::string text;
        bool entry = false;
        bool leaving = false; // a disabled copy about to be dropped
        std::string service, type, command;
    };
    typedef std::vector<Piece> Pieces;

    static Pieces parse(const std::string &text);
    static std::string join(const Pieces &pieces, bool withLeaving);
    static void append(Pieces &pieces, const std::string &entryText);
    static bool matches(const Piece &p, const std::string &service, const std::string &command);
    bool hasIn(const Pieces &pieces, const std::string &service,
               const std::string &command) const;

    Pieces master_, disabled_;
};

} // namespace postfix
} // namespace mail
} // namespace zarnet

#endif
