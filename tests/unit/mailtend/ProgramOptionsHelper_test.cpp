#include "mailtend/ProgramOptionsHelper.h"

#include "mailtend/NotexistingMailOptions.h"
#include "support/child_capture.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace po = boost::program_options;
using namespace zarnet::mail::postfix::mailtend_commands;
using testsupport::ChildResult;
using testsupport::runInChild;

namespace {

// An option set shaped like the domain commands: two mandatory options,
// an integer and a plain string.
void declare(ProgramOptionsHelper &h)
{
    h.addOptions()
        ("domain-name", po::value<std::string>(), "domain name", true)
        ("mailname", po::value<std::string>(), "mail name", true)
        ("disk-quota", po::value<int64_t>(), "disk quota", false);
}

// Parses args (after the command word) in a child; on success prints the
// values it read so the parent can see them.
ChildResult parse(std::vector<std::string> args)
{
    return runInChild([&] {
        std::vector<char *> argv;
        std::string word = "--add-mailname";
        argv.push_back(&word[0]);
        for (std::string &a : args)
            argv.push_back(&a[0]);
        argv.push_back(nullptr);
        ProgramOptionsHelper h("add a mailname", "--add-mailname --domain-name=<domain> "
                                                 "--mailname=<name> [--disk-quota=quota]");
        declare(h);
        standardOptionsParse(h, static_cast<int>(argv.size() - 1), argv.data());
        std::cout << "parsed " << h.variables["domain-name"].as<std::string>() << ' '
                  << h.variables["mailname"].as<std::string>();
        if (h.variables.count("disk-quota"))
            std::cout << ' ' << h.variables["disk-quota"].as<int64_t>();
        std::cout << std::endl;
        return 0;
    });
}

const char help_block[] =
    "add a mailname\n"
    "Usage: --add-mailname --domain-name=<domain> --mailname=<name> [--disk-quota=quota]\n"
    "Allowed options to add a mailname:\n"
    "  --domain-name arg     domain name (mandatory)\n"
    "  --mailname arg        mail name (mandatory)\n"
    "  --disk-quota arg      disk quota\n"
    "  -h [ --help ]         displays this help message\n"
    "\n";

} // namespace

TEST(StandardOptionsParse, HelpBlockLayoutAndHelpWinsOverMissingMandatory)
{
    for (const char *help : {"--help", "-h"}) {
        const auto r = parse({help});
        EXPECT_EQ(r.status, 0) << help;
        EXPECT_EQ(r.out, help_block) << help;
        EXPECT_EQ(r.err, "") << help;
    }
}

TEST(StandardOptionsParse, ParseErrorBeatsHelp)
{
    const auto r = parse({"--help", "--no-such-option"});
    EXPECT_EQ(r.status, 1) << r;
    EXPECT_EQ(r.err, "unrecognised option '--no-such-option'\n") << r;
    EXPECT_EQ(r.out, r.err + help_block) << r;
}

TEST(StandardOptionsParse, OptionErrorsGoToBothStreamsThenHelp)
{
    const struct {
        const char *name;
        std::vector<std::string> args;
        const char *message;
    } cases[] = {
        {"last_declared_missing_reported_first", {}, "mandatory option \"--mailname\" is not specified"},
        {"one_missing", {"--mailname=m"}, "mandatory option \"--domain-name\" is not specified"},
        {"abbreviation_not_completed", {"--domain=d", "--mailname=m"}, "unrecognised option '--domain=d'"},
        {"second_command_word", {"--remove-domain"}, "unrecognised option '--remove-domain'"},
        {"repeated_single_value",
         {"--domain-name=a", "--domain-name=b", "--mailname=m"},
         "option '--domain-name' cannot be specified more than once"},
        {"bad_integer",
         {"--domain-name=d", "--mailname=m", "--disk-quota=12x"},
         "the argument ('12x') for option '--disk-quota' is invalid"},
        {"missing_value", {"--mailname=m", "--domain-name"}, "the required argument for option '--domain-name' is missing"},
        {"empty_joined_value", {"--domain-name=", "--mailname=m"}, "the argument for option '--domain-name' should follow immediately after the equal sign"},
        {"positional_argument", {"--domain-name=d", "--mailname=m", "stray"}, "too many positional options have been specified on the command line"},
    };
    for (const auto &c : cases) {
        const auto r = parse(c.args);
        EXPECT_EQ(r.status, 1) << c.name << ' ' << r;
        EXPECT_EQ(r.err, std::string(c.message) + "\n") << c.name;
        EXPECT_EQ(r.out, std::string(c.message) + "\n" + help_block) << c.name;
    }
}

TEST(StandardOptionsParse, AcceptedForms)
{
    const struct {
        const char *name;
        std::vector<std::string> args;
        const char *want;
    } cases[] = {
        {"joined_values", {"--domain-name=d", "--mailname=m"}, "parsed d m\n"},
        {"separate_values", {"--domain-name", "d", "--mailname", "m"}, "parsed d m\n"},
        {"negative_quota", {"--domain-name=d", "--mailname=m", "--disk-quota=-1"}, "parsed d m -1\n"},
        {"int64_quota",
         {"--domain-name=d", "--mailname=m", "--disk-quota=9223372036854775807"},
         "parsed d m 9223372036854775807\n"},
    };
    for (const auto &c : cases) {
        const auto r = parse(c.args);
        EXPECT_EQ(r.status, 0) << c.name << ' ' << r;
        EXPECT_EQ(r.out, c.want) << c.name;
        EXPECT_EQ(r.err, "") << c.name;
    }
}

TEST(StandardOptionsParse, NotexistingMailGroupFollowsOwnOptions)
{
    const auto r = runInChild([] {
        std::string word = "--add-domain-alias", help = "--help";
        char *argv[] = {&word[0], &help[0], nullptr};
        ProgramOptionsHelper h("add a domain alias", "usage");
        h.addOptions()("domain-name", po::value<std::string>(), "domain name", true);
        formNotexistingMailOptions(h);
        standardOptionsParse(h, 2, argv);
        return 9;
    });
    EXPECT_EQ(r.status, 0);
    const std::string want = "Allowed options to add a domain alias:\n"
                             "  --domain-name arg     domain name (mandatory)\n"
                             "  --set-catchall        set a domain catchall address\n"
                             "  --email arg           domain alias name\n"
                             "  --set-bounce          set a domain bounce\n"
                             "  --phrase arg          phrase\n"
                             "  --set-reject          set domain reject flag\n"
                             "  -h [ --help ]         displays this help message\n\n";
    EXPECT_NE(r.out.find(want), std::string::npos) << r.out;
}

TEST(MissingMandatoryOption, MessageAndBase)
{
    const MissingMandatoryOption e("domain-name");
    EXPECT_STREQ(e.what(), "mandatory option \"--domain-name\" is not specified");
    const po::error &base = e; // caught by the parser's handler through this base
    EXPECT_STREQ(base.what(), e.what());
}
