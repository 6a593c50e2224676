/* Covered entries of prefix and suffix lists and of prefix- and
 * suffix-keyed maps: an entry is covered when a shorter (or equal) entry
 * of the same list matches every string the longer one matches. The
 * bisection of such a list may step over the shorter entry; in a list
 * without covered entries it never does (docs/pattern-source.md gives the
 * argument). The compiler and the file checker both find them here. */
#ifndef TAZC_COVERAGE_H
#define TAZC_COVERAGE_H

#include <cstddef>
#include <string_view>
#include <vector>

namespace tazc {

struct CoveredPair {
    std::size_t covered; /* index of the longer entry */
    std::size_t by;      /* index of an entry that covers it and is itself not covered */
};

/* Entries in any order; rule 1 prefix or 2 suffix, any other rule finds
 * nothing. Case-insensitive rules fold the ASCII letters. Pairs ascend by
 * the covered index; of equal entries the first one covers the others. */
std::vector<CoveredPair> covered_entries(const std::vector<std::string_view> &entries, unsigned rule,
                                         bool case_sensitive);

} // namespace tazc

#endif /* TAZC_COVERAGE_H */
