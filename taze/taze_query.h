/* The shapes of the exported queries: argument checks and result handling
 * shared by the TAZE_* functions of taze.cpp, the choice of the image and of
 * its list arrays (from the family table), and the list and map searches
 * that go through the image's indexes. Included by taze.cpp only. */
#ifndef TAZE_QUERY_H
#define TAZE_QUERY_H

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "taze.h"
#include "taze_fast.h"
#include "taze_util.h"
#include "vkerror.h"

namespace taze::api {

using Pattern = taz_pattern_st;

inline const unsigned char *as_bytes(const char *s) { return reinterpret_cast<const unsigned char *>(s); }

/* Search keys: host strings become byte strings, everything else passes. */
inline const unsigned char *key_arg(const char *s) { return as_bytes(s); }
template <typename T>
T key_arg(T v)
{
    return v;
}

/* ---- choosing the pattern -------------------------------------------- */

/* The plain queries use the current pattern. */
inline const Pattern *current_pattern(const TAZE *h)
{
    return (h && h->pTAZPattern) ? h->pTAZPattern->cur_ptn : nullptr;
}

/* The Ex queries use the kind that ptn_type names. */
inline const Pattern *pattern_of_kind(TAZE *h, unsigned int ptn_type)
{
    return TAZE_GetPatternByPatternType(h, ptn_type);
}

/* ---- query shapes --------------------------------------------------------
 * Each shape takes the chosen pattern (null when the handle, its record, the
 * kind or the image is missing), the lookup, the outputs and then the keys
 * that the lookup takes besides the pattern. */

/* Numeric getters: PARA_ERR without a pattern or an output, else 0 and the
 * lookup's value (0 for an index or id that is absent). */
template <typename Fn, typename... K>
int number(const Pattern *sp, Fn fn, unsigned int *out, K... keys)
{
    if (!sp || !out) return PARA_ERR;
    *out = fn(sp, keys...);
    return 0;
}

/* Stores a copy that the caller frees: 0, or NO_MEM_ERR with *out null. */
inline int copy_text(const unsigned char *text, char **out)
{
    *out = strdup(reinterpret_cast<const char *>(text));
    return *out ? 0 : NO_MEM_ERR;
}

/* A copy, or null when there is no text (or no memory for it). */
inline char *copy_or_null(const unsigned char *text)
{
    return text ? strdup(reinterpret_cast<const char *>(text)) : nullptr;
}

/* What a copying getter answers when the lookup has no text. */
enum class Absent { Refused, Empty };

/* Copying getters. *out must be null on entry, so that an earlier result
 * the caller has not freed yet is never overwritten. */
template <Absent absent, typename Fn, typename... K>
int text(const Pattern *sp, Fn fn, char **out, K... keys)
{
    if (!sp || !out || *out) return PARA_ERR;
    const unsigned char *found = fn(sp, keys...);
    if (!found) {
        if constexpr (absent == Absent::Refused)
            return PARA_ERR;
        else
            found = as_bytes("");
    }
    return copy_text(found, out);
}

/* Clean decisions: the lookup's 1 (clean, *target set) or 0; its -1 is a
 * parameter error here. */
template <typename Fn, typename... K>
int clean_check(const Pattern *sp, Fn fn, unsigned int *target, K... keys)
{
    if (!sp || !target) return PARA_ERR;
    const int r = fn(sp, keys..., target);
    return r < 0 ? PARA_ERR : r;
}

/* The rule form refuses rule id 0. */
template <typename Fn>
int rule_clean_check(const Pattern *sp, Fn fn, unsigned int *target, unsigned int id, unsigned int protocol,
                     unsigned int direction)
{
    return id == 0 ? PARA_ERR : clean_check(sp, fn, target, id, protocol, direction);
}

/* Clean data: the lookup's failure stays -1 (also for a null output, which
 * the lookup refuses); otherwise the priority and copies of both strings.
 * The outputs are overwritten, not tested; a string that is absent (or an
 * unknown rule, which the lookup answers with 0 and no data) leaves a null
 * output and priority 0. */
template <typename Fn, typename... K>
int clean_data(const Pattern *sp, Fn fn, unsigned int *priority, char **src_ptn, char **dst_ptn, K... keys)
{
    if (!sp) return PARA_ERR;
    UINT32 prio = 0;
    const unsigned char *src = nullptr;
    const unsigned char *dst = nullptr;
    if (fn(sp, keys..., priority ? &prio : nullptr, src_ptn ? &src : nullptr,
                    dst_ptn ? &dst : nullptr) != 0)
        return UNKNOWN_ERR;
    if (!priority || !src_ptn || !dst_ptn) return 0; /* unknown rule: nothing to hand out */
    *priority = prio;
    *src_ptn = copy_or_null(src);
    *dst_ptn = copy_or_null(dst);
    return 0;
}

/* The rule form refuses rule id 0. */
template <typename Fn>
int rule_clean_data(const Pattern *sp, Fn fn, unsigned int *priority, char **src_ptn, char **dst_ptn,
                    unsigned int id)
{
    return id == 0 ? PARA_ERR : clean_data(sp, fn, priority, src_ptn, dst_ptn, id);
}

/* Risk: the lookup's 0 (outputs set) or -1. */
template <typename Fn, typename... K>
int risk_info(const Pattern *sp, Fn fn, unsigned int *policy_id, unsigned int *severity, K... keys)
{
    if (!sp) return PARA_ERR;
    return fn(sp, keys..., policy_id, severity); /* null outputs: -1 */
}

/* ---- the image's list arrays -------------------------------------------- */

/* List `number` of the family of record List that `map_type` names
 * (families.h), or of the record's first family (the exact one) when none
 * does: null when the number is not below that family's list count, the
 * empty list for a number below it that a sparse family does not hold. */
template <typename List>
List *family_list(const Pattern *p, int map_type, UINT32 number)
{
    List *first = nullptr, *pick = nullptr;
    bool seen = false, found = false;
    taze::each_family<Pattern>([&](auto f) {
        using F = decltype(f);
        if constexpr (std::is_same_v<typename F::record, List>) {
            if (!seen) {
                seen = true;
                first = F::at(*p, number);
            }
            if (!found && taze::map_type_of(F::row) == map_type) {
                found = true;
                pick = F::at(*p, number);
            }
        }
    });
    return found ? pick : first;
}

/* ---- string and range lists ---------------------------------------------- */

/* A null key is a parameter error, not a miss (IPv6 keys). */
enum class KeyRule { Optional, Required };

/* One list search; the list array is the one family of the search's record. */
template <typename List, typename Key>
int search_list(TAZE *h, int idx, Key key, int ptntype, int (*search)(Key, const List *),
                KeyRule rule = KeyRule::Optional)
{
    if (!h || !h->pTAZPattern) return PARA_ERR;
    if constexpr (std::is_pointer_v<Key>) {
        if (rule == KeyRule::Required && !key) return PARA_ERR;
    }
    if (ptntype != PT_TAZ && ptntype != PT_ULM) return idx < 0 ? PARA_ERR : 0;
    const Pattern *sp = ptntype == PT_TAZ ? h->pTAZPattern->taz_ptn : h->pTAZPattern->ulm_ptn;
    if (!sp || idx < 0) return PARA_ERR;
    const List *list = family_list<List>(sp, MT_STRING, static_cast<UINT32>(idx));
    if (!list) return 0;
    return taze::fast::list_search(sp, list, key, search); /* the list's index, else search */
}

/* ---- map lists ----------------------------------------------------------- */

template <typename List>
int select_map_list(Pattern *ptn, int map_type, int list_number, List **list)
{
    if (!ptn || !list) return PARA_ERR;
    List *found = list_number < 0 ? nullptr : family_list<List>(ptn, map_type, static_cast<UINT32>(list_number));
    if (!found) return PARA_ERR;
    *list = found;
    return 0;
}

/* A map family: its list and entry records, the public record an entry is
 * copied into, the list selector and the two searches of taze_util.h. */
template <typename L, typename R, auto Select, auto ByKey, auto Search>
struct MapFamily {
    using List = L;
    using Entry = typename taze::list_traits<L>::elem;
    using Result = R;
    using E = Entry;
    static constexpr E *L::*entries = taze::list_traits<L>::items;
    static constexpr UINT32 L::*count = taze::list_traits<L>::count;
    static constexpr auto select = Select;
    static constexpr auto by_key = ByKey;
    static constexpr auto search = Search;
    static_assert(sizeof(R) == sizeof(E) && alignof(R) == alignof(E), "a result record mirrors its entry");
    static_assert(std::is_standard_layout_v<R> && std::is_standard_layout_v<E> &&
                      std::is_trivially_copyable_v<R> && std::is_trivially_copyable_v<E>,
                  "a result record is filled by copying the entry's bytes");
};

using SIMap = MapFamily<simap_list_st, TAZE_StringIntMap, TAZE_PatternGetSIMapList, simap_list_search_by_key,
                        simap_list_search>;
using SIPv6Map = MapFamily<sipv6map_list_st, TAZE_StringIPv6Map, TAZE_PatternGetSIPv6MapList,
                           sipv6map_list_search_by_key, sipv6map_list_search>;
using IPv6IMap = MapFamily<ipv6imap_list_st, TAZE_IPv6IntMap, TAZE_PatternGetIPv6IMapList,
                           ipv6imap_list_search_by_key, ipv6imap_list_search>;
using IIMap = MapFamily<iimap_list_st, TAZE_IntIntMap, TAZE_PatternGetIIMapList, iimap_list_search_by_key,
                        iimap_list_search>;
using ISMap = MapFamily<ismap_list_st, TAZE_IntStringMap, TAZE_PatternGetISMapList, ismap_list_search_by_key,
                        ismap_list_search>;
using SSMap = MapFamily<ssmap_list_st, TAZE_StringStringMap, TAZE_PatternGetSSMapList, ssmap_list_search_by_key,
                        ssmap_list_search>;

/* The families without strings take no map type; their functions pass this. */
constexpr int kNoMapType = MT_STRING;

/* Runs op on map list `list_number` of the kind ptn_type, or returns the
 * PARA_ERR of choosing the kind or the list. An op that also takes the
 * image gets it (the key searches narrow the list with its index). */
template <typename F, typename Op>
int with_map_list(TAZE *h, int ptn_type, int map_type, int list_number, Op op)
{
    Pattern *ptn = nullptr;
    int r = TAZE_PatternGetByType(h, ptn_type, &ptn);
    if (r != 0) return r;
    typename F::List *list = nullptr;
    if constexpr (std::is_invocable_v<decltype(F::select), Pattern *, int, int, int, typename F::List **>)
        r = F::select(ptn, ptn_type, map_type, list_number, &list);
    else
        r = F::select(ptn, ptn_type, list_number, &list);
    if (r != 0) return r;
    if constexpr (std::is_invocable_v<Op, const typename F::List *, const Pattern *>)
        return op(static_cast<const typename F::List *>(list), static_cast<const Pattern *>(ptn));
    else
        return op(static_cast<const typename F::List *>(list));
}

/* The search by key: 1 and *entry, -1 not found or map type refused, 0 for
 * a null argument. */
template <typename F, typename K>
int key_search(const typename F::List *list, K key, int map_type, const typename F::Entry **entry)
{
    if constexpr (std::is_invocable_v<decltype(F::by_key), K, const typename F::List *, int,
                                      const typename F::Entry **>)
        return F::by_key(key, list, map_type, entry);
    else
        return F::by_key(key, list, entry);
}

/* The entry with this key, or null. */
template <typename F, typename K>
const typename F::Entry *find_entry(const typename F::List *list, K key, int map_type)
{
    const typename F::Entry *entry = nullptr;
    return key_search<F>(list, key, map_type, &entry) == 1 ? entry : nullptr;
}

/* Copies an entry into the caller's record (0), or clears it (-1). */
template <typename F>
int fill_result(typename F::Result *result, const typename F::Entry *entry)
{
    if (!entry) {
        *result = typename F::Result{};
        return UNKNOWN_ERR;
    }
    std::memcpy(result, entry, sizeof *result);
    return 0;
}

template <typename F, typename K, typename V>
int map_search(TAZE *h, int ptn_type, int map_type, int list_number, K key, V value)
{
    return with_map_list<F>(h, ptn_type, map_type, list_number, [&](const typename F::List *all, const Pattern *ptn) {
        typename F::List one{};
        const typename F::List *list = taze::fast::narrow(ptn, all, key_arg(key), map_type, one);
        if constexpr (std::is_same_v<V, const char *>) {
            /* A string value is measured once its key is found: without
             * one, answer what the key search answers and refuse only a
             * found key. */
            if (!value) {
                const typename F::Entry *entry = nullptr;
                const int found = key_search<F>(list, key_arg(key), map_type, &entry);
                return found == 1 ? PARA_ERR : found;
            }
        }
        if constexpr (std::is_invocable_v<decltype(F::search), decltype(key_arg(key)), decltype(key_arg(value)),
                                          const typename F::List *, int>)
            return F::search(key_arg(key), key_arg(value), list, map_type);
        else
            return F::search(key_arg(key), key_arg(value), list);
    });
}

template <typename F, typename K>
int map_by_key(TAZE *h, int ptn_type, int map_type, int list_number, K key, typename F::Result *result)
{
    return with_map_list<F>(h, ptn_type, map_type, list_number, [&](const typename F::List *all, const Pattern *ptn) {
        typename F::List one{};
        const typename F::List *list = taze::fast::narrow(ptn, all, key_arg(key), map_type, one);
        return result ? fill_result<F>(result, find_entry<F>(list, key_arg(key), map_type)) : PARA_ERR;
    });
}

template <typename F>
int map_count(TAZE *h, int ptn_type, int map_type, int list_number)
{
    return with_map_list<F>(h, ptn_type, map_type, list_number,
                            [](const typename F::List *list) { return static_cast<int>(list->*F::count); });
}

template <typename F>
int map_by_index(TAZE *h, int ptn_type, int map_type, int list_number, int index, typename F::Result *result)
{
    return with_map_list<F>(h, ptn_type, map_type, list_number, [&](const typename F::List *list) {
        if (!result) return PARA_ERR;
        const typename F::Entry *all = list->*F::entries;
        const bool inside = index >= 0 && static_cast<UINT32>(index) < list->*F::count && all;
        return fill_result<F>(result, inside ? &all[index] : nullptr);
    });
}

} // namespace taze::api

#endif /* TAZE_QUERY_H */
