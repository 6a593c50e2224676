/* The list, range and map families of a pattern image: one row each.
 *
 * Everything that names a family is derived from this table: the image's
 * fields (taze_ptn.h), the section dispatch (taze_impl.cpp), the API's list
 * choice (taze.cpp), the index selection (taze_fast_build.cpp), the writer's
 * orders (compiler/order.cpp), the tools' family names and the fuzz samples.
 * Adding a family is one row here, its section magic in magics.h and, for a
 * new layout, its record in taze_util.h.
 *
 * A row: X(image field, its list count field, list record, section magic,
 *          key rule, value rule, case rule, pattern kinds)
 * - key rule: how list strings and map keys match (Exact, Prefix, Suffix,
 *   Substr), None for addresses, ports and integer keys;
 * - value rule: how string map values match, None for other values;
 * - case rule: Fold (ASCII case folded), Sensitive, None (no text key);
 * - pattern kinds: Both, or Main (the second kind skips the section).
 * Rows are in the image's field order, which is also the release order and
 * the order in which the index builder visits the lists. */
#ifndef TAZE_FAMILIES_H
#define TAZE_FAMILIES_H

#include "taze_util.h"

/* clang-format off */
#define TAZ_FAMILIES(X) \
    X(string_lists,             max_string_list_count,             str_list_st,             MAGIC_TAZE_PATTERN_STR,                Exact,  None,   Fold,      Both) \
    X(string_prefix_lists,      max_string_prefix_list_count,      str_prefix_list_st,      MAGIC_TAZE_PATTERN_STR_PREFIX,         Prefix, None,   Fold,      Both) \
    X(string_suffix_lists,      max_string_suffix_list_count,      str_suffix_list_st,      MAGIC_TAZE_PATTERN_STR_SUFFIX,         Suffix, None,   Fold,      Both) \
    X(string_substring_lists,   max_string_substring_list_count,   str_substring_list_st,   MAGIC_TAZE_PATTERN_STR_SUBSTR,         Substr, None,   Fold,      Both) \
    X(string_case_lists,        max_string_case_list_count,        str_case_list_st,        MAGIC_TAZE_PATTERN_STR_CASE,           Exact,  None,   Sensitive, Both) \
    X(string_prefix_case_lists, max_string_prefix_case_list_count, str_prefix_case_list_st, MAGIC_TAZE_PATTERN_STR_PREFIX_CASE,    Prefix, None,   Sensitive, Main) \
    X(string_suffix_case_lists, max_string_suffix_case_list_count, str_suffix_case_list_st, MAGIC_TAZE_PATTERN_STR_SUFFIX_CASE,    Suffix, None,   Sensitive, Main) \
    X(string_substr_case_lists, max_string_substr_case_list_count, str_substr_case_list_st, MAGIC_TAZE_PATTERN_STR_SUBSTR_CASE,    Substr, None,   Sensitive, Main) \
    X(ip_range_lists,           max_ip_range_list_count,           ip_rng_list_st,          MAGIC_TAZE_PATTERN_IP,                 None,   None,   None,      Both) \
    X(ipv6_range_lists,         max_ipv6_range_list_count,         ipv6_rng_list_st,        MAGIC_TAZE_PATTERN_IPV6,               None,   None,   None,      Both) \
    X(port_range_lists,         max_port_range_list_count,         port_rng_list_st,        MAGIC_TAZE_PATTERN_PORT,               None,   None,   None,      Both) \
    X(str_int_map_lists,        max_str_int_map_list_count,        simap_list_st,           MAGIC_TAZE_PATTERN_STR_INT_MAP,        Exact,  None,   Fold,      Both) \
    X(prefix_int_map_lists,     max_prefix_int_map_list_count,     simap_list_st,           MAGIC_TAZE_PATTERN_PREFIX_INT_MAP,     Prefix, None,   Fold,      Both) \
    X(suffix_int_map_lists,     max_suffix_int_map_list_count,     simap_list_st,           MAGIC_TAZE_PATTERN_SUFFIX_INT_MAP,     Suffix, None,   Fold,      Both) \
    X(substr_int_map_lists,     max_substr_int_map_list_count,     simap_list_st,           MAGIC_TAZE_PATTERN_SUBSTR_INT_MAP,     Substr, None,   Fold,      Both) \
    X(int_int_map_lists,        max_int_int_map_list_count,        iimap_list_st,           MAGIC_TAZE_PATTERN_INT_INT_MAP,        None,   None,   None,      Both) \
    X(int_str_map_lists,        max_int_str_map_list_count,        ismap_list_st,           MAGIC_TAZE_PATTERN_INT_STR_MAP,        None,   Exact,  None,      Both) \
    X(int_prefix_map_lists,     max_int_prefix_map_list_count,     ismap_list_st,           MAGIC_TAZE_PATTERN_INT_PREFIX_MAP,     None,   Prefix, None,      Both) \
    X(int_suffix_map_lists,     max_int_suffix_map_list_count,     ismap_list_st,           MAGIC_TAZE_PATTERN_INT_SUFFIX_MAP,     None,   Suffix, None,      Both) \
    X(int_substr_map_lists,     max_int_substr_map_list_count,     ismap_list_st,           MAGIC_TAZE_PATTERN_INT_SUBSTR_MAP,     None,   Substr, None,      Both) \
    X(str_str_map_lists,        max_str_str_map_list_count,        ssmap_list_st,           MAGIC_TAZE_PATTERN_STR_STR_MAP,        Exact,  Exact,  Fold,      Both) \
    X(str_prefix_map_lists,     max_str_prefix_map_list_count,     ssmap_list_st,           MAGIC_TAZE_PATTERN_STR_PREFIX_MAP,     Exact,  Prefix, Fold,      Both) \
    X(str_suffix_map_lists,     max_str_suffix_map_list_count,     ssmap_list_st,           MAGIC_TAZE_PATTERN_STR_SUFFIX_MAP,     Exact,  Suffix, Fold,      Both) \
    X(str_substr_map_lists,     max_str_substr_map_list_count,     ssmap_list_st,           MAGIC_TAZE_PATTERN_STR_SUBSTR_MAP,     Exact,  Substr, Fold,      Both) \
    X(prefix_str_map_lists,     max_prefix_str_map_list_count,     ssmap_list_st,           MAGIC_TAZE_PATTERN_PREFIX_STR_MAP,     Prefix, Exact,  Fold,      Both) \
    X(prefix_prefix_map_lists,  max_prefix_prefix_map_list_count,  ssmap_list_st,           MAGIC_TAZE_PATTERN_PREFIX_PREFIX_MAP,  Prefix, Prefix, Fold,      Both) \
    X(prefix_suffix_map_lists,  max_prefix_suffix_map_list_count,  ssmap_list_st,           MAGIC_TAZE_PATTERN_PREFIX_SUFFIX_MAP,  Prefix, Suffix, Fold,      Both) \
    X(prefix_substr_map_lists,  max_prefix_substr_map_list_count,  ssmap_list_st,           MAGIC_TAZE_PATTERN_PREFIX_SUBSTR_MAP,  Prefix, Substr, Fold,      Both) \
    X(suffix_str_map_lists,     max_suffix_str_map_list_count,     ssmap_list_st,           MAGIC_TAZE_PATTERN_SUFFIX_STR_MAP,     Suffix, Exact,  Fold,      Both) \
    X(suffix_prefix_map_lists,  max_suffix_prefix_map_list_count,  ssmap_list_st,           MAGIC_TAZE_PATTERN_SUFFIX_PREFIX_MAP,  Suffix, Prefix, Fold,      Both) \
    X(suffix_suffix_map_lists,  max_suffix_suffix_map_list_count,  ssmap_list_st,           MAGIC_TAZE_PATTERN_SUFFIX_SUFFIX_MAP,  Suffix, Suffix, Fold,      Both) \
    X(suffix_substr_map_lists,  max_suffix_substr_map_list_count,  ssmap_list_st,           MAGIC_TAZE_PATTERN_SUFFIX_SUBSTR_MAP,  Suffix, Substr, Fold,      Both) \
    X(substr_str_map_lists,     max_substr_str_map_list_count,     ssmap_list_st,           MAGIC_TAZE_PATTERN_SUBSTR_STR_MAP,     Substr, Exact,  Fold,      Both) \
    X(substr_prefix_map_lists,  max_substr_prefix_map_list_count,  ssmap_list_st,           MAGIC_TAZE_PATTERN_SUBSTR_PREFIX_MAP,  Substr, Prefix, Fold,      Both) \
    X(substr_suffix_map_lists,  max_substr_suffix_map_list_count,  ssmap_list_st,           MAGIC_TAZE_PATTERN_SUBSTR_SUFFIX_MAP,  Substr, Suffix, Fold,      Both) \
    X(substr_substr_map_lists,  max_substr_substr_map_list_count,  ssmap_list_st,           MAGIC_TAZE_PATTERN_SUBSTR_SUBSTR_MAP,  Substr, Substr, Fold,      Both) \
    X(string_ipv6_map_lists,    max_string_ipv6_map_list_count,    sipv6map_list_st,        MAGIC_TAZE_PATTERN_STR_IPV6_MAP,       Exact,  None,   Fold,      Both) \
    X(prefix_ipv6_map_lists,    max_prefix_ipv6_map_list_count,    sipv6map_list_st,        MAGIC_TAZE_PATTERN_PREFIX_IPV6_MAP,    Prefix, None,   Fold,      Both) \
    X(suffix_ipv6_map_lists,    max_suffix_ipv6_map_list_count,    sipv6map_list_st,        MAGIC_TAZE_PATTERN_SUFFIX_IPV6_MAP,    Suffix, None,   Fold,      Both) \
    X(substr_ipv6_map_lists,    max_substr_ipv6_map_list_count,    sipv6map_list_st,        MAGIC_TAZE_PATTERN_SUBSTR_IPV6_MAP,    Substr, None,   Fold,      Both) \
    X(ipv6_int_map_lists,       max_ipv6_int_map_list_count,       ipv6imap_list_st,        MAGIC_TAZE_PATTERN_IPV6_INT_MAP,       None,   None,   None,      Both)
/* clang-format on */

/* How a family's list array is numbered. With `numbers` null it is dense:
 * record i is list number i and the family's list count is the array's
 * count. Otherwise it is sparse: the array's count records are the lists
 * that a non-empty list of the section numbered, record k being list
 * numbers[k] (ascending), and the family's list count is `lists` (one past
 * the highest number); a number below it without a record is an empty list.
 * Sections whose list numbers are sparse are kept this way, so that the
 * records stay bounded by what the section holds. Either way the array's
 * count records may be walked as they are. */
typedef struct taz_list_numbers_st {
    UINT32 *numbers;
    UINT32 lists;
} taz_list_numbers_st;

#ifdef __cplusplus

#include <cstddef>
#include <type_traits>

#include "magics.h"

namespace taze {

/* How strings match (the numbers are those of the map types' bytes). */
enum class Rule : unsigned { Exact = 0, Prefix = 1, Suffix = 2, Substr = 3, None = 4 };
enum class Case : unsigned { Fold, Sensitive, None };
/* Pattern kinds that accept a section, as bits. */
enum Kinds : unsigned { Main = 1u, Second = 2u, Both = Main | Second };

/* Entry layouts of the list records. */
enum class Layout : unsigned { Strings, Ip, Ipv6, Port, StrInt, StrIpv6, IntInt, Ipv6Int, IntStr, StrStr };

/* A list record: its entry count, its entry array and its layout. The eight
 * string list records share one layout; the others are listed. */
template <class List>
struct list_traits {
    using elem = counted_string_t;
    static constexpr UINT32 List::*count = &List::nr_strings;
    static constexpr elem *List::*items = &List::strings;
    static constexpr Layout layout = Layout::Strings;
};
#define TAZ_LIST_TRAITS(List, Elem, N, Items, L)                 \
    template <>                                                  \
    struct list_traits<List> {                                   \
        using elem = Elem;                                       \
        static constexpr UINT32 List::*count = &List::N;         \
        static constexpr elem *List::*items = &List::Items;      \
        static constexpr Layout layout = Layout::L;              \
    }
TAZ_LIST_TRAITS(ip_rng_list_st, ip_rng_st, nr_ip_ranges, ip_ranges, Ip);
TAZ_LIST_TRAITS(ipv6_rng_list_st, ipv6_rng_st, nr_ipv6_ranges, ipv6_ranges, Ipv6);
TAZ_LIST_TRAITS(port_rng_list_st, port_rng_st, nr_port_ranges, port_ranges, Port);
TAZ_LIST_TRAITS(simap_list_st, simap_st, nr_str_int_maps, str_int_maps, StrInt);
TAZ_LIST_TRAITS(sipv6map_list_st, sipv6map_st, nr_str_ipv6_maps, str_ipv6_maps, StrIpv6);
TAZ_LIST_TRAITS(iimap_list_st, iimap_st, nr_int_int_maps, int_int_maps, IntInt);
TAZ_LIST_TRAITS(ipv6imap_list_st, ipv6imap_st, nr_ipv6_int_maps, ipv6_int_maps, Ipv6Int);
TAZ_LIST_TRAITS(ismap_list_st, ismap_st, nr_int_str_maps, int_str_maps, IntStr);
TAZ_LIST_TRAITS(ssmap_list_st, ssmap_st, nr_str_str_maps, str_str_maps, StrStr);
#undef TAZ_LIST_TRAITS

/* The entries of a list record; an absent array counts as empty. */
template <class List>
UINT32 entry_count(const List &l)
{
    return l.*list_traits<List>::items ? l.*list_traits<List>::count : 0;
}
template <class List>
const typename list_traits<List>::elem *entry_items(const List &l)
{
    return l.*list_traits<List>::items;
}

/* Layouts whose entries are matched by a stored string. */
constexpr bool text_keyed(Layout l)
{
    return l == Layout::Strings || l == Layout::StrInt || l == Layout::StrIpv6 || l == Layout::StrStr;
}
constexpr bool is_range(Layout l) { return l == Layout::Ip || l == Layout::Ipv6 || l == Layout::Port; }
constexpr bool is_map(Layout l) { return !(l == Layout::Strings || is_range(l)); }

/* One row of the table, without the image's fields. */
struct FamilyRow {
    UINT32 magic;
    const char *field;
    Layout layout;
    Rule key_rule;
    Rule value_rule;
    Case case_rule;
    unsigned kinds;
};

constexpr FamilyRow kFamilies[] = {
#define TAZ_FAMILY_ROW(field, count, record, magic, key, value, cs, kinds) \
    {magic, #field, list_traits<record>::layout, Rule::key, Rule::value, Case::cs, Kinds::kinds},
    TAZ_FAMILIES(TAZ_FAMILY_ROW)
#undef TAZ_FAMILY_ROW
};
constexpr std::size_t kFamilyCount = sizeof kFamilies / sizeof kFamilies[0];

/* The row of a section magic, or null. */
constexpr const FamilyRow *family_row(UINT32 magic)
{
    for (const FamilyRow &r : kFamilies)
        if (r.magic == magic) return &r;
    return nullptr;
}

constexpr bool family_magics_unique()
{
    for (const FamilyRow &r : kFamilies)
        if (family_row(r.magic) != &r) return false;
    return true;
}
static_assert(kFamilyCount == 41 && family_magics_unique(), "one row per family");

/* The map type a map search names this family by: key rule, then value rule
 * for string-to-string maps; the one string side's rule in both bytes for the
 * other string maps (MT_PREFIX is 0x101); 0 without strings. */
constexpr int map_type_of(const FamilyRow &r)
{
    const unsigned k = r.key_rule == Rule::None ? 0u : unsigned(r.key_rule);
    const unsigned v = r.value_rule == Rule::None ? 0u : unsigned(r.value_rule);
    if (r.layout == Layout::StrStr) return int(k << 8 | v);
    return int((k | v) * 0x101u);
}

/* The empty list record that a sparse family answers for a number it does
 * not hold (constant-initialised, never written). */
template <class List>
List *empty_list()
{
    static List empty{};
    return &empty;
}

/* The family's list count: list numbers below it exist. */
inline UINT32 list_count(UINT32 count, const taz_list_numbers_st &n) { return n.numbers != nullptr ? n.lists : count; }

/* The record of list `number`: null at or above the list count, else the
 * dense array's record, the sparse array's record of that number, or the
 * empty list. */
template <class List>
List *list_at(List *lists, UINT32 count, const taz_list_numbers_st &n, UINT32 number)
{
    if (number >= list_count(count, n) || lists == nullptr) return nullptr;
    if (n.numbers == nullptr) return &lists[number];
    UINT32 lo = 0, hi = count;
    while (lo < hi) {
        const UINT32 mid = lo + (hi - lo) / 2;
        if (n.numbers[mid] < number)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo < count && n.numbers[lo] == number ? &lists[lo] : empty_list<List>();
}

/* One family of Image: the image's three fields and the row. */
template <auto Lists, auto Count, auto Numbers, UINT32 Magic>
struct family {
    template <class T>
    struct member_type;
    template <class C, class M>
    struct member_type<M C::*> {
        using type = M;
    };
    using record = std::remove_pointer_t<typename member_type<decltype(Lists)>::type>;
    static constexpr auto lists = Lists;
    static constexpr auto count = Count;
    static constexpr auto numbers = Numbers;
    static constexpr const FamilyRow &row = *family_row(Magic);

    /* The record of one list number (see list_at). */
    template <class Image>
    static record *at(const Image &p, UINT32 number)
    {
        return list_at(p.*Lists, p.*Count, p.*Numbers, number);
    }
};

/* Calls fn(family<...>{}) for every family of Image (taz_pattern_st), in
 * table order. Image is a parameter so that this header can precede the
 * image's definition. */
template <class Image, class Fn>
void each_family(Fn &&fn)
{
#define TAZ_FAMILY_CALL(field, count, record, magic, ...) \
    fn(family<&Image::field, &Image::count, &Image::field##_numbers, magic>{});
    TAZ_FAMILIES(TAZ_FAMILY_CALL)
#undef TAZ_FAMILY_CALL
}

} // namespace taze

#endif /* __cplusplus */

#endif /* TAZE_FAMILIES_H */
