/* Matching rules, the bisection and the list and map searches, over
 * in-memory lists of counted strings that point at NUL-terminated literals. */
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "bisect.h"
#include "taze_ptn.h"
#include "taze_util.h"
#include "tazapi.h"

namespace {

const unsigned char *u(const char *s) { return reinterpret_cast<const unsigned char *>(s); }
counted_string_t cs(const char *s) { return {u(s), static_cast<UINT32>(std::strlen(s))}; }
std::vector<counted_string_t> texts(std::initializer_list<const char *> items)
{
    std::vector<counted_string_t> v;
    for (const char *s : items) v.push_back(cs(s));
    return v;
}
int sign(int v) { return (v > 0) - (v < 0); }

TEST(Match, FoldingTouchesOnlyAsciiLetters)
{
    for (unsigned c = 0; c < 256; ++c) {
        const bool upper = c >= 'A' && c <= 'Z';
        EXPECT_EQ(taz_tolower(static_cast<unsigned char>(c)), upper ? c + 0x20 : c) << c;
    }
}

TEST(Match, Comparators)
{
    struct Row {
        int (*cmp)(const void *, const void *);
        const char *key, *elem;
        int expect;   // exact value when `exact`, else the sign
        bool exact;
    };
    const Row rows[] = {
        {str_compare, "Hello", "hELLO", 0, true},
        {str_compare, "abc", "abd", -1, false},
        {str_compare, "\xC4rger", "\xE4rger", -1, false}, // high bytes are not folded
        {str_compare, "\x80", "z", 1, false},             // and order after ASCII
        {str_case_compare, "Hello", "hello", -1, false},
        {str_case_compare, "\xFF", "\x7F", 1, false},
        {str_compare_prefix, "Backup.log", "BACKUP", 0, true},
        {str_compare_prefix, "BACK", "BACKUP", -1, false},
        {str_compare_prefix, "anything", "", 0, true},
        {str_compare_case_prefix, "Backup.log", "Backup", 0, true},
        {str_compare_case_prefix, "Backup.log", "BACKUP", 1, false},
        {str_compare_reverse_prefix, "old.Backup.LOG", ".backup.log", 0, true},
        {str_compare_reverse_prefix, "backup.log", ".backup.log", -0x2E, true},
        {str_compare_reverse_prefix, "xa", "ya", 'x' - 'y', true},
        {str_compare_reverse_prefix, "a\xC4", "A\xE4", 0xC4 - 0xE4, true},
        {str_compare_reverse_prefix, "", "log", -'g', true},
        {str_compare_reverse_prefix, "log", "", 0, true},
        {str_compare_reverse_case_prefix, "x.log", ".log", 0, true},
        {str_compare_reverse_case_prefix, "x.LOG", ".log", 'G' - 'g', true},
        {str_compare_reverse_case_prefix, "log", "Xlog", -'X', true},
    };
    for (const Row &r : rows) {
        const counted_string_t k = cs(r.key), e = cs(r.elem);
        const int got = r.cmp(&k, &e);
        EXPECT_EQ(r.exact ? got : sign(got), r.expect) << r.key << " vs " << r.elem;
    }
}

TEST(Match, BackwardComparisonEdges)
{
    struct Row {
        const char *s1, *s2;
        UINT32 n;
        int folded, exact;
    };
    const Row rows[] = {
        {"", "", 0, 0, 0},
        {"", "ab", 0, 0, 0},
        {"", "aB", 2, -'b', -'B'},
        {"xY", "", 0, 0, 0},
        {"xY", "", 3, 'y', 'Y'},
        {"xY", "y", 0x80000000u, 'y', 'Y'}, // n below 1 as a signed count
        {"abc", "xbc", 2, 0, 0},             // only the last n bytes count
        {"abc", "xbc", 3, 'a' - 'x', 'a' - 'x'},
        {"bc", "abc", 3, -'a', -'a'},
        {"abc", "BC", 2, 0, 'c' - 'C'},
    };
    for (const Row &r : rows) {
        const counted_string_t a = cs(r.s1), b = cs(r.s2);
        EXPECT_EQ(strncasecmp_reverse(&a, &b, r.n), r.folded) << r.s1 << " / " << r.s2;
        EXPECT_EQ(strncmp_reverse(&a, &b, r.n), r.exact) << r.s1 << " / " << r.s2;
    }
}

TEST(Match, SubstringSearches)
{
    struct Row {
        const char *hay, *needle;
        int folded, exact; // offset of the hit, -1 for none
    };
    const Row rows[] = {
        {"abcABC", "Ca", 2, -1}, {"abcABC", "cA", 2, 2}, {"abcABC", "", -1, -1}, {"", "a", -1, -1},
        {"ab", "abc", -1, -1},   {"xaXA", "xa", 0, 0},   {"aaab", "AB", 2, -1},  {"ab\xC4", "\xE4", -1, -1},
    };
    for (const Row &r : rows) {
        const counted_string_t h = cs(r.hay), n = cs(r.needle);
        const unsigned char *f = str_case_str(&h, &n), *e = str_str(&h, &n);
        EXPECT_EQ(f ? f - h.ptr : -1, r.folded) << r.hay << " / " << r.needle;
        EXPECT_EQ(e ? e - h.ptr : -1, r.exact) << r.hay << " / " << r.needle;
    }
    // The haystack ends at its length, not at its NUL.
    const counted_string_t shortened{u("abcdef"), 4}, de = cs("de"), null_ptr{nullptr, 3};
    EXPECT_EQ(str_case_str(&shortened, &de), nullptr);
    EXPECT_EQ(str_case_str(&null_ptr, &de), nullptr);
    EXPECT_EQ(str_str(&de, nullptr), nullptr);
}

TEST(Match, RangeAndKeyComparators)
{
    const ip_rng_st ip{10, 20}, inverted{10, 5};
    const port_rng_st port{80, 90};
    struct Row {
        unsigned int key;
        int ip, inverted, port;
    };
    // Above ip_h wins over below ip_l: the inverted range never matches.
    const Row rows[] = {{3, -1, -1, -1}, {9, -1, 1, -1}, {10, 0, 1, -1}, {20, 0, 1, -1},
                        {21, 1, 1, -1},  {80, 1, 1, 0},  {90, 1, 1, 0},  {91, 1, 1, 1}};
    for (const Row &r : rows) {
        const unsigned short p = static_cast<unsigned short>(r.key);
        EXPECT_EQ(ip_rng_compare_single(&r.key, &ip), r.ip) << r.key;
        EXPECT_EQ(ip_rng_compare_single(&r.key, &inverted), r.inverted) << r.key;
        EXPECT_EQ(port_rng_compare_single(&p, &port), r.port) << r.key;
    }

    ipv6_rng_st v6{};
    v6.ipv6_l.bytes[0] = 0x20;
    v6.ipv6_h.bytes[0] = 0x20;
    std::memset(v6.ipv6_h.bytes + 1, 0xFF, 15);
    unsigned char low[16] = {0x1F, 0xFF}, at_high[16], fe[16] = {0xFE};
    std::memcpy(at_high, v6.ipv6_h.bytes, 16);
    const unsigned char *keys[] = {low, v6.ipv6_l.bytes, at_high, fe};
    const int expect[] = {-1, 0, 0, 1};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(ipv6_rng_compare_single(&keys[i], &v6), expect[i]) << i;

    const iimap_st i1{0x00000001u, 0, nullptr}, i2{0x80000002u, 0, nullptr};
    EXPECT_EQ(iimap_compare_key(&i1, &i2), 0x7FFFFFFF); // wrap-around difference
    const ismap_st s1{0x00000001u, 0, nullptr}, s2{0x80000002u, 0, nullptr};
    EXPECT_EQ(ismap_compare_key(&s1, &s2), 0x7FFFFFFF);
    taz_rule_info_st r1{}, r2{};
    r1.rule_id = 1;
    r2.rule_id = 0x80000002u;
    EXPECT_EQ(rule_info_cmp(&r1, &r2), -1); // a true unsigned comparison
    EXPECT_EQ(rule_info_cmp(&r2, &r1), 1);
}

/* The eight string list kinds share one layout; run a row through the one
 * its kind names. */
enum Kind { EXACT, PREFIX, SUFFIX, SUBSTR, CASE, PREFIX_CASE, SUFFIX_CASE, SUBSTR_CASE };
template <class List, int (*Search)(const unsigned char *, const List *)>
int run_list(const char *s, std::vector<counted_string_t> &v, bool null_list)
{
    List l{static_cast<UINT32>(v.size()), v.empty() ? nullptr : v.data()};
    return Search(s ? u(s) : nullptr, null_list ? nullptr : &l);
}
using ListRunner = int (*)(const char *, std::vector<counted_string_t> &, bool);
constexpr ListRunner kRunners[] = {
    run_list<str_list_st, str_list_search>,
    run_list<str_prefix_list_st, str_prefix_list_search>,
    run_list<str_suffix_list_st, str_suffix_list_search>,
    run_list<str_substring_list_st, str_substring_list_search>,
    run_list<str_case_list_st, str_case_list_search>,
    run_list<str_prefix_case_list_st, str_prefix_case_list_search>,
    run_list<str_suffix_case_list_st, str_suffix_case_list_search>,
    run_list<str_substr_case_list_st, str_substr_case_list_search>,
};

TEST(Match, StringListSearches)
{
    struct Row {
        Kind kind;
        std::initializer_list<const char *> list;
        const char *query;
        int expect;
    };
    const Row rows[] = {
        {EXACT, {"alpha", "Beta", "gamma"}, "BETA", 1},
        {EXACT, {"alpha", "Beta", "gamma"}, "bet", 0},
        {EXACT, {"zeta", "\xC4rger"}, "\xC4RGER", 1},
        {EXACT, {"zeta", "\xC4rger"}, "\xE4rger", 0},
        {PREFIX, {"ab"}, "ABC", 1},
        {PREFIX, {"ab"}, "a", 0},
        // Overlapping prefixes: the halving steps past "a" and misses.
        {PREFIX, {"a", "aa", "ab"}, "az", 0},
        {PREFIX, {"a", "aa", "ab"}, "a", 1},
        {PREFIX, {"a", "aa", "ab"}, "ABx", 1},
        {SUFFIX, {".backup.log"}, "Old.BACKUP.log", 1},
        {SUFFIX, {".backup.log"}, "backup.log", 0},
        {SUFFIX, {"a", "aa", "ba"}, "za", 0}, // misses the suffix "a"
        {SUFFIX, {"a", "aa", "ba"}, "xBA", 1},
        {SUBSTR, {"mail", "ail"}, "EMAIL", 1},
        {SUBSTR, {"mail", "ail"}, "mai", 0},
        {CASE, {"Beta", "alpha"}, "Beta", 1},
        {CASE, {"Beta", "alpha"}, "beta", 0},
        {PREFIX_CASE, {"ab"}, "abc", 1},
        {PREFIX_CASE, {"ab"}, "ABC", 0},
        {PREFIX_CASE, {"a", "aa", "ab"}, "az", 0},
        {SUFFIX_CASE, {".log"}, "x.log", 1},
        {SUFFIX_CASE, {".log"}, "x.LOG", 0},
        {SUBSTR_CASE, {"mail"}, "email", 1},
        {SUBSTR_CASE, {"mail"}, "EMAIL", 0},
        {SUBSTR_CASE, {"", "x"}, "x", 1}, // empty entries never match
        {SUBSTR_CASE, {""}, "x", 0},
    };
    for (const Row &r : rows) {
        std::vector<counted_string_t> v = texts(r.list);
        EXPECT_EQ(kRunners[r.kind](r.query, v, false), r.expect) << "kind " << r.kind << " query " << r.query;
    }
    for (ListRunner run : kRunners) {
        std::vector<counted_string_t> none, one = texts({"x"});
        EXPECT_EQ(run("x", none, false), 0); // empty list
        EXPECT_EQ(run("x", one, true), 0);   // null list
        EXPECT_EQ(run(nullptr, one, false), 0);
    }
}

TEST(Match, RangeListSearches)
{
    ip_rng_st ips[] = {{10, 20}, {30, 40}};
    port_rng_st ports[] = {{10, 20}, {30, 40}};
    const ip_rng_list_st ipl{2, ips}, no_ips{0, nullptr};
    const port_rng_list_st portl{2, ports};
    const std::pair<unsigned int, int> rows[] = {{9, 0}, {10, 1}, {20, 1}, {25, 0}, {30, 1}, {40, 1}, {41, 0}};
    for (const auto &[key, expect] : rows) {
        EXPECT_EQ(ip_rng_list_search(key, &ipl), expect) << key;
        EXPECT_EQ(port_rng_list_search(static_cast<unsigned short>(key), &portl), expect) << key;
    }
    EXPECT_EQ(ip_rng_list_search(10, &no_ips), 0);
    EXPECT_EQ(ip_rng_list_search(10, nullptr), 0);
    EXPECT_EQ(port_rng_list_search(10, nullptr), 0);

    ipv6_rng_st v6[2] = {};
    v6[0].ipv6_l.bytes[0] = 0x20;
    v6[0].ipv6_h.bytes[0] = 0x21;
    v6[1].ipv6_l.bytes[0] = 0xFE;
    v6[1].ipv6_h.bytes[0] = 0xFE;
    v6[1].ipv6_h.bytes[15] = 0x10;
    const ipv6_rng_list_st v6l{2, v6};
    const unsigned char in_first[16] = {0x20, 0xFF}, between[16] = {0x21, 1}, in_second[16] = {0xFE, 0, 0, 0, 0, 0,
                                                                                              0, 0, 0, 0, 0, 0,
                                                                                              0, 0, 0, 0x10};
    EXPECT_EQ(ipv6_rng_list_search(in_first, &v6l), 1);
    EXPECT_EQ(ipv6_rng_list_search(between, &v6l), 0);
    EXPECT_EQ(ipv6_rng_list_search(in_second, &v6l), 1);
    EXPECT_EQ(ipv6_rng_list_search(nullptr, &v6l), 0);
}

TEST(Match, StringKeyedMaps)
{
    UINT32 alpha_ints[] = {1, 2}, beta_ints[] = {3};
    simap_st si[] = {{cs("alpha"), 2, alpha_ints}, {cs("Beta"), 1, beta_ints}};
    const simap_list_st sil{2, si}, empty{0, nullptr};
    simap_st mail[] = {{cs("mail"), 0, nullptr}, {cs("ail"), 0, nullptr}};
    const simap_list_st substr_keys{2, mail};
    simap_st ab[] = {{cs("ab"), 0, nullptr}};
    const simap_list_st abl{1, ab};

    struct Row {
        const simap_list_st *list;
        const char *key;
        int map_type, by_key;
        const simap_st *entry; // expected *result on a hit
    };
    const Row rows[] = {
        {&sil, "ALPHA", MT_STRING, 1, &si[0]},
        {&sil, "beta", MT_STRING, 1, &si[1]},
        {&sil, "alpha", MT_STRING_PREFIX, -1, nullptr}, // only the diagonal types
        {&sil, "alpha", MT_PREFIX_STRING, -1, nullptr},
        {&sil, "gamma", MT_STRING, -1, nullptr},
        {&empty, "alpha", MT_STRING, -1, nullptr},
        {&substr_keys, "email", MT_SUBSTR, 1, &mail[0]}, // first in stored order
        {&substr_keys, "tail", MT_SUBSTR, 1, &mail[1]},
        {&abl, "ABC", MT_PREFIX, 1, &ab[0]},
        {&abl, "xAb", MT_SUFFIX, 1, &ab[0]},
        {&abl, "ABC", MT_SUFFIX, -1, nullptr},
        {&abl, "ABC", MT_STRING, -1, nullptr},
    };
    for (const Row &r : rows) {
        const simap_st *hit = nullptr;
        EXPECT_EQ(simap_list_search_by_key(u(r.key), r.list, r.map_type, &hit), r.by_key) << r.key << r.map_type;
        EXPECT_EQ(hit, r.entry) << r.key;
    }
    const simap_st *hit = nullptr;
    EXPECT_EQ(simap_list_search_by_key(nullptr, &sil, MT_STRING, &hit), 0);
    EXPECT_EQ(simap_list_search_by_key(u("alpha"), nullptr, MT_STRING, &hit), 0);
    EXPECT_EQ(simap_list_search_by_key(u("alpha"), &sil, MT_STRING, nullptr), 0);
    // Key and value: a missing value answers 0 in integer-valued maps.
    EXPECT_EQ(simap_list_search(u("alpha"), 2, &sil, MT_STRING), 1);
    EXPECT_EQ(simap_list_search(u("alpha"), 3, &sil, MT_STRING), 0);
    EXPECT_EQ(simap_list_search(u("gamma"), 3, &sil, MT_STRING), -1);
    EXPECT_EQ(simap_list_search(u("alpha"), 2, &sil, MT_STRING_PREFIX), -1);
    EXPECT_EQ(simap_list_search(nullptr, 2, &sil, MT_STRING), 0);

    ipv6_st addrs[] = {{{0x20, 1}}, {{0xFE, 0x80}}};
    sipv6map_st s6[] = {{cs("host"), 2, addrs}};
    const sipv6map_list_st s6l{1, s6};
    const sipv6map_st *h6 = nullptr;
    EXPECT_EQ(sipv6map_list_search_by_key(u("HOST"), &s6l, MT_STRING, &h6), 1);
    EXPECT_EQ(h6, &s6[0]);
    EXPECT_EQ(sipv6map_list_search_by_key(u("HOST"), &s6l, 1, &h6), -1);
    EXPECT_EQ(sipv6map_list_search(u("host"), addrs[1].bytes, &s6l, MT_STRING), 1);
    const unsigned char other[16] = {0xFE, 0x81};
    EXPECT_EQ(sipv6map_list_search(u("host"), other, &s6l, MT_STRING), 0);
    EXPECT_EQ(sipv6map_list_search(u("none"), other, &s6l, MT_STRING), -1);
    EXPECT_EQ(sipv6map_list_search(u("host"), nullptr, &s6l, MT_STRING), 0); // before the key
    EXPECT_EQ(sipv6map_list_search(u("none"), nullptr, &s6l, MT_STRING), 0);
}

TEST(Match, StringToStringMaps)
{
    counted_string_t box[] = {cs("box")};
    ssmap_st entry[] = {{cs("mail.example"), 1, box}};
    const ssmap_list_st list{1, entry};
    struct Row {
        int map_type;
        const char *key, *value;
        int by_key, expect;
    };
    const Row rows[] = {
        {MT_STRING_STRING, "MAIL.EXAMPLE", "BOX", 1, 1},
        {MT_STRING_STRING, "mail.example", "bo", 1, -1},
        {MT_STRING_PREFIX, "mail.example", "boxes", 1, 1},
        {MT_STRING_SUFFIX, "mail.example", "inBOX", 1, 1},
        {MT_STRING_SUBSTR, "mail.example", "mailboxes", 1, 1},
        {MT_STRING_SUBSTR, "mail.example", "bo", 1, -1},
        {MT_PREFIX_STRING, "mail.example.com", "box", 1, 1},
        {MT_SUFFIX_STRING, "webmail.example", "box", 1, 1},
        {MT_SUBSTR_STRING, "x.mail.example.y", "box", 1, 1},
        {MT_SUBSTR_SUBSTR, "x.mail.example.y", "inboxes", 1, 1},
        {MT_PREFIX_STRING, "webmail.example", "box", -1, -1},
        {MT_STRING_STRING, "other", "box", -1, -1},
        {4, "mail.example", "box", -1, -1},
        {260, "mail.example", "box", -1, -1},
        {-1, "mail.example", "box", -1, -1},
        {0x10000, "mail.example", "box", -1, -1},
    };
    for (const Row &r : rows) {
        const ssmap_st *hit = nullptr;
        EXPECT_EQ(ssmap_list_search_by_key(u(r.key), &list, r.map_type, &hit), r.by_key) << r.map_type;
        EXPECT_EQ(hit, r.by_key == 1 ? &entry[0] : nullptr) << r.map_type;
        // A found key with a missing value answers -1 in string-valued maps.
        EXPECT_EQ(ssmap_list_search(u(r.key), u(r.value), &list, r.map_type), r.expect)
            << r.map_type << " " << r.key << " " << r.value;
    }
    const ssmap_st *hit = nullptr;
    EXPECT_EQ(ssmap_list_search_by_key(nullptr, &list, 0, &hit), 0);
    EXPECT_EQ(ssmap_list_search(u("mail.example"), u("box"), nullptr, 0), 0);
    EXPECT_EQ(ssmap_list_search(u("mail.example"), nullptr, &list, 0), 0); // null value is not read
}

TEST(Match, IntegerAndAddressKeyedMaps)
{
    UINT32 a[] = {7, 8}, b[] = {9};
    iimap_st ii[] = {{1, 2, a}, {5, 1, b}, {9, 0, nullptr}};
    const iimap_list_st iil{3, ii};
    iimap_st wrap[] = {{0x00000001u, 1, b}, {0x80000002u, 1, b}};
    const iimap_list_st wrapl{2, wrap};
    const iimap_st *hit = nullptr;
    struct Row {
        const iimap_list_st *list;
        unsigned int key, value;
        int by_key, search;
    };
    const Row rows[] = {
        {&iil, 5, 9, 1, 1},   {&iil, 1, 8, 1, 1},   {&iil, 1, 9, 1, 0}, {&iil, 9, 9, 1, 0}, {&iil, 4, 9, -1, -1},
        {&wrapl, 0x80000002u, 9, 1, 1}, {&wrapl, 1, 9, -1, -1}, // keys 2^31 apart compare with the wrong sign
    };
    for (const Row &r : rows) {
        EXPECT_EQ(iimap_list_search_by_key(r.key, r.list, &hit), r.by_key) << r.key;
        EXPECT_EQ(iimap_list_search(r.key, r.value, r.list), r.search) << r.key;
    }
    EXPECT_EQ(iimap_list_search(1, 7, nullptr), 0);

    ipv6imap_st i6[] = {{{{0x20, 1}}, 2, a}, {{{0xFE}}, 1, b}};
    const ipv6imap_list_st i6l{2, i6};
    const ipv6imap_st *h6 = nullptr;
    const unsigned char absent[16] = {0x21};
    EXPECT_EQ(ipv6imap_list_search_by_key(i6[1].ipv6.bytes, &i6l, &h6), 1);
    EXPECT_EQ(h6, &i6[1]);
    EXPECT_EQ(ipv6imap_list_search_by_key(absent, &i6l, &h6), -1);
    EXPECT_EQ(ipv6imap_list_search(i6[0].ipv6.bytes, 8, &i6l), 1);
    EXPECT_EQ(ipv6imap_list_search(i6[0].ipv6.bytes, 9, &i6l), 0);
    EXPECT_EQ(ipv6imap_list_search(nullptr, 9, &i6l), 0);

    counted_string_t words[] = {cs("alpha"), cs("beta")}, subs[] = {cs("mail"), cs("ail")};
    ismap_st is[] = {{3, 2, words}, {7, 2, subs}};
    const ismap_list_st isl{2, is};
    const ismap_st *hs = nullptr;
    EXPECT_EQ(ismap_list_search_by_key(7, &isl, 12345, &hs), 1); // map type not used
    EXPECT_EQ(hs, &is[1]);
    EXPECT_EQ(ismap_list_search_by_key(4, &isl, MT_STRING, &hs), -1);
    EXPECT_EQ(ismap_list_search_by_key(3, &isl, MT_STRING, nullptr), 0);
    struct SRow {
        unsigned int key;
        const char *value;
        int map_type, expect;
    };
    const SRow srows[] = {
        {3, "BETA", MT_STRING, 1},  {3, "bet", MT_STRING, -1},      {3, "alphabet", MT_PREFIX, 1},
        {3, "xBeta", MT_SUFFIX, 1}, {3, "alphabet", MT_STRING, -1}, {3, "beta", MT_STRING_PREFIX, -1},
        {7, "email", MT_SUBSTR, 1}, {7, "mai", MT_SUBSTR, -1},      {4, "beta", MT_STRING, -1},
        {3, nullptr, MT_STRING, 0},
    };
    for (const SRow &r : srows)
        EXPECT_EQ(ismap_list_search(r.key, r.value ? u(r.value) : nullptr, &isl, r.map_type), r.expect)
            << r.key << " " << (r.value ? r.value : "(null)") << " " << r.map_type;
    EXPECT_EQ(ismap_list_search(3, u("beta"), nullptr, MT_STRING), 0);
}

TEST(Match, RuleInfoSortAndSearch)
{
    const UINT32 ids[] = {30, 0x80000001u, 10, 20, 0xFFFFFFFFu};
    std::vector<taz_rule_info_st> infos(std::size(ids));
    for (size_t i = 0; i < infos.size(); ++i) infos[i].rule_id = ids[i];
    taz_rule_info_list_st list{static_cast<UINT32>(infos.size()), infos.data()};
    rule_info_list_init(&list);
    rule_info_list_init(nullptr);
    const UINT32 sorted[] = {10, 20, 30, 0x80000001u, 0xFFFFFFFFu};
    for (size_t i = 0; i < infos.size(); ++i) EXPECT_EQ(infos[i].rule_id, sorted[i]) << i;
    for (UINT32 id : sorted) {
        const taz_rule_info_st *found = rule_info_list_search(id, &list);
        ASSERT_NE(found, nullptr) << id;
        EXPECT_EQ(found->rule_id, id);
    }
    EXPECT_EQ(rule_info_list_search(25, &list), nullptr);
    EXPECT_EQ(rule_info_list_search(10, nullptr), nullptr);
    const taz_rule_info_list_st empty{0, nullptr};
    EXPECT_EQ(rule_info_list_search(10, &empty), nullptr);
}

/* The bisection visits exactly the entries glibc's bsearch visits. */
std::vector<size_t> g_visits;
const int *g_base = nullptr;
int recording_compare(const void *key, const void *elem)
{
    const int *e = static_cast<const int *>(elem);
    g_visits.push_back(static_cast<size_t>(e - g_base));
    const int k = *static_cast<const int *>(key);
    return (k > *e) - (k < *e);
}

TEST(Match, BisectionProbesLikeBsearch)
{
    std::mt19937 rng(20240611);
    for (int round = 0; round < 400; ++round) {
        std::vector<int> v(rng() % 70);
        for (int &x : v) x = static_cast<int>(rng() % 50); // duplicates on purpose
        std::sort(v.begin(), v.end());
        static const int nothing = 0; // bsearch wants a base even for no entries
        g_base = v.empty() ? &nothing : v.data();
        for (int key = -1; key <= 51; ++key) {
            g_visits.clear();
            const void *want = std::bsearch(&key, g_base, v.size(), sizeof(int), recording_compare);
            const std::vector<size_t> glibc = g_visits;
            g_visits.clear();
            const int *got = taze::bisect(&key, g_base, v.size(), recording_compare);
            ASSERT_EQ(g_visits, glibc) << "round " << round << " key " << key;
            ASSERT_EQ(static_cast<const void *>(got), want);
        }
    }
    constexpr std::array<int, 5> sorted = {1, 3, 5, 7, 9};
    static_assert(taze::bisect(sorted.data(), sorted.size(), [](int e) { return 7 - e; }) == sorted.data() + 3);
    static_assert(taze::bisect(sorted.data(), 0, [](int e) { return 7 - e; }) == nullptr);
}

} // namespace
