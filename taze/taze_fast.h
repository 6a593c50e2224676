/* Load-time search indexes of a pattern image: the fast paths.
 *
 * The plain searches of taze_util.cpp are the reference: every index here
 * answers exactly what the plain search of its list answers, entry for
 * entry, and only makes the answer cheaper to find:
 *
 * - exact lists and exact-keyed maps whose entries the builder found in the
 *   order their comparator needs, with no two entries comparing equal: a
 *   compact hash table (packed slots: text offset, entry number, hash tag)
 *   over the folded NUL-terminated views (a key equals at most
 *   one entry, and the bisection finds that one);
 * - IPv4, IPv6 and port range lists whose ranges ascend without overlapping:
 *   over them the bisection finds a range holding the key exactly when one
 *   exists, so ranges that touch answer as their union, and a bitmap of the
 *   ports, or a bucket table over the key span (nested where ranges crowd
 *   a bucket) and a short search among the ranges of the key's bucket,
 *   answers as it does;
 * - prefix and suffix lists and keys whose entries are all at least K bytes
 *   long (K between 4 and 16) with no NUL among their K leading bytes (the
 *   K trailing ones for suffixes), and whose heads of K bytes never decrease
 *   along the list: a hash table from a head to the run of entries sharing
 *   it. Every comparison with an entry outside the run of the key's head is
 *   decided by the heads alone, so the bisection is replayed with only the
 *   run's entries read (a run of one entry decides alone), and a key whose
 *   head no entry has matches nothing;
 * - prefix and suffix lists and keys of any other shape: for every probe of
 *   the bisection, six of its entry's bytes past those that all entries of
 *   its interval's parent share (which a search reaching it shares too), so
 *   most probes read one word and no text;
 * - every other bisected array (exact lists in the wrong order, range
 *   lists in any other order, integer and IPv6 map keys): the bisection's
 *   own decision tree stored breadth-first, so
 *   the same entries are probed in the same order, each probe reading one
 *   small node instead of an entry and its text. String nodes carry the
 *   common prefix lengths with the two entries bounding them and a few
 *   bytes of their text after it, so most probes decide without touching
 *   the payload;
 * - substring lists and substring-keyed maps: an anchor filter (one hashed
 *   four-byte gram per entry, chosen to spread them) whose candidates are
 *   verified, answering the first entry in stored order that occurs in the
 *   string, as the stored-order scan does.
 *
 * Routing: searches take a list record, not an image, so the API layer
 * (taze.cpp), which holds both, asks the image's index for the index of that
 * list record (keyed by its address): list searches through list_search(),
 * map searches by narrowing the list to the entry the key search hits
 * (narrow()); the value tests then run unchanged on that one entry.
 *
 * Lifetime: taz_fast_build runs at the end of a successful image load and
 * hangs the index off the image's `fast` field; taz_fast_release runs when
 * the image is released. In between nothing is written, so any number of
 * threads may search without locks. Each list's index takes a bounded
 * number of bytes per entry of the list (a hostile file whose lists overlap
 * meets guards proportional to the payload, and its remaining lists keep
 * the plain searches) and reads only inside the
 * image's padded payload copy; lists it cannot index keep the plain search. */
#ifndef TAZE_FAST_H
#define TAZE_FAST_H

#include "taze_ptn.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Builds the indexes of a complete image: 0, or -1 when none was built
 * (the image then answers through the plain searches alone). */
int taz_fast_build(taz_pattern_st *ptn);
/* Releases them; the image is left without indexes. Null is ignored. */
void taz_fast_release(taz_pattern_st *ptn);

#ifdef __cplusplus
}

#include <cstdint>

namespace taze::fast {

/* Answers of an index besides a stored entry number (0 and up). */
constexpr std::int64_t kMiss = -1;  /* the plain search finds nothing */
constexpr std::int64_t kPlain = -2; /* not answered here: run the plain search */

struct Accel; /* the index of one list */

/* Shortest lists indexed: shorter ones are searched plainly, which costs
 * as little while the list sits in the processor's caches (bench/RESULTS.md). */
struct Options {
    std::uint32_t min_entries = 16;            /* hashes, IPv6 trees */
    std::uint32_t min_tree_entries = 1u << 17; /* text trees, 32-bit range and key trees */
    std::uint32_t min_substr_entries = 4;      /* substring scans */
    bool hash_exact = true;                    /* hash sorted exact lists (else tree) */
    bool ordered_ranges = true;                /* bucket tables for ascending, non-overlapping ranges */
    bool head_groups = true;                   /* head tables for prefix and suffix lists (else tree) */
    std::uint32_t min_head_entries = 1u << 10; /* head tables and windows */
};

/* What an index is, for tests and benchmarks. */
enum class Shape { Hash, Buckets, Heads, Tree, Substr };

/* taz_fast_build with explicit thresholds (the tests index every list). */
int build(taz_pattern_st *ptn, const Options &opt);

/* The index of one list record of ptn, or null. */
const Accel *find(const taz_pattern_st *ptn, const void *list);

/* The stored entry the plain search of the indexed list hits for a key, or
 * kMiss or kPlain. Text keys are NUL-terminated; IPv6 keys are 16 bytes
 * (which of the two a byte pointer is follows from the list's kind). */
std::int64_t lookup(const Accel *a, const unsigned char *key);
std::int64_t lookup(const Accel *a, std::uint32_t key);
/* Some stored entry the key matches, not necessarily the one the plain
 * search returns (for searches that answer only 1 or 0), or kMiss, kPlain. */
std::int64_t lookup_some(const Accel *a, const unsigned char *key);
std::int64_t lookup_some(const Accel *a, std::uint32_t key);
/* The kind of an index (not null). */
Shape shape(const Accel *a);
/* True when a map search of this map type uses the rule the index keeps. */
bool accepts(const Accel *a, int map_type);

/* `plain(key, list)`, answered by the list's index when it has one. */
template <class List, class Key>
int list_search(const taz_pattern_st *ptn, const List *list, Key key, int (*plain)(Key, const List *))
{
    const Accel *a = find(ptn, list);
    const std::int64_t hit = a ? lookup_some(a, key) : kPlain;
    if (hit == kPlain) return plain(key, list);
    return hit >= 0 ? 1 : 0;
}

/* The list a map search of `key` may run on: when the list's index answers
 * the key search for this map type, `one` becomes a record of just the entry
 * it hits (or of no entry), and the plain key search over `one` then finds
 * what it would have found over the whole list; otherwise the list itself. */
template <class List, class Key>
const List *narrow(const taz_pattern_st *ptn, const List *list, Key key, int map_type, List &one)
{
    const Accel *a = list ? find(ptn, list) : nullptr;
    if (!a || !accepts(a, map_type)) return list;
    const std::int64_t hit = lookup(a, key);
    if (hit == kPlain) return list;
    using R = list_traits<List>;
    one.*R::count = hit >= 0 ? 1u : 0u;
    one.*R::items = hit >= 0 ? list->*R::items + hit : nullptr;
    return &one;
}

} // namespace taze::fast

#endif /* __cplusplus */

#endif /* TAZE_FAST_H */
