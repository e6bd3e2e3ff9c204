#include "mail/dns/spf_control.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>

namespace {

using testsupport::slurp;
using testsupport::spit;

// Settings written as given, absent ones untouched, the update SPF system
// test proves; here texts that are no format, and failures.
TEST(SpfControl, TextsAsGivenAndFailuresStopTheSequence)
{
    const testsupport::TempDir temp{"spf"};
    const std::string dir = temp.path() + "/zrn-spf";
    spf_set_dir_for_testing(dir.c_str());
    // The files' texts, "@" for the link to the full device.
    const auto files = [&] {
        std::string all;
        for (const char *name : {"spfbehavior", "spfrules", "spfguess", "spfexp"})
            all += (all.empty() ? "" : "|") +
                   (std::filesystem::is_symlink(dir + "/" + name) ? "@" : slurp(dir + "/" + name));
        return all;
    };
    const auto sequence = [] { return update_spf("b", "r", "g", nullptr); };
    const struct {
        const char *fault;
        std::function<void()> setup;
        bool unprivileged;
        std::function<int()> call;
        std::string out; // what was printed, then the result
        std::string want; // the files afterwards
    } cases[] = {
        {"text_used_as_format_or_line_end_added", [] {}, false, [] { return update_spf("b", "r", "%s%n\n", "a\nb"); },
         "0", "b|r|%s%n\n|a\nb"},
        {"unwritable_directory_not_fatal", [&] { chmod(dir.c_str(), 0555); }, true, sequence,
         "Unable to open file " + dir + "/spfbehavior for writing: Permission denied\n"
         "System error 13: Permission denied\n", "old|old|old|old"},
        {"write_failure_ignored_or_not_stopping", [&] {
             unlink((dir + "/spfrules").c_str());
             symlink("/dev/full", (dir + "/spfrules").c_str()); }, false, sequence,
         "Unable to update 'spf_rules' parameter\nSystem error 28: No space left on device\n-1", "b|@|old|old"},
    };
    for (const auto &c : cases) {
        std::filesystem::remove_all(dir);
        mkdir(dir.c_str(), 0755);
        chmod(temp.path().c_str(), 0755);
        for (const char *name : {"spfbehavior", "spfrules", "spfguess", "spfexp"})
            spit(dir + "/" + name, "old");
        c.setup();
        const auto r = testsupport::runInChild([&] {
            if (c.unprivileged && (setgid(65534) != 0 || setuid(65534) != 0))
                return 99;
            return std::printf("%d", c.call()) < 0 ? 98 : 0;
        });
        EXPECT_EQ(r.out, c.out) << c.fault << " " << r;
        EXPECT_EQ(files(), c.want) << c.fault;
    }
    spf_set_dir_for_testing(nullptr);
}

} // namespace
