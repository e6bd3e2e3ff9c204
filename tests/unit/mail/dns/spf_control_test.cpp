#include "mail/dns/spf_control.h"

#include "support/child_capture.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>

// Texts as given and absent ones untouched the system tests prove.
TEST(SpfControl, TextsAsGivenAndFailuresStopTheSequence)
{
    const testsupport::TempDir temp{"spf"};
    const std::string dir = temp.path() + "/zrn-spf";
    spf_set_dir_for_testing(dir.c_str());
    const auto sequence = [] { return update_spf("b", "r", "g", nullptr); };
    const struct {
        const char *fault;
        std::function<void()> setup;
        std::function<int()> call;
        std::string out; // what was printed, then the result
        std::string want; // the files afterwards, "@" for a link to the full device, "/" for a directory
    } cases[] = {
        {"text_used_as_format_or_line_end_added", [] {}, [] { return update_spf("b", "r", "%s%n\n", "a\nb"); }, "0",
         "b|r|%s%n\n|a\nb"},
        {"open_failure_not_fatal", [&] { std::filesystem::remove(dir + "/spfguess"), std::filesystem::create_directory(dir + "/spfguess"); },
         sequence,
         "Unable to open file " + dir + "/spfguess for writing: Is a directory\nSystem error 21: Is a directory\n",
         "b|r|/|old"},
        {"write_failure_ignored_or_not_stopping",
         [&] { std::filesystem::remove(dir + "/spfrules"), std::filesystem::create_symlink("/dev/full", dir + "/spfrules"); }, sequence,
         "Unable to update 'spf_rules' parameter\nSystem error 28: No space left on device\n-1", "b|@|old|old"},
    };
    for (const auto &c : cases) {
        std::filesystem::remove_all(dir);
        std::filesystem::create_directory(dir);
        for (const char *name : {"spfbehavior", "spfrules", "spfguess", "spfexp"})
            testsupport::spit(dir + "/" + name, "old");
        c.setup();
        const auto r = testsupport::runInChild([&] { return std::printf("%d", c.call()) < 0; });
        std::string files;
        for (const std::string &path : {dir + "/spfbehavior", dir + "/spfrules", dir + "/spfguess", dir + "/spfexp"})
            files += (files.empty() ? "" : "|") + (std::filesystem::is_symlink(path) ? "@"
                                                   : std::filesystem::is_directory(path) ? "/" : testsupport::slurp(path));
        EXPECT_EQ(r.out + "," + files, c.out + "," + c.want) << c.fault << " " << r;
    }
    spf_set_dir_for_testing(nullptr);
}
