#include "tools/setup/setup_steps.h"

#include "mail/postfix/MainCfManager.h"
#include "mail/postfix/MasterCfEntries.h"
#include "utils/AutocleanOFStream.h"
#include "utils/ExSystemError.h"
#include "utils/FdOwner.h"
#include "utils/MKLock.h"
#include "utils/fd_io.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace zarnet {
namespace setup {

namespace {

// The delivery agent, one recipient per run (main.cf sets the limit).
const char transportEntry[] =
    "zarnet    unix  -       n       n       -       -       pipe\n"
    "  flags=DROh user=popuser null_sender= argv=/usr/lib/zarnet-9.0/mailtend-deliver "
    "${sender} ${recipient}\n";

// Sets the chroot field (the fifth) of the "smtp inet" entry to "n" in
// place; every other byte stays. False when there was nothing to change.
bool unchrootSmtp(std::string &text)
{
    const char blanks[] = " \t";
    for (std::string::size_type start = 0; start < text.size();) {
        std::string::size_type end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        const char first = text[start];
        if (first != '#' && first != ' ' && first != '\t' && first != '\n') {
            std::string::size_type fieldStart[5] = {}, fieldEnd[5] = {};
            int fields = 0;
            for (std::string::size_type at = start; fields < 5;) {
                at = text.find_first_not_of(blanks, at);
                if (at == std::string::npos || at >= end)
                    break;
                fieldStart[fields] = at;
                at = std::min(text.find_first_of(" \t\n", at), end);
                fieldEnd[fields++] = at;
            }
            auto field = [&](int i) {
                return text.substr(fieldStart[i], fieldEnd[i] - fieldStart[i]);
            };
            if (fields == 5 && field(0) == "smtp" && field(1) == "inet") {
                if (field(4) == "n")
                    return false;
                text.replace(fieldStart[4], fieldEnd[4] - fieldStart[4], "n");
                return true;
            }
        }
        start = end + 1;
    }
    return false;
}

} // namespace

void setUpMasterCf()
{
    const std::string path =
        fd_io::parent_directory(mail::postfix::MainCfManager::getInstance().mainCfPath()) +
        "/master.cf";
    MKLock lock(path); // the lock the service modules take
    process::FdOwner fd(fd_io::open_regular(path.c_str(), O_RDONLY));
    struct stat st;
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0)
        throwSystemError("open " + path);
    std::string text;
    char buf[8192];
    ssize_t n;
    while ((n = fd_io::read_retry(fd.get(), buf, sizeof buf)) > 0)
        text.append(buf, static_cast<std::size_t>(n));
    if (n < 0)
        throwSystemError("read " + path);
    fd.close();

    std::vector<std::string> changes;
    mail::postfix::MasterCfEntries entries(text, std::string());
    // an entry the operator has is left as it is
    if (!entries.serves("zarnet", "unix")) {
        entries.add(transportEntry, true);
        text = entries.masterText();
        changes.push_back("added zarnet unix pipe");
    }
    // SMTP authentication asks the authentication daemon through its socket
    // outside the chroot.
    if (unchrootSmtp(text))
        changes.push_back("smtp inet chroot = n");
    if (changes.empty())
        return;
    AutocleanOFStream out(path + ".tmp");
    if (!out.is_open())
        throwSystemError("open " + out.path());
    out << text;
    out.commit(path, st.st_uid, st.st_gid, st.st_mode & 07777);
    for (const std::string &change : changes)
        report("master.cf", change);
}

} // namespace setup
} // namespace zarnet
