#include "mail/postfix/DatabaseFilters.h"

#include <gtest/gtest.h>

#include <functional>

using namespace zarnet::mail::postfix::database;

TEST(ElementsFilter, NotInDomainAndRenaming)
{
    const std::string oldDomain = "old.test", newDomain = "new.test", oldAddr = "a@old.test", newAddr = "b@old.test";
    const auto notIn = [](bool subdomains) { return ElementsFilter<NotInDomainFilter>(NotInDomainFilter("d.test", subdomains)); };
    const auto part = [&](bool subdomains) {
        return ElementsFilter<ReplaceDomainPart>(ReplaceDomainPart(oldDomain, newDomain, subdomains));
    };
    const KeyValueFilter<ReplaceDomainPart, ReplaceDomainPath> mailbox(ReplaceDomainPart(oldDomain, newDomain, false),
                                                                       ReplaceDomainPath(oldDomain, newDomain));
    const struct {
        const char *name;
        std::function<bool(std::string &)> filter;
        const char *line, *want; // want "-": the record is dropped
    } cases[] = {
        {"key_in_domain_drops_record", notIn(false), "info@d.test other@e.test", "-"},
        {"value_mixed_keeps_others", notIn(false), "a@e.test x@d.test, y@e.test", "a@e.test y@e.test"},
        {"bare_domain_key_dropped", notIn(false), "d.test d.test/", "-"},
        {"subdomain_without_flag_or_suffix_or_other_case_dropped", notIn(false),
         "a@e.test x@sub.d.test, y@notd.test, z@D.TEST", "a@e.test x@sub.d.test, y@notd.test, z@D.TEST"},
        {"subdomain_kept_with_flag", notIn(true), "a@e.test x@sub.d.test, y@e.test", "a@e.test y@e.test"},
        {"not_rejoined_with_comma_blank", notIn(false), "a@e.test p@e.test,q@e.test  r@e.test",
         "a@e.test p@e.test, q@e.test, r@e.test"},
        {"key_without_value_kept", notIn(false), "a@e.test   ", "-"},
        {"malformed_line_kept", notIn(false), "no-separator-here", "-"},
        {"domain_part_not_replaced_in_key_and_values", part(false), "x@old.test x@old.test, y@other.test, old.test",
         "x@new.test x@new.test, y@other.test, new.test"},
        {"subdomain_not_renamed_with_flag", part(true), "x@s.old.test x@s.old.test", "x@s.new.test x@s.new.test"},
        {"part_of_element_renamed",
         ElementsFilter<ReplaceElementFilterRef>(ReplaceElementFilterRef(oldAddr, newAddr)),
         "a@old.test a@old.test, aa@old.test, a@old.test.x", "b@old.test b@old.test, aa@old.test, a@old.test.x"},
        {"mailbox_key_or_path_not_renamed", mailbox, "m@old.test old.test/m/Maildir/", "m@new.test new.test/m/Maildir/"},
    };
    testing::internal::CaptureStderr();
    for (const auto &c : cases) {
        std::string line = c.line;
        const bool kept = c.filter(line);
        EXPECT_EQ(kept ? line : "-", c.want) << c.name;
    }
    // Only the malformed line is reported.
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "invalid key/value 'no-separator-here'\n");
    EXPECT_EQ(std::to_string(belongsToDomain("a@b", "", true)) + std::to_string(belongsToDomain("", "", false)) +
                  std::to_string(belongsToDomain("@d.test", "d.test", false)), "001") << "empty domain matched";
}
