// A handler store in a scratch directory for the handler tests.
#ifndef MAILTEND_TESTS_MAIL_HANDLERS_FIXTURE_H
#define MAILTEND_TESTS_MAIL_HANDLERS_FIXTURE_H

#include "mail/handlers/handlers.h"

#include "support/files.h"
#include "support/temp_dir.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace handlers_test {

// A handler store in a scratch directory, with a refresh program that
// records its calls and an executable for the handlers.
class Store {
public:
    Store() : temp_("handlers")
    {
        root = temp_.path() + "/handlers";
        exe = temp_.path() + "/filter";
        testsupport::spit(exe, "#!/bin/sh\nexit 0\n");
        std::filesystem::permissions(exe, std::filesystem::perms(0755));
        const std::string refresh = temp_.path() + "/refresh";
        testsupport::spit(refresh, "#!/bin/sh\necho \"$@\" >> '" + temp_.path() + "/refresh.log'\n");
        std::filesystem::permissions(refresh, std::filesystem::perms(0755));
        handlers_set_paths_for_testing(root.c_str(), refresh.c_str());
    }
    ~Store() { handlers_set_paths_for_testing(nullptr, nullptr); }

    // Refresh calls since the last look.
    int refreshes()
    {
        const std::string log = testsupport::slurp(temp_.path() + "/refresh.log");
        const int total = static_cast<int>(std::count(log.begin(), log.end(), '\n'));
        const int fresh = total - seen_;
        seen_ = total;
        return fresh;
    }

    int add(const char *tmpl, const char *type, const char *value)
    {
        return mail_handler_add(tmpl, type, value, exe.c_str(), "ctx", "before-local", "10",
                                HANDLER_ACTION_ENABLE);
    }

    std::string find(const char *tmpl, const char *type, const char *value)
    {
        char *name = get_handler_name(tmpl, type, value, "before-local");
        const std::string s = name != nullptr ? name : "";
        std::free(name);
        return s;
    }

    // Every queue entry (not the installed executables under "hooks") as
    // "HOOK/...queue/NAME", sorted, one a line.
    std::string entries()
    {
        std::vector<std::string> out;
        if (std::filesystem::exists(root))
            for (const auto &e : std::filesystem::recursive_directory_iterator(root)) {
                const std::string rel = e.path().string().substr(root.size() + 1);
                if (e.is_regular_file() && rel.rfind("info/", 0) != 0 && rel.rfind("hooks/", 0) != 0)
                    out.push_back(rel);
            }
        std::sort(out.begin(), out.end());
        std::string s;
        for (const auto &x : out)
            s += x + "\n";
        return s;
    }

    std::string root, exe;

private:
    testsupport::TempDir temp_;
    int seen_ = 0;
};

} // namespace handlers_test

#endif
