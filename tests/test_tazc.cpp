/* The pattern compiler: sources compiled and loaded through the public API
 * (every listed entry must be found by its search, which fails when an
 * array is stored in the wrong order), refusals naming their JSON path,
 * exit codes, and the example source. */
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "source_gen.h"
#include "test_support.h"

namespace {

using tazc::Json;

/* ---- compiling and loading -------------------------------------------------- */

using tazt::example_path;
using tazt::write_text;

tazt::Handle load_source(const tazc::Source &src, bool encrypt = true)
{
    tazt::Handle h = tazt::new_handle();
    std::string path = tazt::write_temp(tazw::build_container(tazc::make_container(src, encrypt)));
    EXPECT_EQ(TAZE_LoadPattern(h.get(), path.c_str()), 0);
    return h;
}

/* ---- every entry is found by its search ---------------------------------------- */

using StringSearch = int (*)(TAZE *, int, const char *, int);
constexpr StringSearch kSearchFolded[4] = {TAZE_PatternSearchStringList, TAZE_PatternSearchPrefixList,
                                           TAZE_PatternSearchSuffixList, TAZE_PatternSearchSubstringList};
constexpr StringSearch kSearchCase[4] = {TAZE_PatternSearchCaseList, TAZE_PatternSearchPrefixCaseList,
                                         TAZE_PatternSearchSuffixCaseList, TAZE_PatternSearchSubstringCaseList};

std::string upper(std::string s)
{
    for (char &c : s)
        if (c >= 'a' && c <= 'z') c = char(c - 0x20);
    return s;
}

/* The map type that selects a family with this key and value rule. */
int map_type(const tazc::Family &f)
{
    if (f.shape == tazc::Shape::StrStr) return int(f.key_rule << 8 | f.value_rule);
    return int((f.key_rule != tazc::kNoRule ? f.key_rule : f.value_rule) * 257);
}

/* Count and search of each map layout through the public API. */
template <typename Entry>
int map_count(TAZE *h, int pt, int mt, int n)
{
    if constexpr (std::is_same_v<Entry, tazw::StrIntEntry>) return TAZE_PatternGetSIMapCount(h, pt, mt, n);
    else if constexpr (std::is_same_v<Entry, tazw::StrIPv6Entry>) return TAZE_PatternGetSIPv6MapCount(h, pt, mt, n);
    else if constexpr (std::is_same_v<Entry, tazw::IntIntEntry>) return TAZE_PatternGetIIMapCount(h, pt, 0, n);
    else if constexpr (std::is_same_v<Entry, tazw::IPv6IntEntry>) return TAZE_PatternGetIPv6IMapCount(h, pt, n);
    else if constexpr (std::is_same_v<Entry, tazw::IntStrEntry>) return TAZE_PatternGetISMapCount(h, pt, mt, n);
    else return TAZE_PatternGetSSMapCount(h, pt, mt, n);
}

template <typename Entry, typename Value>
int map_search(TAZE *h, int pt, int mt, int n, const Entry &e, const Value &v)
{
    if constexpr (std::is_same_v<Entry, tazw::StrIntEntry>) return TAZE_PatternSearchSIMap(h, pt, mt, n, e.key.c_str(), v);
    else if constexpr (std::is_same_v<Entry, tazw::StrIPv6Entry>)
        return TAZE_PatternSearchSIPv6Map(h, pt, mt, n, e.key.c_str(), v.data());
    else if constexpr (std::is_same_v<Entry, tazw::IntIntEntry>) return TAZE_PatternSearchIIMap(h, pt, n, e.key, v);
    else if constexpr (std::is_same_v<Entry, tazw::IPv6IntEntry>)
        return TAZE_PatternSearchIPv6IMap(h, pt, n, e.key.data(), v);
    else if constexpr (std::is_same_v<Entry, tazw::IntStrEntry>) return TAZE_PatternSearchISMap(h, pt, mt, n, e.key, v.c_str());
    else return TAZE_PatternSearchSSMap(h, pt, mt, n, e.key.c_str(), v.c_str());
}

int range_search(TAZE *h, int n, std::uint32_t ip, int pt) { return TAZE_PatternSearchIPRangeList(h, n, ip, pt); }
int range_search(TAZE *h, int n, const tazw::IPv6 &ip, int pt) { return TAZE_PatternSearchIPv6RangeList(h, n, ip.data(), pt); }
int range_search(TAZE *h, int n, std::uint16_t port, int pt) { return TAZE_PatternSearchPortRangeList(h, n, port, pt); }

struct ListProbe {
    TAZE *h;
    int pt;
    const tazc::Family &f;
    int n;

    void operator()(const std::vector<std::string> &v) const
    {
        StringSearch search = (f.case_sensitive ? kSearchCase : kSearchFolded)[f.key_rule];
        for (const std::string &s : v) {
            EXPECT_EQ(search(h, n, s.c_str(), pt), 1) << f.name << "." << n << " " << s;
            if (!f.case_sensitive) {
                EXPECT_EQ(search(h, n, upper(s).c_str(), pt), 1) << f.name << " " << upper(s);
            }
            if (f.key_rule == 0) {
                EXPECT_EQ(search(h, n, (s + "#").c_str(), pt), 0) << f.name << " " << s << "#";
            }
        }
        if (f.key_rule == 0 && !f.case_sensitive) {
            TAZE_StringList l{};
            EXPECT_EQ(TAZE_PatternGetStringList(h, n, pt, &l), 0);
            EXPECT_EQ(l.nr_strings, v.size());
        }
    }
    /* Both ends of every range match; the value after a range does not
     * when a gap follows it. */
    template <typename T>
    void operator()(const std::vector<std::pair<T, T>> &v) const
    {
        for (std::size_t i = 0; i < v.size(); ++i) {
            EXPECT_EQ(range_search(h, n, v[i].first, pt), 1) << f.name << "." << n << "[" << i << "] low end";
            EXPECT_EQ(range_search(h, n, v[i].second, pt), 1) << f.name << "." << n << "[" << i << "] high end";
            if constexpr (std::is_integral_v<T>) {
                if (i + 1 < v.size() && T(v[i].second + 1) < v[i + 1].first) {
                    EXPECT_EQ(range_search(h, n, T(v[i].second + 1), pt), 0) << f.name << " after [" << i << "]";
                }
            }
        }
    }
    /* Every value of every key, and the entry count. */
    template <typename Entry>
    void operator()(const std::vector<Entry> &v) const
    {
        EXPECT_EQ(map_count<Entry>(h, pt, map_type(f), n), int(v.size())) << f.name << "." << n;
        for (const Entry &e : v)
            for (const auto &x : e.values)
                EXPECT_EQ(map_search(h, pt, map_type(f), n, e, x), 1) << f.name << "." << n << " entry " << &e - &v[0];
    }
};

/* Entries of the source's list or map, as counted in the JSON. */
std::size_t source_entries(const Json &j) { return j.is_array() || j.is_object() ? j.size() : 1; }

/* Every list of the kind is searched for every one of its entries; the
 * model must hold as many entries as the source gave. */
void expect_all_found(TAZE *h, int pt, const tazc::Kind &kind, const Json &source_kind)
{
    std::size_t families_seen = 0;
    for (const tazc::FamilyLists &fl : kind.lists) {
        const Json &fam = source_kind.at(fl.family->group).at(fl.family->name);
        ASSERT_EQ(fam.size(), fl.lists.size()) << fl.family->name;
        for (const tazc::NumberedList &l : fl.lists) {
            std::size_t stored = std::visit([](const auto &v) { return v.size(); }, l.data);
            EXPECT_EQ(stored, source_entries(fam.at(std::to_string(l.number)))) << fl.family->name << "." << l.number;
            std::visit(ListProbe{h, pt, *fl.family, int(l.number)}, l.data);
        }
        ++families_seen;
    }
    std::size_t in_source = 0;
    for (const char *group : {"lists", "maps"})
        if (source_kind.contains(group)) in_source += source_kind.at(group).size();
    EXPECT_EQ(families_seen, in_source);
}

TEST(Tazc, EveryEntryIsFoundByItsSearch)
{
    for (unsigned seed : {1u, 2u, 3u}) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const Json src = tazt::SourceGen(seed, tazt::kLongLists).source();
        tazc::Source model = tazc::parse_source(src.dump(), "");
        ASSERT_TRUE(model.ulm);
        tazt::Handle h = load_source(model, seed != 2);
        expect_all_found(h.get(), PT_TAZ, model.main, src);
        expect_all_found(h.get(), PT_ULM, *model.ulm, src["ulm"]);
    }
}

/* Orders the lookups depend on beyond "found": source order of substring
 * keys, the host-order number of dotted addresses, prefixes and ranges. */
TEST(Tazc, StoredOrderAndAddressForms)
{
    tazc::Source model = tazc::parse_source(R"({
        "pattern_version": 1, // comments are allowed
        /* in both styles */
        "lists": {"ip": {"0": ["10.0.0.0/8", "192.168.1.10", "203.0.113.1-203.0.113.50"]},
                  "ipv6": {"0": ["2001:db8::/32", "fe80::1"]},
                  "port": {"0": [445, "135-139"]}},
        "maps": {"substring_to_int": {"0": {"mail": 1, "ail": 2}, "1": {"ail": 2, "mail": 1}},
                 "int_to_int": {"0": {"4294967295": 5, "0x80000000": 6}}}})",
                                            "");
    tazt::Handle h = load_source(model);
    struct Probe {
        const char *what;
        int got, want;
    };
    std::uint8_t in6[16] = {0x20, 0x01, 0x0d, 0xb8, 0xff, 0xff};
    std::uint8_t out6[16] = {0x20, 0x01, 0x0d, 0xb9};
    TAZE_StringIntMap m0{}, m1{};
    const Probe probes[] = {
        {"10.18.52.86 in 10.0.0.0/8", TAZE_PatternSearchIPRangeList(h.get(), 0, 0x0A123456, PT_TAZ), 1},
        {"11.0.0.0 outside", TAZE_PatternSearchIPRangeList(h.get(), 0, 0x0B000000, PT_TAZ), 0},
        {"192.168.1.10", TAZE_PatternSearchIPRangeList(h.get(), 0, 0xC0A8010A, PT_TAZ), 1},
        {"203.0.113.50", TAZE_PatternSearchIPRangeList(h.get(), 0, 0xCB007132, PT_TAZ), 1},
        {"203.0.113.51", TAZE_PatternSearchIPRangeList(h.get(), 0, 0xCB007133, PT_TAZ), 0},
        {"2001:db8:ffff::", TAZE_PatternSearchIPv6RangeList(h.get(), 0, in6, PT_TAZ), 1},
        {"2001:db9::", TAZE_PatternSearchIPv6RangeList(h.get(), 0, out6, PT_TAZ), 0},
        {"port 137", TAZE_PatternSearchPortRangeList(h.get(), 0, 137, PT_TAZ), 1},
        {"port 140", TAZE_PatternSearchPortRangeList(h.get(), 0, 140, PT_TAZ), 0},
        {"email hits mail first", TAZE_PatternGetSIMapByKey(h.get(), PT_TAZ, MT_SUBSTR, 0, "email", &m0), 0},
        {"email hits ail first", TAZE_PatternGetSIMapByKey(h.get(), PT_TAZ, MT_SUBSTR, 1, "email", &m1), 0},
        {"key 2^32-1 beside 2^31", TAZE_PatternSearchIIMap(h.get(), PT_TAZ, 0, 0xFFFFFFFFu, 5), 1},
        {"key 2^31", TAZE_PatternSearchIIMap(h.get(), PT_TAZ, 0, 0x80000000u, 6), 1},
    };
    for (const Probe &p : probes) EXPECT_EQ(p.got, p.want) << p.what;
    ASSERT_EQ(m0.nr_ints, 1u);
    EXPECT_EQ(m0.ints[0], 1u);
    ASSERT_EQ(m1.nr_ints, 1u);
    EXPECT_EQ(m1.ints[0], 2u);
}

/* ---- refusals ---------------------------------------------------------------------------- */

struct Refusal {
    const char *what;
    const char *source; /* pattern_version is added in front of all but a whole object */
    const char *error;  /* exactly what the error says */
};

const Refusal kRefusals[] = {
    {"missing version", "{}", "missing field \"pattern_version\""},
    {"reversed range", R"("lists": {"ip": {"2": ["1.1.1.1", "2.2.2.2", "3.3.3.3", "10.0.0.9-10.0.0.1"]}})",
     "lists.ip.2[3]: range 10.0.0.9-10.0.0.1 is reversed"},
    {"overlapping ranges", R"("lists": {"ip": {"0": ["10.0.0.5-10.0.0.9", "10.0.0.0/29"]}})",
     "lists.ip.0[1]: range 10.0.0.0/29 overlaps 10.0.0.5-10.0.0.9 at lists.ip.0[0]"},
    {"overlapping IPv6", R"("lists": {"ipv6": {"0": ["::1", "::/120"]}})",
     "lists.ipv6.0[1]: range ::/120 overlaps ::1 at lists.ipv6.0[0]"},
    {"overlapping ports", R"("lists": {"port": {"0": [80, "1-1024"]}})",
     "lists.port.0[1]: range 1-1024 overlaps 80 at lists.port.0[0]"},
    {"duplicate protocol range", R"("severity": {"known": [{"severity": 1, "policy": 2, "protocols": [6, "6"]}]})",
     "severity.known[0].protocols[1]: range 6 overlaps 6 at severity.known[0].protocols[0]"},
    {"bad address", R"("lists": {"ip": {"0": ["10.0.0.256"]}})",
     "lists.ip.0[0]: \"10.0.0.256\" is not an IPv4 address (dotted, or a number up to 4294967295)"},
    {"IPv4 number too big", R"("lists": {"ip": {"0": [4294967296]}})",
     "lists.ip.0[0]: 4294967296 is too large (at most 4294967295)"},
    {"number beyond 64 bits", R"("rules": [{"id": 99999999999999999999999}])",
     "rules[0].id: 99999999999999999999999 is too large (at most 4294967295)"},
    {"host bits", R"("lists": {"ip": {"0": ["10.0.0.1/8"]}})", "lists.ip.0[0]: prefix 10.0.0.1/8 has host bits set"},
    {"prefix too long", R"("lists": {"ipv6": {"0": ["::/129"]}})",
     "lists.ipv6.0[0]: prefix length \"129\" is not from 0 to 128"},
    {"port too big", R"("lists": {"port": {"0": [65536]}})", "lists.port.0[0]: 65536 is too large (at most 65535)"},
    {"duplicate map key, folded",
     R"("maps": {"exact_to_int": {"0": {"example.com": 1, "Example.COM": 2}}})",
     "maps.exact_to_int.0[\"Example.COM\"]: duplicate key \"Example.COM\" (same as \"example.com\" at "
     "maps.exact_to_int.0[\"example.com\"] when "
     "compared case-insensitively)"},
    {"duplicate substring key", R"("maps": {"substring_to_exact": {"0": {"Mail": ["a"], "mAIL": ["b"]}}})",
     "maps.substring_to_exact.0.mAIL: duplicate key \"mAIL\" (same as \"Mail\" at maps.substring_to_exact.0.Mail "
     "when compared "
     "case-insensitively)"},
    {"duplicate integer key", R"("maps": {"int_to_int": {"0": {"80": 1, "0x50": 2}}})",
     "maps.int_to_int.0.0x50: duplicate key (same as maps.int_to_int.0.80)"},
    {"duplicate IPv6 key", R"("maps": {"ipv6_to_int": {"0": {"::1": 1, "0:0::1": 2}}})",
     "maps.ipv6_to_int.0[\"0:0::1\"]: duplicate key (same as maps.ipv6_to_int.0[\"::1\"])"},
    {"duplicate JSON key", R"("maps": {"exact_to_int": {"0": {"a": 1, "a": 2}}})",
     "maps.exact_to_int.0.a: duplicate key"},
    {"duplicate exact string, folded", R"("lists": {"exact": {"1": ["a.com", "b.com", "A.Com"]}})",
     "lists.exact.1[2]: duplicate string \"A.Com\" (same as \"a.com\" at lists.exact.1[0] when compared "
     "case-insensitively)"},
    {"duplicate case-sensitive string", R"("lists": {"exact_case": {"0": ["A", "a", "A"]}})",
     "lists.exact_case.0[2]: duplicate string \"A\" (same as \"A\" at lists.exact_case.0[0])"},
    {"NUL in a string", R"("lists": {"suffix": {"0": ["a\u0000b"]}})",
     "lists.suffix.0[0]: string \"a\\u0000b\" contains a NUL byte"},
    {"NUL in a key", R"("maps": {"exact_to_int": {"0": {"k\u0000": 1}}})",
     "maps.exact_to_int.0[\"k\\u0000\"]: string \"k\\u0000\" contains a NUL byte"},
    {"NUL in a rule text", R"("rules": [{"id": 1, "description": "x\u0000"}])",
     "rules[0].description: string \"x\\u0000\" contains a NUL byte"},
    {"unknown protocol in a group", R"("protocols": [{"id": 6}], "protocol_groups": [{"id": 1, "protocols": [6, 17]}])",
     "protocol_groups[0].protocols[1]: no protocol has id 17"},
    {"unknown group of a protocol", R"("protocols": [{"id": 6, "group": 3}])",
     "protocols[0].group: no protocol group has id 3"},
    {"duplicate protocol id", R"("protocols": [{"id": 6}, {"id": 6}])",
     "protocols[1].id: duplicate id (same as protocols[0].id)"},
    {"integer keys 2^31 apart", R"("maps": {"int_to_exact": {"0": {"1": "a", "2147483649": "b"}}})",
     "maps.int_to_exact.0: keys 1 and 2147483649 lie 2^31 or more apart; integer keys are compared by their "
     "32-bit difference"},
    {"unknown top field", R"("list": {})",
     "list: unknown field (expected one of: pattern_version, compiler_version, lists, maps, rules, clean, "
     "protocols, protocol_groups, severity, threat_types, ulm, raw)"},
    {"typo in a rule", R"("rules": [{"id": 1, "descripton": "x"}])",
     "rules[0].descripton: unknown field (expected one of: id, description, risk_type, risk_group, confidence, "
     "enabled, clean)"},
    {"unknown list kind", R"("lists": {"suffixes": {}})",
     "lists.suffixes: unknown list kind (expected one of: exact, prefix, suffix, substring, exact_case, "
     "prefix_case, suffix_case, substring_case, ip, ipv6, port)"},
    {"list number not a number", R"("lists": {"exact": {"x": []}})",
     "lists.exact.x: \"x\" is not a number from 0 to 4294967295 (decimal, or hex with 0x)"},
    {"list number too high", R"("lists": {"exact": {"65536": []}})", "lists.exact.65536: list numbers run from 0 to 65535"},
    {"list number twice", R"("lists": {"exact": {"3": [], "03": []}})", "lists.exact.03: list number 3 is given twice"},
    {"list not an array", R"("lists": {"exact": {"0": "a.com"}})", "lists.exact.0: expected an array, got string"},
    {"id as text", R"("rules": [{"id": "1"}])", "rules[0].id: expected a whole number from 0 to 4294967295, got string"},
    {"negative number", R"("maps": {"exact_to_int": {"0": {"a": -1}}})",
     "maps.exact_to_int.0.a: expected a whole number from 0 to 4294967295, got a negative number"},
    {"fraction", R"("rules": [{"id": 1.5}])", "rules[0].id: expected a whole number from 0 to 4294967295, got a fractional number"},
    {"missing field", R"("rules": [{"description": "x"}])", "rules[0]: missing field \"id\""},
    {"duplicate rule id", R"("rules": [{"id": 7}, {"id": 7}])", "rules[1].id: duplicate id (same as rules[0].id)"},
    {"duplicate threat rule", R"("threat_types": {"7": "exploit", "0x7": 3})",
     "threat_types.0x7: duplicate rule id (same as threat_types.7)"},
    {"unknown threat name", R"("threat_types": {"7": "worm"})",
     "threat_types.7: \"worm\" is not one of file_pattern, malicious_behavior, suspicious_behavior, exploit, "
     "grayware, qim, zul, hidden, or a number"},
    {"unknown direction", R"("clean": [{"protocol": 6, "target": 1, "direction": "in"}])",
     "clean[0].direction: \"in\" is not one of any, inbound, outbound, or a number"},
    {"dead clean entry", R"("clean": [{"protocol": 0, "target": 1}])",
     "clean[0].protocol: protocol 0 is never matched by the clean table lookup"},
    {"empty integer values", R"("maps": {"exact_to_int": {"0": {"a": []}}})",
     "maps.exact_to_int.0.a: a key needs at least one value"},
    {"potential without risks", R"("severity": {"potential": [{"rule": 1, "risks": []}]})",
     "severity.potential[0].risks: a potential risk needs at least one risk entry"},
    {"second kind without prefix_case", R"("ulm": {"lists": {"prefix_case": {"0": ["a"]}}})",
     "ulm.lists.prefix_case: the second kind has no prefix_case lists"},
    {"second kind paths", R"("ulm": {"protocols": [{"id": 1, "group": 2}]})",
     "ulm.protocols[0].group: no protocol group has id 2"},
    {"version field too big", R"("compiler_version": {"product": 16, "build": 0, "version": 0})",
     "compiler_version.product: 16 is too large (at most 15)"},
    {"empty raw blob", R"("raw": {"text": ""})", "raw: the raw blob is empty; the library ignores empty sub-patterns"},
    {"bad hex blob", R"("raw": {"hex": "0g"})", "raw.hex: expected pairs of hex digits"},
    {"syntax error", R"("lists": {,})",
     "parse error at line 1, column 35: syntax error while parsing object key - unexpected ','; expected string "
     "literal"},
};

TEST(Tazc, RefusalsNameTheirPath)
{
    for (const Refusal &r : kRefusals) {
        const std::string text =
            *r.source == '{' ? r.source : std::string(R"({"pattern_version": 77, )") + r.source + "}";
        try {
            tazc::parse_source(text, "");
            ADD_FAILURE() << r.what << ": accepted";
        } catch (const tazc::SourceError &e) {
            EXPECT_EQ(std::string(e.what()), r.error) << r.what;
        }
    }
}

/* ---- the command line ------------------------------------------------------------------------ */

TEST(Tazc, CommandLineExitCodes)
{
    const std::string dir = tazt::temp_dir();
    const std::string good = write_text(dir, "good.json", R"({"pattern_version": {"product": 1, "build": 35, "version": 77},
        "lists": {"exact": {"0": ["a.com"]}}})");
    const std::string bad = write_text(dir, "bad.json", R"({"pattern_version": 1,
        "lists": {"ip": {"2": ["1.1.1.1", "2.2.2.2", "3.3.3.3", "10.0.0.9-10.0.0.1"]}}})");
    struct Case {
        const char *what;
        std::vector<std::string> args;
        int code;
        std::string err; /* start of the error output */
    };
    const Case cases[] = {
        {"help", {"--help"}, 0, ""}, {"no arguments", {}, 2, "tazc: no source file given\n"},
        {"unknown option", {"-x", good}, 2, "tazc: unknown option -x\n"},
        {"no output", {good}, 2, "tazc: give either -o FILE or --out-dir DIR --prefix PREFIX\n"},
        {"both outputs", {"-o", dir + "/x.ptn", "--out-dir", dir, "--prefix", "p", good}, 2, "tazc: give either"},
        {"out-dir without prefix", {"--out-dir", dir, good}, 2, "tazc: --out-dir needs --prefix\n"},
        {"-o without value", {good, "-o"}, 2, "tazc: -o needs a value\n"},
        {"two sources", {"-o", dir + "/x.ptn", good, bad}, 2, "tazc: more than one source file given\n"},
        {"missing source", {"-o", dir + "/x.ptn", dir + "/none.json"}, 1,
         "error: " + dir + "/none.json: cannot open: No such file or directory\n"},
        {"refused source", {"-o", dir + "/x.ptn", bad}, 1,
         "error: lists.ip.2[3]: range 10.0.0.9-10.0.0.1 is reversed\n"},
        {"unwritable output", {"-o", dir + "/no/such/dir/x.ptn", good}, 1,
         "error: cannot write " + dir + "/no/such/dir/x.ptn: No such file or directory\n"},
        {"file", {"-o", dir + "/x.ptn", good}, 0, ""},
        {"directory", {"--out-dir", dir, "--prefix", "taz", "--no-encrypt", good}, 0, ""},
    };
    for (const Case &c : cases) {
        std::ostringstream out, err;
        EXPECT_EQ(tazc::run_tazc(c.args, out, err), c.code) << c.what;
        EXPECT_EQ(err.str().substr(0, c.err.size()), c.err) << c.what;
        if (c.code == 0) {
            EXPECT_TRUE(err.str().empty()) << c.what;
        }
    }
    /* The directory form is named as the directory scan expects and loads. */
    tazt::Handle h = tazt::new_handle();
    ASSERT_EQ(TAZE_LoadPatternDir(h.get(), dir.c_str(), "taz"), 0);
    char ver[32] = {};
    EXPECT_EQ(TAZE_GetPatternVersion(h.get(), ver, sizeof ver), 0);
    EXPECT_STREQ(ver, "1.00077.35");
    EXPECT_EQ(TAZE_PatternSearchStringList(h.get(), 0, "A.COM", PT_TAZ), 1);
    /* --no-encrypt: the sub-pattern header says enctype 0. */
    std::ifstream f(dir + "/taz77.ptn", std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    ASSERT_GT(bytes.size(), 36u);
    EXPECT_EQ(bytes[34], 0);
    EXPECT_EQ(bytes[35], 0);
}

/* ---- the example source ------------------------------------------------------------------------ */

/* Its rule, clean, protocol and risk answers are checked through taze query. */
TEST(Tazc, ExampleCompilesAndLoads)
{
    std::ifstream in(example_path());
    ASSERT_TRUE(in) << example_path();
    std::stringstream text;
    text << in.rdbuf();
    const Json src = tazc::parse_json(text.str());
    tazc::Source model = tazc::load_source_file(example_path());

    /* Every list and map kind appears, in both kinds where allowed. */
    for (const tazc::Family &f : tazc::families()) {
        EXPECT_TRUE(src.at(f.group).contains(f.name)) << f.name;
    }
    ASSERT_TRUE(model.ulm && model.raw);

    tazt::Handle h = load_source(model);
    TAZE *p = h.get();
    expect_all_found(p, PT_TAZ, model.main, src);
    expect_all_found(p, PT_ULM, *model.ulm, src.at("ulm"));
    const unsigned char *raw = nullptr;
    unsigned raw_len = 0;
    EXPECT_EQ(TAZE_GetRawPatternByType(p, RPT_YUB, &raw, &raw_len), 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(raw), raw_len), "opaque data handed to the host as it is");
}

} // namespace
