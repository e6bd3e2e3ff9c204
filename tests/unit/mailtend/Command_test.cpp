#include "mailtend/Command.h"

#include "mailtend/OptionTypes.h"
#include "mailtend/command_table.h"
#include "support/child_capture.h"

#include <gtest/gtest.h>

#include <cstdint>

using namespace zarnet::mail::postfix::mailtend_commands;
using testsupport::runInChild;

namespace {

// Prints what it read of every value type.
int show(const Args &a)
{
    std::cout << a.text("domain-name") << ' ' << a.get<int16_t>("lock");
    for (const std::string &z : a.has("zone") ? a.get<std::vector<std::string>>("zone")
                                              : std::vector<std::string>())
        std::cout << " z" << z;
    if (a.has("mask"))
        std::cout << " m" << a.get<IPMask>("mask").prefix;
    if (a.has("format"))
        std::cout << " f" << a.get<ShortnameFormat>("format").format;
    if (a.has("component"))
        std::cout << " c" << std::hex << a.get<SelectedMailComponents>("component").components;
    std::cout << (a.has("disabled") ? " D" : "") << std::endl;
    return 3;
}

const Options group = {{"domain-name", Value::string, "domain name", mandatory},
                       {"mailname", Value::string, "mail name"}};

const Command every = {"--cmd", "", "", show, "try every type", "--cmd <options>",
                       {group,
                        {"lock", Value::int16, "lock time", optional, "-1"},
                        {"zone", Value::strings, "zones"},
                        {"mask", Value::ipMask, "netmask"},
                        {"format", Value::shortnameFormat, "format"},
                        {"component", Value::mailComponents, "components"},
                        {"disabled,D", Value::none, "disabled"},
                        formNotexistingMailOptions()}};

testsupport::ChildResult run(std::vector<std::string> args)
{
    args.insert(args.begin(), "--cmd");
    return runInChild([&] {
        std::vector<char *> argv;
        for (std::string &a : args)
            argv.push_back(&a[0]);
        return runCommand(every, static_cast<int>(argv.size()), argv.data());
    });
}

const char help_block[] = "try every type\n"
                          "Usage: --cmd <options>\n"
                          "Allowed options to try every type:\n"
                          "  --domain-name arg     domain name (mandatory)\n"
                          "  --mailname arg        mail name\n"
                          "  --lock arg (=-1)      lock time\n"
                          "  --zone arg            zones\n"
                          "  --mask arg            netmask\n"
                          "  --format arg          format\n"
                          "  --component arg       components\n"
                          "  -D [ --disabled ]     disabled\n"
                          "  --set-catchall        set a domain catchall address\n"
                          "  --email arg           domain alias name\n"
                          "  --set-bounce          set a domain bounce\n"
                          "  --phrase arg          phrase\n"
                          "  --set-reject          set domain reject flag\n"
                          "  -h [ --help ]         displays this help message\n"
                          "\n";

} // namespace

TEST(RunCommand, HandlerGetsTheParsedValuesOrNothingRuns)
{
    const struct {
        const char *fault;
        std::vector<std::string> args;
        int status;
        const char *line; // the handler's output, or the option error before the help block
    } cases[] = {
        {"help_lost_or_late", {"-h"}, 0, ""}, // and it wins over the missing mandatory option
        {"values_lost",
         {"--domain-name=d", "--zone=a,b", "--zone", "c", "--mask= +24", "--format=both",
          "--component=smtp", "--component", "pop3", "imap", "-D"},
         3, "d -1 za,b zc m24 f1 c32 D"},
        {"default_not_replaced", {"--domain-name=d", "--lock=7", "--component=all"}, 3, "d 7 cffff"},
        {"compound_misread", {"--domain-name=d", "--format=compound", "--mask=0"}, 3, "d -1 m0 f0"},
        {"mandatory_unchecked", {"--lock=1"}, 1, "mandatory option \"--domain-name\" is not specified"},
        {"int16_overflow", {"--domain-name=d", "--lock=40000"}, 1, "the argument ('40000') for option '--lock' is invalid"},
        {"mask_above_128", {"--domain-name=d", "--mask=129"}, 1, "the argument ('129') for option '--mask' is invalid"},
        {"mask_repeated", {"--domain-name=d", "--mask=1", "--mask=2"}, 1, "option '--mask' cannot be specified more than once"},
        {"format_case_folded", {"--domain-name=d", "--format=Both"}, 1, "the argument ('Both') for option '--format' is invalid"},
        {"format_prefix_matched", {"--domain-name=d", "--format=both "}, 1, "the argument ('both ') for option '--format' is invalid"},
        {"component_bit_wrong", {"--domain-name=d", "--component", "mta", "smtps", "submission", "pop3s", "imaps", "mta"}, 3, "d -1 ccd"},
        {"component_case_folded", {"--domain-name=d", "--component=SMTP"}, 1, "the argument ('unknown component SMTP') for option '--component' is invalid"},
        {"missing_value", {"--domain-name"}, 1, "the required argument for option '--domain-name' is missing"},
        {"empty_joined_value", {"--domain-name="}, 1, "the argument for option '--domain-name' should follow immediately after the equal sign"},
    };
    for (const auto &c : cases) {
        const auto r = run(c.args);
        const std::string line = *c.line ? std::string(c.line) + "\n" : "";
        EXPECT_EQ(r.status, c.status) << c.fault << ' ' << r;
        EXPECT_EQ(r.err, c.status == 1 ? line : "") << c.fault;
        EXPECT_EQ(r.out, c.status == 3 ? line : line + help_block) << c.fault;
    }
}
