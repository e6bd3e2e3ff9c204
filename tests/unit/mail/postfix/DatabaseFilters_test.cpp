#include "mail/postfix/DatabaseFilters.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace zarnet::mail::postfix::database;

namespace {

// Feeds text to a DataStreamFilter cut into chunks of the given size.
std::string streamThrough(const std::string &text, std::size_t chunkSize,
                          const std::function<bool(std::string &)> &filter)
{
    std::ostringstream out;
    DataStreamFilter<std::function<bool(std::string &)>> lines(filter, out);
    for (std::size_t i = 0; i < text.size(); i += chunkSize) {
        const std::string piece = text.substr(i, chunkSize);
        lines.filterChunk(std::vector<char>(piece.begin(), piece.end()));
    }
    lines.finish();
    return out.str();
}

} // namespace

TEST(DataStreamFilter, WholeLinesWhereverTheChunksEnd)
{
    const std::string dump = "a@x.test a@x.test\ndrop me\nlast@x.test z@y.test";
    for (std::size_t chunk = 1; chunk <= dump.size(); ++chunk) {
        std::string seen;
        const auto record = [&](std::string &line) {
            seen += line + "|";
            return line != "drop me";
        };
        EXPECT_EQ(streamThrough(dump, chunk, record), "a@x.test a@x.test\nlast@x.test z@y.test\n") << chunk;
        EXPECT_EQ(seen, "a@x.test a@x.test|drop me|last@x.test z@y.test|") << chunk;
    }
}

TEST(ElementsFilter, NotInDomain)
{
    const struct {
        const char *name;
        bool subdomains;
        const char *line;
        bool kept;
        const char *want;
    } cases[] = {
        {"key_in_domain_drops_record", false, "info@d.test other@e.test", false, ""},
        {"value_mixed_keeps_others", false, "a@e.test x@d.test, y@e.test", true, "a@e.test y@e.test"},
        {"every_destination_in_domain", false, "a@e.test x@d.test,y@d.test", false, ""},
        {"bare_domain_key_dropped", false, "d.test d.test/", false, ""},
        {"bare_domain_equal_dropped", false, "x@e.test d.test", false, ""},
        {"subdomain_kept_without_flag", false, "a@e.test x@sub.d.test", true, "a@e.test x@sub.d.test"},
        {"subdomain_dropped_with_flag", true, "a@e.test x@sub.d.test, y@e.test", true, "a@e.test y@e.test"},
        {"suffix_is_not_membership", false, "a@e.test x@notd.test", true, "a@e.test x@notd.test"},
        {"case_sensitive", false, "a@e.test x@D.TEST", true, "a@e.test x@D.TEST"},
        {"rejoined_with_comma_blank", false, "a@e.test p@e.test,q@e.test  r@e.test", true,
         "a@e.test p@e.test, q@e.test, r@e.test"},
        {"tab_separated_key", false, "a@e.test\tp@e.test", true, "a@e.test p@e.test"},
        {"trailing_blanks_trimmed", false, "a@e.test   p@e.test \t", true, "a@e.test p@e.test"},
        {"key_without_value_dropped", false, "a@e.test   ", false, ""},
    };
    for (const auto &c : cases) {
        ElementsFilter<NotInDomainFilter> filter(NotInDomainFilter("d.test", c.subdomains));
        std::string line = c.line;
        const bool kept = filter(line);
        EXPECT_EQ(kept, c.kept) << c.name;
        if (c.kept) {
            EXPECT_EQ(line, c.want) << c.name;
        }
    }
}

TEST(KeyValueFilter, MalformedLineReportedAndDropped)
{
    ElementsFilter<NotInDomainFilter> filter(NotInDomainFilter("d.test", false));
    std::string line = "no-separator-here";
    testing::internal::CaptureStderr();
    EXPECT_FALSE(filter(line));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "invalid key/value 'no-separator-here'\n");
}

TEST(ElementsFilter, RenamingFilters)
{
    const std::string oldDomain = "old.test", newDomain = "new.test";
    const std::string oldAddr = "a@old.test", newAddr = "b@old.test";
    const struct {
        const char *name;
        std::function<bool(std::string &)> filter;
        const char *line;
        const char *want;
    } cases[] = {
        {"domain_part_in_key_and_values",
         ElementsFilter<ReplaceDomainPart>(ReplaceDomainPart(oldDomain, newDomain, false)),
         "x@old.test x@old.test, y@other.test, old.test", "x@new.test x@new.test, y@other.test, new.test"},
        {"domain_part_subdomain_only_with_flag",
         ElementsFilter<ReplaceDomainPart>(ReplaceDomainPart(oldDomain, newDomain, true)),
         "x@s.old.test x@s.old.test", "x@s.new.test x@s.new.test"},
        {"domain_part_subdomain_untouched_without_flag",
         ElementsFilter<ReplaceDomainPart>(ReplaceDomainPart(oldDomain, newDomain, false)),
         "x@s.old.test x@s.old.test", "x@s.old.test x@s.old.test"},
        {"whole_element_only",
         ElementsFilter<ReplaceElementFilterRef>(ReplaceElementFilterRef(oldAddr, newAddr)),
         "a@old.test a@old.test, aa@old.test, a@old.test.x", "b@old.test b@old.test, aa@old.test, a@old.test.x"},
        {"mailbox_key_and_path",
         KeyValueFilter<ReplaceDomainPart, ReplaceDomainPath>(
             ReplaceDomainPart(oldDomain, newDomain, false),
             ReplaceDomainPath(oldDomain, newDomain)),
         "m@old.test old.test/m/Maildir/", "m@new.test new.test/m/Maildir/"},
        {"path_prefix_only_at_start",
         KeyValueFilter<ReplaceDomainPart, ReplaceDomainPath>(
             ReplaceDomainPart(oldDomain, newDomain, false),
             ReplaceDomainPath(oldDomain, newDomain)),
         "m@x.test x.test/old.test/Maildir/", "m@x.test x.test/old.test/Maildir/"},
    };
    for (const auto &c : cases) {
        std::string line = c.line;
        EXPECT_TRUE(c.filter(line)) << c.name;
        EXPECT_EQ(line, c.want) << c.name;
    }
}

TEST(BelongsToDomain, EmptyDomainMatchesNothing)
{
    EXPECT_EQ(std::to_string(belongsToDomain("a@b", "", true)) + std::to_string(belongsToDomain("", "", false)) +
                  std::to_string(belongsToDomain("@d.test", "d.test", false)), "001");
}
