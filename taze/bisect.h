/* The one bisection every sorted-list lookup of the library uses.
 *
 * The probe order is part of the lookup contract: prefix, suffix and range
 * comparisons are not monotone over a stored list, so which entry a lookup
 * meets first decides its answer. lower = 0, upper = count; while
 * lower < upper the entry (lower + upper) / 2 is probed; a negative
 * comparison sets upper to it, a positive one sets lower past it, and zero
 * is the hit. glibc's bsearch visits the same entries in the same order.
 * Fast paths and benchmarks share this routine so they cannot drift. */
#ifndef TAZE_BISECT_H
#define TAZE_BISECT_H

#include <cstddef>

namespace taze {

/* A comparator in the C convention: key first, element second. */
using Comparator = int (*)(const void *key, const void *elem);

/* Bisects positions 0..count with `cmp(std::size_t mid)`, which compares
 * the caller's key against the entry at mid and answers <0, 0 or >0.
 * Returns the hit's position, or count when there is none. */
template <class Cmp>
constexpr std::size_t bisect_at(std::size_t count, Cmp &&cmp)
{
    std::size_t lower = 0;
    std::size_t upper = count;
    while (lower < upper) {
        const std::size_t mid = (lower + upper) / 2;
        const int c = cmp(mid);
        if (c < 0)
            upper = mid;
        else if (c > 0)
            lower = mid + 1;
        else
            return mid;
    }
    return count;
}

/* Bisects base[0..count) with `cmp(const Elem&)`. Returns the hit or null.
 * A null base with count 0 is an empty list. */
template <class Elem, class Cmp>
constexpr const Elem *bisect(const Elem *base, std::size_t count, Cmp &&cmp)
{
    const std::size_t at = bisect_at(count, [base, &cmp](std::size_t mid) { return cmp(base[mid]); });
    return at < count ? base + at : nullptr;
}

/* The same with a C comparator and a key object, as bsearch takes them. */
template <class Key, class Elem>
inline const Elem *bisect(const Key *key, const Elem *base, std::size_t count, Comparator cmp)
{
    return bisect(base, count, [key, cmp](const Elem &e) { return cmp(key, &e); });
}

} // namespace taze

#endif /* TAZE_BISECT_H */
