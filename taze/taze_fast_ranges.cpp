/* Range lists that ascend without overlapping: bucket tables over the key span. */
#include "taze_fast_common.h"

namespace taze::fast {

namespace {

// ---- Ordered ranges: a bucket table --------------------------------------------------------

/* A key as one unsigned number, for picking its bucket. */
template <class B>
using Wide = std::conditional_t<std::is_same_v<B, U128>, unsigned __int128, std::uint64_t>;
inline std::uint64_t wide(std::uint32_t k) { return k; }
inline std::uint64_t wide(std::uint16_t k) { return k; }
inline unsigned __int128 wide(const U128 &k) { return (static_cast<unsigned __int128>(k.hi) << 64) | k.lo; }

/* Index of a range list whose ranges ascend without touching (each low <=
 * high < the next low). Over such a list the bisection's comparison is
 * monotone, so the bisection finds a range holding the key exactly when
 * there is one, and there is at most one. The span from the first low to
 * the last high is cut into equal buckets; first_[b] is the first range
 * ending in bucket b or later, so the range that can hold a key is among
 * the few between the first ranges of its bucket and of the next one. A
 * bucket that holds many ranges (real address plans cluster: most of a
 * list can fall into a few buckets) gets a table of its own over the
 * bucket's span, and so on down, so the buckets follow where the ranges
 * are rather than the key span. Lists of any other shape keep the tree or
 * the plain search. */
template <class B, class Item>
class OrderedRanges final : public KeyedAccel<OrderedRanges<B, Item>, B> {
    using W = Wide<B>;

public:
    static OrderedRanges *make(const Item *items, std::uint32_t n, Budget &b)
    {
        if (items == nullptr || n == 0 || n > 0x7FFFFFFFu) return nullptr;
        for (std::uint32_t i = 0; i < n; ++i) {
            const RangeNode<B> r = range_of(items[i]);
            if (order(r.low, r.high) > 0 || (i > 0 && order(range_of(items[i - 1]).high, r.low) >= 0)) return nullptr;
        }
        if (!b.take(n * sizeof(Item))) return nullptr;
        auto *x = new (std::nothrow) OrderedRanges;
        if (x != nullptr && !x->fill(items, n, wide(range_of(items[0]).low), wide(range_of(items[n - 1]).high), 0, b)) {
            delete x;
            x = nullptr;
        }
        return x;
    }
    ~OrderedRanges() override
    {
        for (std::size_t i = 0; i < sub_.size(); ++i) delete sub_[i];
    }

    Shape shape() const override { return Shape::Buckets; }

private:
    friend KeyedAccel<OrderedRanges, B>;
    static constexpr std::uint32_t kNestFrom = 192; /* ranges in a bucket that get a table of their own */
    static constexpr unsigned kMaxLevels = 8;

    /* Buckets over [base, top] for the n ranges at items, all of which end
     * inside it; tables for the crowded buckets while levels and memory last. */
    bool fill(const Item *items, std::uint32_t n, W base, W top, unsigned level, Budget &b)
    {
        /* About n/4 buckets at the top, n/8 in nested tables (whose ranges
         * cluster less, having been spread once). */
        std::uint32_t bits = 1;
        while (bits < 20 && (std::uint64_t(level == 0 ? 4 : 8) << bits) <= n) ++bits;
        const std::uint64_t buckets = std::uint64_t(1) << bits;
        if (!b.reserve(kIndexBase / 8 + (buckets + 1) * 4) || !first_.allocate(buckets + 1)) return false;
        items_ = items;
        n_ = n;
        base_ = base;
        top_ = top;
        /* A nested table whose ranges all end in one bucket narrows to that
         * bucket and is cut again, instead of nesting a table that would be
         * its only one (clustered addresses: a level per step down to the
         * cluster's width). Each narrowing counts as a level. */
        for (;;) {
            const W span = top_ - base_;
            shift_ = 0;
            while (shift_ < 8 * sizeof(W) - 1 && (span >> shift_) >= buckets) ++shift_;
            const std::uint64_t k = bucket(range_of(items[0]).high);
            if (level == 0 || level + 1 >= kMaxLevels || shift_ == 0 || bucket(range_of(items[n - 1]).high) != k) break;
            base_ += W(k) << shift_;
            top_ = std::min<W>(top_, base_ + ((W(1) << shift_) - 1));
            ++level;
        }
        std::uint32_t i = 0;
        std::uint64_t crowded = 0;
        for (std::uint64_t k = 0; k <= buckets; ++k) {
            while (i < n && bucket(range_of(items[i]).high) < k) ++i;
            first_[k] = i;
            crowded += k > 0 && first_[k] - first_[k - 1] >= kNestFrom ? 1 : 0;
        }
        if (crowded == 0 || level + 1 >= kMaxLevels || shift_ == 0) return true;
        /* The crowded buckets' tables sit in a short array, reached through
         * a byte per bucket (its place among the tables of its 64-bucket
         * group, plus one; 0 when it has none) and a running count per 64
         * buckets: a pointer per bucket would cost 2 bytes per range at the
         * top level, most of them null. */
        const std::uint64_t words = (buckets + 63) / 64;
        if (!b.reserve(buckets + words * 4 + crowded * sizeof(OrderedRanges *)) || !place_.allocate(buckets) ||
            !rank_.allocate(words) || !sub_.allocate(crowded))
            return true;
        std::uint32_t c = 0;
        for (std::uint64_t k = 0; k < buckets; ++k) {
            if (k % 64 == 0) rank_[k / 64] = c;
            const std::uint32_t len = first_[k + 1] - first_[k];
            if (len < kNestFrom) continue;
            const W lo = base_ + (W(k) << shift_);
            const W hi = std::min<W>(top_, lo + ((W(1) << shift_) - 1));
            auto *x = new (std::nothrow) OrderedRanges;
            if (x != nullptr && !x->fill(items + first_[k], len, lo, hi, level + 1, b)) {
                delete x;
                x = nullptr;
            }
            if (x == nullptr) continue;
            place_[k] = static_cast<std::uint8_t>(c - rank_[k / 64] + 1);
            sub_[c++] = x;
        }
        return true;
    }

    /* The table of bucket at, or null when the bucket has none. */
    const OrderedRanges *sub(std::uint64_t at) const
    {
        if (place_.size() == 0 || place_[at] == 0) return nullptr;
        return sub_[rank_[at / 64] + place_[at] - 1u];
    }

    std::uint64_t bucket(const B &k) const { return static_cast<std::uint64_t>((wide(k) - base_) >> shift_); }

    /* The first of this table's ranges ending at or after k (n_ if none). */
    std::uint32_t first_after(const B &k) const
    {
        /* A narrowed table sees keys on either side of its span: every
         * range ends inside it. */
        const W w = wide(k);
        if (w < base_) return 0;
        if (w > top_) return n_;
        const std::uint64_t at = bucket(k);
        if (const OrderedRanges *t = sub(at)) return first_[at] + t->first_after(k);
        /* Ranges before first_[at] end in earlier buckets, the range
         * first_[at + 1] ends after k. */
        std::uint32_t i = first_[at], len = first_[at + 1] - first_[at];
        while (len > 0) {
            const std::uint32_t half = len / 2;
            const bool right = order(range_of(items_[i + half]).high, k) < 0;
            i += right ? half + 1 : 0;
            len = right ? len - half - 1 : half;
        }
        return i;
    }

    std::int64_t search(const B &k) const
    {
        const W w = wide(k);
        if (w < base_ || w > top_) return kMiss;
        const std::uint32_t i = first_after(k);
        return i < n_ && order(k, range_of(items_[i]).low) >= 0 ? 0 : kMiss;
    }

    const Item *items_ = nullptr; /* the list's own records */
    std::uint32_t n_ = 0;
    Array<std::uint32_t> first_;
    Array<std::uint8_t> place_;    /* by bucket: its table's place in its group of 64, plus one; 0: none */
    Array<std::uint32_t> rank_;    /* per 64 buckets: tables of the buckets before them */
    Array<OrderedRanges *> sub_;   /* the crowded buckets' tables, in bucket order */
    W base_ = 0, top_ = 0;
    unsigned shift_ = 0;
};

template <class B, class Item>
Accel *ordered_ranges(const Item *items, std::uint32_t n, Budget &b)
{
    return OrderedRanges<B, Item>::make(items, n, b);
}



} // namespace

Accel *index_ordered_ranges(const ip_rng_list_st &l, Budget &b)
{
    return ordered_ranges<std::uint32_t>(l.ip_ranges, l.nr_ip_ranges, b);
}
Accel *index_ordered_ranges(const port_rng_list_st &l, Budget &b)
{
    return ordered_ranges<std::uint16_t>(l.port_ranges, l.nr_port_ranges, b);
}
Accel *index_ordered_ranges(const ipv6_rng_list_st &l, Budget &b)
{
    return ordered_ranges<U128>(l.ipv6_ranges, l.nr_ipv6_ranges, b);
}
} // namespace taze::fast
