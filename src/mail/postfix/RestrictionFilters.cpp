#include "mail/postfix/RestrictionFilters.h"

#include <algorithm>
#include <iterator>

namespace zarnet {
namespace mail {
namespace postfix {

namespace {

const std::string refusedClients = std::string("check_client_access pcre:") + relayRefusedTable;
const char permitAll[] = "check_client_access static:OK";
const char saslPiece[] = "permit_sasl_authenticated";
const char relayCheck[] = "reject_unauth_destination";

// The mail server reads "a  b" and "a\tb" as "a b": so must the matching.
std::string normalized(const std::string &piece)
{
    std::string out;
    bool blank = false;
    for (char c : piece) {
        if (c == ' ' || c == '\t') {
            blank = true;
            continue;
        }
        if (blank && !out.empty())
            out += ' ';
        blank = false;
        out += c;
    }
    return out;
}

// Besides the pieces the block is made of, the bare words and the static
// table earlier releases and the distribution's own settings wrote there.
bool ownedRecipientPiece(const std::string &piece)
{
    static const char *const owned[] = {"permit_mynetworks", saslPiece, relayCheck, permitAll,
                                        "permit", "reject", "defer_unauth_destination"};
    const std::string p = normalized(piece);
    return p == refusedClients ||
           std::any_of(std::begin(owned), std::end(owned), [&](const char *o) { return p == o; });
}

bool rblPiece(const std::string &piece)
{
    const std::string p = normalized(piece);
    return p.compare(0, p.find(' '), "reject_rbl_client") == 0;
}

// Drops the pieces owned() picks and returns where the first of them was,
// counted among the pieces that stay.
template <class Owned>
std::size_t dropOwned(std::vector<std::string> &pieces, Owned owned, bool &found)
{
    const auto first = std::find_if(pieces.begin(), pieces.end(), owned);
    found = first != pieces.end();
    const std::size_t at = first - pieces.begin();
    pieces.erase(std::remove_if(pieces.begin(), pieces.end(), owned), pieces.end());
    return at;
}

} // namespace

void SmtpdRecipientRestrictionsFilter::operator()(std::vector<std::string> &pieces) const
{
    const bool hadSasl = std::any_of(pieces.begin(), pieces.end(), [](const std::string &p) {
        return normalized(p) == saslPiece;
    });
    bool found;
    const std::size_t at = dropOwned(pieces, ownedRecipientPiece, found);

    std::vector<std::string> block{"permit_mynetworks"};
    if (smtpAuth_ || (boost::logic::indeterminate(smtpAuth_) && hadSasl))
        block.push_back(saslPiece);
    block.push_back(refusedClients);
    // The SMTP server refuses to start on a list that could never refuse
    // relaying: the open form permits every client through a table and
    // still names the check.
    if (relay_ == openRelay)
        block.push_back(permitAll);
    block.push_back(relayCheck);
    pieces.insert(pieces.begin() + (found ? at : 0), block.begin(), block.end());
}

void SetRBLFilter::operator()(std::vector<std::string> &pieces) const
{
    bool found;
    const std::size_t at = dropOwned(pieces, rblPiece, found);
    std::vector<std::string> block;
    for (const std::string &zone : zones_) {
        const std::string piece = "reject_rbl_client " + zone;
        if (std::find(block.begin(), block.end(), piece) == block.end())
            block.push_back(piece);
    }
    pieces.insert(pieces.begin() + (found ? at : pieces.size()), block.begin(), block.end());
}

} // namespace postfix
} // namespace mail
} // namespace zarnet
