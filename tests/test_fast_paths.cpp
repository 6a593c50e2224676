// The load-time search indexes against the plain searches they stand in for:
// every list and map of images built by the writer (sorted, badly ordered,
// with equal entries, with NULs inside entries and with terminators that are
// not NUL) is searched with keys derived from its entries, through the index
// and through the plain search, and the answers must be the same entry.
#include <gtest/gtest.h>

#include <algorithm>
#include <malloc.h>
#if defined(__SANITIZE_ADDRESS__)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes(); /* the sanitizer run-time */
#endif
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bisect.h"
#include "taze_fast.h"
#include "taze_impl.h"
#include "tazapi.h"
#include "tazewriter.h"
#include "tazewriter_info.h"
#include "test_support.h"
#include "vkc.h"

namespace {

using tazw::Bytes;
using tazw::magic4;
using Pattern = taz_pattern_st;
namespace fast = taze::fast;

/* How the entries of a generated list are stored. */
enum class Layout { Sorted, Shuffled, SortedWithEqual, Reversed, SortedUnique };
constexpr Layout kLayouts[] = {Layout::Sorted, Layout::Shuffled, Layout::SortedWithEqual, Layout::Reversed,
                               Layout::SortedUnique};

/* Index every list, with the hash or with the tree for exact lists. */
constexpr fast::Options kEveryList{0, 0, 0, true, true, true, 0};
constexpr fast::Options kTreesOnly{0, 0, 0, false, false, false};

struct Rng {
    std::mt19937 g;
    explicit Rng(unsigned seed) : g(seed) {}
    unsigned below(unsigned n) { return n ? unsigned(g() % n) : 0; }
    bool one_in(unsigned n) { return below(n) == 0; }
    /* Few letters (long shared prefixes), both cases, bytes above 0x7F. */
    std::string text(unsigned max_len)
    {
        static const char abc[] = "aAbB.-/zZc\xC4\xE4\x80\xFF";
        std::string s(below(max_len + 1), 'a');
        for (char &c : s) c = abc[below(sizeof abc - 1)];
        return s;
    }
    /* n bytes of three letters under folding, so that heads repeat. */
    std::string head(unsigned n)
    {
        static const char abc[] = "aAbB.";
        std::string s(n, 'a');
        for (char &c : s) c = abc[below(sizeof abc - 1)];
        return s;
    }
};

bool backwards(tazw::Order order) { return order == tazw::Order::FoldReversed || order == tazw::Order::BytewiseReversed; }

/* Entries of one list: texts, some equal but for case, some with a NUL;
 * or, sorted and unique, neither (as a compiled file holds them). With a
 * head length, every entry starts (or for suffix orders ends) with that many
 * bytes of few letters and no NUL, one in 150 excepted. */
std::vector<std::string> entries(Rng &r, Layout layout, tazw::Order order, unsigned head = 0)
{
    std::vector<std::string> v(r.below(90));
    const bool at_end = backwards(order);
    for (std::string &s : v) {
        s = r.text(9);
        if (head > 0) s = at_end ? s + r.head(head) : r.head(head) + s;
        const unsigned clean = head > 0 && r.one_in(150) ? 0 : head;
        if (layout != Layout::SortedUnique && r.one_in(25))
            s.insert(s.begin() + r.below(unsigned(s.size()) - clean + 1) + (at_end ? 0 : clean), '\0');
    }
    if (layout == Layout::SortedUnique) {
        tazw::sort_in(order, v);
        auto same = [&](const std::string &a, const std::string &b) { return !tazw::less_in(order, a, b); };
        v.erase(std::unique(v.begin(), v.end(), same), v.end());
        return v;
    }
    if (layout == Layout::SortedWithEqual)
        for (std::size_t i = 0, n = v.size(); i < n && i < 12; ++i) {
            std::string twin = v[i];
            for (char &c : twin) c = char(std::toupper(static_cast<unsigned char>(c)));
            v.push_back(r.one_in(2) ? twin : v[i]);
        }
    if (layout == Layout::Shuffled)
        std::shuffle(v.begin(), v.end(), r.g);
    else
        tazw::sort_in(order, v);
    if (layout == Layout::Reversed) std::reverse(v.begin(), v.end());
    return v;
}

/* Keys made from the entries: themselves, with case changed, cut, extended
 * at either end, with bytes changed; and random texts and the empty key. */
std::vector<std::string> keys_for(Rng &r, const std::vector<std::string> &es)
{
    std::vector<std::string> k = {"", "a", std::string(3000, 'a')};
    for (int i = 0; i < 40; ++i) k.push_back(r.text(12));
    for (std::size_t i = 0; i < es.size() && i < 60; ++i) {
        std::string e = es[r.below(unsigned(es.size()))].c_str(); /* a key ends at its first NUL */
        k.push_back(e);
        std::string flipped = e;
        for (char &c : flipped)
            if (r.one_in(2)) c = char(c ^ 0x20);
        k.push_back(flipped);
        k.push_back(e.substr(0, r.below(unsigned(e.size()) + 1)));
        k.push_back(e.substr(r.below(unsigned(e.size()) + 1)));
        k.push_back(e + r.text(4));
        k.push_back(r.text(4) + e);
        k.push_back(r.text(3) + e + r.text(3));
        if (!e.empty()) {
            std::string changed = e;
            changed[r.below(unsigned(e.size()))] = "aZ.\xE4"[r.below(4)];
            k.push_back(changed);
        }
    }
    for (std::string &s : k) s = s.c_str();
    return k;
}

const unsigned char *bytes(const std::string &s) { return reinterpret_cast<const unsigned char *>(s.c_str()); }

/* Stored strings whose terminator is not NUL when `runs_on` says so. */
Bytes string_entries(const std::vector<std::string> &v, Rng &r, bool runs_on)
{
    tazw::LeBuf b;
    for (const std::string &s : v) b.u32(std::uint32_t(s.size())).raw(s.data(), s.size()).u8(runs_on && r.one_in(4) ? 'q' : 0);
    return b.take();
}

struct Image {
    Pattern *p;
    explicit Image(const Bytes &payload) : p(taz_load_pattern(payload.data(), std::uint32_t(payload.size()))) {}
    ~Image() { taz_unload_pattern(p); }
};

/* ---- string lists -------------------------------------------------------------- */

template <class List>
struct StringFamily {
    const char *name;
    std::uint32_t magic;
    List *Pattern::*lists;
    UINT32 Pattern::*count;
    int (*plain)(const unsigned char *, const List *);
};

/* Checks every list of a family in every layout; answers how many lists got
 * a head table. */
template <class List>
int check_string_family(const StringFamily<List> &f, unsigned seed, unsigned head = 0)
{
    int heads = 0;
    for (Layout layout : kLayouts)
        for (bool runs_on : {false, true}) {
            Rng r(seed++);
            const tazw::Order order = tazw::order_for_list_section(f.magic);
            std::vector<std::vector<std::string>> lists(4);
            Bytes body;
            for (std::uint32_t i = 0; i < lists.size(); ++i) {
                lists[i] = entries(r, layout, order, head);
                const Bytes one = tazw::list(i, std::uint32_t(lists[i].size()), string_entries(lists[i], r, runs_on));
                body.insert(body.end(), one.begin(), one.end());
            }
            Image img(tazw::section(f.magic, std::uint32_t(lists.size()), body));
            EXPECT_NE(img.p, nullptr) << f.name;
            if (img.p == nullptr) return heads;
            for (const fast::Options &o : {kEveryList, kTreesOnly}) {
                EXPECT_EQ(fast::build(img.p, o), 0) << f.name;
                for (std::uint32_t i = 0; i < lists.size(); ++i) {
                    const List *l = &(img.p->*f.lists)[i];
                    const fast::Accel *a = fast::find(img.p, l);
                    EXPECT_NE(a, nullptr) << f.name << " list " << i;
                    if (a == nullptr) return heads;
                    heads += fast::shape(a) == fast::Shape::Heads ? 1 : 0;
                    for (const std::string &key : keys_for(r, lists[i])) {
                        EXPECT_EQ(fast::list_search(img.p, l, bytes(key), f.plain), f.plain(bytes(key), l))
                            << f.name << " list " << i << " key '" << key << "' layout " << int(layout)
                            << " hash " << o.hash_exact << " head " << head;
                        if (testing::Test::HasFailure()) return heads;
                    }
                }
            }
        }
    return heads;
}

TEST(FastPaths, StringListsAnswerAsThePlainSearches)
{
    check_string_family<str_list_st>({"exact", magic4("STR"), &Pattern::string_lists, &Pattern::max_string_list_count, str_list_search}, 100);
    check_string_family<str_prefix_list_st>({"prefix", magic4("PRE"), &Pattern::string_prefix_lists, &Pattern::max_string_prefix_list_count, str_prefix_list_search}, 200);
    check_string_family<str_suffix_list_st>({"suffix", magic4("SUF"), &Pattern::string_suffix_lists, &Pattern::max_string_suffix_list_count, str_suffix_list_search}, 300);
    check_string_family<str_substring_list_st>({"substring", magic4("SUB"), &Pattern::string_substring_lists, &Pattern::max_string_substring_list_count, str_substring_list_search}, 400);
    check_string_family<str_case_list_st>({"case exact", magic4("CASE"), &Pattern::string_case_lists, &Pattern::max_string_case_list_count, str_case_list_search}, 500);
    check_string_family<str_prefix_case_list_st>({"case prefix", magic4("PRCA"), &Pattern::string_prefix_case_lists, &Pattern::max_string_prefix_case_list_count, str_prefix_case_list_search}, 600);
    check_string_family<str_suffix_case_list_st>({"case suffix", magic4("SFCA"), &Pattern::string_suffix_case_lists, &Pattern::max_string_suffix_case_list_count, str_suffix_case_list_search}, 700);
    check_string_family<str_substr_case_list_st>({"case substring", magic4("SUCA"), &Pattern::string_substr_case_lists, &Pattern::max_string_substr_case_list_count, str_substr_case_list_search}, 800);
}

/* Prefix and suffix lists whose entries share heads of several bytes get
 * head tables when their heads never decrease (sorted layouts), and
 * trees or the plain search otherwise; NULs inside entries, a rare one in
 * a head, and entries equal but for case are among them. */
TEST(FastPaths, HeadTablesAnswerAsThePlainSearches)
{
    int heads = 0;
    for (unsigned head : {4u, 5u, 8u, 13u}) {
        heads += check_string_family<str_prefix_list_st>({"prefix", magic4("PRE"), &Pattern::string_prefix_lists, &Pattern::max_string_prefix_list_count, str_prefix_list_search}, 1200 + head, head);
        heads += check_string_family<str_suffix_list_st>({"suffix", magic4("SUF"), &Pattern::string_suffix_lists, &Pattern::max_string_suffix_list_count, str_suffix_list_search}, 1300 + head, head);
        heads += check_string_family<str_prefix_case_list_st>({"case prefix", magic4("PRCA"), &Pattern::string_prefix_case_lists, &Pattern::max_string_prefix_case_list_count, str_prefix_case_list_search}, 1600 + head, head);
        heads += check_string_family<str_suffix_case_list_st>({"case suffix", magic4("SFCA"), &Pattern::string_suffix_case_lists, &Pattern::max_string_suffix_case_list_count, str_suffix_case_list_search}, 1700 + head, head);
    }
    EXPECT_GT(heads, 200);
}

/* A prefix (or suffix) list of the sorted entries v, indexed: for every
 * key the index answers the entry the plain bisection stops at. Keys longer
 * than long_keys may be left to the plain search. */
void expect_bisections_entry(const std::vector<std::string> &v, bool suffix, const std::vector<std::string> &keys,
                             const std::string &what, std::size_t long_keys = SIZE_MAX)
{
    Image img(tazw::section(magic4(suffix ? "SUF" : "PRE"), 1, tazw::list(0, std::uint32_t(v.size()), tazw::string_entries(v))));
    ASSERT_NE(img.p, nullptr);
    ASSERT_EQ(fast::build(img.p, kEveryList), 0);
    const void *list = suffix ? static_cast<const void *>(img.p->string_suffix_lists) : img.p->string_prefix_lists;
    const counted_string_t *items = suffix ? img.p->string_suffix_lists->strings : img.p->string_prefix_lists->strings;
    const fast::Accel *a = fast::find(img.p, list);
    ASSERT_NE(a, nullptr) << what;
    if (long_keys == SIZE_MAX) ASSERT_EQ(fast::shape(a), fast::Shape::Heads) << what;
    for (const std::string &key : keys) {
        const counted_string_t k{bytes(key), UINT32(key.size())};
        const counted_string_t *hit = taze::bisect(&k, items, v.size(), suffix ? str_compare_reverse_prefix : str_compare_prefix);
        const std::int64_t got = fast::lookup(a, bytes(key));
        if (got == fast::kPlain && key.size() > long_keys) continue;
        ASSERT_EQ(got, hit ? hit - items : fast::kMiss) << what << (suffix ? " suffix '" : " prefix '") << key << "'";
    }
}

/* A run of more entries than a slot counts (300 sharing the head "runrun",
 * one of them no longer than it) and a long run whose entries all go on
 * ("nestne" and a number: a table of its own for heads of seven bytes),
 * among runs of one: the entry the table answers is the one the plain
 * bisection stops at. */
TEST(FastPaths, HeadTablesFindTheEndsOfLongRuns)
{
    for (bool suffix : {false, true}) {
        Rng r(suffix ? 91 : 90);
        const tazw::Order order = suffix ? tazw::Order::FoldReversed : tazw::Order::Fold;
        std::vector<std::string> v = {"runrun"};
        for (int i = 0; i < 300; ++i) v.push_back(suffix ? std::to_string(i) + "RunRun" : "runrun" + std::to_string(i));
        for (int i = 0; i < 120; ++i) v.push_back(suffix ? std::to_string(i) + "nestne" : "nestne" + std::to_string(i));
        for (int i = 0; i < 400; ++i) v.push_back(r.head(6) + r.text(4));
        tazw::sort_in(order, v);
        v.erase(std::unique(v.begin(), v.end(), [&](const std::string &a, const std::string &b) { return !tazw::less_in(order, a, b); }), v.end());
        std::vector<std::string> keys = keys_for(r, v);
        for (const char *k : {"runrun", "RUNRUN", "runru", "xrunrun", "runrunx", "runrun150", "150runrun", "runrun299", "0runrun",
                              "nestne", "nestne7", "nestne77", "77nestne", "nestne119x", "x119nestne", "nestne1199", "nestneX"})
            keys.push_back(k);
        ASSERT_NO_FATAL_FAILURE(expect_bisections_entry(v, suffix, keys, "long runs"));
    }
}

/* Prefix and suffix lists of the shapes users ship, one row each: the
 * entry the index answers is the one the plain bisection stops at. */
TEST(FastPaths, PrefixAndSuffixListsOfEveryShapeHitTheBisectionsEntry)
{
    struct Row {
        const char *what;
        std::function<std::string(Rng &, unsigned)> make;
        unsigned n;
    };
    const std::string shared(300, 'q'); /* longer than a window remembers */
    const Row rows[] = {
        {"short entries", [](Rng &r, unsigned) { return r.text(3); }, 1500},
        {"mixed lengths", [](Rng &r, unsigned) { return r.text(r.one_in(3) ? 40 : 6); }, 3000},
        {"one shared head", [](Rng &r, unsigned) { return "/wp-content/" + r.text(8); }, 2000},
        {"nested entries", [](Rng &r, unsigned i) { return i % 2 ? r.head(2) : r.head(2) + "." + r.head(3); }, 2500},
        {"long shared text", [&](Rng &r, unsigned) { return r.head(1) + shared + r.text(5); }, 1200},
    };
    for (const Row &row : rows)
        for (bool suffix : {false, true}) {
            Rng r(row.n + suffix);
            const tazw::Order order = suffix ? tazw::Order::FoldReversed : tazw::Order::Fold;
            std::vector<std::string> v;
            for (unsigned i = 0; i < row.n; ++i) {
                std::string e = row.make(r, i);
                v.push_back(suffix ? std::string(e.rbegin(), e.rend()) : e);
            }
            tazw::sort_in(order, v);
            std::vector<std::string> keys = keys_for(r, v);
            for (const std::string &e : v) keys.push_back(suffix ? "x" + e : e + "x");
            /* very long keys search plainly */
            ASSERT_NO_FATAL_FAILURE(expect_bisections_entry(v, suffix, keys, row.what, 2048));
        }
}

/* ---- ranges ------------------------------------------------------------------------- */

/* Ranges: sorted and disjoint, or overlapping, inverted and unsorted. */
template <class B>
std::vector<std::pair<B, B>> ranges(Rng &r, bool tidy, B (*make)(std::uint64_t))
{
    std::vector<std::pair<B, B>> v;
    std::uint64_t at = r.below(50);
    for (unsigned i = 0, n = r.below(120); i < n; ++i) {
        const std::uint64_t lo = tidy ? at + r.below(40) : r.below(4000);
        const std::uint64_t hi = tidy || !r.one_in(5) ? lo + r.below(30) : lo - r.below(10);
        v.push_back({make(lo), make(hi)});
        at = hi + 1;
    }
    if (!tidy) std::shuffle(v.begin(), v.end(), r.g);
    return v;
}

using U128 = unsigned __int128;

tazw::IPv6 six(U128 x)
{
    tazw::IPv6 a{};
    for (int i = 0; i < 16; ++i) a[std::size_t(15 - i)] = std::uint8_t(x >> (8 * i));
    return a;
}
tazw::IPv6 v6(std::uint64_t x) { return six(U128(0x20) << 120 | x); }

/* An IPv4, a port and an IPv6 range list in one image (a list left empty
 * is not checked), indexed with opt; check() compares the indexes' answers
 * with the plain searches for one key of each. */
struct RangeImage {
    std::vector<std::pair<std::uint32_t, std::uint32_t>> v4;
    std::vector<std::pair<std::uint16_t, std::uint16_t>> ports;
    std::vector<std::pair<tazw::IPv6, tazw::IPv6>> v6s;
    std::unique_ptr<Image> img;

    void build(const fast::Options &opt, bool buckets)
    {
        img = std::make_unique<Image>(tazw::concat({
            tazw::section(magic4("IP"), 1, tazw::list(0, std::uint32_t(v4.size()), tazw::ip_entries(v4))),
            tazw::section(magic4("PORT"), 1, tazw::list(0, std::uint32_t(ports.size()), tazw::port_entries(ports))),
            tazw::section(magic4("IPV6"), 1, tazw::list(0, std::uint32_t(v6s.size()), tazw::ipv6_entries(v6s)))}));
        ASSERT_NE(img->p, nullptr);
        ASSERT_EQ(fast::build(img->p, opt), 0);
        const Pattern *p = img->p;
        if (buckets)
            for (const void *l : {v4.empty() ? nullptr : (const void *)p->ip_range_lists,
                                  ports.empty() ? nullptr : (const void *)p->port_range_lists,
                                  v6s.empty() ? nullptr : (const void *)p->ipv6_range_lists})
                if (l != nullptr) EXPECT_EQ(fast::shape(fast::find(p, l)), fast::Shape::Buckets);
    }
    void check(std::uint32_t ip, std::uint16_t port, const tazw::IPv6 &a, const std::string &what) const
    {
        const Pattern *p = img->p;
        if (!v4.empty())
            ASSERT_EQ(fast::list_search(p, p->ip_range_lists, ip, ip_rng_list_search),
                      ip_rng_list_search(ip, p->ip_range_lists)) << what << " ip " << ip;
        if (!ports.empty())
            ASSERT_EQ(fast::list_search(p, p->port_range_lists, port, port_rng_list_search),
                      port_rng_list_search(port, p->port_range_lists)) << what << " port " << port;
        if (!v6s.empty())
            ASSERT_EQ(fast::list_search(p, p->ipv6_range_lists, a.data(), ipv6_rng_list_search),
                      ipv6_rng_list_search(a.data(), p->ipv6_range_lists)) << what << " ipv6";
    }
};

/* Ordered lists get bucket tables (IPv4 ranges narrow, or spread over the
 * whole address space), the others trees; both are checked against the
 * plain searches, and so are trees over ordered lists. */
TEST(FastPaths, RangeListsAnswerAsThePlainSearches)
{
    for (unsigned seed = 0; seed < 24; ++seed) {
        Rng r(seed);
        const bool tidy = seed % 2 == 0;
        const std::uint64_t scale = seed % 4 == 2 ? 500009 : 7;
        RangeImage ri;
        for (const auto &[lo, hi] : ranges<std::uint64_t>(r, tidy, [](std::uint64_t x) { return x; }))
            ri.v4.push_back({std::uint32_t(lo * scale), std::uint32_t(hi * scale)});
        ri.ports = ranges<std::uint16_t>(r, tidy, [](std::uint64_t x) { return std::uint16_t(x); });
        ri.v6s = ranges<tazw::IPv6>(r, tidy, v6);
        ASSERT_NO_FATAL_FAILURE(ri.build(seed % 6 == 4 ? kTreesOnly : kEveryList, false));
        for (std::uint64_t x = 0; x < 4400; x += 1 + (x % 3))
            ASSERT_NO_FATAL_FAILURE(
                ri.check(std::uint32_t(x * scale + r.below(3) - 1), std::uint16_t(x), v6(x), std::to_string(seed)));
    }
}

/* Ordered range lists that cluster (most ranges within a few buckets of
 * the key span, widths from 1 to 2^20) get nested bucket tables; every
 * bound of every range, the addresses around it and those in the gaps
 * between clusters answer as the plain searches do. Each cluster opens
 * with a wide range, which can start before the bucket its table narrows to. */
TEST(FastPaths, ClusteredRangesAnswerAsThePlainSearches)
{
    for (unsigned clusters : {1u, 3u, 8u}) {
        Rng r(clusters);
        std::vector<std::pair<std::uint64_t, std::uint64_t>> spans;
        std::uint64_t at = 5;
        for (unsigned c = 0; c < clusters; ++c) {
            for (unsigned i = 0; i < 3000 / clusters; ++i) {
                const std::uint64_t w = std::uint64_t(1) << (i == 0 ? 24 : r.below(r.one_in(50) ? 21 : 5));
                spans.push_back({at, at + w - 1});
                at += w + r.below(3) * w;
            }
            at += std::uint64_t(1) << (28 + c % 3); /* far apart */
        }
        RangeImage ri;
        /* IPv6 clusters far apart, each far narrower than a top bucket. */
        const auto wide = [](std::uint64_t x) { return (x << 20) + ((x >> 27) << 56); };
        for (const auto &[lo, hi] : spans) {
            ri.v4.push_back({std::uint32_t(lo), std::uint32_t(hi)});
            ri.v6s.push_back({v6(wide(lo)), v6(wide(hi) | 0xFFFFF)});
        }
        ASSERT_NO_FATAL_FAILURE(ri.build(kEveryList, true));
        for (const auto &[lo, hi] : spans)
            for (std::uint64_t x : {lo - (1 << 27), lo - 1, lo, lo + 1, hi - 1, hi, hi + 1, hi + (1 << 27)})
                for (std::uint64_t v : {wide(x), wide(x) | 0xFFFFF, wide(x) - (std::uint64_t(1) << 50),
                                        wide(x) + (std::uint64_t(1) << 50)})
                    ASSERT_NO_FATAL_FAILURE(ri.check(std::uint32_t(x), 0, v6(v), std::to_string(clusters)));
    }
}

/* Ordered range lists in the shapes real tables have, one row each: ranges
 * that mostly touch (country tables: the index answers for their union),
 * widths from 1 to 2^16 in clusters, and groups of narrow ranges far apart
 * (more ranges in a bucket than are counted one by one; for IPv6 so far
 * apart that the 32-bit keys of a bucket's highs cut them alike). Each row
 * becomes an IPv6 list, and an IPv4 and a port list where its values fit;
 * every bound, its neighbours and the middle of every range and gap answer
 * as the plain searches do. */
TEST(FastPaths, RangeListsOfRealShapesAnswerAsThePlainSearches)
{
    struct Row {
        const char *what;
        unsigned n, group, width_bits;
        bool touching;
        U128 far;
    };
    const Row rows[] = {{"touching, as country tables", 3000, 0, 10, true, 0},
                        {"touching ports", 3000, 0, 2, true, 0},
                        {"widths 1 to 2^16 in clusters", 4000, 500, 16, false, U128(1) << 27},
                        {"groups of 20 narrow ranges far apart", 3000, 20, 6, false, U128(1) << 24},
                        {"groups of 20 narrow ranges very far apart", 3000, 20, 6, false, U128(1) << 90}};
    for (const Row &row : rows) {
        Rng r(row.n + row.group);
        std::vector<std::pair<U128, U128>> spans;
        U128 at = 5;
        for (unsigned i = 0; i < row.n; ++i) {
            if (row.group != 0 && i % row.group == 0) at += row.far;
            const U128 w = U128(1) << r.below(row.width_bits + 1);
            spans.push_back({at, at + w - 1});
            at += w + (row.touching ? (r.one_in(16) ? 1 + r.below(3) : 0) : r.below(4) * w);
        }
        RangeImage ri;
        for (const auto &[lo, hi] : spans) {
            if (spans.back().second <= 0xFFFFFFFFu) ri.v4.push_back({std::uint32_t(lo), std::uint32_t(hi)});
            if (spans.back().second <= 0xFFFFu) ri.ports.push_back({std::uint16_t(lo), std::uint16_t(hi)});
            ri.v6s.push_back({six(lo), six(hi)});
        }
        ASSERT_NO_FATAL_FAILURE(ri.build(kEveryList, true));
        for (std::size_t i = 0; i < spans.size(); ++i) {
            const auto [lo, hi] = spans[i];
            const U128 gap = i + 1 < spans.size() ? (hi + spans[i + 1].first) / 2 : hi + 7;
            for (U128 x : {lo - 1, lo, lo + 1, (lo + hi) / 2, hi - 1, hi, hi + 1, gap})
                ASSERT_NO_FATAL_FAILURE(ri.check(std::uint32_t(x), std::uint16_t(x), six(x), row.what));
        }
    }
}

/* ---- maps ------------------------------------------------------------------------------ */

/* Every map type the searches know, and some they refuse. */
constexpr int kMapTypes[] = {0, 1, 2, 3, 4, 256, 257, 258, 259, 260, 512, 513, 514, 515, 768, 769, 770, 771, 1024, -1};

/* The plain key search over the whole list and over the narrowed one must
 * return the same code and the same entry; so must the key-and-value search. */
template <class List, class Key, class Entry, class Value>
void check_map(const Pattern *p, const List *l, Key key, int map_type, Value value,
               int (*by_key)(Key, const List *, int, const Entry **), int (*search)(Key, Value, const List *, int),
               const std::string &what)
{
    List one{};
    const List *narrowed = fast::narrow(p, l, key, map_type, one);
    const Entry *want = nullptr, *got = nullptr;
    const int want_rc = by_key(key, l, map_type, &want);
    ASSERT_EQ(by_key(key, narrowed, map_type, &got), want_rc) << what;
    ASSERT_EQ(got, want) << what;
    ASSERT_EQ(search(key, value, narrowed, map_type), search(key, value, l, map_type)) << what;
}

TEST(FastPaths, StringKeyedMapsFindTheSameEntries)
{
    /* String-to-string maps of every key and value rule, and string-to-integer maps. */
    /* Keys of any length, and keys sharing heads of six bytes (head tables
     * for prefix and suffix keys). */
    int heads = 0;
    for (unsigned head : {0u, 6u})
    for (int map_type : {0, 1, 2, 3, 256, 257, 258, 259, 512, 513, 514, 515, 768, 769, 770, 771})
        for (Layout layout : kLayouts) {
            Rng r(unsigned(map_type) * 7 + unsigned(layout) + head * 1000);
            const unsigned key_rule = unsigned(map_type) >> 8;
            std::vector<std::string> keys = entries(r, layout, tazw::order_for_rule(key_rule), head);
            std::vector<tazw::StrStrEntry> ss;
            std::vector<tazw::StrIntEntry> si;
            for (const std::string &k : keys) {
                std::vector<std::string> values = {r.text(4), r.text(4)};
                tazw::sort_in(tazw::order_for_rule(unsigned(map_type) & 3), values);
                ss.push_back({k, values});
                si.push_back({k, {r.below(4), r.below(4)}});
            }
            static constexpr char letter[] = "SPXU";
            const char ss_kind[4] = {letter[key_rule], letter[map_type & 3], 'M', 0};
            const char si_kind[4] = {letter[key_rule], 'I', 'M', 0};
            Bytes payload = tazw::section(magic4(ss_kind), 1, tazw::list(0, std::uint32_t(ss.size()), tazw::map_entries(ss)));
            if ((map_type & 0xFF) == int(key_rule))
                payload = tazw::concat({payload, tazw::section(tazw::magic4(si_kind), 1,
                                                               tazw::list(0, std::uint32_t(si.size()), tazw::map_entries(si)))});
            Image img(payload);
            ASSERT_NE(img.p, nullptr);
            ASSERT_EQ(fast::build(img.p, kEveryList), 0);
            ssmap_list_st *const ss_arrays[] = {
                img.p->str_str_map_lists, img.p->str_prefix_map_lists, img.p->str_suffix_map_lists, img.p->str_substr_map_lists,
                img.p->prefix_str_map_lists, img.p->prefix_prefix_map_lists, img.p->prefix_suffix_map_lists, img.p->prefix_substr_map_lists,
                img.p->suffix_str_map_lists, img.p->suffix_prefix_map_lists, img.p->suffix_suffix_map_lists, img.p->suffix_substr_map_lists,
                img.p->substr_str_map_lists, img.p->substr_prefix_map_lists, img.p->substr_suffix_map_lists, img.p->substr_substr_map_lists};
            const ssmap_list_st *ssl = ss_arrays[key_rule * 4 + (unsigned(map_type) & 3)];
            simap_list_st *const si_arrays[] = {img.p->str_int_map_lists, img.p->prefix_int_map_lists,
                                                img.p->suffix_int_map_lists, img.p->substr_int_map_lists};
            const simap_list_st *sil = si_arrays[key_rule];
            ASSERT_NE(ssl, nullptr);
            ASSERT_NE(fast::find(img.p, ssl), nullptr);
            heads += fast::shape(fast::find(img.p, ssl)) == fast::Shape::Heads ? 1 : 0;
            for (const std::string &key : keys_for(r, keys))
                for (int asked : kMapTypes) {
                    const std::string what = "map type " + std::to_string(map_type) + " asked " + std::to_string(asked) + " key '" + key + "'";
                    check_map(img.p, ssl, bytes(key), asked, bytes(ss.empty() ? key : ss[0].values[0]),
                              ssmap_list_search_by_key, ssmap_list_search, "ssmap " + what);
                    if (sil != nullptr)
                        check_map(img.p, sil, bytes(key), asked, 1u, simap_list_search_by_key, simap_list_search,
                                  "simap " + what);
                }
        }
    EXPECT_GT(heads, 20);
}

/* Exact lists (folded and case-sensitive) and string-keyed maps of every
 * size around the hash index's threshold and up to tables filled by moves,
 * with entries of 1 to 40 bytes (every tail length of the word compare) and
 * a few longer than the keys a search folds on its stack. The 6000-entry
 * map needs 8-byte slots (offset, entry number and tag), the others 4. */
TEST(FastPaths, HashedListsOfEverySizeAnswerAsThePlainSearches)
{
    for (const unsigned n : {1u, 15u, 16u, 17u, 300u, 6000u}) {
        Rng r(n);
        std::vector<std::string> v;
        while (v.size() < n + n / 4 + 4) {
            const unsigned len = r.one_in(50) ? 250 + r.below(60) : 1 + r.below(40);
            std::string t(len, 'a');
            for (char &c : t) c = "aAbBzZ.-09\xE4"[r.below(11)];
            v.push_back(t);
        }
        std::vector<std::string> folded = v, exact = v;
        for (auto [order, list] : {std::pair{tazw::Order::Fold, &folded}, std::pair{tazw::Order::Bytewise, &exact}}) {
            tazw::sort_in(order, *list);
            list->erase(std::unique(list->begin(), list->end(), [&](auto &a, auto &b) { return !tazw::less_in(order, a, b); }), list->end());
            list->resize(n);
        }
        std::vector<tazw::StrIntEntry> si;
        for (const std::string &k : folded) si.push_back({k, {r.below(4)}});
        Image img(tazw::concat({tazw::section(magic4("STR"), 1, tazw::list(0, n, tazw::string_entries(folded))),
                                tazw::section(magic4("CASE"), 1, tazw::list(0, n, tazw::string_entries(exact))),
                                tazw::section(magic4("SIM"), 1, tazw::list(0, n, tazw::map_entries(si)))}));
        ASSERT_NE(img.p, nullptr);
        fast::build(img.p, fast::Options{}); /* lists under the threshold: none */
        const void *lists[] = {img.p->string_lists, img.p->string_case_lists, img.p->str_int_map_lists};
        for (const void *l : lists) {
            const fast::Accel *a = fast::find(img.p, l);
            ASSERT_EQ(a != nullptr, n >= fast::Options{}.min_entries) << n;
            if (a != nullptr) ASSERT_EQ(fast::shape(a), fast::Shape::Hash) << n;
        }
        for (const auto *list : {&folded, &exact})
            for (const std::string &e : *list) {
                std::string flipped = e, changed = e;
                for (char &c : flipped) c = char(c ^ (r.one_in(2) ? 0x20 : 0));
                changed[r.below(unsigned(e.size()))] ^= 1;
                for (const std::string &key : {e, flipped, changed, e.substr(0, e.size() - 1), e + "a", r.text(12)}) {
                    ASSERT_EQ(fast::list_search(img.p, img.p->string_lists, bytes(key), str_list_search),
                              str_list_search(bytes(key), img.p->string_lists)) << n << " '" << key << "'";
                    ASSERT_EQ(fast::list_search(img.p, img.p->string_case_lists, bytes(key), str_case_list_search),
                              str_case_list_search(bytes(key), img.p->string_case_lists)) << n << " '" << key << "'";
                    check_map(img.p, img.p->str_int_map_lists, bytes(key), MT_STRING, r.below(4), simap_list_search_by_key,
                              simap_list_search, std::to_string(n) + " '" + key + "'");
                }
            }
    }
}

/* The same for the key searches that take no map type. */
template <class List, class Key, class Entry>
void check_key(const Pattern *p, const List *l, Key key, int (*by_key)(Key, const List *, const Entry **),
               const std::string &what)
{
    List one{};
    const Entry *want = nullptr, *got = nullptr;
    ASSERT_EQ(by_key(key, fast::narrow(p, l, key, 0, one), &got), by_key(key, l, &want)) << what;
    ASSERT_EQ(got, want) << what;
}

TEST(FastPaths, IntegerAndAddressKeyedMapsFindTheSameEntries)
{
    for (unsigned seed = 0; seed < 8; ++seed) {
        Rng r(seed);
        std::vector<tazw::IntIntEntry> ii;
        std::vector<tazw::IntStrEntry> is;
        std::vector<tazw::IPv6IntEntry> six;
        for (unsigned i = 0, n = r.below(150); i < n; ++i) {
            /* Sorted keys, or keys 2^31 apart and unsorted (the difference rule). */
            const std::uint32_t key = seed % 2 ? r.g() : i * 5 + r.below(4);
            ii.push_back({key, {r.below(3)}});
            is.push_back({key, {"a" + r.text(3)}});
            six.push_back({v6(seed % 2 ? r.below(900) : i * 5), {r.below(3)}});
        }
        Image img(tazw::concat({tazw::section(magic4("IIM"), 1, tazw::list(0, std::uint32_t(ii.size()), tazw::map_entries(ii))),
                                tazw::section(magic4("ISM"), 1, tazw::list(0, std::uint32_t(is.size()), tazw::map_entries(is))),
                                tazw::section(magic4("I6IM"), 1, tazw::list(0, std::uint32_t(six.size()), tazw::map_entries(six)))}));
        ASSERT_NE(img.p, nullptr);
        ASSERT_EQ(fast::build(img.p, kEveryList), 0);
        for (std::uint32_t x = 0; x < 900; ++x) {
            const std::uint32_t key = seed % 2 && !ii.empty() && x % 3 == 0 ? ii[x % ii.size()].key + r.below(3) - 1 : x;
            const std::string what = "seed " + std::to_string(seed) + " key " + std::to_string(key);
            check_key(img.p, img.p->int_int_map_lists, key, iimap_list_search_by_key, "iimap " + what);
            check_map(img.p, img.p->int_str_map_lists, key, int(x % 4 == 3 ? 771 : 0), bytes("a"),
                      ismap_list_search_by_key, ismap_list_search, "ismap " + what);
            const tazw::IPv6 a = v6(x);
            check_key(img.p, img.p->ipv6_int_map_lists, a.data(), ipv6imap_list_search_by_key, "ipv6imap " + what);
        }
    }
}

/* ---- hostile payloads ------------------------------------------------------------------- */

Bytes from_hex(const std::string &hex)
{
    Bytes b;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) b.push_back(std::uint8_t(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return b;
}

/* Bytes allocated now: the sanitizer's allocator replaces malloc's. */
std::size_t heap_in_use()
{
#if defined(__SANITIZE_ADDRESS__)
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks + mallinfo2().hblkhd;
#endif
}

TEST(FastPaths, IndexesOfHostilePayloadsStayWithinTheirBudget)
{
    /* A substring section whose list headers claim list numbers up to
     * 0x80000 and whose lists overlap: found by fuzzing, it once made
     * indexing every list allocate over a gigabyte. */
    const Bytes overlapping = from_hex(
        "53554200000000004801000002000000000008001a01000014000000060000007a7ae47777770006000000412f706174"
        "6800080000007777772f70617468000500000061627a7ae4000f0000007a7ae46576696c2e6578616d706c6500110000"
        "006576696c2e6578616d706c652f70617468000d000000416576696c2e6578616d706c6500070000006162622e636f6d"
        "00060000004162647a7ae4000f0000006576696c2e6578616d706c6541626400060000006162637a7ae4000900000078"
        "2e622e636f6d61620006000000616263616263000300000061624100090000006162782e622e636f6d000c000000622e"
        "636f6d782e622e636f6d000f0000006162636576696c2e6578616d706c6500080000004162642f70617468000a000000"
        "782e622e636f6d6162630006000000416264416264000100000016000000030000000200000061620002000000414200"
        "0300000061626300");
    Image img(overlapping);
    ASSERT_NE(img.p, nullptr);
    taz_fast_release(img.p);
    const std::size_t before = heap_in_use();
    fast::build(img.p, kEveryList);
    const std::size_t grown = heap_in_use() - before;
    EXPECT_LE(grown, 6 * overlapping.size() + (std::size_t(1) << 20) + 65536);
    const str_substring_list_st *all = img.p->string_substring_lists;
    for (UINT32 i = 0; all != nullptr && i < img.p->max_string_substring_list_count && i < 64; ++i)
        for (const char *k : {"zz\xE4www", "evil.example/path", "ab", ""})
            ASSERT_EQ(fast::list_search(img.p, &all[i], bytes(k), str_substring_list_search),
                      str_substring_list_search(bytes(k), &all[i])) << k;
}

/* ---- through the API --------------------------------------------------------------------- */

TEST(FastPaths, LoadedPatternsSearchThroughTheirIndexes)
{
    /* Exact list 0 in comparator order (hashed), exact list 1 out of order
     * (left to the plain search by default), and a substring list. */
    std::vector<std::string> names;
    for (int i = 0; i < 64; ++i) names.push_back("host" + std::to_string(i * 37 % 64) + ".example");
    std::vector<std::string> sorted = names;
    tazw::sort_in(tazw::Order::Fold, sorted);
    const Bytes exact = tazw::concat({tazw::list(0, 64, tazw::string_entries(sorted)), tazw::list(1, 64, tazw::string_entries(names))});
    const Bytes payload = tazw::concat({
        tazw::section(magic4("STR"), 2, exact),
        tazw::section(magic4("SUB"), 1, tazw::list(0, 64, tazw::string_entries(names))),
    });
    tazt::Handle h = tazt::load_payload(payload);
    const taz_pattern_st *p = h->pTAZPattern ? h->pTAZPattern->taz_ptn : nullptr;
    ASSERT_NE(p, nullptr);
    ASSERT_NE(p->fast, nullptr);
    EXPECT_NE(fast::find(p, &p->string_lists[0]), nullptr);
    EXPECT_EQ(fast::find(p, &p->string_lists[1]), nullptr);
    EXPECT_NE(fast::find(p, &p->string_substring_lists[0]), nullptr);
    for (const std::string &k : {std::string("host5.example"), std::string("HOST18.EXAMPLE"), std::string("x.host7.examplez"),
                                 std::string("host64.example"), std::string("")}) {
        for (int list : {0, 1})
            EXPECT_EQ(TAZE_PatternSearchStringList(h.get(), list, k.c_str(), PT_TAZ),
                      str_list_search(bytes(k), &p->string_lists[list])) << k << " list " << list;
        EXPECT_EQ(TAZE_PatternSearchSubstringList(h.get(), 0, k.c_str(), PT_TAZ),
                  str_substring_list_search(bytes(k), &p->string_substring_lists[0])) << k;
    }
}

} // namespace
