/* Pattern authoring: covered entries (the search finds a match whenever any
 * source entry matches), plain-text and CSV imports, every error at once,
 * and what tazc and taze say about files and failures. */
#include <algorithm>
#include <fstream>
#include <random>
#include <sstream>

#include "source_model.h"
#include "tool_run.h"

namespace {

using tazc::Json;

using tazt::Outcome;
using tazt::taze_run;
Outcome tazc_run(const std::vector<std::string> &args) { return tazt::run_tool(tazc::run_tazc, args); }

const std::string &dir()
{
    static const std::string d = tazt::temp_dir();
    return d;
}

std::string write_text(const std::string &name, const std::string &text) { return tazt::write_text(dir(), name, text); }

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
    tazt::Handle h = tazt::new_handle();
    ASSERT_EQ(TAZE_LoadPattern(h.get(), (dir() + "/imports.ptn").c_str()), 0);
    TAZE *p = h.get();
    struct StringCase {
        Search search;
        int list;
        const char *key;
        int want;
    };
    const StringCase strings[] = {
        {TAZE_PatternSearchStringList, 0, "ALPHA", 1}, {TAZE_PatternSearchStringList, 0, "gamma", 1},
        {TAZE_PatternSearchStringList, 0, "# gamma", 0}, {TAZE_PatternSearchStringList, 0, "", 0},
        {TAZE_PatternSearchSuffixList, 0, "x.com", 1},  {TAZE_PatternSearchSuffixList, 0, "// rules", 0},
    };
    for (const StringCase &c : strings) EXPECT_EQ(c.search(p, c.list, c.key, PT_TAZ), c.want) << c.key;
    struct IpCase {
        int list;
        std::uint32_t ip;
        int want;
    };
    const IpCase ips[] = {
        {0, 0x0A123456, 1}, {0, 0xC0A80101, 1}, {0, 0xC0A80102, 0}, {0, 0xC0A80200, 1}, {0, 0xC0A802FF, 1},
        {0, 0xAC100009, 1}, {0, 0xAC10000A, 0}, {1, 16777216, 1},   {1, 16777471, 1},   {1, 16777472, 0},
        {1, 16778239, 0},   {1, 16779263, 1},   {1, 16779264, 0},   {2, 167772161, 1},  {2, 167772170, 1},
        {2, 167772171, 0},
    };
    for (const IpCase &c : ips) EXPECT_EQ(TAZE_PatternSearchIPRangeList(p, c.list, c.ip, PT_TAZ), c.want) << c.ip;
    unsigned char de[16] = {0x20, 0x01, 0x0d, 0xb8}, fr[16] = {0x20, 0x01, 0x0d, 0xb9};
    de[15] = 0x80;
    EXPECT_EQ(TAZE_PatternSearchIPv6RangeList(p, 0, de, PT_TAZ), 1);
    EXPECT_EQ(TAZE_PatternSearchIPv6RangeList(p, 0, fr, PT_TAZ), 0);
    EXPECT_EQ(TAZE_PatternSearchSIMap(p, PT_TAZ, MT_SUFFIX, 0, "www.example.org", 8), 1);
    EXPECT_EQ(TAZE_PatternSearchSIMap(p, PT_TAZ, MT_SUFFIX, 0, "a.com", 7), 1);
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
    struct Expected {
        const char *line;
    };
    const Expected expected[] = {
        {"error: pattern_version: 99999999999999999999999 is too large (at most 4294967295)\n"},
        {"error: lists.exact.0[2]: duplicate string \"foo\" (same as \"Foo\" at lists.exact.0[0] when compared "
         "case-insensitively)\n"},
        {"/bad-lines.txt:3: \"10.0.0.x\" is not an IPv4 address"},
        {"/bad-lines.txt:4: range 10.0.0.1 overlaps 10.0.0.1 at "},
        {"/bad.csv:2: no column 2 (the line has 2 columns, counted from 0)\n"},
        {"error: maps.suffix_to_int.0[\".a.COM\"]: key \".a.COM\" is covered by key \".com\" at "
         "maps.suffix_to_int.0[\".com\"]: lookups of strings that end with \".com\" can stop at \".a.COM\" and miss the "
         "entry \".com\""},
        {"error: and 13 more\n"},
    };
    for (const Expected &e : expected) EXPECT_NE(r.err.find(e.line), std::string::npos) << e.line << "\n" << r.err;
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

TEST(Authoring, ToolMessages)
{
    const std::string good = write_text("good.json", R"({"pattern_version": 1,
      "lists": {"exact": {"0": ["a"]}, "suffix": {"0": [".com", ".a.com"], "1": ["x"]},
                "prefix_case": {"0": ["/a", "/a/b/", "/a/c"]}},
      "maps": {"prefix_to_int": {"0": {"/a": 1, "/a/b": 2}}}})");
    const std::string dir = tazt::temp_dir();
    const Outcome v = tazc_run({"--version"});
    EXPECT_EQ(v.rc, 0);
    EXPECT_EQ(v.out, "tazc 1.00001.00\n");
    const Outcome w = tazc_run({"-o", dir + "/no/such/dir/x.ptn", "--allow-covered-keys", good});
    EXPECT_EQ(w.rc, 1);
    EXPECT_NE(w.err.find("error: cannot write " + dir + "/no/such/dir/x.ptn: No such file or directory\n"),
              std::string::npos)
        << w.err;

    /* A file with covered entries (kept) and covered keys: verify warns, exit 0. */
    const std::string kept = dir + "/kept.ptn";
    const Outcome k = tazc_run({"--keep-covered", "--allow-covered-keys", "--no-encrypt", "-o", kept, good});
    ASSERT_EQ(k.rc, 0) << k.err;
    const Outcome vt = taze_run({"verify", kept});
    EXPECT_EQ(vt.rc, 0) << vt.out;
    EXPECT_NE(vt.out.find("warning: main lists.suffix.0: 1 entry is covered by a shorter entry of the same list, "
                          "and the search can miss the shorter one: [1] \".a.com\" by [0] \".com\"\n"),
              std::string::npos)
        << vt.out;
    EXPECT_NE(vt.out.find("warning: main lists.prefix_case.0: 2 entries are covered"), std::string::npos) << vt.out;
    EXPECT_NE(vt.out.find("warning: main maps.prefix_to_int.0: 1 key is covered"), std::string::npos) << vt.out;
    EXPECT_NE(vt.out.find(": 0 errors, 3 warnings, "), std::string::npos) << vt.out;
    const Outcome vj = taze_run({"verify", "--json", kept});
    EXPECT_EQ(vj.rc, 0);
    const Json doc = Json::parse(vj.out);
    EXPECT_EQ(doc.at("loads"), true);
    EXPECT_EQ(doc.at("errors"), 0);
    EXPECT_EQ(doc.at("warnings"), 3);
    EXPECT_EQ(doc.at("findings").at(0).at("level"), "warning");

    /* Truncated, corrupted, and a list that does not exist. */
    std::ifstream in(kept, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string truncated = write_text("truncated.ptn", bytes.substr(0, bytes.size() - 9));
    const Outcome t = taze_run({"verify", truncated});
    EXPECT_EQ(t.rc, 1);
    EXPECT_NE(t.out.find("the file is truncated"), std::string::npos) << t.out;
    EXPECT_EQ(t.out.find("bytes after the last sub-pattern"), std::string::npos) << t.out;

    tazc::Source src = tazc::load_source_file(good, {false, false, true}, nullptr);
    tazw::Container c = tazc::make_container(src, true);
    c.subs[0].flip_digest_bit = true;
    const std::string corrupt = tazt::write_temp(tazw::build_container(c), "corrupt.ptn");
    const Outcome vc = taze_run({"verify", corrupt});
    EXPECT_NE(vc.out.find("checksum mismatch"), std::string::npos) << vc.out;
    const Outcome qc = taze_run({"query", corrupt, "exact", "0", "a"});
    EXPECT_EQ(qc.rc, 1);
    EXPECT_NE(qc.err.find("returns -96, pattern file rejected or holds no main pattern (READ_ERR); the checksum stage failed: "), std::string::npos) << qc.err;

    const Outcome q = taze_run({"query", kept, "exact", "9", "a"});
    EXPECT_EQ(q.rc, 1);
    EXPECT_EQ(q.err, "taze query: lists.exact: list 9 does not exist (this file has 1)\n");
    const Outcome qs = taze_run({"query", kept, "suffix", "1", "ax"});
    EXPECT_EQ(qs.rc, 0) << qs.err;
    const Outcome qm = taze_run({"query", kept, "prefix_to_int", "1", "/a"});
    EXPECT_EQ(qm.rc, 1);
    EXPECT_EQ(qm.err, "taze query: maps.prefix_to_int: list 1 does not exist (this file has 1)\n");
}

} // namespace
