// mailtend-setup: makes a stock Postfix + Courier server one that the mail
// tool drives. Run once as root after installing; running it again changes
// nothing. Exit status 0 done, 1 a step failed (named on standard error),
// 2 usage error.
#include "tools/setup/setup_steps.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <string>
#include <utility>

namespace {

const char usage_line[] = "usage: mailtend-setup\n";

const char help_text[] =
    "Sets this server up for the mail tool: the popuser account, the tool's\n"
    "directories and lookup tables, the authentication database when missing,\n"
    "SMTP authentication and Courier's authentication through it, the delivery\n"
    "transport in master.cf and the main.cf parameters that route mail into the\n"
    "tool's Maildirs. Operator settings are kept. Each change is reported on one\n"
    "line; a second run prints nothing. No service is started or restarted.\n"
    "Exit status: 0 done, 1 a step failed, 2 usage error.\n";

} // namespace

namespace zarnet {
namespace setup {

void report(const std::string &place, const std::string &change)
{
    std::printf("%s: %s\n", place.c_str(), change.c_str());
    std::fflush(stdout);
}

} // namespace setup
} // namespace zarnet

int main(int argc, char **argv)
{
    using namespace zarnet::setup;
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(usage_line, stdout);
        std::fputs(help_text, stdout);
        return 0;
    }
    if (argc != 1) {
        std::fputs(usage_line, stderr);
        return 2;
    }
    // What it creates gets the modes it names, whatever the caller's umask:
    // a hardened 077 would lock the mailbox owner out of new parents.
    ::umask(022);
    MailIds ids;
    // Everything main.cf names exists before main.cf names it, so the
    // server switches over in the last step or not at all.
    const std::pair<const char *, std::function<void()>> steps[] = {
        {"accounts and directories", [&] { ids = setUpAccountsAndDirectories(); }},
        {"lookup tables", [] { setUpTables(); }},
        {"SMTP authentication", [] { setUpSasl(); }},
        {"Courier authentication", [&] { setUpCourierAuth(ids); }},
        {"master.cf", [] { setUpMasterCf(); }},
        {"main.cf", [&] { setUpMainCf(ids); }},
    };
    for (const auto &step : steps) {
        try {
            step.second();
        } catch (const std::exception &e) {
            std::string why = e.what();
            while (!why.empty() && why.back() == '\n')
                why.pop_back();
            std::fprintf(stderr, "mailtend-setup: %s: %s\n", step.first, why.c_str());
            return 1;
        }
    }
    return 0;
}
