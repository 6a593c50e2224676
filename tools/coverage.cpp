/* Covered entries: sort the entries as matching keys (case-folded when the
 * rule ignores case, read backwards for suffixes), then walk them once. In
 * that order every entry that a key K begins lies between K and the last
 * entry beginning with K, so the last uncovered entry seen either covers
 * the current one or nothing does. */
#include "coverage.h"

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <string>

namespace tazc {

std::vector<CoveredPair> covered_entries(const std::vector<std::string_view> &entries, unsigned rule,
                                         bool case_sensitive)
{
    std::vector<CoveredPair> out;
    if (rule != 1 && rule != 2) return out;
    std::vector<std::string> keys;
    keys.reserve(entries.size());
    for (std::string_view e : entries) {
        std::string k(e);
        if (!case_sensitive)
            for (char &c : k)
                if (c >= 'A' && c <= 'Z') c = char(c + 0x20);
        if (rule == 2) std::reverse(k.begin(), k.end());
        keys.push_back(std::move(k));
    }
    std::vector<std::size_t> order(entries.size());
    std::iota(order.begin(), order.end(), std::size_t(0));
    /* Bytes compare unsigned, as the library's comparisons do. */
    std::stable_sort(order.begin(), order.end(), [&keys](std::size_t a, std::size_t b) {
        return std::lexicographical_compare(keys[a].begin(), keys[a].end(), keys[b].begin(), keys[b].end(),
                                            [](char x, char y) { return std::uint8_t(x) < std::uint8_t(y); });
    });
    std::size_t root = entries.size(); /* none yet */
    for (std::size_t i : order) {
        if (root != entries.size() && keys[i].compare(0, keys[root].size(), keys[root]) == 0)
            out.push_back({i, root});
        else
            root = i;
    }
    std::sort(out.begin(), out.end(), [](const CoveredPair &a, const CoveredPair &b) { return a.covered < b.covered; });
    return out;
}

} // namespace tazc
