// Matching rules and the list and map searches over a pattern image.
//
// Every comparator takes the searched key first and a stored element second.
// Case folding is ASCII only and does not depend on the locale; bytes always
// compare as unsigned values. Sorted lists are searched by the one bisection
// of bisect.h, substring rules by a scan of the entries in stored order.
#include "format.h"
#include "taze_util.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "bisect.h"
#include "taze_ptn.h"
#include "tazapi.h"

namespace {

using taze::Comparator;
using Finder = const unsigned char *(*)(const counted_string_t *, const counted_string_t *);

// ---- Case folding -----------------------------------------------------------

constexpr const taze::ByteMap &kFold = taze::kFoldTable;

struct Folded {
    static int at(const unsigned char *p) { return kFold[*p]; }
};
struct Exact {
    static int at(const unsigned char *p) { return *p; }
};

// ---- Byte-string comparisons --------------------------------------------------

const unsigned char kNoText[1] = {0};
const unsigned char *or_empty(const unsigned char *p) { return p ? p : kNoText; }

// strcmp/strncmp (or their case-insensitive forms) over at most `n` bytes:
// stops at the first difference or at a NUL that both strings share.
template <class F>
int compare_to_nul(const unsigned char *a, const unsigned char *b, std::size_t n)
{
    a = or_empty(a);
    b = or_empty(b);
    for (std::size_t i = 0; i < n; ++i) {
        const int ca = F::at(a + i);
        const int cb = F::at(b + i);
        if (ca != cb) return ca - cb;
        if (ca == 0) return 0;
    }
    return 0;
}

const counted_string_t &text(const void *p) { return *static_cast<const counted_string_t *>(p); }

template <class F>
int compare_whole(const void *key, const void *elem)
{
    return compare_to_nul<F>(text(key).ptr, text(elem).ptr, SIZE_MAX);
}

template <class F>
int compare_leading(const void *key, const void *elem)
{
    return compare_to_nul<F>(text(key).ptr, text(elem).ptr, text(elem).len);
}

bool is_empty(const counted_string_t *s) { return !s || !s->ptr || s->len == 0; }

// The suffix rule: compares s1 and s2 from their last bytes backwards over at
// most n bytes. Zero exactly when the last n bytes of s1 equal s2 (under F);
// otherwise the order of the reversed strings.
template <class F>
int compare_backward(const counted_string_t *s1, const counted_string_t *s2, UINT32 n)
{
    if (is_empty(s1)) return (n == 0 || is_empty(s2)) ? 0 : -F::at(s2->ptr + s2->len - 1);
    if (is_empty(s2) || static_cast<INT32>(n) < 1) return n == 0 ? 0 : F::at(s1->ptr + s1->len - 1);

    const unsigned char *p1 = s1->ptr + s1->len;
    const unsigned char *p2 = s2->ptr + s2->len;
    INT32 left = static_cast<INT32>(n);
    for (;;) {
        --p1;
        --p2;
        const int c1 = F::at(p1);
        const int c2 = F::at(p2);
        if (c1 != c2) return c1 - c2;
        --left;
        if (p1 == s1->ptr) return (left == 0 || p2 == s2->ptr) ? 0 : -F::at(p2 - 1);
        if (p2 == s2->ptr || left == 0) return 0;
    }
}

template <class F>
int compare_trailing(const void *key, const void *elem)
{
    return compare_backward<F>(&text(key), &text(elem), text(elem).len);
}

// Leftmost occurrence of needle in haystack, a first-byte filter before the
// full comparison at each start position.
template <class F>
const unsigned char *find_substring(const counted_string_t *haystack, const counted_string_t *needle)
{
    if (!haystack || !needle || !haystack->ptr || !needle->ptr) return nullptr;
    const INT32 hl = static_cast<INT32>(haystack->len);
    const INT32 nl = static_cast<INT32>(needle->len);
    if (hl < 1 || nl < 1 || hl < nl) return nullptr;
    const int first = F::at(needle->ptr);
    for (INT32 i = 0; i <= hl - nl; ++i) {
        const unsigned char *at = haystack->ptr + i;
        if (F::at(at) == first && compare_to_nul<F>(at, needle->ptr, static_cast<std::size_t>(nl)) == 0)
            return at;
    }
    return nullptr;
}

// ---- Ranges and integer keys ------------------------------------------------

int numeric_order(unsigned int a, unsigned int b) { return (a > b) - (a < b); }
int address_order(const unsigned char *a, const ipv6_st &b) { return std::memcmp(a, b.bytes, sizeof b.bytes); }

// Inclusive range test, upper bound first: 1 above, -1 below, 0 inside.
template <class Key, class Bound, class Order>
int range_position(const Key &key, const Bound &low, const Bound &high, Order order)
{
    if (order(key, high) > 0) return 1;
    if (order(key, low) < 0) return -1;
    return 0;
}

// The plain 32-bit difference of two unsigned keys, read as signed.
template <class Rec>
int key_difference(const void *key, const void *elem)
{
    const UINT32 diff = static_cast<const Rec *>(key)->key - static_cast<const Rec *>(elem)->key;
    return static_cast<INT32>(diff);
}

// ---- Map comparators ----------------------------------------------------------

// Applies a string comparator to the `string` field of two map records.
template <class Rec, Comparator Cmp>
int on_key_string(const void *key, const void *elem)
{
    return Cmp(&static_cast<const Rec *>(key)->string, &static_cast<const Rec *>(elem)->string);
}

int simap_compare_key_string(const void *k, const void *e) { return on_key_string<simap_st, str_compare>(k, e); }
int simap_compare_key_prefix(const void *k, const void *e) { return on_key_string<simap_st, str_compare_prefix>(k, e); }
int simap_compare_key_suffix(const void *k, const void *e)
{
    return on_key_string<simap_st, str_compare_reverse_prefix>(k, e);
}
int sipv6map_compare_key_string(const void *k, const void *e) { return on_key_string<sipv6map_st, str_compare>(k, e); }
int sipv6map_compare_key_prefix(const void *k, const void *e)
{
    return on_key_string<sipv6map_st, str_compare_prefix>(k, e);
}
int sipv6map_compare_key_suffix(const void *k, const void *e)
{
    return on_key_string<sipv6map_st, str_compare_reverse_prefix>(k, e);
}
int ssmap_compare_key_string(const void *k, const void *e) { return on_key_string<ssmap_st, str_compare>(k, e); }
int ssmap_compare_key_prefix(const void *k, const void *e) { return on_key_string<ssmap_st, str_compare_prefix>(k, e); }
int ssmap_compare_key_suffix(const void *k, const void *e)
{
    return on_key_string<ssmap_st, str_compare_reverse_prefix>(k, e);
}
// Values of the string-valued maps are plain counted strings.
int ismap_compare_string(const void *k, const void *e) { return str_compare(k, e); }
int ismap_compare_prefix(const void *k, const void *e) { return str_compare_prefix(k, e); }
int ismap_compare_suffix(const void *k, const void *e) { return str_compare_reverse_prefix(k, e); }
int ssmap_compare_value_string(const void *k, const void *e) { return str_compare(k, e); }
int ssmap_compare_value_prefix(const void *k, const void *e) { return str_compare_prefix(k, e); }
int ssmap_compare_value_suffix(const void *k, const void *e) { return str_compare_reverse_prefix(k, e); }

// Match rules of a map type's key or value byte.
enum Rule : int { RULE_REFUSED = -1, RULE_EXACT = 0, RULE_PREFIX = 1, RULE_SUFFIX = 2, RULE_SUBSTR = 3 };

// Comparators of the bisected rules, indexed by RULE_EXACT .. RULE_SUFFIX.
using RuleComparators = std::array<Comparator, 3>;
constexpr RuleComparators kSimapKey = {simap_compare_key_string, simap_compare_key_prefix, simap_compare_key_suffix};
constexpr RuleComparators kSipv6mapKey = {sipv6map_compare_key_string, sipv6map_compare_key_prefix,
                                          sipv6map_compare_key_suffix};
constexpr RuleComparators kSsmapKey = {ssmap_compare_key_string, ssmap_compare_key_prefix, ssmap_compare_key_suffix};
constexpr RuleComparators kIsmapValue = {ismap_compare_string, ismap_compare_prefix, ismap_compare_suffix};
constexpr RuleComparators kSsmapValue = {ssmap_compare_value_string, ssmap_compare_value_prefix,
                                         ssmap_compare_value_suffix};

// Families with one string side accept only the four diagonal map types.
constexpr Rule one_sided_rule(int map_type)
{
    switch (map_type) {
    case MT_STRING: return RULE_EXACT;
    case MT_PREFIX: return RULE_PREFIX;
    case MT_SUFFIX: return RULE_SUFFIX;
    case MT_SUBSTR: return RULE_SUBSTR;
    default: return RULE_REFUSED;
    }
}
// The string-to-string family accepts all sixteen pairs.
constexpr bool is_pair_type(int map_type) { return (map_type & ~0x0303) == 0; }
constexpr Rule key_rule(int map_type) { return is_pair_type(map_type) ? Rule(map_type >> 8) : RULE_REFUSED; }
constexpr Rule value_rule(int map_type) { return is_pair_type(map_type) ? Rule(map_type & 0xFF) : RULE_REFUSED; }
static_assert(one_sided_rule(MT_STRING_PREFIX) == RULE_REFUSED && one_sided_rule(MT_SUBSTR) == RULE_SUBSTR);
static_assert(key_rule(MT_SUFFIX_SUBSTR) == RULE_SUFFIX && value_rule(MT_SUFFIX_SUBSTR) == RULE_SUBSTR);
static_assert(key_rule(4) == RULE_REFUSED && key_rule(260) == RULE_REFUSED && key_rule(-1) == RULE_REFUSED);

// ---- Generic search steps ----------------------------------------------------

// A stored array; a null array counts as empty so nothing dereferences it.
template <class E>
struct Entries {
    const E *items;
    UINT32 count;
};
template <class E>
Entries<E> entries(const E *items, UINT32 count)
{
    return {items, items ? count : 0};
}
template <class List, class = decltype(taze::list_traits<List>::items)>
Entries<typename taze::list_traits<List>::elem> entries(const List &l)
{
    return entries(taze::entry_items(l), l.*taze::list_traits<List>::count);
}
Entries<taz_rule_info_st> entries(const taz_rule_info_list_st &l) { return entries(l.rule_infos, l.nr_rule_infos); }

template <class E, class Key>
const E *bisect_entries(const Key &key, Entries<E> in, Comparator cmp)
{
    return taze::bisect(&key, in.items, in.count, cmp);
}

// The searched NUL-terminated string as a counted string (length cut to 32 bits).
counted_string_t counted(const unsigned char *s)
{
    return {s, static_cast<UINT32>(std::strlen(reinterpret_cast<const char *>(s)))};
}

// The text an entry is matched by: the entry itself or a map record's key.
const counted_string_t &text_of(const counted_string_t &s) { return s; }
template <class Rec>
const counted_string_t &text_of(const Rec &r)
{
    return r.string;
}

// The bisection key: the text itself, or a zeroed record holding it.
template <class E>
E probe_for(const counted_string_t &t)
{
    if constexpr (std::is_same_v<E, counted_string_t>) {
        return t;
    } else {
        E probe{};
        probe.string = t;
        return probe;
    }
}

// First entry, in stored order, whose text occurs in `t`.
template <class E>
const E *scan_entries(const counted_string_t &t, Entries<E> in, Finder find)
{
    const E *end = in.items + in.count;
    const E *hit = std::find_if(in.items, end, [&](const E &e) { return find(&t, &text_of(e)) != nullptr; });
    return hit == end ? nullptr : hit;
}

// One case-insensitive rule of a map: bisection, or the substring scan.
template <class E>
const E *find_by_rule(const counted_string_t &t, Entries<E> in, Rule rule, const RuleComparators &cmps)
{
    if (rule == RULE_SUBSTR) return scan_entries(t, in, str_case_str);
    return bisect_entries(probe_for<E>(t), in, cmps[static_cast<std::size_t>(rule)]);
}

template <Comparator Cmp>
struct Bisected {
    static bool hit(const counted_string_t &t, Entries<counted_string_t> in) { return bisect_entries(t, in, Cmp); }
};
template <Finder Find>
struct Scanned {
    static bool hit(const counted_string_t &t, Entries<counted_string_t> in) { return scan_entries(t, in, Find); }
};

template <class Method, class List>
int string_list_search(const unsigned char *s, const List *list)
{
    if (!s || !list) return 0;
    return Method::hit(counted(s), entries(*list)) ? 1 : 0;
}

template <class E>
int deliver(const E *hit, const E **result)
{
    if (!hit) return -1;
    *result = hit;
    return 1;
}

// Key search of a string-keyed map: 0 null argument, -1 refused or absent.
template <class List, class E>
int string_key_search(const unsigned char *key, const List *list, Rule rule, const RuleComparators &cmps,
                      const E **result)
{
    if (!key || !list || !result) return 0;
    if (rule == RULE_REFUSED) return -1;
    return deliver(find_by_rule(counted(key), entries(*list), rule, cmps), result);
}

// Key search of a map keyed by a fixed-size record field.
template <class List, class E>
int record_key_search(const E &probe, const List *list, Comparator cmp, const E **result)
{
    if (!list || !result) return 0;
    return deliver(bisect_entries(probe, entries(*list), cmp), result);
}

// Key-and-value search: the key search's answer unless it found the entry,
// then the value test on that entry.
template <class E, class ByKey, class ValueTest>
int key_then_value(ByKey by_key, ValueTest value_test)
{
    const E *hit = nullptr;
    const int found = by_key(&hit);
    return found == 1 ? value_test(*hit) : found;
}

int holds(const UINT32 *values, UINT32 count, unsigned int value)
{
    const Entries<UINT32> in = entries(values, count);
    return std::find(in.items, in.items + in.count, value) != in.items + in.count ? 1 : 0;
}

int holds(const ipv6_st *values, UINT32 count, const unsigned char *value)
{
    const Entries<ipv6_st> in = entries(values, count);
    return std::any_of(in.items, in.items + in.count,
                       [value](const ipv6_st &a) { return address_order(value, a) == 0; })
               ? 1
               : 0;
}

// String value of a found entry: 1 found, -1 absent or refused type; a null
// value answers 0 instead of being read.
int holds_text(const counted_string_t *values, UINT32 count, const unsigned char *value, Rule rule,
               const RuleComparators &cmps)
{
    if (rule == RULE_REFUSED) return -1;
    if (!value) return 0;
    return find_by_rule(counted(value), entries(values, count), rule, cmps) ? 1 : -1;
}

} // namespace

// ---- Exported to the rest of the library ----------------------------------------

unsigned char taz_tolower(unsigned char c) { return kFold[c]; }

int str_compare(const void *key, const void *elem) { return compare_whole<Folded>(key, elem); }
int str_case_compare(const void *key, const void *elem) { return compare_whole<Exact>(key, elem); }
int str_compare_prefix(const void *key, const void *elem) { return compare_leading<Folded>(key, elem); }
int str_compare_case_prefix(const void *key, const void *elem) { return compare_leading<Exact>(key, elem); }
int str_compare_reverse_prefix(const void *key, const void *elem) { return compare_trailing<Folded>(key, elem); }
int str_compare_reverse_case_prefix(const void *key, const void *elem) { return compare_trailing<Exact>(key, elem); }

int strncasecmp_reverse(const counted_string_t *s1, const counted_string_t *s2, UINT32 n)
{
    return compare_backward<Folded>(s1, s2, n);
}
int strncmp_reverse(const counted_string_t *s1, const counted_string_t *s2, UINT32 n)
{
    return compare_backward<Exact>(s1, s2, n);
}

const unsigned char *str_case_str(const counted_string_t *haystack, const counted_string_t *needle)
{
    return find_substring<Folded>(haystack, needle);
}
const unsigned char *str_str(const counted_string_t *haystack, const counted_string_t *needle)
{
    return find_substring<Exact>(haystack, needle);
}

int ip_rng_compare_single(const void *key, const void *elem)
{
    const auto &r = *static_cast<const ip_rng_st *>(elem);
    return range_position(*static_cast<const unsigned int *>(key), r.ip_l, r.ip_h, numeric_order);
}

int port_rng_compare_single(const void *key, const void *elem)
{
    const auto &r = *static_cast<const port_rng_st *>(elem);
    return range_position(*static_cast<const unsigned short *>(key), r.port_l, r.port_h, numeric_order);
}

int ipv6_rng_compare_single(const void *key, const void *elem)
{
    const auto &r = *static_cast<const ipv6_rng_st *>(elem);
    return range_position(*static_cast<const unsigned char *const *>(key), r.ipv6_l, r.ipv6_h, address_order);
}

int ipv6imap_compare_key(const void *key, const void *elem)
{
    return address_order(static_cast<const ipv6imap_st *>(key)->ipv6.bytes, static_cast<const ipv6imap_st *>(elem)->ipv6);
}

int iimap_compare_key(const void *key, const void *elem) { return key_difference<iimap_st>(key, elem); }
int ismap_compare_key(const void *key, const void *elem) { return key_difference<ismap_st>(key, elem); }

int rule_info_cmp(const void *key, const void *elem)
{
    return numeric_order(static_cast<const taz_rule_info_st *>(key)->rule_id,
                         static_cast<const taz_rule_info_st *>(elem)->rule_id);
}

// ---- String and range lists -----------------------------------------------------

// Each list kind `X` has its search `X_search` over an `X_st`.
#define TAZ_STRING_LIST_SEARCH(kind, method) \
    int kind##_search(const unsigned char *string, const kind##_st *list) \
    { \
        return string_list_search<method>(string, list); \
    }
TAZ_STRING_LIST_SEARCH(str_list, Bisected<str_compare>)
TAZ_STRING_LIST_SEARCH(str_prefix_list, Bisected<str_compare_prefix>)
TAZ_STRING_LIST_SEARCH(str_suffix_list, Bisected<str_compare_reverse_prefix>)
TAZ_STRING_LIST_SEARCH(str_substring_list, Scanned<str_case_str>)
TAZ_STRING_LIST_SEARCH(str_case_list, Bisected<str_case_compare>)
TAZ_STRING_LIST_SEARCH(str_prefix_case_list, Bisected<str_compare_case_prefix>)
TAZ_STRING_LIST_SEARCH(str_suffix_case_list, Bisected<str_compare_reverse_case_prefix>)
TAZ_STRING_LIST_SEARCH(str_substr_case_list, Scanned<str_str>)
#undef TAZ_STRING_LIST_SEARCH

int ip_rng_list_search(unsigned int ip, const ip_rng_list_st *list)
{
    return list && bisect_entries(ip, entries(*list), ip_rng_compare_single);
}
int ipv6_rng_list_search(const unsigned char *ipv6, const ipv6_rng_list_st *list)
{
    return ipv6 && list &&
           bisect_entries(ipv6, entries(*list), ipv6_rng_compare_single);
}
int port_rng_list_search(unsigned short port, const port_rng_list_st *list)
{
    return list && bisect_entries(port, entries(*list), port_rng_compare_single);
}

// ---- Maps -------------------------------------------------------------------------

int simap_list_search_by_key(const unsigned char *key, const simap_list_st *list, int map_type,
                             const simap_st **result)
{
    return string_key_search(key, list, one_sided_rule(map_type), kSimapKey, result);
}
int simap_list_search(const unsigned char *key, unsigned int value, const simap_list_st *list, int map_type)
{
    return key_then_value<simap_st>(
        [&](const simap_st **hit) { return simap_list_search_by_key(key, list, map_type, hit); },
        [&](const simap_st &e) { return holds(e.ints, e.nr_ints, value); });
}

int sipv6map_list_search_by_key(const unsigned char *key, const sipv6map_list_st *list, int map_type,
                                const sipv6map_st **result)
{
    return string_key_search(key, list, one_sided_rule(map_type), kSipv6mapKey, result);
}
int sipv6map_list_search(const unsigned char *key, const unsigned char *ipv6_value, const sipv6map_list_st *list,
                         int map_type)
{
    if (!ipv6_value) return 0;
    return key_then_value<sipv6map_st>(
        [&](const sipv6map_st **hit) { return sipv6map_list_search_by_key(key, list, map_type, hit); },
        [&](const sipv6map_st &e) { return holds(e.ipv6s, e.nr_ipv6s, ipv6_value); });
}

int ipv6imap_list_search_by_key(const unsigned char *ipv6_key, const ipv6imap_list_st *list,
                                const ipv6imap_st **result)
{
    if (!ipv6_key) return 0;
    ipv6imap_st probe{};
    std::memcpy(probe.ipv6.bytes, ipv6_key, sizeof probe.ipv6.bytes);
    return record_key_search(probe, list, ipv6imap_compare_key, result);
}
int ipv6imap_list_search(const unsigned char *ipv6_key, unsigned int value, const ipv6imap_list_st *list)
{
    return key_then_value<ipv6imap_st>(
        [&](const ipv6imap_st **hit) { return ipv6imap_list_search_by_key(ipv6_key, list, hit); },
        [&](const ipv6imap_st &e) { return holds(e.ints, e.nr_ints, value); });
}

int iimap_list_search_by_key(unsigned int key, const iimap_list_st *list, const iimap_st **result)
{
    iimap_st probe{};
    probe.key = key;
    return record_key_search(probe, list, iimap_compare_key, result);
}
int iimap_list_search(unsigned int key, unsigned int value, const iimap_list_st *list)
{
    return key_then_value<iimap_st>([&](const iimap_st **hit) { return iimap_list_search_by_key(key, list, hit); },
                                    [&](const iimap_st &e) { return holds(e.ints, e.nr_ints, value); });
}

int ismap_list_search_by_key(unsigned int key, const ismap_list_st *list, int /*map_type*/, const ismap_st **result)
{
    ismap_st probe{};
    probe.key = key;
    return record_key_search(probe, list, ismap_compare_key, result);
}
int ismap_list_search(unsigned int key, const unsigned char *value, const ismap_list_st *list, int map_type)
{
    return key_then_value<ismap_st>(
        [&](const ismap_st **hit) { return ismap_list_search_by_key(key, list, map_type, hit); },
        [&](const ismap_st &e) { return holds_text(e.strs, e.nr_strings, value, one_sided_rule(map_type), kIsmapValue); });
}

int ssmap_list_search_by_key(const unsigned char *key, const ssmap_list_st *list, int map_type,
                             const ssmap_st **result)
{
    return string_key_search(key, list, key_rule(map_type), kSsmapKey, result);
}
int ssmap_list_search(const unsigned char *key, const unsigned char *value, const ssmap_list_st *list, int map_type)
{
    return key_then_value<ssmap_st>(
        [&](const ssmap_st **hit) { return ssmap_list_search_by_key(key, list, map_type, hit); },
        [&](const ssmap_st &e) { return holds_text(e.strs, e.nr_strings, value, value_rule(map_type), kSsmapValue); });
}

// ---- Rule information ---------------------------------------------------------------

void rule_info_list_init(taz_rule_info_list_st *list)
{
    if (!list || !list->rule_infos || list->nr_rule_infos < 2) return;
    std::qsort(list->rule_infos, list->nr_rule_infos, sizeof *list->rule_infos, rule_info_cmp);
}

const taz_rule_info_st *rule_info_list_search(unsigned int rule_id, const taz_rule_info_list_st *list)
{
    if (!list) return nullptr;
    taz_rule_info_st probe{};
    probe.rule_id = rule_id;
    return bisect_entries(probe, entries(*list), rule_info_cmp);
}
