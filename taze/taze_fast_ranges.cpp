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

/* The high end of `to` becomes that of `from`: a range joined with the ranges
 * touching it. */
inline void take_high(ip_rng_st &to, const ip_rng_st &from) { to.ip_h = from.ip_h; }
inline void take_high(port_rng_st &to, const port_rng_st &from) { to.port_h = from.port_h; }
inline void take_high(ipv6_rng_st &to, const ipv6_rng_st &from) { to.ipv6_h = from.ipv6_h; }

/* Index of a range list whose ranges ascend without overlapping (each low <=
 * high < the next low). Over such a list the bisection's comparison is
 * monotone, so the bisection finds a range holding the key exactly when
 * there is one, and a range list search answers only whether it found one.
 * So ranges that touch (a high followed by the next low, as in country
 * tables where one country's block ends where the next begins) answer as
 * their union: where joining leaves far fewer ranges, the index keeps the
 * joined ones in a short array of its own. Port lists get one bit per port.
 *
 * The span from the first low to the last high is cut into equal buckets,
 * each knowing the first range ending in it or later, so the range that
 * can hold a key is among the few between the first ranges of its bucket
 * and of the next one; they are counted without a branch when they are
 * few, bisected otherwise. A bucket that holds many ranges (real address
 * plans cluster: most of a list can fall into a few buckets) gets a table
 * of its own over the span of its ranges' highs, and so on down, so the buckets follow
 * where the ranges are rather than the key span. All tables live in two
 * flat arrays: one cell per bucket (the first range's number, or the
 * bucket's table) and one record per table, so a level costs one cell.
 * Lists of any other shape keep the tree or the plain search. */
template <class B, class Item>
class OrderedRanges final : public KeyedAccel<OrderedRanges<B, Item>, B> {
    using W = Wide<B>;

public:
    static OrderedRanges *make(const Item *items, std::uint32_t n, Budget &b)
    {
        if (items == nullptr || n == 0 || n > 0x7FFFFFFFu) return nullptr;
        std::uint32_t joined = 1;
        for (std::uint32_t i = 0; i < n; ++i) {
            const RangeNode<B> r = range_of(items[i]);
            if (order(r.low, r.high) > 0 || (i > 0 && order(range_of(items[i - 1]).high, r.low) >= 0)) return nullptr;
            joined += i > 0 && touch(items[i - 1], items[i]) ? 0 : 1;
        }
        if (!b.take(n * sizeof(Item))) return nullptr;
        return filled<OrderedRanges>(items, n, joined - 1, b);
    }

    Shape shape() const override { return Shape::Buckets; }

private:
    friend KeyedAccel<OrderedRanges, B>;
    template <class T, class... A>
    friend T *::taze::fast::filled(A &&...args); /* runs fill() */
    static constexpr std::uint32_t kNestFrom = sizeof(Item) >= 32 ? 32 : 192; /* ranges in a bucket that get a table of their own */
    static constexpr unsigned kMaxLevels = 8;
    static constexpr std::uint32_t kTable = 0x80000000u; /* a cell naming its bucket's table */
    static constexpr std::uint32_t kCounted = 16;         /* ranges in a bucket counted, not bisected */
    /* Joined ranges are kept when they are at most this many bytes per range
     * of the list. */
    static constexpr std::uint64_t kJoinedBytes = 4;
    /* Wide ranges (IPv6) keep beside each range a 32-bit key of its high
     * inside its bucket: a leaf compares keys instead of reading ranges of
     * 32 bytes, and reads one range at the end. */
    static constexpr bool kKeyed = sizeof(Item) >= 32;
    /* Ports: the space holds 65,536 keys, so one bit per key (8 KiB, within
     * the fixed part every index may take) answers with one load. */
    static constexpr bool kBitmap = std::is_same_v<B, std::uint16_t>;

    /* One table: its span, its buckets' cells and its ranges. */
    struct Table {
        W base, top;
        std::uint32_t cells; /* its first cell */
        std::uint32_t first; /* its first range */
        std::uint32_t end;   /* one past its last range */
        unsigned shift;
    };

    static bool touch(const Item &a, const Item &b) { return wide(range_of(a).high) + 1 == wide(range_of(b).low); }

    bool fill(const Item *items, std::uint32_t n, std::uint32_t joined, Budget &b)
    {
        items_ = items;
        n_ = n;
        if (joined < n && std::uint64_t(joined) * sizeof(Item) <= kJoinedBytes * n) {
            if (!b.reserve(std::uint64_t(joined) * sizeof(Item)) || !joined_.allocate(joined)) return false;
            std::uint32_t j = 0;
            joined_[0] = items[0];
            for (std::uint32_t i = 1; i < n; ++i) {
                if (touch(items[i - 1], items[i]))
                    take_high(joined_[j], items[i]);
                else
                    joined_[++j] = items[i];
            }
            items_ = joined_.data();
            n_ = joined;
        }
        if constexpr (kBitmap) {
            if (!b.reserve(kPorts / 8) || !bits_.allocate(kPorts / 64)) return false;
            for (std::uint32_t i = 0; i < n_; ++i)
                for (std::uint32_t k = range_of(items_[i]).low; k <= range_of(items_[i]).high; ++k)
                    bits_[k / 64] |= std::uint64_t(1) << (k % 64);
            return true;
        }
        const std::uint64_t keys = kKeyed ? n_ : 0;
        if (!b.reserve(kIndexBase + keys * 4) || !keys_.allocate(keys)) return false;
        /* The arrays grow as the tables are laid out (doubling). */
        std::uint64_t tables = 0, cells = 0;
        if (!plan(0, n_, 0, tables, cells, b)) return false;
        tables_.shrink(tables);
        cells_.shrink(cells);
        return true;
    }

    /* Room for `need` records in a, under the budget. */
    template <class T>
    static bool room(Array<T> &a, std::uint64_t need, Budget &b)
    {
        if (need <= a.size()) return true;
        const std::uint64_t size = std::max<std::uint64_t>(need, 2 * a.size());
        return size < kTable && b.reserve((size - a.size()) * sizeof(T)) && a.grow(size);
    }

    /* Lays out the table of ranges [first, end) as table number `tables`
     * from cell `cells` on and, for its crowded buckets, tables of their own
     * while levels last; false when memory runs short. */
    bool plan(std::uint32_t first, std::uint32_t end, unsigned level, std::uint64_t &tables, std::uint64_t &cells,
              Budget &b)
    {
        const std::uint32_t n = end - first;
        /* About n/4 buckets at the top, n/8 in nested tables (whose ranges
         * cluster less, having been spread once). */
        std::uint32_t bits = 1;
        while (bits < 20 && (std::uint64_t(level == 0 ? 4 : 8) << bits) <= n) ++bits;
        const std::uint64_t buckets = std::uint64_t(1) << bits;
        /* The top table spans the list, from its first low to its last
         * high; a nested table only the highs of its ranges, not its
         * parent's bucket: a key before them is before all its ranges, a
         * key after them after (clustered addresses: the buckets cut the
         * cluster, not the space around it). */
        const W base = wide(level == 0 ? range_of(items_[first]).low : range_of(items_[first]).high);
        const W top = wide(range_of(items_[end - 1]).high);
        unsigned shift = 0;
        while (shift < 8 * sizeof(W) - 1 && ((top - base) >> shift) >= buckets) ++shift;
        const std::uint64_t self = tables++, at = cells;
        cells += buckets + 1;
        if (!room(tables_, tables, b) || !room(cells_, cells, b)) return false;
        tables_[self] = {base, top, std::uint32_t(at), first, end, shift};
        /* first[k]: the first range ending in bucket k or later. */
        std::uint32_t i = first, before = first;
        for (std::uint64_t k = 0; k <= buckets; ++k) {
            while (i < end && std::uint64_t((wide(range_of(items_[i]).high) - base) >> shift) < k) ++i;
            if (k > 0) {
                const std::uint32_t len = i - before;
                if (len >= kNestFrom && level + 1 < kMaxLevels && shift != 0) {
                    cells_[at + k - 1] = kTable | std::uint32_t(tables);
                    if (!plan(before, i, level + 1, tables, cells, b)) return false;
                } else {
                    cells_[at + k - 1] = before;
                    if constexpr (kKeyed)
                        for (std::uint32_t j = before; j < i; ++j)
                            keys_[j] = key_in(wide(range_of(items_[j]).high), base + (W(k - 1) << shift), shift);
                }
            }
            before = i;
        }
        cells_[at + buckets] = end;
        return true;
    }

    /* The first range ending at or after k, or n_. */
    std::uint32_t first_after(const B &k) const
    {
        const W w = wide(k);
        const Table *t = &tables_[0];
        for (;;) {
            /* A narrowed table sees keys on either side of its span: all
             * its ranges end inside it. */
            if (w < t->base) return t->first;
            if (w > t->top) return t->end;
            const std::uint32_t *cell = &cells_[t->cells + std::size_t((w - t->base) >> t->shift)];
            if (cell[0] & kTable) {
                t = &tables_[cell[0] & ~kTable];
                continue;
            }
            /* Ranges before cell[0] end in earlier buckets; the first range
             * of the next bucket (or of its table) ends after k. */
            const std::uint32_t i = cell[0];
            const std::uint32_t next = cell[1] & kTable ? tables_[cell[1] & ~kTable].first : cell[1];
            if constexpr (kKeyed) {
                prefetch(&items_[i]); /* the range read last is mostly the bucket's first: its load overlaps the keys' */
                /* Ranges whose keys are below the key's end before it; when
                 * the next one's key equals it (keys cut short), the ranges
                 * from there decide. */
                const W at = (w - t->base) >> t->shift;
                const std::uint32_t kt = key_in(w, t->base + (at << t->shift), t->shift);
                const std::uint32_t j = i + below(next - i, [&](std::uint32_t m) { return keys_[i + m] < kt; });
                return j == next || keys_[j] != kt ? j : j + ends_before(j, next - j, k);
            } else {
                return i + ends_before(i, next - i, k);
            }
        }
    }

    /* How many of len ascending items are below the key, is_below(m)
     * telling for item m. A few are counted without a branch; more are
     * sampled first, every step-th of them, and the count goes on in the
     * step the key falls in: the loads of one round do not wait on each
     * other, as a bisection's do. */
    template <class IsBelow>
    static std::uint32_t below(std::uint32_t len, IsBelow &&is_below)
    {
        std::uint32_t i = 0;
        while (len > kCounted) {
            const std::uint32_t step = (len + kCounted - 1) / kCounted, samples = len / step;
            std::uint32_t c = 0;
            for (std::uint32_t m = 1; m <= samples; ++m) c += is_below(i + m * step - 1) ? 1 : 0;
            i += c * step;
            len = c == samples ? len - c * step : step - 1;
        }
        for (std::uint32_t j = 0; j < len; ++j) i += is_below(i) ? 1 : 0;
        return i;
    }
    /* The key of a high w in the bucket starting at lo of a table cut at
     * shift: its offset there, cut to 32 bits (ascending with w). */
    static std::uint32_t key_in(W w, W lo, unsigned shift)
    {
        return static_cast<std::uint32_t>((w - lo) >> (shift > 32 ? shift - 32 : 0));
    }
    /* How many of the len ranges from i end before k: counted when they
     * are few, else bisected. */
    std::uint32_t ends_before(std::uint32_t i, std::uint32_t len, const B &k) const
    {
        const std::uint32_t from = i;
        while (len > kCounted) {
            const std::uint32_t half = len / 2;
            const bool right = order(range_of(items_[i + half]).high, k) < 0;
            i += right ? half + 1 : 0;
            len = right ? len - half - 1 : half;
        }
        for (std::uint32_t j = 0; j < len; ++j) i += order(range_of(items_[i]).high, k) < 0 ? 1 : 0;
        return i - from;
    }

    std::int64_t search(const B &k) const
    {
        if constexpr (kBitmap) return bits_[k / 64] >> (k % 64) & 1 ? 0 : kMiss;
        const W w = wide(k);
        if (w < tables_[0].base || w > tables_[0].top) return kMiss;
        const std::uint32_t i = first_after(k);
        return i < n_ && order(k, range_of(items_[i]).low) >= 0 ? 0 : kMiss;
    }

    const Item *items_ = nullptr; /* the list's own records, or joined_ */
    std::uint32_t n_ = 0;
    Array<Item> joined_;
    Array<Table> tables_; /* the top table first */
    Array<std::uint32_t> cells_;
    Array<std::uint32_t> keys_; /* by range, when kKeyed */
    static constexpr std::uint32_t kPorts = 65536;
    Array<std::uint64_t> bits_; /* by key, when kBitmap */
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
