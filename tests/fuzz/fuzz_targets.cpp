// libFuzzer targets, one per FUZZ_<NAME> definition. Besides what the
// sanitizers catch, each checks a property its parser promises. Parsers that
// only read files get the input through a file in a scratch directory of
// this process (under $TMPDIR), removed at exit.
#include "mail/postfix/DatabaseFilters.h"
#include "mail/storage/mailname_delivery.h"
#include "mail/storage/mailname_forward.h"
#include "mail/storage/maildirpp_quota.h"
#include "mailtend/MailnameValidators.h"
#include "mailtend/OptionTypes.h"
#include "utils/MKLock.h"
#include "utils/idn.h"
#include "utils/read_configuration.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#define CHECK(c) ((c) ? (void)0 : (std::fprintf(stderr, "check failed: %s\n", #c), std::abort()))

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

// Cuts the first line off text and returns it.
[[maybe_unused]] std::string firstLine(std::string &text)
{
    const std::string::size_type nl = std::min(text.find('\n'), text.size());
    std::string head = text.substr(0, nl);
    text.erase(0, nl + 1);
    return head;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string in(reinterpret_cast<const char *>(data), size);
#if defined(FUZZ_VALIDATORS)
    namespace mc = zarnet::mail::postfix::mailtend_commands;
    uint16_t prefix = 999;
    CHECK(!mc::parseIPMask(in, prefix) || prefix <= 128);
    auto validate = [&](auto *type, std::vector<std::string> values) {
        boost::any v;
        try {
            mc::validate(v, values, type, 0);
        } catch (const boost::program_options::error &) {
        }
    };
    validate(static_cast<mc::IPMask *>(nullptr), {in});
    validate(static_cast<mc::ShortnameFormat *>(nullptr), {in});
    validate(static_cast<mc::SelectedMailComponents *>(nullptr), {in, in});
    try {
        zarnet::mail::postfix::mailname_validators::mailValidateExc(in);
        CHECK(in.find("..") == std::string::npos && in.find('\0') == std::string::npos);
    } catch (const std::invalid_argument &) {
    }
#elif defined(FUZZ_CONFIG)
    static Scratch scratch;
    const std::string path = scratch.put("zrn.conf", in);
    conf_store store{};
    if (conf_read_file_r(path.c_str(), &store) == 0)
        for (unsigned i = 0; i < store.count; ++i) {
            const std::string name = store.entries[i].name, value = store.entries[i].value;
            CHECK(!name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
                return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
            }));
            CHECK(value.find('#') == std::string::npos && conf_get_r(name.c_str(), &store));
            CHECK(value.empty() || (value.back() != ' ' && value.back() != '\t'));
        }
    conf_free_r(&store);
    zrn_conf_set_path_for_testing(path.c_str());
    zrn_conf_reset_for_testing();
    for (int i = ZRN_CONF_INDEX_MIN; i <= ZRN_CONF_INDEX_MAX; ++i)
        zrnConfGetByIndex(i);
#elif defined(FUZZ_FILTERS)
    // First line: a domain, second: its replacement, then the dump. The output must not
    // depend on where the dump is cut into chunks, and a domain's removal leaves none of it.
    namespace db = zarnet::mail::postfix::database;
    const std::string from = firstLine(in), to = firstLine(in);
    const bool sub = !from.empty() && (from[0] & 1);
    auto run = [&](auto filter, size_t cut) {
        std::ostringstream whole, cutOut;
        db::DataStreamFilter<decltype(filter)> once(filter, whole), twice(filter, cutOut);
        once.filterChunk(std::vector<char>(in.begin(), in.end()));
        cut = std::min(cut, in.size());
        twice.filterChunk(std::vector<char>(in.begin(), in.begin() + cut));
        twice.filterChunk(std::vector<char>(in.begin() + cut, in.end()));
        once.finish();
        twice.finish();
        CHECK(whole.str() == cutOut.str());
        return whole.str();
    };
    std::istringstream kept(run(db::ElementsFilter<db::NotInDomainFilter>({from, sub}), size / 2));
    for (std::string key, list; kept >> key && std::getline(kept, list);) {
        std::istringstream elements(list); // the key may hold commas; list elements end in one
        for (std::string e = key; !e.empty(); e = elements >> e ? e.substr(0, e.find(',')) : "")
            CHECK(!db::belongsToDomain(e, from, sub));
    }
    run(db::ElementsFilter<db::ReplaceElementFilterRef>({from, to}), size / 3);
    run(db::ElementsFilter<db::ReplaceDomainPart>({from, to, sub}), size / 4);
    run(db::KeyValueFilter<db::ReplaceDomainPath, db::ReplaceDomainPath>({from, to}, {to, from}), 1);
#elif defined(FUZZ_MAILDIRSIZE)
    static Scratch scratch;
    static const bool made = std::filesystem::create_directories(scratch.dir + "/new") &&
                             std::filesystem::create_directories(scratch.dir + "/cur");
    CHECK(made);
    scratch.put("maildirsize", in);
    long long bytes = 0;
    unsigned long long count = 0;
    get_maildirpp_usage(scratch.dir.c_str(), &bytes, &count);
#elif defined(FUZZ_DOTQMAIL)
    // First line: a forwarding address; the rest: the old file. Removing the
    // address must leave no copy of its line, wherever it stood.
    static Scratch scratch;
    mk_lock_set_dir_for_testing(scratch.dir.c_str());
    const std::string address = firstLine(in).c_str(), path = scratch.put(".qmail", in);
    dotqmail_add_forward(path.c_str(), address.c_str());
    dotqmail_add_delivery(path.c_str());
    dotqmail_remove_forward(path.c_str(), address.c_str());
    char *ascii = idn_email_toascii(address.c_str());
    std::ifstream file(path, std::ios::binary);
    std::string after = "\n" + std::string{std::istreambuf_iterator<char>(file), {}} + "\n";
    if (ascii != nullptr && std::none_of(address.begin(), address.end(),
                                         [](unsigned char c) { return c < 0x20 || c == 0x7f; }))
        CHECK(after.find(std::string("\n&") + ascii + "\n") == std::string::npos);
    std::free(ascii);
    dotqmail_remove_delivery(path.c_str());
#elif defined(FUZZ_IDN)
    namespace idn = zarnet::idn;
    try {
        const std::string out = idn::toAscii(in);
        CHECK(std::all_of(out.begin(), out.end(), [](unsigned char c) { return c < 0x80; }));
    } catch (const idn::IdnaError &) {
    }
    for (auto f : {idn::toUtf8, idn::emailToAscii})
        try {
            f(in);
        } catch (const idn::IdnaError &) {
        }
    for (auto f : {idn_toascii, idn_toutf8, idn_email_toascii})
        std::free(f(in.c_str()));
    idn_url_toascii(in.c_str());
#else
#error "define one FUZZ_<TARGET>"
#endif
    return 0;
}
