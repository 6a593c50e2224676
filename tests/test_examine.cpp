/* The pattern inspector taze and pattern authoring: dump, compile and dump
 * again gives the same text (and the same payload bytes) for the example and
 * for random sources; verify reports every broken invariant of files built
 * with the writer and nothing on compiled files; exit codes of every command;
 * pick on a directory of good, corrupt, misnamed and mismatching files; query
 * answers as the library does; covered entries, plain-text and CSV imports,
 * every source error at once, and what tazc and taze say about files. */
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <sstream>

#include "../fuzz/samples.h"
#include "api_fixtures.h"
#include "source_gen.h"
#include "taze_impl.h"
#include "tazewriter_info.h"
#include "tool_run.h"

namespace {

using tazc::Json;

using tazt::example_path;
using tazt::Outcome;
Outcome taze(const std::vector<std::string> &args) { return tazt::taze_run(args); }
Outcome tazc_run(const std::vector<std::string> &args) { return tazt::run_tool(tazc::run_tazc, args); }

const std::string &dir()
{
    static const std::string d = tazt::temp_dir();
    return d;
}

std::string write_text(const std::string &name, const std::string &text) { return tazt::write_text(dir(), name, text); }

/* Some line of text holds `first` and, after it, `second`. */
bool has_line(const std::string &text, const std::string &first, const std::string &second)
{
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        const std::size_t at = line.find(first);
        if (at != std::string::npos && line.find(second, at + first.size()) != std::string::npos) return true;
    }
    return false;
}

/* The words of the first line that begins with `start` (after indentation). */
std::vector<std::string> row(const std::string &text, const std::string &start)
{
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::vector<std::string> w;
        for (std::string x; words >> x;) w.push_back(x);
        if (!w.empty() && w[0] == start) return w;
    }
    return {};
}

std::string compile_to_file(const tazc::Source &src, bool encrypt, const std::string &name = "p.ptn")
{
    return tazt::write_temp(tazw::build_container(tazc::make_container(src, encrypt)), name);
}

/* The example source compiled (encrypted) once. */
const std::string &example_file()
{
    static const std::string f = compile_to_file(tazc::load_source_file(example_path()), true, "good.ptn");
    return f;
}

/* Dump of a file; the source read back from it must compile to the same
 * payloads, and the dump of that compilation must be the same text. */
void expect_round_trip(const tazc::Source &src, bool encrypt)
{
    const std::string path = compile_to_file(src, encrypt);
    const Outcome d1 = taze({"dump", path});
    ASSERT_EQ(d1.rc, 0) << d1.err;
    EXPECT_EQ(d1.err, "");
    tazc::Source back;
    ASSERT_NO_THROW(back = tazc::parse_source(d1.out, ".")) << d1.out;
    EXPECT_EQ(back.pattern_version, src.pattern_version);
    EXPECT_EQ(tazc::kind_payload(back.main, false), tazc::kind_payload(src.main, false)) << d1.out;
    ASSERT_EQ(back.ulm.has_value(), src.ulm.has_value());
    if (src.ulm) {
        EXPECT_EQ(tazc::kind_payload(*back.ulm, true), tazc::kind_payload(*src.ulm, true)) << d1.out;
    }
    EXPECT_EQ(back.raw, src.raw);
    const Outcome d2 = taze({"dump", compile_to_file(back, !encrypt)});
    EXPECT_EQ(d2.out, d1.out);
    const Outcome v = taze({"verify", "--quiet", path});
    EXPECT_EQ(v.rc, 0) << v.out;
}

TEST(InspectRoundTrip, ExampleSource)
{
    const tazc::Source src = tazc::load_source_file(example_path());
    const Outcome d1 = taze({"dump", compile_to_file(src, true)});
    ASSERT_EQ(d1.rc, 0) << d1.err;
    /* The example lists its rules out of id order; the dump lists them as
     * the library indexes them, so compare after one more round. */
    const tazc::Source back = tazc::parse_source(d1.out, ".");
    EXPECT_EQ(taze({"dump", compile_to_file(back, false)}).out, d1.out);
    expect_round_trip(back, true);
    EXPECT_NE(d1.out.find("\"suffix_to_prefix\""), std::string::npos);
    EXPECT_NE(d1.out.find("\"name\": \"Example second pattern\""), std::string::npos);
}

TEST(InspectRoundTrip, RandomSources)
{
    for (unsigned seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const std::string text = tazt::SourceGen(seed).source().dump(2);
        tazc::Source src;
        ASSERT_NO_THROW(src = tazc::parse_source(text, ".")) << text;
        expect_round_trip(src, seed % 2 == 0);
        if (HasFatalFailure()) return;
    }
}

/* ---- verify on files built with the writer --------------------------------------------------- */

tazw::Bytes entries_of(const std::vector<std::string> &v) { return tazw::string_entries(v); }
tazw::Bytes entries_of(const std::vector<std::pair<std::uint32_t, std::uint32_t>> &v) { return tazw::ip_entries(v); }
tazw::Bytes entries_of(const std::vector<std::pair<tazw::IPv6, tazw::IPv6>> &v) { return tazw::ipv6_entries(v); }
tazw::Bytes entries_of(const std::vector<tazw::PortRange> &v) { return tazw::port_entries(v); }
template <typename Entry>
tazw::Bytes entries_of(const std::vector<Entry> &v)
{
    return tazw::map_entries(v);
}

/* A section of one list (number `number`) holding v as it is given. */
template <typename T>
tazw::Bytes one_list(std::uint32_t magic, const std::vector<T> &v, std::uint32_t number = 0)
{
    return tazw::section(magic, 1, tazw::list(number, std::uint32_t(v.size()), entries_of(v)));
}

tazw::Bytes strings(std::uint32_t magic, const std::vector<std::string> &s, std::uint32_t number = 0)
{
    return one_list(magic, s, number);
}

using tazf::v6;

using IPv4Ranges = std::vector<std::pair<std::uint32_t, std::uint32_t>>;
using IPv6Ranges = std::vector<std::pair<tazw::IPv6, tazw::IPv6>>;
using PortRanges = std::vector<tazw::PortRange>;

/* A string list of one string whose terminator is `after` instead of NUL. */
tazw::Bytes bad_terminator(char after)
{
    tazw::LeBuf e;
    e.u32(3).raw("abc", 3).u8(std::uint8_t(after)).str("b");
    return tazw::section(MAGIC_TAZE_PATTERN_STR, 1, tazw::list(0, 2, e.bytes()));
}

/* Records of type T with the given ids (member Id), all else zero. */
template <typename T>
std::vector<T> with_ids(const std::vector<std::uint32_t> &ids, std::uint32_t T::*id)
{
    std::vector<T> out(ids.size());
    for (std::size_t i = 0; i < ids.size(); ++i) out[i].*id = ids[i];
    return out;
}

tazw::Bytes rules(const std::vector<std::uint32_t> &ids)
{
    return tazw::rule_info_section(with_ids(ids, &tazw::RuleInfo::rule_id));
}

tazw::Bytes protocols(std::uint32_t group_idx, std::uint32_t member, std::uint32_t second_id = 7)
{
    tazw::Protocol a, b;
    a.id = 6;
    a.group_idx = group_idx;
    b.id = second_id;
    tazw::ProtocolGroup g;
    g.id = 100;
    g.protocol_idxs = {member};
    return tazw::protocol_section({a, b}, {g});
}

tazw::Bytes threat_types(const std::vector<std::uint32_t> &ids)
{
    return tazw::threat_type_section(with_ids(ids, &tazw::ThreatType::rule_id));
}

tazw::Bytes clean_table(std::uint16_t lo, std::uint16_t hi)
{
    tazw::CleanInfo c;
    c.port_l = lo;
    c.port_h = hi;
    c.direction = 1;
    c.target = 2;
    return tazw::clean_info_section({c});
}

tazw::Bytes known_risk(const std::vector<tazw::PortRange> &r)
{
    tazw::Severity s;
    tazw::KnownRisk k;
    k.direction = 1;
    k.protocol_ranges = r;
    s.known = {k};
    return tazw::severity_section(s);
}

struct VerifyCase {
    const char *name;
    tazw::Bytes main; /* sections after the pattern info section */
    std::optional<tazw::Bytes> ulm;
    const char *expected; /* "" when the file must be clean */
};

TEST(InspectVerify, ReportsEachBrokenInvariantWhereItIs)
{
    using tazw::concat;
    const tazw::Bytes str_ab = strings(MAGIC_TAZE_PATTERN_STR, {"a", "b"});
    const VerifyCase cases[] = {
        {"exact list out of order", strings(MAGIC_TAZE_PATTERN_STR, {"b", "A"}), {},
         "error: main lists.exact.0[1]: \"A\" is stored after \"b\" but sorts before it"},
        {"exact list duplicate ignoring case", strings(MAGIC_TAZE_PATTERN_STR, {"a", "A"}), {},
         "error: main lists.exact.0[1]: duplicate string \"A\" (same as [0])"},
        {"case list keeps case twins", strings(MAGIC_TAZE_PATTERN_STR_CASE, {"A", "a"}), {}, ""},
        {"case list in strcmp order", strings(MAGIC_TAZE_PATTERN_STR_CASE, {"a", "B"}), {},
         "error: main lists.exact_case.0[1]"},
        {"prefix list out of order", strings(MAGIC_TAZE_PATTERN_STR_PREFIX, {"/b", "/a"}, 2), {},
         "error: main lists.prefix.2[1]"},
        {"suffix list: a suffix sorts first", strings(MAGIC_TAZE_PATTERN_STR_SUFFIX, {"a.com", "com"}), {},
         "error: main lists.suffix.0[1]: \"com\" is stored after \"a.com\""},
        {"suffix list read backwards", strings(MAGIC_TAZE_PATTERN_STR_SUFFIX, {"ba", "ab"}), {}, ""},
        {"suffix list folds case", strings(MAGIC_TAZE_PATTERN_STR_SUFFIX, {"B", "a"}), {},
         "error: main lists.suffix.0[1]"},
        {"case suffix list is bytewise", strings(MAGIC_TAZE_PATTERN_STR_SUFFIX_CASE, {"B", "a"}), {}, ""},
        {"substring list in any order", strings(MAGIC_TAZE_PATTERN_STR_SUBSTR, {"b", "a", "a"}), {}, ""},
        {"inner NUL byte", strings(MAGIC_TAZE_PATTERN_STR, {std::string("a\0b", 3)}), {},
         "holds a NUL byte at offset 1"},
        {"terminator not NUL", bad_terminator('X'), {},
         "error: main lists.exact.0[0]: \"abc\" is followed by the byte 0x58"},
        {"ranges overlap", one_list(MAGIC_TAZE_PATTERN_IP, IPv4Ranges{{1, 5}, {5, 9}}), {},
         "error: main lists.ip.0[1]: range 0.0.0.5-0.0.0.9 overlaps"},
        {"range reversed", one_list(MAGIC_TAZE_PATTERN_IP, IPv4Ranges{{9, 1}}), {},
         "error: main lists.ip.0[0]: range 0.0.0.9-0.0.0.1 is reversed"},
        {"ranges descend", one_list(MAGIC_TAZE_PATTERN_PORT, PortRanges{{10, 20}, {1, 5}}), {},
         "error: main lists.port.0[1]: range 1-5 is stored after"},
        {"IPv6 ranges in memcmp order",
         one_list(MAGIC_TAZE_PATTERN_IPV6, IPv6Ranges{{v6(0x20, 1), v6(0x20, 9)}, {v6(0xFE, 0), v6(0xFE, 1)}}), {},
         ""},
        {"IPv6 ranges descend",
         one_list(MAGIC_TAZE_PATTERN_IPV6, IPv6Ranges{{v6(0xFE, 0), v6(0xFE, 1)}, {v6(0x20, 1), v6(0x20, 9)}}), {},
         "error: main lists.ipv6.0[1]"},
        {"map keys out of order",
         one_list<tazw::StrIntEntry>(MAGIC_TAZE_PATTERN_STR_INT_MAP, {{"b", {1}}, {"a", {2}}}), {},
         "error: main maps.exact_to_int.0[1]: key \"a\" is stored after key \"b\""},
        {"map keys duplicate ignoring case",
         one_list<tazw::StrIntEntry>(MAGIC_TAZE_PATTERN_PREFIX_INT_MAP, {{"a", {1}}, {"A", {2}}}), {},
         "error: main maps.prefix_to_int.0[1]: duplicate key \"A\""},
        {"substring-keyed map: order free, duplicates not",
         one_list<tazw::StrIntEntry>(MAGIC_TAZE_PATTERN_SUBSTR_INT_MAP, {{"b", {1}}, {"a", {2}}, {"B", {3}}}), {},
         "error: main maps.substring_to_int.0[2]: duplicate key \"B\" (same as [0])"},
        {"integer keys 2^31 apart",
         one_list<tazw::IntIntEntry>(MAGIC_TAZE_PATTERN_INT_INT_MAP, {{1, {1}}, {0x80000002u, {2}}}), {},
         "error: main maps.int_to_int.0"},
        {"integer keys spread in steps", one_list<tazw::IntIntEntry>(MAGIC_TAZE_PATTERN_INT_INT_MAP,
         {{0, {1}}, {0x7FFFFFFFu, {2}}, {0xFFFFFFF0u, {3}}}), {},
         "lie 2^31 or more apart"},
        {"integer keys duplicate",
         one_list<tazw::IntStrEntry>(MAGIC_TAZE_PATTERN_INT_STR_MAP, {{5, {"a"}}, {5, {"b"}}}), {},
         "error: main maps.int_to_exact.0[1]: duplicate key 5"},
        {"IPv6 keys out of order",
         one_list<tazw::IPv6IntEntry>(MAGIC_TAZE_PATTERN_IPV6_INT_MAP, {{v6(0xFE, 0), {1}}, {v6(0x20, 0), {2}}}), {},
         "error: main maps.ipv6_to_int.0[1]"},
        {"string values out of order",
         one_list<tazw::StrStrEntry>(MAGIC_TAZE_PATTERN_STR_SUFFIX_MAP, {{"k", {"a.com", "com"}}}), {},
         "error: main maps.exact_to_suffix.0[0][1]"},
        {"substring values in any order",
         one_list<tazw::IntStrEntry>(MAGIC_TAZE_PATTERN_INT_SUBSTR_MAP, {{1, {"b", "a"}}}), {},
         ""},
        {"group position out of range", protocols(1, 0), {}, "error: main protocols[0].group: group position 1"},
        {"member position out of range", protocols(0, 2), {},
         "error: main protocol_groups[0].protocols[0]: protocol position 2"},
        {"protocol ids repeat", protocols(0, 0, 6), {}, "error: main protocols[1]: id 6 is already held by [0]"},
        {"rule ids repeat", rules({3, 1, 3}), {}, "error: main rules[2]: duplicate rule id 3"},
        {"rule id 0 is only a note", rules({0, 1}), {}, ""},
        {"threat type ids repeat", threat_types({4, 4}), {}, "error: main threat_types[1]"},
        {"clean table entry for protocol 0", clean_table(0, 0), {},
         "error: main clean[0].protocol: protocol range 0-0"},
        {"clean table entry reversed", clean_table(9, 3), {}, "error: main clean[0].protocol"},
        {"known risk ranges overlap", known_risk({{1, 5}, {3, 9}}), {},
         "error: main severity.known[0].protocols[1]: range 3-9 overlaps"},
        {"list number twice in a section", tazw::section( MAGIC_TAZE_PATTERN_STR, 2,
         concat({tazw::list(0, 1, tazw::string_entries({"a"})), tazw::list(0, 1, tazw::string_entries({"b"}))})), {},
         "error: main lists.exact.0: list number 0 occurs twice"},
        {"list size field too large", tazw::section(MAGIC_TAZE_PATTERN_STR, 1,
         concat({tazw::list(0, 1, tazw::string_entries({"a"}), 12), tazw::Bytes(6, 0)})), {},
         "error: main lists.exact.0: the list's size field says 12 bytes but its 1 entries take 6"},
        {"section twice", concat({str_ab, str_ab}), {}, "occurs a second time"},
        {"second kind checked too", tazw::Bytes(), strings(MAGIC_TAZE_PATTERN_STR, {"b", "a"}),
         "error: ulm lists.exact.0[1]"},
        {"sorted file", concat({str_ab, one_list(MAGIC_TAZE_PATTERN_IP, IPv4Ranges{{1, 2}, {3, 4}}), rules({1, 2})}),
         str_ab, ""},
    };
    for (const VerifyCase &c : cases) {
        SCOPED_TRACE(c.name);
        const tazw::Bytes main = concat({tazw::pattern_info_section(1), c.main});
        std::optional<tazw::Bytes> ulm;
        if (c.ulm) ulm = concat({tazw::pattern_info_section(1), *c.ulm});
        const Outcome r = taze({"verify", tazt::write_temp(tazt::pattern_file(main, 0x1230004D, ulm))});
        if (*c.expected == '\0') {
            EXPECT_EQ(r.rc, 0) << r.out;
            EXPECT_EQ(r.out.find("error:"), std::string::npos) << r.out;
        } else {
            EXPECT_EQ(r.rc, 1) << r.out;
            EXPECT_NE(r.out.find(c.expected), std::string::npos) << r.out;
        }
    }
}

/* ---- dump of what a source cannot say ---------------------------------------------------------- */

TEST(InspectDump, WarnsWhereTheSourceIsNotFaithful)
{
    const struct {
        const char *name;
        tazw::Bytes section;
        const char *warning;
    } cases[] = {
        {"invalid UTF-8", strings(MAGIC_TAZE_PATTERN_STR, {"a\xff"}),
         "lists.exact.0[0]: the string is not valid UTF-8"},
        {"NUL byte", strings(MAGIC_TAZE_PATTERN_STR_SUBSTR, {std::string("a\0b", 3)}),
         "lists.substring.0[0]: the string holds a NUL byte"},
        {"duplicate key", one_list<tazw::IntIntEntry>(MAGIC_TAZE_PATTERN_INT_INT_MAP, {{5, {1}}, {5, {2}}}),
         "maps.int_to_int.0.5: the key occurs twice"},
        {"group out of range", protocols(3, 0), "protocols[0].group: group position 3 is out of range"},
        {"unsorted list", strings(MAGIC_TAZE_PATTERN_STR, {"b", "a"}), "the file breaks 1 invariant"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const tazw::Bytes main = tazw::concat({tazw::pattern_info_section(1), c.section});
        const Outcome r = taze({"dump", tazt::write_temp(tazt::pattern_file(main))});
        EXPECT_EQ(r.rc, 1);
        EXPECT_NE(r.err.find(c.warning), std::string::npos) << r.err;
        EXPECT_TRUE(Json::accept(r.out)) << r.out; /* the source is still written */
    }
}

/* ---- exit codes ------------------------------------------------------------------------------- */

/* Exit codes and what the tools print: a line of the output or error text
 * (nothing checked when empty); a usage error names --help. */
TEST(InspectCommands, ExitCodesAndMessages)
{
    const std::string good = example_file(), missing = tazt::temp_dir() + "/missing.ptn", dir = tazt::temp_dir();
    const std::string no_ulm =
        compile_to_file(tazc::parse_source(R"({"pattern_version": 5})", "."), false, "plain.ptn");
    const std::string corrupt = tazt::write_temp(tazw::Bytes{'T', 'A', 'Z', 'P', 0, 1}, "corrupt.ptn");
    const std::string ulm_only = tazt::write_temp(apif::file_of({{8, tazw::pattern_info_section(1)}}), "ulm.ptn");
    /* Covered entries (kept) and covered keys; the same cut short, and with a broken digest. */
    const tazc::Source covered = tazc::parse_source(R"({"pattern_version": 1,
      "lists": {"exact": {"0": ["a"]}, "suffix": {"0": [".com", ".a.com"], "1": ["x"]},
                "prefix_case": {"0": ["/a", "/a/b/", "/a/c"]}},
      "maps": {"prefix_to_int": {"0": {"/a": 1, "/a/b": 2}}}})", "", {false, true, true}, nullptr);
    const std::string kept = compile_to_file(covered, false, "kept.ptn");
    const tazw::Bytes kept_bytes = tazw::build_container(tazc::make_container(covered, false));
    const std::string cut = tazt::write_temp(tazw::Bytes(kept_bytes.begin(), kept_bytes.end() - 9), "cut.ptn");
    tazw::Container c = tazc::make_container(covered, true);
    c.subs[0].flip_digest_bit = true;
    const std::string flipped = tazt::write_temp(tazw::build_container(c), "flipped.ptn");
    const struct {
        std::vector<std::string> args;
        int rc;
        std::string out = "", err = "";
        bool tazc = false;
    } cases[] = {
        {{}, 2}, {{"bogus"}, 2}, {{"--help"}, 0}, {{"help", "query"}, 0}, {{"info", "--help"}, 0},
        {{"dump", "--help"}, 0}, {{"verify", "--help"}, 0}, {{"query", "--help"}, 0}, {{"pick", "--help"}, 0},
        {{"info"}, 2}, {{"info", "--bogus", good}, 2}, {{"info", "--all", no_ulm}, 0},
        {{"info", corrupt}, 1}, {{"info", missing}, 1},
        {{"info", ulm_only}, 1}, /* the library needs a main pattern */
        {{"verify", ulm_only}, 1}, {{"dump", ulm_only}, 1}, {{"query", ulm_only, "versions"}, 1}, {{"dump"}, 2},
        {{"dump", good, good}, 2}, {{"dump", corrupt}, 1},
        {{"dump", "-o", dir + "/out.json", good}, 0}, {{"dump", "-o", dir + "/no/such/dir.json", good}, 1},
        {{"verify", good, good}, 2}, {{"verify", missing}, 1},
        {{"query", good}, 2}, {{"query", good, "nokind", "0"}, 2}, {{"query", good, "suffix"}, 2},
        {{"query", good, "suffix", "0"}, 2}, {{"query", good, "suffix", "zero", "x"}, 2},
        {{"query", good, "port", "0", "99999"}, 2}, {{"query", good, "ip", "0", "not-an-address"}, 2},
        {{"query", good, "clean", "1"}, 2}, {{"query", "--map-type", "prefix", good, "rule", "1"}, 2},
        {{"query", "--map-type", "prefix", good, "suffix_to_int", "0"}, 2},
        {{"query", "--map-type", "sideways", good, "simap", "0"}, 2}, {{"query", good, "suffix", "0", "a.exe"}, 0},
        {{"query", good, "suffix", "-1", "a.exe"}, 1}, /* PARA_ERR */
        {{"query", good, "simap", "99"}, 1},           /* PARA_ERR */
        {{"query", good, "rule", "0"}, 1},             /* PARA_ERR for id 0 */
        {{"query", missing, "rule", "1"}, 1}, {{"query", "--ulm", no_ulm, "rule", "1"}, 1},
        {{"query", "--ulm", good, "ulm-info"}, 0}, {{"query", no_ulm, "ulm-info"}, 1}, {{"pick", dir}, 2},
        {{"pick", "--x", dir, "a"}, 2}, {{"pick", dir, "zzz"}, 1}, {{"pick", dir + "/none", "a"}, 1},
        {{"pick", "--json", dir, "zzz"}, 1}, {{"info", "--json", good}, 0}, {{"--version"}, 0},
        {{"--version", "x"}, 2}, {{"--version"}, 0, "tazc 1.00001.00\n", "", true},
        {{"verify", kept}, 0, "warning: main lists.suffix.0: 1 entry is covered by a shorter entry of the same list, "
         "and the search can miss the shorter one: [1] \".a.com\" by [0] \".com\"\n"},
        {{"verify", kept}, 0, "warning: main lists.prefix_case.0: 2 entries are covered"},
        {{"verify", kept}, 0, "warning: main maps.prefix_to_int.0: 1 key is covered"},
        {{"verify", kept}, 0, ": 0 errors, 3 warnings, "},
        {{"verify", "--json", kept}, 0, "\"loads\": true,\n  \"errors\": 0,\n  \"warnings\": 3,"},
        {{"verify", "--json", kept}, 0, "\"level\": \"warning\""}, {{"verify", cut}, 1, "the file is truncated"},
        {{"verify", flipped}, 1, "error: file: the library cannot load the file: the reader failed with -1"},
        {{"verify", flipped}, 1, "checksum mismatch"},
        {{"query", flipped, "exact", "0", "a"}, 1, "", "returns -96, pattern file rejected or holds no main pattern "
         "(READ_ERR); the checksum stage failed: "},
        {{"query", kept, "exact", "9", "a"}, 1, "",
         "taze query: lists.exact: list 9 does not exist (this file has 1)\n"},
        {{"query", kept, "suffix", "1", "ax"}, 0, "result=1"},
        {{"query", kept, "prefix_to_int", "1", "/a"}, 1, "",
         "taze query: maps.prefix_to_int: list 1 does not exist (this file has 1)\n"},
    };
    for (const auto &c : cases) {
        std::string line;
        for (const std::string &a : c.args) line += a + " ";
        SCOPED_TRACE(line);
        const Outcome r = c.tazc ? tazc_run(c.args) : taze(c.args);
        EXPECT_EQ(r.rc, c.rc) << r.out << r.err;
        EXPECT_NE(r.out.find(c.out), std::string::npos) << r.out;
        EXPECT_NE(r.err.find(c.rc == 2 ? "--help shows the usage" : c.err), std::string::npos) << r.err;
    }
}

/* The program itself passes its arguments and exit code through. */
TEST(InspectCommands, ProgramExitCodes)
{
    const struct {
        std::string args;
        int rc;
    } cases[] = {{"--help", 0}, {"", 2}, {"verify /nonexistent/x.ptn", 1}};
    for (const auto &c : cases) {
        const std::string cmd = std::string(TAZE_INSPECT_BIN) + " " + c.args + " >/dev/null 2>&1";
        const int status = std::system(cmd.c_str());
        ASSERT_TRUE(WIFEXITED(status)) << cmd;
        EXPECT_EQ(WEXITSTATUS(status), c.rc) << cmd;
    }
}

/* ---- info ------------------------------------------------------------------------------------- */

TEST(InspectInfo, HeadersVersionsAndFamilyCounts)
{
    const Outcome r = taze({"info", example_file()});
    ASSERT_EQ(r.rc, 0) << r.err;
    const char *expected[] = {
        "main header: magic \"TAZP\", format version 1, mbz 0, sub-patterns 3",
        "pattern version: 0x1230004d (1.00077.35)",
        "sub-pattern 0 at offset 32: kind 7 (main pattern), encryption 1 (Twofish + MD5)", "kind 9 (raw pattern)",
        "load: ok", "compiler version: 0x10200003 (1.00003.02)", "name: \"Example second pattern\"",
        "raw pattern (kind 9): 39 bytes",
    };
    /* family, section, lists, entries, values, bytes: suffix lists 0 and 3
     * make four list records holding six strings. */
    using Words = std::vector<std::string>;
    EXPECT_EQ(row(r.out, "lists.suffix"), (Words{"lists.suffix", "SUF\\0", "4", "6", "-", "88"}));
    EXPECT_EQ(row(r.out, "maps.int_to_int"), (Words{"maps.int_to_int", "IIM\\0", "1", "3", "4", "52"}));
    EXPECT_EQ(row(r.out, "protocol_groups"), (Words{"protocol_groups", "PROT/PRGP", "1", "3", "4", "100"}));
    EXPECT_EQ(row(r.out, "rules"), (Words{"rules", "RULE", "1", "3", "-", "268"}));
    for (const char *e : expected) EXPECT_NE(r.out.find(e), std::string::npos) << e << "\n" << r.out;
}

/* A truncated file is called truncated, a broken digest a checksum
 * mismatch; --json says the same as the text. */
TEST(InspectInfo, ProblemsAndJson)
{
    tazi::LoadedFile file;
    std::string error;
    ASSERT_TRUE(file.load(example_file(), &error)) << error;
    const tazw::Bytes good = file.bytes;
    tazw::Bytes flipped = good;
    flipped[100] ^= 1; /* inside the main pattern's body */
    const struct {
        const char *name;
        tazw::Bytes bytes;
        std::string says, never; /* in the text */
        bool truncated;
    } cases[] = {
        {"good", good, "load: ok", "truncated", false},
        {"cut inside a body", tazw::Bytes(good.begin(), good.begin() + 300), "load: fails: the file is truncated\n",
         "no usable main pattern", true},
        {"cut inside the main header", tazw::Bytes(good.begin(), good.begin() + 20),
         "load: fails: the file is truncated\n", "reader failed", true},
        {"cut between sub-patterns", tazw::Bytes(good.begin(), good.end() - 60), "container: truncated (", "ignored",
         true},
        {"flipped body bit", flipped, "load: fails: checksum mismatch in sub-pattern 0", "truncated", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = tazt::write_temp(c.bytes, "p.ptn");
        const Outcome text = taze({"info", path}), json = taze({"info", "--json", path});
        EXPECT_NE(text.out.find(c.says), std::string::npos) << text.out;
        EXPECT_EQ(text.out.find(c.never), std::string::npos) << text.out;
        EXPECT_EQ(json.rc, text.rc);
        const tazc::Json doc = tazc::Json::parse(json.out);
        EXPECT_EQ(doc["truncated"], c.truncated);
        EXPECT_EQ(doc["loads"], text.rc == 0);
        if (text.rc == 0) {
            EXPECT_EQ(doc["pattern_version_text"], "1.00077.35");
            EXPECT_EQ(doc["kinds"].size(), 2u);
            EXPECT_EQ(doc["raw_bytes"], 39);
            bool found = false;
            for (const auto &f : doc["kinds"][0]["families"])
                if (f["family"] == "lists.suffix") found = f["lists"] == 4 && f["entries"] == 6 && f["values"].is_null();
            EXPECT_TRUE(found) << json.out;
        } else {
            EXPECT_NE(text.out.find("load: fails: " + doc["load_problem"].get<std::string>()), std::string::npos);
        }
    }
    const Outcome v = taze({"--version"});
    EXPECT_TRUE(std::regex_match(v.out, std::regex("taze [0-9]+\\.[0-9]+\\.[0-9]+\n"))) << v.out;
}

/* ---- query -------------------------------------------------------------------------------------- */

TEST(InspectQuery, AnswersAsTheLibrary)
{
    const std::string f = example_file();
    const struct {
        std::vector<std::string> args;
        const char *expected;
    } cases[] = {
        {{"suffix", "0", "setup.EXE", "setup.txt"},
         "value=\"setup.EXE\" result=1 match=true\nvalue=\"setup.txt\" result=0 match=false\n"},
        {{"exact", "0", "MALWARE.example.com"}, "result=1"},
        {{"case", "0", "curl/7.0", "CURL/7.0"}, "result=1 match=true\nvalue=\"CURL/7.0\" result=0"},
        {{"prefix-case", "0", "POST /upload/x"}, "result=1"},
        {{"--ulm", "prefix-case", "0", "POST /upload/x"}, "result=0"}, /* never searched in the second kind */
        {{"ip", "0", "10.9.8.7", "11.0.0.0"}, "value=\"10.9.8.7\" result=1 match=true\nvalue=\"11.0.0.0\" result=0"},
        {{"ip", "2", "1681915909"}, "result=1"}, /* 100.64.0.5 as a host-order number */
        {{"ipv6", "0", "2001:db9::80"}, "result=1"},
        {{"port", "0", "6665", "80"}, "value=\"6665\" result=1 match=true\nvalue=\"80\" result=0"},
        {{"simap", "0", "malware.example.com"}, "found=true key=\"malware.example.com\" values=[1001,1002]"},
        {{"simap", "0"}, "count=2\nindex=0 result=0 key=\"malware.example.com\""},
        {{"suffix_to_int", "0", "a.example.biz", "3003"}, "result=1 match=true"},
        {{"--map-type", "MT_SUFFIX", "simap", "0", "a.example.biz", "3003"}, "result=1 match=true"},
        {{"simap", "0", "a.example.biz", "3003"}, "result=-1 match=false"}, /* the exact map: no such key */
        {{"sipv6map", "0", "sinkhole.example.com"}, "result=-1 found=false"},
        {{"sipv6map", "0", "sinkhole.example.com", "2001:db8::54"}, "result=1 match=true"},
        {{"ipv6imap", "0", "fe80::1", "9"}, "result=1"}, {{"iimap", "0", "443"}, "values=[3]"},
        {{"ismap", "0", "1003", "phish.kit"}, "result=1"},
        {{"--map-type", "prefix_suffix", "ssmap", "0", "/download/setup", "x.MSI"}, "result=1"},
        {{"prefix_to_suffix", "0", "/download/setup", "x.txt"}, "result=-1 match=false"},
        {{"rule", "1001"}, "rule=1001 description=\"Generic trojan download\" found=true risk_type=\"Trojan\""},
        {{"rule", "9001"}, "description=\"Second pattern rule\" found=true risk_type=\"\""},
        {{"--ulm", "rule", "9001"}, "risk_type=\"Adware\" risk_group=1 confidence=50 threat_type=4"},
        {{"rule-index", "2"},
         "index=2 rule=1003 description=\"Phishing page\" risk_type=\"Phishing\" risk_group=2 confidence=70 enabled=0 "
         "result=0"},
        {{"rule-index", "7"},
         "index=7 rule=0 description=none risk_type=none risk_group=0 confidence=0 enabled=0 result=-99 "
         "error=\"PARA_ERR\""},
        {{"clean", "1001", "6", "inbound"}, "result=1 clean=true target=2"},
        {{"clean", "1001", "6", "outbound"}, "result=0 clean=false"},
        {{"clean-info", "17"}, "target=5 data={\"result\":0,\"priority\":2,\"src\":\"udp\",\"dst\":\"log\"}"},
        {{"protocol", "17", "42"}, "id=17 desc=\"UDP\" group=101\nid=42 desc=\"Unknown\" group=100"},
        {{"protocol", "1"}, "id=1 desc=\"ICMP\" group=200"}, {{"known-risk", "outbound", "99"}, "policy=201"},
        {{"group", "101"}, "id=101 desc=\"Transport\" count=2 protocols=[6,17]"},
        {{"group"}, "count=3 result=0\nindex=0 id=100"},
        {{"known-risk", "inbound", "17", "200"},
         "protocol=17 result=0 found=true policy=501 severity=5\n"
         "direction=2 protocol=200 result=0 found=true policy=101"},
        {{"known-risk", "any", "200"}, "result=-1 found=false"},
        {{"potential-risk", "1001", "outbound", "6"}, "policy=401 severity=4"},
        {{"threat", "1002", "77"}, "threat_type=3 threat_name=\"exploit\"\nrule=77 result=0 threat_type=99"},
        {{"ulm-info"}, "info=\"Example second pattern\""},
        {{"versions"},
         "pattern_version=\"1.00077.35\" compiler_version=\"1.00003.02\" peeked_version=\"1.00077.35\" raw_bytes=39"},
        {{"string-list", "1"}, "count=2 strings=[\"bad-agent/1.0\",\"EvilBot\"]"},
        {{"--json", "--ulm", "exact", "0", "ULM.example.com", "other"},
         "\"pattern_type\": 1,\n  \"kind\": \"exact\",\n  \"list\": 0,"},
        {{"--json", "--ulm", "exact", "0", "ULM.example.com", "other"}, "\"result\": 1,\n      \"match\": true"},
    };
    for (const auto &c : cases) {
        std::vector<std::string> args{"query"};
        std::vector<std::string> rest = c.args;
        /* options first, then FILE, then the question */
        std::size_t opts = 0;
        while (opts < rest.size() && rest[opts].rfind("--", 0) == 0) opts += rest[opts] == "--map-type" ? 2 : 1;
        args.insert(args.end(), rest.begin(), rest.begin() + long(opts));
        args.push_back(f);
        args.insert(args.end(), rest.begin() + long(opts), rest.end());
        std::string line;
        for (const std::string &a : c.args) line += a + " ";
        SCOPED_TRACE(line);
        const Outcome r = taze(args);
        EXPECT_NE(r.out.find(c.expected), std::string::npos) << r.out << r.err;
    }
}

/* ---- pick --------------------------------------------------------------------------------------- */

tazw::Bytes version_file(std::uint32_t version, bool corrupt = false)
{
    tazw::Container c;
    c.ptnVer = version;
    tazw::SubPattern s;
    s.payload = tazw::pattern_info_section(1);
    s.flip_digest_bit = corrupt; /* the peek still reads the version; the load fails */
    c.subs.push_back(s);
    return tazw::build_container(c);
}

TEST(InspectPick, ExplainsEveryEntryAndPicksTheLoader)
{
    const std::string dir = tazt::temp_dir();
    const std::uint32_t v5 = 0x10100005, v7 = 0x10100007, v9 = 0x10100009;
    ASSERT_TRUE(tazw::write_file(dir + "/a5.ptn", version_file(v5)));
    ASSERT_TRUE(tazw::write_file(dir + "/a7.ptn", version_file(v7, true)));
    ASSERT_TRUE(tazw::write_file(dir + "/a8.ptn", version_file(v9)));
    ASSERT_TRUE(tazw::write_file(dir + "/b3.ptn", version_file(0x10100003)));
    ASSERT_TRUE(tazw::write_file(dir + "/a3.txt", version_file(0x10100003)));
    ASSERT_TRUE(tazw::write_file(dir + "/a4.ptn", tazw::Bytes(40, 'x')));
    ASSERT_EQ(mkdir((dir + "/a6.ptn").c_str(), 0700), 0);

    const Outcome r = taze({"pick", dir, "a"});
    EXPECT_EQ(r.rc, 0) << r.out << r.err;
    const std::pair<std::string, std::string> expected[] = {
        {"skipped   a6.ptn", "not a regular file"},
        {"skipped   b3.ptn", "prefix mismatch: the name does not begin with \"a\""},
        {"skipped   a3.txt", "suffix mismatch: the number after the prefix is not followed by \".ptn\""},
        {"skipped   a4.ptn", "peek failed"},
        {"skipped   a8.ptn", "version mismatch: the file holds version field 9 (1.00009.01) but its name says 8"},
        {"candidate a5.ptn", "1.00005.01"}, {"candidate a7.ptn", "1.00007.01"},
        {"a7.ptn  1.00007.01", "fails to load with -96 (READ_ERR): checksum mismatch in sub-pattern 0"},
        {"a5.ptn  1.00005.01", "loads"}, {"would load: " + dir + "/a5.ptn", "(pattern version 1.00005.01)"},
    };
    for (const auto &[first, second] : expected) EXPECT_TRUE(has_line(r.out, first, second)) << first << "\n" << r.out;
    EXPECT_LT(r.out.find("a7.ptn  1.00007.01"), r.out.find("a5.ptn  1.00005.01  loads")); /* highest first */

    const Outcome j = taze({"pick", "--json", dir, "a"});
    EXPECT_EQ(j.rc, 0);
    const tazc::Json doc = tazc::Json::parse(j.out);
    EXPECT_EQ(doc["loaded"]["path"], dir + "/a5.ptn");
    EXPECT_EQ(doc["library_agrees"], true);
    std::map<std::string, std::string> reasons;
    for (const auto &e : doc["entries"]) reasons[e["name"]] = e["reason"];
    EXPECT_EQ(reasons, (std::map<std::string, std::string>{{"a3.txt", "suffix_mismatch"},
                                                           {"a4.ptn", "peek_failed"}, {"a5.ptn", "loaded"},
                                                           {"a6.ptn", "not_regular_file"}, {"a7.ptn", "load_failed"},
                                                           {"a8.ptn", "version_mismatch"},
                                                           {"b3.ptn", "prefix_mismatch"}}));

    /* Without a good file nothing loads. */
    ASSERT_EQ(std::remove((dir + "/a5.ptn").c_str()), 0);
    const Outcome none = taze({"pick", dir + "/", "a"});
    EXPECT_EQ(none.rc, 1);
    EXPECT_NE(none.out.find("no candidate loads: TAZE_LoadPatternDir returns -96 (READ_ERR)"), std::string::npos)
        << none.out;
}

/* ---- authoring: covered entries, imports, errors, messages ------------------------------- */

std::size_t lines_with(const std::string &text, const std::string &part)
{
    std::size_t n = 0;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) n += line.find(part) != std::string::npos;
    return n;
}

/* ---- covered entries ------------------------------------------------------------------ */

/* Whether entry e matches key k under a prefix (rule 1) or suffix (rule 2)
 * rule, folding ASCII letters unless case-sensitive. */
bool matches(std::string e, std::string k, unsigned rule, bool cs)
{
    if (!cs) {
        for (std::string *s : {&e, &k})
            for (char &c : *s) c = char(std::tolower(static_cast<unsigned char>(c)));
    }
    if (e.size() > k.size()) return false;
    return rule == 1 ? k.compare(0, e.size(), e) == 0 : k.compare(k.size() - e.size(), e.size(), e) == 0;
}

using Search = int (*)(TAZE *, int, const char *, int);
struct CoverFamily {
    const char *name;
    unsigned rule;
    bool cs;
    Search search;
};
constexpr CoverFamily kCoverFamilies[] = {
    {"prefix", 1, false, TAZE_PatternSearchPrefixList}, {"suffix", 2, false, TAZE_PatternSearchSuffixList},
    {"prefix_case", 1, true, TAZE_PatternSearchPrefixCaseList},
    {"suffix_case", 2, true, TAZE_PatternSearchSuffixCaseList},
};

std::string random_word(std::mt19937 &rng, std::size_t min_len, std::size_t max_len)
{
    static const char alphabet[] = {'a', 'b', 'A', 'B', '.'};
    std::string w;
    const std::size_t n = min_len + rng() % (max_len - min_len + 1);
    for (std::size_t i = 0; i < n; ++i) w += alphabet[rng() % sizeof alphabet];
    return w;
}

/* Random nested lists through the writer and the library: with covered
 * entries left out, the search answers "match" exactly when some source
 * entry matches; kept, it misses some. The note counts the covered ones. */
TEST(Coverage, SearchFindsAMatchWheneverAnEntryMatches)
{
    std::mt19937 rng(17);
    for (const CoverFamily &f : kCoverFamilies) {
        SCOPED_TRACE(f.name);
        std::size_t misses_when_kept = 0;
        for (int round = 0; round < 6; ++round) {
            std::vector<std::string> entries;
            for (int i = 0; i < 60; ++i) entries.push_back(random_word(rng, 1, 4));
            std::sort(entries.begin(), entries.end());
            entries.erase(std::unique(entries.begin(), entries.end()), entries.end());
            std::size_t covered = 0;
            for (std::size_t i = 0; i < entries.size(); ++i)
                for (std::size_t j = 0; j < entries.size(); ++j)
                    if (j != i && matches(entries[j], entries[i], f.rule, f.cs) &&
                        (entries[j].size() < entries[i].size() || j < i)) {
                        ++covered;
                        break;
                    }
            Json src{{"pattern_version", 1}};
            src["lists"][f.name]["0"] = entries;
            for (bool keep : {false, true}) {
                tazc::ParseOptions o;
                o.keep_covered = keep;
                std::vector<std::string> notes;
                const tazc::Source model = tazc::parse_source(src.dump(), "", o, &notes);
                if (!keep) {
                    ASSERT_EQ(notes.size(), covered > 0 ? 1u : 0u);
                    if (covered > 0) {
                        EXPECT_NE(notes[0].find("left out " + std::to_string(covered) + " entr"), std::string::npos)
                            << notes[0];
                    }
                }
                tazt::Handle h = tazt::new_handle();
                const std::string path =
                    tazt::write_temp(tazw::build_container(tazc::make_container(model, false)));
                ASSERT_EQ(TAZE_LoadPattern(h.get(), path.c_str()), 0);
                for (int q = 0; q < 400; ++q) {
                    const std::string k = random_word(rng, 0, 6);
                    bool any = false;
                    for (const std::string &e : entries) any = any || matches(e, k, f.rule, f.cs);
                    const int got = f.search(h.get(), 0, k.c_str(), PT_TAZ);
                    if (keep) {
                        misses_when_kept += any && got == 0;
                        EXPECT_FALSE(!any && got == 1) << k; /* a hit is always a match */
                    } else {
                        EXPECT_EQ(got, any ? 1 : 0) << "key " << k;
                    }
                }
            }
        }
        EXPECT_GT(misses_when_kept, 0u) << "the kept lists should show the misses the dropping prevents";
    }
}

/* ---- imports, errors, messages ------------------------------------------------------------ */

TEST(Authoring, ImportsTextAndCsv)
{
    write_text("words.txt", "# words\n\n  Alpha  \nbeta\n# gamma\ngamma\n");
    write_text("ranges.txt", "10.0.0.0/8\n192.168.1.1\n3232236032-3232236287\n 172.16.0.1 - 172.16.0.9 \n");
    write_text("geo.csv", "# low,high,country\n16777216,16777471,AU\n16777472,16778239,CN\n 16778240 , 16779263 , AU\n");
    write_text("geo6.csv", "2001:db8::,2001:db8::ff,DE\n2001:db9::,2001:db9::ff,FR\n");
    write_text("hosts.txt", "// rules\n.com\nexample.org\n");
    const std::string src = write_text("imports.json", R"({"pattern_version": 1,
      "lists": {"exact": {"0": {"file": "words.txt"}},
                "ip": {"0": {"file": "ranges.txt"},
                       "1": {"file": "geo.csv", "csv": {"columns": [0, 1], "where": {"column": 2, "equals": "AU"}}},
                       "2": [167772161, "167772162-167772170"]},
                "ipv6": {"0": {"file": "geo6.csv", "csv": {"columns": [0, 1], "where": {"column": 2, "equals": "DE"}}}},
                "suffix": {"0": {"file": "hosts.txt", "comments": "//"}}},
      "maps": {"suffix_to_int": {"0": {"file": "hosts.txt", "comments": "//", "values": [7, 8]}}}})");
    const Outcome r = tazc_run({"-o", dir() + "/imports.ptn", src});
    ASSERT_EQ(r.rc, 0) << r.err;
    const std::pair<std::vector<std::string>, const char *> rows[] = {
        {{"exact", "0", "ALPHA", "gamma", "# gamma", ""}, "1 1 0 0 "},
        {{"suffix", "0", "x.com", "// rules"}, "1 0 "},
        {{"ip", "0", "10.18.52.86", "192.168.1.1", "192.168.1.2", "192.168.2.0", "192.168.2.255", "172.16.0.9",
          "172.16.0.10"}, "1 1 0 1 1 1 0 "},
        {{"ip", "1", "16777216", "16777471", "16777472", "16778239", "16779263", "16779264"}, "1 1 0 0 1 0 "},
        {{"ip", "2", "167772161", "167772170", "167772171"}, "1 1 0 "},
        {{"ipv6", "0", "2001:db8::80", "2001:db9::80"}, "1 0 "},
        {{"suffix_to_int", "0", "www.example.org", "8"}, "1 "}, {{"suffix_to_int", "0", "a.com", "7"}, "1 "},
    };
    static const std::regex result("result=(-?[0-9]+)");
    for (const auto &[question, want] : rows) {
        std::vector<std::string> args{"query", dir() + "/imports.ptn"};
        args.insert(args.end(), question.begin(), question.end());
        const Outcome q = taze(args);
        std::string got;
        for (std::sregex_iterator it(q.out.begin(), q.out.end(), result), end; it != end; ++it)
            got += (*it)[1].str() + " ";
        EXPECT_EQ(got, want) << question[0] << " " << question[1] << "\n" << q.out << q.err;
    }
}

TEST(Authoring, EveryErrorAtOnce)
{
    write_text("bad-lines.txt", "10.0.0.1\n\n10.0.0.x\n10.0.0.1\n");
    write_text("bad.csv", "1,2,AU\n3,AU\n");
    Json many = Json::object();
    for (int i = 0; i < 25; ++i) many["k" + std::to_string(i)] = 1;
    const std::string src = write_text("bad.json", R"({"pattern_version": 99999999999999999999999,
      "lists": {"exact": {"0": ["Foo", "bar", "foo", "x", "X"]},
                "ip": {"0": {"file": "bad-lines.txt"},
                       "1": {"file": "bad.csv", "csv": {"columns": [0, 1], "where": {"column": 2, "equals": "AU"}}}}},
      "maps": {"suffix_to_int": {"0": {".com": 1, ".a.COM": 2, ".b.com": 3}}, "int_to_int": {"1": )" +
                                              many.dump() + R"(}}})");
    const Outcome r = tazc_run({"-o", dir() + "/bad.ptn", src});
    EXPECT_EQ(r.rc, 1);
    const char *const expected[] = {
        "error: pattern_version: 99999999999999999999999 is too large (at most 4294967295)\n",
        "error: lists.exact.0[2]: duplicate string \"foo\" (same as \"Foo\" at lists.exact.0[0] when compared "
        "case-insensitively)\n",
        "/bad-lines.txt:3: \"10.0.0.x\" is not an IPv4 address",
        "/bad-lines.txt:4: range 10.0.0.1 overlaps 10.0.0.1 at ",
        "/bad.csv:2: no column 2 (the line has 2 columns, counted from 0)\n",
        "error: maps.suffix_to_int.0[\".a.COM\"]: key \".a.COM\" is covered by key \".com\" at "
        "maps.suffix_to_int.0[\".com\"]: lookups of strings that end with \".com\" can stop at \".a.COM\" and miss the "
        "entry \".com\"",
        "error: and 13 more\n",
    };
    for (const char *e : expected) EXPECT_NE(r.err.find(e), std::string::npos) << e << "\n" << r.err;
    EXPECT_EQ(lines_with(r.err, "error: "), 21u) << r.err; /* 20 shown and the rest counted */

    /* --dedupe drops exact duplicates with a note; covered keys pass with a warning. */
    const std::string fixable = write_text("fixable.json", R"({"pattern_version": 1,
      "lists": {"exact": {"0": ["Foo", "bar", "foo"]}, "exact_case": {"0": ["Foo", "foo", "Foo"]}},
      "maps": {"suffix_to_int": {"0": {".com": 1, ".a.com": 2}}}})");
    const Outcome d = tazc_run({"--dedupe", "--allow-covered-keys", "-o", dir() + "/fixed.ptn", fixable});
    EXPECT_EQ(d.rc, 0) << d.err;
    EXPECT_NE(d.out.find("note: lists.exact.0: dropped 1 duplicate\n"), std::string::npos) << d.out;
    EXPECT_NE(d.out.find("note: lists.exact_case.0: dropped 1 duplicate\n"), std::string::npos) << d.out;
    EXPECT_NE(d.err.find("warning: maps.suffix_to_int.0: 1 key is covered"), std::string::npos) << d.err;
    tazt::Handle h = tazt::new_handle();
    ASSERT_EQ(TAZE_LoadPattern(h.get(), (dir() + "/fixed.ptn").c_str()), 0);
    TAZE_StringList l{};
    EXPECT_EQ(TAZE_PatternGetStringList(h.get(), 0, PT_TAZ, &l), 0);
    EXPECT_EQ(l.nr_strings, 2u);
    EXPECT_EQ(TAZE_PatternSearchCaseList(h.get(), 0, "foo", PT_TAZ), 1);
}

} // namespace
