/* Fuzz target: the load-time search indexes against the plain searches.
 *
 * The input is a decrypted payload. The image it loads into gets an index on
 * every list (whatever its length); then every string, range and map list is
 * searched with keys taken from its own entries (whole, cut, extended, with
 * case changed) and from the end of the input, once through the index and
 * once by the plain search. Any difference in answer, or in the entry a map
 * key search returns, aborts. */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "harness.h"
#include "taze_fast.h"
#include "taze_impl.h"
#include "taze_util.h"

namespace {

using Pattern = taz_pattern_st;
namespace fast = taze::fast;

constexpr UINT32 kLists = 6;
constexpr UINT32 kEntries = 12;

void differ(bool different)
{
    if (different) std::abort();
}

/* Keys from the first entries of a list and from the input. */
std::vector<std::string> keys(const std::string &tail, const counted_string_t *(*text)(const void *, UINT32),
                              const void *list, UINT32 count)
{
    std::vector<std::string> k = {tail, ""};
    for (UINT32 i = 0; i < count && i < kEntries; ++i) {
        const counted_string_t *s = text(list, i);
        if (s == nullptr || s->ptr == nullptr) continue;
        const std::string e(reinterpret_cast<const char *>(s->ptr), std::min<UINT32>(s->len, 64));
        std::string upper = e;
        for (char &c : upper) c = char(c ^ (c >= 'a' && c <= 'z' ? 0x20 : 0));
        k.insert(k.end(), {e, upper, e.substr(0, e.size() / 2), e.substr(e.size() / 2), e + tail, tail + e});
    }
    return k;
}

template <class List>
const counted_string_t *list_text(const void *l, UINT32 i)
{
    return &static_cast<const List *>(l)->strings[i];
}
template <class List>
const counted_string_t *map_text(const void *l, UINT32 i)
{
    using R = taze::list_traits<List>;
    return &(static_cast<const List *>(l)->*R::items)[i].string;
}

const unsigned char *bytes(const std::string &s) { return reinterpret_cast<const unsigned char *>(s.c_str()); }

template <class List>
void strings(const Pattern *p, List *Pattern::*lists, UINT32 Pattern::*count,
             int (*plain)(const unsigned char *, const List *), const std::string &tail)
{
    for (UINT32 i = 0; p->*lists && i < p->*count && i < kLists; ++i) {
        const List *l = &(p->*lists)[i];
        for (const std::string &k : keys(tail, list_text<List>, l, l->nr_strings))
            differ(fast::list_search(p, l, bytes(k), plain) != plain(bytes(k), l));
    }
}

/* A map key search (and key-and-value search) over the list and over the
 * list narrowed by its index, for every map type the searches know. */
template <class List, class Entry, class Key, class Value>
void map_key(const Pattern *p, const List *l, Key key, Value value, int (*by_key)(Key, const List *, int, const Entry **),
             int (*search)(Key, Value, const List *, int))
{
    static constexpr int kTypes[] = {0, 1, 2, 3, 256, 257, 258, 259, 512, 513, 514, 515, 768, 769, 770, 771, 4};
    for (int t : kTypes) {
        List one{};
        const List *n = fast::narrow(p, l, key, t, one);
        const Entry *want = nullptr, *got = nullptr;
        differ(by_key(key, n, t, &got) != by_key(key, l, t, &want) || got != want);
        differ(search(key, value, n, t) != search(key, value, l, t));
    }
}

/* A key search that takes no map type, over the list and the narrowed one. */
template <class List, class Key, class Entry>
void same_entry(const Pattern *p, const List *l, Key key, int (*by_key)(Key, const List *, const Entry **))
{
    List one{};
    const Entry *want = nullptr, *got = nullptr;
    differ(by_key(key, fast::narrow(p, l, key, 0, one), &got) != by_key(key, l, &want) || got != want);
}

template <class List, class Entry, class Value>
void string_maps(const Pattern *p, List *Pattern::*lists, UINT32 Pattern::*count, Value value,
                 int (*by_key)(const unsigned char *, const List *, int, const Entry **),
                 int (*search)(const unsigned char *, Value, const List *, int), const std::string &tail)
{
    using R = taze::list_traits<List>;
    for (UINT32 i = 0; p->*lists && i < p->*count && i < kLists; ++i) {
        const List *l = &(p->*lists)[i];
        for (const std::string &k : keys(tail, map_text<List>, l, l->*R::count))
            map_key(p, l, bytes(k), value, by_key, search);
    }
}

/* Numbers near the stored bounds and keys, and the input's own number. */
template <class List, class Item, class Key>
std::vector<Key> near(const List *l, Item *List::*items, UINT32 List::*count, Key (*of)(const Item &), Key extra)
{
    std::vector<Key> v = {extra, Key(0), Key(~Key(0))};
    for (UINT32 i = 0; l->*items && i < l->*count && i < kEntries; ++i) {
        const Key x = of((l->*items)[i]);
        v.insert(v.end(), {Key(x - 1), x, Key(x + 1)});
    }
    return v;
}

void ranges_and_numbers(const Pattern *p, UINT32 number)
{
    for (UINT32 i = 0; p->ip_range_lists && i < p->max_ip_range_list_count && i < kLists; ++i) {
        const ip_rng_list_st *l = &p->ip_range_lists[i];
        /* Both bounds: where ranges touch, the index answers for their union. */
        for (UINT32 (*bound)(const ip_rng_st &) : {+[](const ip_rng_st &r) { return r.ip_l; }, +[](const ip_rng_st &r) { return r.ip_h; }})
            for (UINT32 ip : near<ip_rng_list_st, ip_rng_st, UINT32>(l, &ip_rng_list_st::ip_ranges, &ip_rng_list_st::nr_ip_ranges,
                                                                      bound, number))
                differ(fast::list_search(p, l, ip, ip_rng_list_search) != ip_rng_list_search(ip, l));
    }
    for (UINT32 i = 0; p->port_range_lists && i < p->max_port_range_list_count && i < kLists; ++i) {
        const port_rng_list_st *l = &p->port_range_lists[i];
        for (UINT16 port : near<port_rng_list_st, port_rng_st, UINT16>(
                 l, &port_rng_list_st::port_ranges, &port_rng_list_st::nr_port_ranges,
                 [](const port_rng_st &r) { return r.port_l; }, UINT16(number)))
            differ(fast::list_search(p, l, port, port_rng_list_search) != port_rng_list_search(port, l));
    }
    for (UINT32 i = 0; p->int_int_map_lists && i < p->max_int_int_map_list_count && i < kLists; ++i) {
        const iimap_list_st *l = &p->int_int_map_lists[i];
        for (UINT32 key : near<iimap_list_st, iimap_st, UINT32>(l, &iimap_list_st::int_int_maps, &iimap_list_st::nr_int_int_maps,
                                                                 [](const iimap_st &e) { return e.key; }, number))
            same_entry(p, l, key, iimap_list_search_by_key);
    }
    ismap_list_st *const ismaps[] = {p->int_str_map_lists, p->int_prefix_map_lists, p->int_suffix_map_lists,
                                     p->int_substr_map_lists};
    const UINT32 ismap_counts[] = {p->max_int_str_map_list_count, p->max_int_prefix_map_list_count,
                                   p->max_int_suffix_map_list_count, p->max_int_substr_map_list_count};
    for (int f = 0; f < 4; ++f)
        for (UINT32 i = 0; ismaps[f] && i < ismap_counts[f] && i < kLists; ++i) {
            const ismap_list_st *l = &ismaps[f][i];
            for (UINT32 key : near<ismap_list_st, ismap_st, UINT32>(l, &ismap_list_st::int_str_maps, &ismap_list_st::nr_int_str_maps,
                                                                     [](const ismap_st &e) { return e.key; }, number))
                map_key(p, l, key, bytes("a"), ismap_list_search_by_key, ismap_list_search);
        }
}

void addresses(const Pattern *p, const unsigned char *given)
{
    for (UINT32 i = 0; p->ipv6_range_lists && i < p->max_ipv6_range_list_count && i < kLists; ++i) {
        const ipv6_rng_list_st *l = &p->ipv6_range_lists[i];
        std::vector<ipv6_st> keys;
        std::memcpy(keys.emplace_back().bytes, given, 16);
        /* Every bound and the addresses either side of it. */
        for (UINT32 j = 0; l->ipv6_ranges && j < l->nr_ipv6_ranges && j < kEntries; ++j)
            for (const ipv6_st &b : {l->ipv6_ranges[j].ipv6_l, l->ipv6_ranges[j].ipv6_h})
                for (int d : {-1, 0, 1}) {
                    ipv6_st k = b;
                    for (int at = 15; at >= 0 && d != 0; --at) { /* carry or borrow */
                        const int v = k.bytes[at] + d;
                        k.bytes[at] = UINT8(v);
                        if (v >= 0 && v <= 0xFF) break;
                    }
                    keys.push_back(k);
                }
        for (const ipv6_st &k : keys)
            differ(fast::list_search(p, l, k.bytes, ipv6_rng_list_search) != ipv6_rng_list_search(k.bytes, l));
    }
    for (UINT32 i = 0; p->ipv6_int_map_lists && i < p->max_ipv6_int_map_list_count && i < kLists; ++i) {
        const ipv6imap_list_st *l = &p->ipv6_int_map_lists[i];
        std::vector<const unsigned char *> keys = {given};
        for (UINT32 j = 0; l->ipv6_int_maps && j < l->nr_ipv6_int_maps && j < kEntries; ++j)
            keys.push_back(l->ipv6_int_maps[j].ipv6.bytes);
        for (const unsigned char *k : keys) same_entry(p, l, k, ipv6imap_list_search_by_key);
    }
}

void compare_all(const Pattern *p, const std::string &tail, UINT32 number, const unsigned char *ipv6)
{
    strings(p, &Pattern::string_lists, &Pattern::max_string_list_count, str_list_search, tail);
    strings(p, &Pattern::string_prefix_lists, &Pattern::max_string_prefix_list_count, str_prefix_list_search, tail);
    strings(p, &Pattern::string_suffix_lists, &Pattern::max_string_suffix_list_count, str_suffix_list_search, tail);
    strings(p, &Pattern::string_substring_lists, &Pattern::max_string_substring_list_count, str_substring_list_search, tail);
    strings(p, &Pattern::string_case_lists, &Pattern::max_string_case_list_count, str_case_list_search, tail);
    strings(p, &Pattern::string_prefix_case_lists, &Pattern::max_string_prefix_case_list_count, str_prefix_case_list_search, tail);
    strings(p, &Pattern::string_suffix_case_lists, &Pattern::max_string_suffix_case_list_count, str_suffix_case_list_search, tail);
    strings(p, &Pattern::string_substr_case_lists, &Pattern::max_string_substr_case_list_count, str_substr_case_list_search, tail);
    simap_list_st *Pattern::*const simaps[] = {&Pattern::str_int_map_lists, &Pattern::prefix_int_map_lists,
                                               &Pattern::suffix_int_map_lists, &Pattern::substr_int_map_lists};
    UINT32 Pattern::*const simap_counts[] = {&Pattern::max_str_int_map_list_count, &Pattern::max_prefix_int_map_list_count,
                                             &Pattern::max_suffix_int_map_list_count, &Pattern::max_substr_int_map_list_count};
    for (int f = 0; f < 4; ++f)
        string_maps(p, simaps[f], simap_counts[f], number, simap_list_search_by_key, simap_list_search, tail);
    ssmap_list_st *Pattern::*const ssmaps[] = {
        &Pattern::str_str_map_lists, &Pattern::str_prefix_map_lists, &Pattern::str_suffix_map_lists, &Pattern::str_substr_map_lists,
        &Pattern::prefix_str_map_lists, &Pattern::prefix_prefix_map_lists, &Pattern::prefix_suffix_map_lists,
        &Pattern::prefix_substr_map_lists, &Pattern::suffix_str_map_lists, &Pattern::suffix_prefix_map_lists,
        &Pattern::suffix_suffix_map_lists, &Pattern::suffix_substr_map_lists, &Pattern::substr_str_map_lists,
        &Pattern::substr_prefix_map_lists, &Pattern::substr_suffix_map_lists, &Pattern::substr_substr_map_lists};
    UINT32 Pattern::*const ssmap_counts[] = {
        &Pattern::max_str_str_map_list_count, &Pattern::max_str_prefix_map_list_count,
        &Pattern::max_str_suffix_map_list_count, &Pattern::max_str_substr_map_list_count,
        &Pattern::max_prefix_str_map_list_count, &Pattern::max_prefix_prefix_map_list_count,
        &Pattern::max_prefix_suffix_map_list_count, &Pattern::max_prefix_substr_map_list_count,
        &Pattern::max_suffix_str_map_list_count, &Pattern::max_suffix_prefix_map_list_count,
        &Pattern::max_suffix_suffix_map_list_count, &Pattern::max_suffix_substr_map_list_count,
        &Pattern::max_substr_str_map_list_count, &Pattern::max_substr_prefix_map_list_count,
        &Pattern::max_substr_suffix_map_list_count, &Pattern::max_substr_substr_map_list_count};
    for (int f = 0; f < 16; ++f)
        string_maps(p, ssmaps[f], ssmap_counts[f], bytes(tail), ssmap_list_search_by_key, ssmap_list_search, tail);
    ranges_and_numbers(p, number);
    addresses(p, ipv6);
}

} // namespace

TAZF_QUIET_INITIALIZER

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const unsigned char none = 0;
    taz_pattern_st *img = taz_load_pattern(size ? data : &none, UINT32(size));
    if (img != nullptr && fast::build(img, fast::Options{0, 0, 0, true, true, true, 0}) == 0) {
        const std::size_t n = std::min<std::size_t>(size, 24);
        const std::string tail(reinterpret_cast<const char *>(data + size - n), n);
        UINT32 number = 0;
        unsigned char ipv6[16] = {};
        std::memcpy(&number, data, std::min<std::size_t>(size, 4));
        std::memcpy(ipv6, data, std::min<std::size_t>(size, 16));
        compare_all(img, tail, number, ipv6);
        fast::build(img, fast::Options{0, 0, 0, false, false, false}); /* every list by the tree as well */
        compare_all(img, tail, number, ipv6);
    }
    taz_unload_pattern(img);
    return 0;
}
