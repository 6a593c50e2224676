/* Compiling a checked source model to section streams and a container, and
 * the command line of tazc. */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ostream>

#include "format.h"
#include "source_model.h"

namespace tazc {

namespace {

tazw::Bytes entries_of(const std::vector<std::string> &v) { return tazw::string_entries(v); }
tazw::Bytes entries_of(const std::vector<IPv4Range> &v) { return tazw::ip_entries(v); }
tazw::Bytes entries_of(const std::vector<IPv6Range> &v) { return tazw::ipv6_entries(v); }
tazw::Bytes entries_of(const std::vector<PortRange> &v) { return tazw::port_entries(v); }
template <typename Entry>
tazw::Bytes entries_of(const std::vector<Entry> &v)
{
    return tazw::map_entries(v);
}

/* One section per family, one list per number. A family is only present
 * with at least one list, so the body is never empty (the loaders refuse
 * list sections of size 0). */
tazw::Bytes family_section(const FamilyLists &fl)
{
    tazw::LeBuf body;
    for (const NumberedList &l : fl.lists)
        std::visit([&](const auto &v) { body.raw(tazw::list(l.number, std::uint32_t(v.size()), entries_of(v))); },
                   l.data);
    return tazw::section(fl.family->magic, std::uint32_t(fl.lists.size()), body.bytes());
}

bool severity_empty(const tazw::Severity &s)
{
    return s.known.empty() && s.known_defaults.empty() && s.potential.empty() && s.potential_defaults.empty();
}

std::string version_text(std::uint32_t v) { return taze::version_text(v); }

} // namespace

tazw::Bytes kind_payload(const Kind &k, bool second_kind)
{
    tazw::LeBuf out;
    /* Always present, so that no kind has an empty payload (the reader skips
     * sub-patterns of length 0). */
    out.raw(tazw::pattern_info_section(k.compiler_version.value_or(kToolVersion)));
    for (const FamilyLists &fl : k.lists) out.raw(family_section(fl));
    /* Info sections only when they hold something: an empty rule section
     * fails the load and an empty body trips the loaders' precondition. */
    if (!k.rules.empty()) out.raw(tazw::rule_info_section(k.rules));
    if (!k.clean.empty()) out.raw(tazw::clean_info_section(k.clean));
    if (!k.protocols.empty() || !k.groups.empty()) out.raw(tazw::protocol_section(k.protocols, k.groups));
    if (!severity_empty(k.severity)) out.raw(tazw::severity_section(k.severity));
    if (!k.threat_types.empty()) out.raw(tazw::threat_type_section(k.threat_types));
    if (second_kind && k.name) out.raw(tazw::ulm_info_section(*k.name));
    if (out.size() > 0x7FFFFFFFu) fail(second_kind ? "ulm" : "", "the pattern is too large for 32-bit sizes");
    return out.take();
}

tazw::Container make_container(const Source &src, bool encrypt)
{
    tazw::Container c;
    c.ptnVer = src.pattern_version;
    auto add = [&c, encrypt](std::uint16_t subtype, tazw::Bytes payload) {
        tazw::SubPattern s;
        s.subtype = subtype;
        s.enctype = encrypt ? 1 : 0;
        s.payload = std::move(payload);
        c.subs.push_back(std::move(s));
    };
    add(7, kind_payload(src.main, false));
    if (src.ulm) add(8, kind_payload(*src.ulm, true));
    if (src.raw) add(9, *src.raw);
    return c;
}

namespace {

constexpr const char *kUsage =
    "usage: tazc [OPTIONS] (-o FILE | --out-dir DIR --prefix PREFIX) SOURCE.json\n"
    "\n"
    "Compiles a JSON pattern source (see docs/pattern-source.md) into a pattern file.\n"
    "\n"
    "  -o FILE          write the pattern file to FILE\n"
    "  --out-dir DIR    write DIR/PREFIX<version>.ptn, the name the directory loader expects\n"
    "  --prefix PREFIX  file name prefix for --out-dir\n"
    "  --no-encrypt     store the sub-patterns unencrypted\n"
    "  --dedupe         drop exact duplicates of a list (under its case rule) instead of refusing them\n"
    "  --keep-covered   keep prefix and suffix list entries that a shorter entry covers (warns)\n"
    "  --allow-covered-keys\n"
    "                   accept prefix- and suffix-keyed maps with covered keys (warns)\n"
    "  --version        print the version of tazc\n"
    "  -h, --help       show this help\n"
    "\n"
    "Every problem of the source is reported (up to 20), each with its JSON path\n"
    "or imported file and line.\n"
    "\n"
    "Exit codes: 0 written, 1 source refused or output not written, 2 usage error.\n";

constexpr std::size_t kMaxErrorsShown = 20;

struct Options {
    std::string source, out_file, out_dir;
    std::optional<std::string> prefix;
    bool encrypt = true;
    bool help = false;
    bool version = false;
    ParseOptions parse;
};

/* Returns an error text, or "" when the options are usable. */
std::string parse_options(const std::vector<std::string> &args, Options &o)
{
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string a = args[i];
        std::optional<std::string> inline_value;
        if (a.rfind("--", 0) == 0 && a.find('=') != std::string::npos) {
            inline_value = a.substr(a.find('=') + 1);
            a = a.substr(0, a.find('='));
        }
        auto value = [&](std::string &out) -> bool {
            if (inline_value) {
                out = *inline_value;
                return true;
            }
            if (i + 1 >= args.size()) return false;
            out = args[++i];
            return true;
        };
        if (a == "-h" || a == "--help") {
            o.help = true;
        } else if (a == "--no-encrypt") {
            o.encrypt = false;
        } else if (a == "--version") {
            o.version = true;
        } else if (a == "--dedupe") {
            o.parse.dedupe = true;
        } else if (a == "--keep-covered") {
            o.parse.keep_covered = true;
        } else if (a == "--allow-covered-keys") {
            o.parse.allow_covered_keys = true;
        } else if (a == "-o" || a == "--out-dir" || a == "--prefix") {
            std::string v;
            if (!value(v)) return a + " needs a value";
            if (a == "-o")
                o.out_file = v;
            else if (a == "--out-dir")
                o.out_dir = v;
            else
                o.prefix = v;
        } else if (a.size() > 1 && a[0] == '-') {
            return "unknown option " + a;
        } else if (!o.source.empty()) {
            return "more than one source file given";
        } else {
            o.source = a;
        }
    }
    if (o.help || o.version) return "";
    if (o.source.empty()) return "no source file given";
    if (o.out_file.empty() == o.out_dir.empty()) return "give either -o FILE or --out-dir DIR --prefix PREFIX";
    if (!o.out_dir.empty() && !o.prefix) return "--out-dir needs --prefix";
    if (o.prefix && o.out_dir.empty()) return "--prefix goes with --out-dir";
    return "";
}

} // namespace

int run_tazc(const std::vector<std::string> &args, std::ostream &out, std::ostream &err)
{
    Options o;
    std::string usage_error = parse_options(args, o);
    if (o.help && usage_error.empty()) {
        out << kUsage;
        return 0;
    }
    if (o.version && usage_error.empty()) {
        out << "tazc " << version_text(kToolVersion) << "\n";
        return 0;
    }
    if (!usage_error.empty()) {
        err << "tazc: " << usage_error << "\n(tazc --help shows the usage)\n";
        return 2;
    }
    tazw::Bytes file;
    Source src;
    std::vector<std::string> notes;
    try {
        src = load_source_file(o.source, o.parse, &notes);
        file = tazw::build_container(make_container(src, o.encrypt));
    } catch (const SourceErrors &e) {
        for (std::size_t i = 0; i < e.all().size() && i < kMaxErrorsShown; ++i)
            err << "error: " << e.all()[i].what() << "\n";
        if (e.all().size() > kMaxErrorsShown) err << "error: and " << e.all().size() - kMaxErrorsShown << " more\n";
        for (const std::string &n : notes) err << n << "\n";
        return 1;
    } catch (const SourceError &e) {
        err << "error: " << e.what() << "\n";
        return 1;
    }
    for (const std::string &n : notes) (n.rfind("warning", 0) == 0 ? err : out) << n << "\n";
    std::string path = o.out_file.empty() ? o.out_dir + "/" + tazw::pattern_file_name(*o.prefix, src.pattern_version)
                                          : o.out_file;
    errno = 0;
    if (!tazw::write_file(path, file)) {
        err << "error: cannot write " << path << ": " << (errno ? std::strerror(errno) : "unknown error") << "\n";
        return 1;
    }
    out << "tazc: wrote " << path << " (pattern version " << version_text(src.pattern_version) << ", "
        << file.size() << " bytes)\n";
    return 0;
}

} // namespace tazc
