#include "mailtend/OptionTypes.h"

#include <gtest/gtest.h>

namespace po = boost::program_options;
using namespace zarnet::mail::postfix::mailtend_commands;

namespace {

struct MaskCase {
    const char *name;
    const char *text;
    bool ok;
    unsigned want;
};

TEST(IPMask, TextRules)
{
    const MaskCase cases[] = {
        {"plain", "24", true, 24},
        {"upper_bound", "128", true, 128},
        {"zero", "0", true, 0},
        {"leading_blank_and_plus", " +24", true, 24},
        {"leading_tab", "\t8", true, 8},
        {"plus_then_blanks_then_digits", "+ 16", true, 16},
        {"plus_then_blanks_only_is_zero", "+  ", true, 0},
        {"lone_plus", "+", false, 0},
        {"above_128", "129", false, 0},
        {"above_16_bits", "65536", false, 0},
        {"huge_does_not_wrap", "18446744073709551640", false, 0},
        {"negative", "-1", false, 0},
        {"blank_then_negative", " -1", false, 0},
        {"trailing_blank", "24 ", false, 0},
        {"hex", "0x18", false, 0},
        {"empty", "", false, 0},
        {"blanks_only", "  ", false, 0},
        {"double_plus", "++1", false, 0},
        {"embedded_letter", "2a", false, 0},
    };
    for (const MaskCase &c : cases) {
        uint16_t got = 999;
        const bool ok = parseIPMask(c.text, got);
        EXPECT_EQ(ok, c.ok) << c.name << ": text '" << c.text << "'";
        if (c.ok && ok) {
            EXPECT_EQ(got, c.want) << c.name;
        }
    }
}

// Parses argv against one option of the given semantic and returns the map.
po::variables_map parse(std::vector<const char *> args, const char *name,
                        const po::value_semantic *semantic)
{
    po::options_description desc;
    desc.add_options()(name, semantic, "");
    args.insert(args.begin(), "--cmd");
    po::variables_map vm;
    po::store(po::command_line_parser(static_cast<int>(args.size()), args.data())
                  .options(desc)
                  .style(po::command_line_style::unix_style)
                  .run(),
              vm);
    po::notify(vm);
    return vm;
}

TEST(IPMask, RejectedTextIsAnOptionError)
{
    EXPECT_THROW(parse({"--netmask=129"}, "netmask", po::value<IPMask>()),
                 po::invalid_option_value);
    EXPECT_THROW(parse({"--netmask=24", "--netmask=25"}, "netmask", po::value<IPMask>()),
                 po::multiple_occurrences);
    EXPECT_EQ(parse({"--netmask=24"}, "netmask", po::value<IPMask>())["netmask"]
                  .as<IPMask>()
                  .prefix,
              24);
}

TEST(ShortnameFormat, ExactWordsOnly)
{
    const struct {
        const char *text;
        bool ok;
        ShortnameFormat::Format want;
    } cases[] = {
        {"compound", true, ShortnameFormat::compound},
        {"both", true, ShortnameFormat::both},
        {"Both", false, ShortnameFormat::compound},
        {"COMPOUND", false, ShortnameFormat::compound},
        {"both ", false, ShortnameFormat::compound},
        {"", false, ShortnameFormat::compound},
    };
    for (const auto &c : cases) {
        const std::string arg = std::string("--account-format=") + c.text;
        if (c.ok) {
            const auto vm = parse({arg.c_str()}, "account-format", po::value<ShortnameFormat>());
            EXPECT_EQ(vm["account-format"].as<ShortnameFormat>().format, c.want) << c.text;
        } else {
            EXPECT_THROW(parse({arg.c_str()}, "account-format", po::value<ShortnameFormat>()),
                         po::error)
                << c.text;
        }
    }
}

TEST(SelectedMailComponents, WordsAccumulate)
{
    const struct {
        const char *name;
        std::vector<const char *> args;
        unsigned want;
    } cases[] = {
        {"two_options_or_together", {"--mail-component=smtp", "--mail-component=imaps"}, 0x82},
        {"all", {"--mail-component=all"}, 0xffff},
        {"several_words_one_option", {"--mail-component", "pop3", "imap"}, 0x30},
        {"repeat_is_idempotent", {"--mail-component=mta", "--mail-component=mta"}, 0x1},
        {"every_word",
         {"--mail-component=mta", "--mail-component=smtp", "--mail-component=smtps",
          "--mail-component=submission", "--mail-component=pop3", "--mail-component=imap",
          "--mail-component=pop3s", "--mail-component=imaps"},
         0xff},
    };
    for (const auto &c : cases) {
        const auto vm = parse(c.args, "mail-component", selectedMailComponentsValue());
        EXPECT_EQ(vm["mail-component"].as<SelectedMailComponents>().components, c.want)
            << c.name;
    }
}

TEST(SelectedMailComponents, UnknownWordNamesIt)
{
    try {
        parse({"--mail-component=SMTP"}, "mail-component", selectedMailComponentsValue());
        FAIL() << "SMTP accepted";
    } catch (const po::invalid_option_value &e) {
        EXPECT_NE(std::string(e.what()).find("unknown component SMTP"), std::string::npos)
            << e.what();
    }
}

} // namespace
