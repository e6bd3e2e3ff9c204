// libFuzzer targets, one per FUZZ_<NAME> definition. Besides what the
// sanitizers catch, each checks a property its parser promises. Parsers that
// only read files get the input through a file in a scratch directory of
// this process (under $TMPDIR), removed at exit.
#include "mail/postfix/DatabaseFilters.h"
#include "mail/storage/mailname_delivery.h"
#include "mail/storage/mailname_forward.h"
#include "mail/storage/maildirpp_quota.h"
#include "mailtend/MailnameValidators.h"
#include "mailtend/OptionChecks.h"
#include "mailtend/OptionTypes.h"
#include "utils/MKLock.h"
#include "utils/idn.h"
#include "utils/mail_validate.h"
#include "utils/read_configuration.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

// A failed property aborts; the stack trace names its line.
#define CHECK(c) ((c) ? (void)0 : std::abort())

namespace {

struct Scratch {
    std::string dir = std::string(std::getenv("TMPDIR") ?: "/tmp") + "/mailtend-fuzz.XXXXXX";
    Scratch() { CHECK(::mkdtemp(dir.data()) != nullptr); }
    ~Scratch() { std::filesystem::remove_all(dir); }
    std::string put(const std::string &name, const std::string &data) const
    {
        std::ofstream(dir + "/" + name, std::ios::binary) << data;
        return dir + "/" + name;
    }
};

// Runs f; a rejection of the input (an E) is an answer, not a finding.
template <class E, class F> [[maybe_unused]] void tolerate(F f)
{
    try {
        f();
    } catch (const E &) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string in(reinterpret_cast<const char *>(data), size);
#if defined(FUZZ_VALIDATORS)
    namespace mc = zarnet::mail::postfix::mailtend_commands;
    using Rejected = boost::program_options::error;
    uint16_t prefix = 999;
    CHECK(!mc::parseIPMask(in, prefix) || prefix <= 128);
    boost::any v[3];
    tolerate<Rejected>([&] { mc::validate(v[0], {in}, static_cast<mc::IPMask *>(nullptr), 0); });
    tolerate<Rejected>([&] { mc::validate(v[1], {in}, static_cast<mc::ShortnameFormat *>(nullptr), 0); });
    tolerate<Rejected>(
        [&] { mc::validate(v[2], {in, in}, static_cast<mc::SelectedMailComponents *>(nullptr), 0); });
    tolerate<std::invalid_argument>([&] {
        zarnet::mail::postfix::mailname_validators::mailValidateExc(in);
        CHECK(in.find("..") == std::string::npos && in.find('\0') == std::string::npos);
    });
    namespace zv = zarnet::validate;
    const auto control = [](const std::string &s) {
        return std::any_of(s.begin(), s.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
    };
    CHECK(!control(mc::shownValue(in)));
    CHECK(!zv::hostName(in).empty() || (in.size() <= zv::max_domain && !control(in)));
    CHECK(!zv::lineText(in, 64).empty() || (in.size() <= 64 && !control(in)));
    CHECK(!zv::mailname(in).empty() || (in.size() <= zv::max_local_part && !control(in)));
    tolerate<zarnet::idn::IdnaError>([&] {
        const std::string::size_type at = in.rfind('@');
        CHECK(!zv::mailAddress(in).empty() ||
              (at != std::string::npos && at > 0 && in.size() <= zv::max_address && !control(in) &&
               std::string("|/.&#").find(in[0]) == std::string::npos));
        CHECK(!zv::domainName(in).empty() || !control(in));
    });
    zv::ipAddress(in);
    zv::network(in, size > 0 ? data[0] % 130 : 0, size % 2 == 0);
    zv::letterSize(static_cast<int64_t>(std::hash<std::string>()(in)), static_cast<int64_t>(size) << 20);
#elif defined(FUZZ_CONFIG)
    static Scratch scratch;
    const std::string path = scratch.put("zrn.conf", in);
    conf_store store{};
    if (conf_read_file_r(path.c_str(), &store) == 0)
        for (unsigned i = 0; i < store.count; ++i) {
            const std::string name = store.entries[i].name, value = store.entries[i].value;
            CHECK(!name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) {
                      return std::isalnum(c) || c == '_';
                  }));
            CHECK(value.find('#') == std::string::npos && conf_get_r(name.c_str(), &store));
            CHECK(value.empty() || (value.back() != ' ' && value.back() != '\t'));
        }
    conf_free_r(&store);
#elif defined(FUZZ_FILTERS)
    // The input is a dump. The output must not depend on where the dump is cut
    // into chunks, and a domain's removal leaves none of it.
    namespace db = zarnet::mail::postfix::database;
    const std::string from = "example.com", to = "example.net";
    const bool sub = size & 1;
    auto run = [&](auto filter, size_t cut) {
        std::ostringstream whole, pieces;
        db::DataStreamFilter<decltype(filter)> once(filter, whole), twice(filter, pieces);
        once.filterChunk(std::vector<char>(in.begin(), in.end()));
        twice.filterChunk(std::vector<char>(in.begin(), in.begin() + cut));
        twice.filterChunk(std::vector<char>(in.begin() + cut, in.end()));
        once.finish();
        twice.finish();
        CHECK(whole.str() == pieces.str());
        return whole.str();
    };
    std::istringstream kept(run(db::ElementsFilter<db::NotInDomainFilter>({from, sub}), size / 2));
    for (std::string line; std::getline(kept, line);) { // "key element, element..."
        std::istringstream list(line.substr(line.find(' ') + 1));
        CHECK(!db::belongsToDomain(line.substr(0, line.find(' ')), from, sub));
        for (std::string e; std::getline(list >> std::ws, e, ',');)
            CHECK(!db::belongsToDomain(e, from, sub));
    }
    run(db::ElementsFilter<db::ReplaceElementFilterRef>({from, to}), size / 3);
    run(db::ElementsFilter<db::ReplaceDomainPart>({from, to, sub}), size / 4);
    run(db::KeyValueFilter<db::ReplaceDomainPath, db::ReplaceDomainPath>({from, to}, {to, from}), size / 5);
#elif defined(FUZZ_MAILDIRSIZE)
    static Scratch scratch; // "new" and "cur" exist, so a rejected file is counted instead
    std::filesystem::create_directories(scratch.dir + "/new");
    std::filesystem::create_directories(scratch.dir + "/cur");
    scratch.put("maildirsize", in);
    long long bytes = 0;
    unsigned long long count = 0;
    CHECK(get_maildirpp_usage(scratch.dir.c_str(), &bytes, &count) == 1);
#elif defined(FUZZ_DOTQMAIL)
    // The input is the old file. Removing a forward must leave no copy of its
    // line, wherever it stood.
    static Scratch scratch;
    mk_lock_set_dir_for_testing(scratch.dir.c_str());
    const std::string path = scratch.put(".qmail", in);
    dotqmail_add_forward(path.c_str(), "info@example.com");
    dotqmail_add_delivery(path.c_str());
    dotqmail_remove_forward(path.c_str(), "info@example.com");
    std::ifstream file(path, std::ios::binary);
    const std::string after = "\n" + std::string{std::istreambuf_iterator<char>(file), {}} + "\n";
    CHECK(after.find("\n&info@example.com\n") == std::string::npos);
    dotqmail_remove_delivery(path.c_str());
#elif defined(FUZZ_IDN)
    namespace idn = zarnet::idn;
    tolerate<idn::IdnaError>([&] {
        const std::string ascii = idn::toAscii(in);
        CHECK(std::all_of(ascii.begin(), ascii.end(), [](unsigned char c) { return c < 0x80; }));
    });
    tolerate<idn::IdnaError>([&] { idn::toUtf8(in); });
    tolerate<idn::IdnaError>([&] { idn::emailToAscii(in); });
    for (auto f : {idn_toascii, idn_toutf8, idn_email_toascii})
        std::free(f(in.c_str()));
    idn_url_toascii(in.c_str());
#else
#error "define one FUZZ_<TARGET>"
#endif
    return 0;
}
