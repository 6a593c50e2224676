/* String and range lists through the public API: every list kind on a
 * loaded file, the order in which arguments are checked, the second kind's
 * case-sensitive lists and whole exact lists handed back borrowed. */
#include <climits>
#include <functional>
#include <string>
#include <vector>

#include "api_fixtures.h"

namespace {

using namespace apif;
using tazw::IPv6;

/* ---- the main payload ---------------------------------------------------------- */
/* 2001:db8:: to 2001:db8::ffff. */
const IPv6 kV6Low = v6({0x20, 0x01, 0x0d, 0xb8});
const IPv6 kV6High = v6({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff}, 0xff);

const std::vector<std::string> kExact = {"example.com", "Alpha", "zeta", "\xC3\xA9t\xC3\xA9", "", "mid", "Zulu"};

/* Lists are written unsorted; the writer stores them in each kind's order. */
Bytes main_lists()
{
    return tazw::concat({
        /* List 1 is omitted, list 2 is empty, a list numbered 0xFFFFFFFF is ignored. */
        string_section(kind::STR, {{0, kExact}, {2, {}}, {3, {"three"}}, {0xFFFFFFFFu, {"ghost"}}}),
        /* List 1: "a" is a prefix of "abc", so the halving can step over it. */
        string_section(kind::PRE, {{0, {"WWW.", "http://", "ab", "ftp"}}, {1, {"b", "abc", "a"}}}),
        string_section(kind::SUF, {{0, {"com", ".backup.log", "net", ".example.org", "x.io"}}, {1, {"zb", "b", "ab"}}}),
        /* Lists 0 and 500000 only: held sparse. */
        string_section(kind::SUB, {{0, {"evil", "Bad", ""}}, {500000, {"far"}}}),
        string_section(kind::CASE, {{0, {"beta", "Alpha", "\xFF\x80", "Zeta"}}}),
        string_section(kind::PRCA, {{0, {"http", "\xC3\xA9", "Ab"}}}),
        string_section(kind::SFCA, {{0, {"txt", ".Log", "\xA9"}}}),
        string_section(kind::SUCA, {{0, {"Evil", "\xC3\x89"}}}),
        tazw::section(kind::IP, 1,
                      tazw::list(0, 3, tazw::ip_entries({{10, 20}, {100, 100}, {0xFFFFFF00u, 0xFFFFFFFFu}}))),
        tazw::section(kind::IPV6, 1,
                      tazw::list(0, 2,
                                 tazw::ipv6_entries({{kV6Low, kV6High}, {v6({0xfe, 0x80}, 1), v6({0xfe, 0x80}, 1)}}))),
        tazw::section(kind::PORT, 1, tazw::list(0, 3, tazw::port_entries({{0, 0}, {80, 89}, {65535, 65535}}))),
    });
}

/* The second kind: the three case-sensitive kinds it does not take are
 * written too. */
Bytes second_lists()
{
    return tazw::concat({
        string_section(kind::STR, {{0, {"second"}}}), string_section(kind::CASE, {{0, {"Second"}}}),
        string_section(kind::PRCA, {{0, {"Ab"}}}), string_section(kind::SFCA, {{0, {"b"}}}),
        string_section(kind::SUCA, {{0, {"b"}}}),
    });
}

using StrSearch = int (*)(TAZE *, int, const char *, int);

struct StrCase {
    const char *name;
    StrSearch fn;
    int idx;
    const char *input;
    int expect;
};

TEST(ApiLists, StringListKinds)
{
    tazt::Handle h = tazt::load_payload(main_lists());
    const StrSearch exact = TAZE_PatternSearchStringList, prefix = TAZE_PatternSearchPrefixList,
                    suffix = TAZE_PatternSearchSuffixList, substr = TAZE_PatternSearchSubstringList,
                    cs_exact = TAZE_PatternSearchCaseList, cs_prefix = TAZE_PatternSearchPrefixCaseList,
                    cs_suffix = TAZE_PatternSearchSuffixCaseList, cs_substr = TAZE_PatternSearchSubstringCaseList;
    const StrCase cases[] = {
        {"exact folds ASCII", exact, 0, "EXAMPLE.COM", 1}, {"exact needs the whole entry", exact, 0, "example.co", 0},
        {"exact longer than the entry", exact, 0, "midd", 0}, {"exact first entry", exact, 0, "alpha", 1},
        {"exact last entry", exact, 0, "zulu", 1}, {"exact empty entry", exact, 0, "", 1},
        {"exact high bytes with ASCII folded", exact, 0, "\xC3\xA9T\xC3\xA9", 1},
        {"exact high bytes are not folded", exact, 0, "\xC3\x89t\xC3\xA9", 0},
        {"exact omitted list below the highest", exact, 1, "three", 0}, {"exact empty list", exact, 2, "three", 0},
        {"exact highest list", exact, 3, "THREE", 1}, {"exact list above the highest", exact, 4, "ghost", 0},

        {"prefix entry shorter than the key", prefix, 0, "ABC", 1},
        {"prefix entry longer than the key", prefix, 0, "a", 0},
        {"prefix key equal to the entry", prefix, 0, "FTP", 1},
        {"prefix folded entry", prefix, 0, "www.example.com", 1},
        {"prefix with punctuation", prefix, 0, "HTTP://x", 1},
        {"prefix empty key", prefix, 0, "", 0}, {"prefix no entry", prefix, 0, "gopher", 0},
        {"prefix halving meets the longer entry", prefix, 1, "abcd", 1},
        {"prefix halving steps over a shorter entry", prefix, 1, "abd", 0},
        {"prefix halving steps over it again", prefix, 1, "az", 0},
        {"prefix halving reaches the shorter entry", prefix, 1, "a", 1}, {"prefix last entry", prefix, 1, "bz", 1},

        {"suffix folded tail", suffix, 0, "Old.BACKUP.log", 1},
        {"suffix key is a proper suffix of the entry", suffix, 0, "backup.log", 0},
        {"suffix second entry", suffix, 0, "a.Example.ORG", 1}, {"suffix short entry", suffix, 0, "telecom", 1},
        {"suffix key equal to the entry", suffix, 0, "x.io", 1}, {"suffix part of an entry", suffix, 0, "io", 0},
        {"suffix last entry", suffix, 0, "internet", 1}, {"suffix empty key", suffix, 0, "", 0},
        {"suffix halving meets the longer entry", suffix, 1, "xab", 1},
        {"suffix halving steps over a shorter entry", suffix, 1, "cb", 0},
        {"suffix halving reaches the shorter entry", suffix, 1, "b", 1},
        {"suffix halving reaches the last entry", suffix, 1, "zzb", 1},

        {"substring folded", substr, 0, "thisISEVILstuff", 1}, {"substring second entry", substr, 0, "xbAdx", 1},
        {"substring key shorter than the entries", substr, 0, "ba", 0}, {"substring empty key", substr, 0, "", 0},
        {"substring empty entry matches nothing", substr, 0, "nothing", 0},
        {"substring sparse highest list", substr, 500000, "xFARx", 1},
        {"substring sparse omitted list", substr, 499999, "far", 0},
        {"substring sparse omitted list 1", substr, 1, "evil", 0},
        {"substring sparse list count", substr, 500001, "far", 0},

        {"case exact", cs_exact, 0, "Alpha", 1}, {"case exact is not folded", cs_exact, 0, "alpha", 0},
        {"case exact lower-case entry", cs_exact, 0, "beta", 1},
        {"case exact upper-case key", cs_exact, 0, "Beta", 0}, {"case exact high bytes", cs_exact, 0, "\xFF\x80", 1},
        {"case exact part of high bytes", cs_exact, 0, "\xFF", 0}, {"case exact capital", cs_exact, 0, "Zeta", 1},
        {"case exact capital folded", cs_exact, 0, "zeta", 0},

        {"case prefix", cs_prefix, 0, "Abc", 1}, {"case prefix is not folded", cs_prefix, 0, "abc", 0},
        {"case prefix middle entry", cs_prefix, 0, "httpd", 1},
        {"case prefix upper-case key", cs_prefix, 0, "HTTP", 0},
        {"case prefix high bytes", cs_prefix, 0, "\xC3\xA9t\xC3\xA9", 1},
        {"case prefix other high bytes", cs_prefix, 0, "\xC3\x89", 0},

        {"case suffix", cs_suffix, 0, "a.Log", 1}, {"case suffix is not folded", cs_suffix, 0, "a.log", 0},
        {"case suffix second entry", cs_suffix, 0, "file.txt", 1},
        {"case suffix upper-case key", cs_suffix, 0, "file.TXT", 0},
        {"case suffix high byte", cs_suffix, 0, "caf\xC3\xA9", 1},
        {"case suffix key shorter than the entry", cs_suffix, 0, "Log", 0},

        {"case substring", cs_substr, 0, "xxEvilxx", 1},
        {"case substring is not folded", cs_substr, 0, "xxevilxx", 0},
        {"case substring high bytes", cs_substr, 0, "\xC3\x89T\xC3\x89", 1},
        {"case substring other high bytes", cs_substr, 0, "\xC3\xA9", 0},
        {"case substring empty key", cs_substr, 0, "", 0},
    };
    for (const StrCase &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.fn(h.get(), c.idx, c.input, PT_TAZ), c.expect);
    }
}

TEST(ApiLists, RangeListsIncludeBothBounds)
{
    tazt::Handle h = tazt::load_payload(main_lists());
    const IPv6 lo = kV6Low, hi = kV6High;
    IPv6 below_lo;
    below_lo.fill(0xff);
    below_lo[0] = 0x20, below_lo[1] = 0x01, below_lo[2] = 0x0d, below_lo[3] = 0xb7; /* 2001:db7:ffff:...:ffff */
    const IPv6 above_hi = v6({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1});
    struct Case {
        const char *name;
        std::function<int(TAZE *)> run;
        int expect;
    };
    auto ip = [](unsigned int a) { return [a](TAZE *t) { return TAZE_PatternSearchIPRangeList(t, 0, a, PT_TAZ); }; };
    auto port = [](unsigned short p) {
        return [p](TAZE *t) { return TAZE_PatternSearchPortRangeList(t, 0, p, PT_TAZ); };
    };
    auto ipv6 = [](IPv6 a) { return [a](TAZE *t) { return TAZE_PatternSearchIPv6RangeList(t, 0, a.data(), PT_TAZ); }; };
    const std::vector<Case> cases = {
        {"ip lower bound", ip(10), 1}, {"ip upper bound", ip(20), 1}, {"ip below the first range", ip(9), 0},
        {"ip between ranges", ip(21), 0}, {"ip single-address range", ip(100), 1},
        {"ip after a single-address range", ip(101), 0}, {"ip zero", ip(0), 0},
        {"ip highest address", ip(0xFFFFFFFFu), 1}, {"ip last range lower bound", ip(0xFFFFFF00u), 1},
        {"ip just below the last range", ip(0xFFFFFEFFu), 0}, {"port zero", port(0), 1}, {"port one", port(1), 0},
        {"port lower bound", port(80), 1}, {"port upper bound", port(89), 1}, {"port below", port(79), 0},
        {"port above", port(90), 0}, {"port highest", port(65535), 1}, {"port below highest", port(65534), 0},
        {"ipv6 lower bound", ipv6(lo), 1}, {"ipv6 upper bound", ipv6(hi), 1}, {"ipv6 just below", ipv6(below_lo), 0},
        {"ipv6 just above", ipv6(above_hi), 0}, {"ipv6 single address", ipv6(v6({0xfe, 0x80}, 1)), 1},
        {"ipv6 after the single address", ipv6(v6({0xfe, 0x80}, 2)), 0},
        {"ipv6 before the single address", ipv6(v6({0xfe, 0x80})), 0}, {"ipv6 all-zero address", ipv6(IPv6{}), 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.run(h.get()), c.expect);
    }
}

/* ---- argument checks, the same for every list search ---------------------------- */
struct Searcher {
    const char *name;
    std::function<int(TAZE *, int idx, int ptntype)> run; /* with a value that list 0 holds */
    int count;                                            /* lists of that kind in the main payload */
};

std::vector<Searcher> searchers()
{
    static const std::uint8_t addr[16] = {0x20, 0x01, 0x0d, 0xb8};
    auto str = [](StrSearch fn, const char *s) { return [fn, s](TAZE *t, int i, int p) { return fn(t, i, s, p); }; };
    return {
        {"StringList", str(TAZE_PatternSearchStringList, "alpha"), 4},
        {"PrefixList", str(TAZE_PatternSearchPrefixList, "abc"), 2},
        {"SuffixList", str(TAZE_PatternSearchSuffixList, "a.com"), 2},
        {"SubstringList", str(TAZE_PatternSearchSubstringList, "evil"), 1},
        {"CaseList", str(TAZE_PatternSearchCaseList, "Alpha"), 1},
        {"PrefixCaseList", str(TAZE_PatternSearchPrefixCaseList, "Abc"), 1},
        {"SuffixCaseList", str(TAZE_PatternSearchSuffixCaseList, "a.Log"), 1},
        {"SubstringCaseList", str(TAZE_PatternSearchSubstringCaseList, "Evil"), 1},
        {"IPRangeList", [](TAZE *t, int i, int p) { return TAZE_PatternSearchIPRangeList(t, i, 15, p); }, 1},
        {"IPv6RangeList", [](TAZE *t, int i, int p) { return TAZE_PatternSearchIPv6RangeList(t, i, addr, p); }, 1},
        {"PortRangeList", [](TAZE *t, int i, int p) { return TAZE_PatternSearchPortRangeList(t, i, 85, p); }, 1},
    };
}

enum class Holder { Null, Empty, Main };
constexpr int kAtCount = INT_MIN; /* stands for the searcher's list count */

TEST(ApiLists, ArgumentCheckOrder)
{
    tazt::Handle empty = tazt::new_handle();
    tazt::Handle main = tazt::load_payload(main_lists());
    struct Case {
        const char *name;
        Holder holder;
        int idx, ptntype, expect;
    } cases[] = {
        {"null handle", Holder::Null, 0, PT_TAZ, PARA_ERR},
        {"null handle before the kind test", Holder::Null, 0, 2, PARA_ERR},
        {"no pattern loaded", Holder::Empty, 0, PT_TAZ, PARA_ERR},
        {"no pattern loaded before the kind test", Holder::Empty, 0, 2, PARA_ERR},
        {"unknown kind with a valid number", Holder::Main, 0, 2, 0},
        {"unknown kind with a number past every list", Holder::Main, 999, 2, 0},
        {"negative kind", Holder::Main, 0, -1, 0},
        {"unknown kind with a negative number", Holder::Main, -1, 2, PARA_ERR},
        {"second kind not loaded", Holder::Main, 0, PT_ULM, PARA_ERR},
        {"second kind not loaded, negative number", Holder::Main, -1, PT_ULM, PARA_ERR},
        {"negative number", Holder::Main, -1, PT_TAZ, PARA_ERR},
        {"lowest number", Holder::Main, INT_MIN + 1, PT_TAZ, PARA_ERR},
        {"number equal to the list count", Holder::Main, kAtCount, PT_TAZ, 0},
        {"largest number", Holder::Main, INT_MAX, PT_TAZ, 0}, {"a match", Holder::Main, 0, PT_TAZ, 1},
    };
    for (const Searcher &s : searchers()) {
        for (const Case &c : cases) {
            SCOPED_TRACE(std::string(s.name) + ": " + c.name);
            TAZE *t = c.holder == Holder::Null ? nullptr : c.holder == Holder::Empty ? empty.get() : main.get();
            EXPECT_EQ(s.run(t, c.idx == kAtCount ? s.count : c.idx, c.ptntype), c.expect);
        }
    }
}

TEST(ApiLists, NullValues)
{
    tazt::Handle main = tazt::load_payload(main_lists());
    const StrSearch string_searches[] = {
        TAZE_PatternSearchStringList,     TAZE_PatternSearchPrefixList,       TAZE_PatternSearchSuffixList,
        TAZE_PatternSearchSubstringList,  TAZE_PatternSearchCaseList,         TAZE_PatternSearchPrefixCaseList,
        TAZE_PatternSearchSuffixCaseList, TAZE_PatternSearchSubstringCaseList,
    };
    for (StrSearch fn : string_searches) EXPECT_EQ(fn(main.get(), 0, nullptr, PT_TAZ), 0);

    /* A null address is refused before the kind and the number are looked at. */
    struct Case {
        const char *name;
        TAZE *h;
        int idx, ptntype;
    } cases[] = {
        {"valid list", main.get(), 0, PT_TAZ}, {"unknown kind", main.get(), 0, 2},
        {"number past every list", main.get(), 5, PT_TAZ}, {"second kind not loaded", main.get(), 0, PT_ULM},
        {"null handle", nullptr, 0, PT_TAZ},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(TAZE_PatternSearchIPv6RangeList(c.h, c.idx, nullptr, c.ptntype), PARA_ERR);
    }
}

TEST(ApiLists, SecondKindCaseSensitiveListsAreNotSearched)
{
    tazt::Handle main = tazt::load_payload(main_lists());
    tazt::Handle both = tazt::load_payload(main_lists(), second_lists());
    struct Case {
        const char *name;
        StrSearch fn;
        const char *input;
        int idx;
        int main_only, with_second; /* ptntype 1 */
    } cases[] = {
        {"case prefix", TAZE_PatternSearchPrefixCaseList, "Abc", 0, PARA_ERR, 0},
        {"case prefix past every list", TAZE_PatternSearchPrefixCaseList, "Abc", 7, PARA_ERR, 0},
        {"case prefix negative number", TAZE_PatternSearchPrefixCaseList, "Abc", -1, PARA_ERR, PARA_ERR},
        {"case suffix", TAZE_PatternSearchSuffixCaseList, "ab", 0, PARA_ERR, 0},
        {"case suffix past every list", TAZE_PatternSearchSuffixCaseList, "ab", 7, PARA_ERR, 0},
        {"case suffix negative number", TAZE_PatternSearchSuffixCaseList, "ab", -1, PARA_ERR, PARA_ERR},
        {"case substring", TAZE_PatternSearchSubstringCaseList, "abc", 0, PARA_ERR, 0},
        {"case substring null string", TAZE_PatternSearchSubstringCaseList, nullptr, 0, PARA_ERR, 0},
        {"case substring negative number", TAZE_PatternSearchSubstringCaseList, "abc", -1, PARA_ERR, PARA_ERR},
        /* The kinds the second pattern does take are searched. */
        {"case exact", TAZE_PatternSearchCaseList, "Second", 0, PARA_ERR, 1},
        {"case exact is not folded", TAZE_PatternSearchCaseList, "second", 0, PARA_ERR, 0},
        {"exact", TAZE_PatternSearchStringList, "SECOND", 0, PARA_ERR, 1},
        {"exact of the main kind", TAZE_PatternSearchStringList, "alpha", 0, PARA_ERR, 0},
        {"exact past every list", TAZE_PatternSearchStringList, "second", 1, PARA_ERR, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.fn(main.get(), c.idx, c.input, PT_ULM), c.main_only);
        EXPECT_EQ(c.fn(both.get(), c.idx, c.input, PT_ULM), c.with_second);
    }
    /* The main kind of the same file is still searched. */
    EXPECT_EQ(TAZE_PatternSearchPrefixCaseList(both.get(), 0, "Abc", PT_TAZ), 1);
    EXPECT_EQ(TAZE_PatternSearchStringList(both.get(), 0, "second", PT_TAZ), 0);
}

/* ---- whole exact lists ------------------------------------------------------------ */
TEST(ApiLists, GetStringList)
{
    tazt::Handle empty = tazt::new_handle();
    tazt::Handle main = tazt::load_payload(main_lists());
    tazt::Handle both = tazt::load_payload(main_lists(), second_lists());
    /* Few lists with far-apart numbers: held sparse, answered as if dense. */
    tazt::Handle sparse = tazt::load_payload(string_section(kind::STR, {{7, {"seven"}}, {5, {}}, {1000000, {"far"}}}));
    const std::vector<std::string> none;
    struct Case {
        const char *name;
        TAZE *h;
        int idx, ptntype, rc;
        std::vector<std::string> strings; /* in stored order */
    } cases[] = {
        {"list 0", main.get(), 0, PT_TAZ, 0, stored_order(kind::STR, kExact)},
        {"omitted list", main.get(), 1, PT_TAZ, 0, none}, {"empty list", main.get(), 2, PT_TAZ, 0, none},
        {"highest list", main.get(), 3, PT_TAZ, 0, {"three"}}, {"second kind", both.get(), 0, PT_ULM, 0, {"second"}},
        {"sparse: highest list", sparse.get(), 1000000, PT_TAZ, 0, {"far"}},
        {"sparse: lowest list", sparse.get(), 7, PT_TAZ, 0, {"seven"}},
        {"sparse: empty list", sparse.get(), 5, PT_TAZ, 0, none},
        {"sparse: omitted lists", sparse.get(), 999999, PT_TAZ, 0, none},
        {"sparse: omitted list 0", sparse.get(), 0, PT_TAZ, 0, none},
        {"sparse: list count", sparse.get(), 1000001, PT_TAZ, PARA_ERR, none},
        {"list count", main.get(), 4, PT_TAZ, PARA_ERR, none},
        {"negative number", main.get(), -1, PT_TAZ, PARA_ERR, none},
        {"unknown kind", main.get(), 0, 2, PARA_ERR, none},
        {"second kind not loaded", main.get(), 0, PT_ULM, PARA_ERR, none},
        {"second kind past its lists", both.get(), 1, PT_ULM, PARA_ERR, none},
        {"no pattern loaded", empty.get(), 0, PT_TAZ, PARA_ERR, none},
        {"null handle", nullptr, 0, PT_TAZ, PARA_ERR, none},
    };
    TAZE_CountedString sentinel_strings[1] = {};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        TAZE_StringList l{0xDEADu, sentinel_strings};
        ASSERT_EQ(TAZE_PatternGetStringList(c.h, c.idx, c.ptntype, &l), c.rc);
        if (c.rc != 0) {
            /* Untouched on error. */
            EXPECT_EQ(l.nr_strings, 0xDEADu);
            EXPECT_EQ(l.strings, sentinel_strings);
            continue;
        }
        EXPECT_EQ(texts(l.strings, l.nr_strings), c.strings);
        if (c.strings.empty()) {
            EXPECT_EQ(l.strings, nullptr);
        }
    }
    /* Borrowed strings point into the loaded pattern: the same storage on every call. */
    TAZE_StringList a{}, b{};
    ASSERT_EQ(TAZE_PatternGetStringList(main.get(), 0, PT_TAZ, &a), 0);
    ASSERT_EQ(TAZE_PatternGetStringList(main.get(), 0, PT_TAZ, &b), 0);
    EXPECT_EQ(a.strings, b.strings);
}

} // namespace
