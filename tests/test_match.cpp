/* Matching rules (the comparators) and the bisection, over in-memory
 * records; the list and map searches themselves run through the public API
 * in test_api_lists.cpp and test_api_maps.cpp. */
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
