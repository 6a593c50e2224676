// Load-time search indexes of a pattern image (see taze_fast.h).
//
// Five index shapes, each answering exactly what the plain search of its
// list answers:
//
// HashIndex   exact lists in comparator order with unique entries.
// OrderedRanges  range lists ascending without overlap: bucket tables.
// HeadGroups  prefix and suffix lists whose entries' heads never decrease.
// Tree<Node>  the bisection's decision tree in breadth-first order: slot k
//             holds the entry the bisection probes at that point, its
//             children are slots 2k (the key ordered before it) and 2k+1.
//             Every level but the last is full, so the tree takes fewer than
//             2n slots; empty slots of the last level end a search.
// SubstrIndex anchor filter and verification for the stored-order scans.
//
// Everything is allocated with malloc and freed with free; allocation
// failures leave a list without index instead of failing the load.
#include "taze_fast.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>
#include <type_traits>

#include "bisect.h"
#include "taze_impl.h"
#include "tazapi.h"

namespace taze::fast {

namespace {

using Pattern = taz_pattern_st;
constexpr std::uint32_t kEmpty = 0xFFFFFFFFu;
/* Longest text key the string trees prepare; longer keys search plainly. */
constexpr std::size_t kMaxKey = 2048;
/* Common prefix lengths are kept in 16 bits; this one means "not known". */
constexpr std::uint32_t kLcpUnknown = 0xFFFF;

// ---- Memory -------------------------------------------------------------------

/* A zeroed, 64-byte aligned array of trivially copyable records. */
template <class T>
class Array {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    Array() = default;
    Array(const Array &) = delete;
    Array &operator=(const Array &) = delete;
    ~Array() { std::free(p_); }

    bool allocate(std::size_t n)
    {
        std::free(p_);
        p_ = nullptr;
        n_ = 0;
        if (n == 0) return true;
        if (n > (SIZE_MAX - 64) / sizeof(T)) return false;
        const std::size_t bytes = (n * sizeof(T) + 63) / 64 * 64;
        void *m = std::aligned_alloc(64, bytes);
        if (m == nullptr) return false;
        taz_prefault(m, bytes);
        std::memset(m, 0, bytes);
        p_ = static_cast<T *>(m);
        n_ = n;
        return true;
    }
    /* Keeps the first n records (n no larger than the size). */
    void shrink(std::size_t n) { n_ = std::min(n, n_); }
    std::size_t size() const { return n_; }
    T *data() { return p_; }
    const T *data() const { return p_; }
    T &operator[](std::size_t i) { return p_[i]; }
    const T &operator[](std::size_t i) const { return p_[i]; }

private:
    T *p_ = nullptr;
    std::size_t n_ = 0;
};

/* Work allowed for building one image's indexes, in bytes touched, and
 * memory, in bytes reserved before each index is allocated. Both are
 * proportional to the payload, so that a small hostile file (one whose lists
 * overlap, say) can neither make building slow nor make it allocate much. */
struct Budget {
    std::uint64_t left;
    std::uint64_t memory;
    bool take(std::uint64_t n)
    {
        if (n > left) {
            left = 0;
            return false;
        }
        left -= n;
        return true;
    }
    bool reserve(std::uint64_t bytes)
    {
        if (bytes > memory) return false;
        memory -= bytes;
        return true;
    }
};

/* Bytes reserved for the fixed parts of one index. */
constexpr std::uint64_t kIndexBase = 8192;

inline void prefetch(const void *p) { __builtin_prefetch(p); }

// ---- Folding and words -------------------------------------------------------------

using ByteMap = std::array<unsigned char, 256>;
constexpr ByteMap make_map(bool fold)
{
    ByteMap m{};
    for (unsigned c = 0; c < 256; ++c) m[c] = static_cast<unsigned char>(fold && c - 'A' < 26u ? c | 0x20u : c);
    return m;
}
constexpr ByteMap kFolded = make_map(true);
constexpr ByteMap kIdentity = make_map(false);
static_assert(kFolded['Q'] == 'q' && kFolded['@'] == '@' && kFolded['['] == '[' && kFolded[0xD6] == 0xD6);
const ByteMap &byte_map(bool fold) { return fold ? kFolded : kIdentity; }

inline std::uint64_t load_be64(const unsigned char *p)
{
    std::uint64_t v;
    std::memcpy(&v, p, 8);
    return __builtin_bswap64(v);
}

inline std::uint64_t mix(std::uint64_t h)
{
    h ^= h >> 32;
    h *= 0xD6E8FEB86659FD93ull;
    h ^= h >> 32;
    return h;
}

/* ASCII folding of eight bytes at once. */
inline std::uint64_t fold_word(std::uint64_t x)
{
    constexpr std::uint64_t ones = 0x0101010101010101ull, high = 0x8080808080808080ull;
    const std::uint64_t low7 = x & ~high;
    const std::uint64_t ge_a = low7 + ones * (0x80 - 'A');
    const std::uint64_t gt_z = low7 + ones * (0x80 - 'Z' - 1);
    const std::uint64_t upper = ge_a & ~gt_z & ~x & high;
    return x | (upper >> 2);
}

/* Hash of n bytes (folded or not). */
std::uint64_t hash_bytes(const unsigned char *p, std::size_t n, bool fold)
{
    std::uint64_t h = 0x9E3779B97F4A7C15ull ^ n;
    std::size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        std::uint64_t w;
        std::memcpy(&w, p + i, 8);
        h = mix(h ^ (fold ? fold_word(w) : w)) + i;
    }
    if (i < n) {
        std::uint64_t w = 0;
        std::memcpy(&w, p + i, n - i);
        h = mix(h ^ (fold ? fold_word(w) : w)) + i;
    }
    return mix(h);
}

// ---- Entries -------------------------------------------------------------------------

/* The texts of a list: base, stride and count over records that hold a
 * counted_string_t at offset 0. */
struct Texts {
    const unsigned char *base;
    std::size_t stride;
    std::uint32_t count;
    const counted_string_t &at(std::size_t i) const
    {
        return *reinterpret_cast<const counted_string_t *>(base + i * stride);
    }
};
template <class E>
Texts texts_of(const E *items, std::uint32_t count)
{
    static_assert(std::is_standard_layout_v<E>);
    return {reinterpret_cast<const unsigned char *>(items), sizeof(E), items ? count : 0};
}

/* Where a stored text may be read: the image's padded payload copy. */
struct Payload {
    const unsigned char *begin;
    const unsigned char *end; /* one past the padding */
    bool holds(const counted_string_t &s) const
    {
        return s.ptr != nullptr && s.ptr >= begin && s.ptr <= end && std::uint64_t(s.len) <= std::uint64_t(end - s.ptr);
    }
    /* Length of the NUL-terminated view at p, or -1 if none ends inside. */
    std::int64_t view(const unsigned char *p) const
    {
        const void *nul = std::memchr(p, 0, std::size_t(end - p));
        return nul ? static_cast<const unsigned char *>(nul) - p : -1;
    }
};

} // namespace

// ---- Index kinds --------------------------------------------------------------------

enum class Match : unsigned char { Exact, Prefix, Suffix, Substr };
/* How a map type selects the rule of a key search. */
enum class Selection : unsigned char { Any, OneSided, Pair };

/* The index of one list. */
struct Accel {
    Selection selection = Selection::Any;
    Match rule = Match::Exact;
    virtual ~Accel() = default;
    virtual std::int64_t find(const unsigned char *) const { return kPlain; }
    virtual std::int64_t find(std::uint32_t) const { return kPlain; }
    /* Some entry the key matches (not necessarily the plain search's), for
     * searches that answer only whether one matches. */
    virtual std::int64_t find_some(const unsigned char *key) const { return find(key); }
    virtual Shape shape() const = 0;
};

namespace {

// ---- Exact text: hash table ----------------------------------------------------------

/* Slot of a hash in an open-addressing table of `size` slots (any size),
 * from the hash's low 32 bits; its high bits serve as the slot's tag. */
inline std::size_t slot_in(std::uint64_t h, std::size_t size)
{
    return std::size_t((unsigned __int128)(h >> 32 | h << 32) * size >> 64);
}
/* The slot after i in a linear probe. */
inline std::size_t next_slot(std::size_t i, std::size_t size) { return i + 1 == size ? 0 : i + 1; }

/* Fills an open-addressing table in blocks: a block's home slots are
 * prefetched as its records arrive and written when it is full, so that
 * their cache misses overlap. Slot::free() tells a free slot. */
template <class Slot>
class BlockInserter {
public:
    explicit BlockInserter(Array<Slot> &table) : table_(table) {}
    void add(std::uint64_t h, const Slot &s)
    {
        hashes_[used_] = h;
        block_[used_++] = s;
        prefetch(&table_[slot_in(h, table_.size())]);
        if (used_ == kBlock) flush();
    }
    void flush()
    {
        for (std::uint32_t j = 0; j < used_; ++j) {
            std::size_t at = slot_in(hashes_[j], table_.size());
            while (!table_[at].free()) at = next_slot(at, table_.size());
            table_[at] = block_[j];
        }
        used_ = 0;
    }

private:
    static constexpr std::uint32_t kBlock = 32;
    Array<Slot> &table_;
    Slot block_[kBlock];
    std::uint64_t hashes_[kBlock];
    std::uint32_t used_ = 0;
};

/* A new T filled by T::fill(args...), or null (no memory, or fill refused). */
template <class T, class... A>
T *filled(A &&...args)
{
    auto *x = new (std::nothrow) T;
    if (x != nullptr && !x->fill(std::forward<A>(args)...)) {
        delete x;
        x = nullptr;
    }
    return x;
}


class HashIndex final : public Accel {
public:
    template <class T, class... A>
    friend T *filled(A &&...args); /* runs fill() */

    /* Null when the list is not in strict comparator order or cannot be
     * indexed; the caller then tries the tree. */
    static HashIndex *make(const Texts &t, bool fold, const Payload &pl, Budget &b)
    {
        return filled<HashIndex>(t, fold, pl, b);
    }

    std::int64_t find(const unsigned char *key) const override
    {
        if (key == nullptr) return kPlain;
        const std::size_t klen = std::strlen(reinterpret_cast<const char *>(key));
        const std::uint64_t h = hash_bytes(key, klen, fold_);
        const std::uint32_t tag = std::uint32_t(h >> 32);
        std::size_t i = slot_of(h);
        for (;;) {
            const Slot &s = slots_[i];
            if (s.idx == kEmpty) return kMiss;
            if (s.tag == tag && same(key, klen, s)) return s.idx;
            i = next_slot(i, slots_.size());
        }
    }

private:
    struct Slot {
        std::uint32_t idx; /* entry number, kEmpty for a free slot */
        std::uint32_t tag; /* high bits of the hash */
        std::uint32_t off; /* the entry's text, from the payload start */
        bool free() const { return idx == kEmpty; }
    };
    static_assert(sizeof(Slot) == 12, "three words a slot");

    std::size_t slot_of(std::uint64_t h) const { return slot_in(h, slots_.size()); }
    Shape shape() const override { return Shape::Hash; }

    /* The entry's NUL-terminated view equals the key: the bytes agree and
     * the view ends where the key does (the key holds no NUL, so the
     * comparison stops at the view's end at the latest). */
    bool same(const unsigned char *key, std::size_t klen, const Slot &s) const
    {
        const unsigned char *p = base_ + s.off;
        const ByteMap &m = byte_map(fold_);
        for (std::size_t j = 0; j < klen; ++j)
            if (m[key[j]] != m[p[j]]) return false;
        return p[klen] == 0;
    }

    bool fill(const Texts &t, bool fold, const Payload &pl, Budget &b)
    {
        fold_ = fold;
        base_ = pl.begin;
        const std::uint32_t n = t.count;
        if (std::uint64_t(pl.end - pl.begin) > 0xFFFFFFFFull) return false;
        if (!slots_.allocate(std::size_t(n) + n / 2 + 1)) return false;
        for (std::size_t i = 0; i < slots_.size(); ++i) slots_[i].idx = kEmpty;
        const Comparator cmp = fold ? str_compare : str_case_compare;
        BlockInserter<Slot> table(slots_);
        for (std::uint32_t i = 0; i < n; ++i) {
            const counted_string_t &s = t.at(i);
            if (!pl.holds(s)) return false;
            const std::int64_t len = pl.view(s.ptr);
            if (len < 0 || !b.take(2 * std::uint64_t(len) + 16)) return false;
            /* Strictly ascending: the bisection meets the one equal entry. */
            if (i > 0 && cmp(&t.at(i - 1), &s) >= 0) return false;
            const std::uint64_t h = hash_bytes(s.ptr, std::size_t(len), fold);
            table.add(h, {i, std::uint32_t(h >> 32), std::uint32_t(s.ptr - pl.begin)});
        }
        table.flush();
        return true;
    }

    Array<Slot> slots_;
    const unsigned char *base_ = nullptr;
    bool fold_ = true;
};

// ---- The bisection tree --------------------------------------------------------------

/* Depth of the bisection's decision tree over n entries. */
unsigned depth_of(std::uint64_t n) { return n == 0 ? 0 : 64u - unsigned(__builtin_clzll(n)); }

/* Breadth-first slots of the decision tree; Node::empty() marks the free
 * slots of the last level. Fill(node, entry, lower bound, upper bound) sets
 * a node (bounds -1 when absent) and answers false to give up. */
template <class Node>
struct Tree {
    Array<Node> nodes;

    /* Prefetches the descendants of slot k four levels down (sixteen
     * consecutive slots), so their lines arrive while the levels in between
     * are decided. */
    void ahead(std::size_t k) const
    {
        const std::size_t first = k << 4;
        if (first >= nodes.size()) return;
        const char *p = reinterpret_cast<const char *>(&nodes[first]);
        for (std::size_t off = 0; off < 16 * sizeof(Node); off += 64) prefetch(p + off);
    }

    template <class Fill>
    bool build(std::uint32_t n, Fill &&fill)
    {
        if (n > 0x7FFFFFFFu || !nodes.allocate(std::size_t(1) << depth_of(n))) return false;
        for (std::size_t k = 0; k < nodes.size(); ++k) Node::clear(nodes[k]);
        return n == 0 || place(0, n, 1, -1, -1, fill);
    }

    template <class Fill>
    bool place(std::uint32_t lo, std::uint32_t hi, std::size_t slot, std::int64_t below, std::int64_t above, Fill &fill)
    {
        if (lo >= hi) return true;
        const std::uint32_t mid = lo + (hi - lo) / 2;
        return fill(nodes[slot], mid, below, above) && place(lo, mid, 2 * slot, below, mid, fill) &&
               place(mid + 1, hi, 2 * slot + 1, mid, above, fill);
    }

    /* Descends the whole depth without a data-dependent branch: the
     * bisection stops at its first hit and the path up to it is the same,
     * so the first hit on the path is its answer. decide() must answer
     * nonzero on a free slot (which only the last level has). */
    template <class Decide>
    std::int64_t descend(Decide &&decide) const
    {
        const std::size_t size = nodes.size();
        std::size_t k = 1;
        std::int64_t hit = kMiss;
        while (k < size) {
            ahead(k);
            const Node &nd = nodes[k];
            const int c = decide(nd);
            hit = (hit == kMiss && c == 0) ? nd.hit() : hit;
            k = 2 * k + (c > 0 ? 1 : 0);
        }
        return hit;
    }

    /* Descends as the bisection does; decide(node) answers the comparison
     * of the key with the node's entry. */
    template <class Decide>
    std::int64_t search(Decide &&decide) const
    {
        const std::size_t size = nodes.size();
        std::size_t k = 1;
        while (k < size) {
            const Node &nd = nodes[k];
            if (nd.empty()) return kMiss;
            ahead(k);
            const int c = decide(nd);
            if (c == 0) return nd.hit();
            k = 2 * k + (c > 0 ? 1 : 0);
        }
        return kMiss;
    }
};

// ---- Ranges and fixed-size keys ---------------------------------------------------------

int order(std::uint64_t a, std::uint64_t b) { return (a > b) - (a < b); }
/* 16 address bytes as two big-endian halves, compared like memcmp. */
struct U128 {
    std::uint64_t hi, lo;
    static U128 of(const unsigned char *b) { return {load_be64(b), load_be64(b + 8)}; }
};
int order(const U128 &a, const U128 &b) { return a.hi != b.hi ? order(a.hi, b.hi) : order(a.lo, b.lo); }

/* A range node; a free slot holds low 1, high 0, which no key is inside. */
template <class B>
struct RangeNode {
    B low, high;
    static void clear(RangeNode &n) { n = {one(), B{}}; }
    static B one()
    {
        if constexpr (std::is_same_v<B, U128>)
            return {0, 1};
        else
            return 1;
    }
    bool empty() const { return false; }
    std::int64_t hit() const { return 0; }
    template <class K>
    int decide(const K &key) const
    {
        if (order(key, high) > 0) return 1;
        return order(key, low) < 0 ? -1 : 0;
    }
};

/* A map key node: the key and the entry number. */
template <class K>
struct KeyNode {
    K key;
    std::uint32_t idx;
    static void clear(KeyNode &n) { n = {K{}, kEmpty}; }
    bool empty() const { return idx == kEmpty; }
    std::int64_t hit() const { return idx; }
    int decide(const K &k) const
    {
        int c;
        if constexpr (std::is_same_v<K, std::uint32_t>)
            c = static_cast<std::int32_t>(k - key); /* the 32-bit difference, as signed */
        else
            c = order(k, key);
        return idx == kEmpty ? 1 : c; /* a free slot matches nothing */
    }
};

/* An index searched by a number or by 16 address bytes: Derived::search(Key)
 * answers both kinds of key, whichever Key is. */
template <class Derived, class Key>
struct KeyedAccel : Accel {
    std::int64_t find(std::uint32_t key) const override
    {
        if constexpr (std::is_same_v<Key, U128>)
            return kPlain;
        else
            return self().search(Key(key));
    }
    std::int64_t find(const unsigned char *key) const override
    {
        if constexpr (std::is_same_v<Key, U128>)
            return key ? self().search(U128::of(key)) : kPlain;
        else
            return kPlain;
    }

private:
    const Derived &self() const { return static_cast<const Derived &>(*this); }
};

/* Index of a range list or of fixed-size map keys. `Key` is what a search
 * key becomes: a number, or the 16 address bytes. */
template <class Node, class Key>
class FixedIndex final : public KeyedAccel<FixedIndex<Node, Key>, Key> {
public:
    static constexpr std::uint64_t kNodeBytes = sizeof(Node);

    template <class Items, class ToNode>
    static FixedIndex *make(const Items *items, std::uint32_t n, ToNode to_node, Budget &b)
    {
        auto *x = new (std::nothrow) FixedIndex;
        const bool ok = x != nullptr && items != nullptr && b.take(2 * sizeof(Node) * std::uint64_t(n)) &&
                        x->tree_.build(n, [&](Node &nd, std::uint32_t i, std::int64_t, std::int64_t) {
                            nd = to_node(items[i], i);
                            return true;
                        });
        if (!ok) {
            delete x;
            x = nullptr;
        }
        return x;
    }

    Shape shape() const override { return Shape::Tree; }

private:
    friend KeyedAccel<FixedIndex, Key>;
    std::int64_t search(const Key &k) const
    {
        return tree_.descend([&](const Node &nd) { return nd.decide(k); });
    }
    Tree<Node> tree_;
};

using Ipv4Ranges = FixedIndex<RangeNode<std::uint32_t>, std::uint32_t>;
using PortRanges = FixedIndex<RangeNode<std::uint16_t>, std::uint16_t>;
using Ipv6Ranges = FixedIndex<RangeNode<U128>, U128>;
using IntKeys = FixedIndex<KeyNode<std::uint32_t>, std::uint32_t>;
using Ipv6Keys = FixedIndex<KeyNode<U128>, U128>;

/* A stored range as the indexes keep it. */
RangeNode<std::uint32_t> range_of(const ip_rng_st &r) { return {r.ip_l, r.ip_h}; }
RangeNode<std::uint16_t> range_of(const port_rng_st &r) { return {r.port_l, r.port_h}; }
RangeNode<U128> range_of(const ipv6_rng_st &r) { return {U128::of(r.ipv6_l.bytes), U128::of(r.ipv6_h.bytes)}; }

template <class Index, class Item>
Index *range_tree(const Item *items, std::uint32_t n, Budget &b)
{
    return Index::make(items, n, [](const Item &r, std::uint32_t) { return range_of(r); }, b);
}
Ipv4Ranges *index_ranges(const ip_rng_list_st &l, Budget &b) { return range_tree<Ipv4Ranges>(l.ip_ranges, l.nr_ip_ranges, b); }
PortRanges *index_ranges(const port_rng_list_st &l, Budget &b)
{
    return range_tree<PortRanges>(l.port_ranges, l.nr_port_ranges, b);
}
Ipv6Ranges *index_ranges(const ipv6_rng_list_st &l, Budget &b)
{
    return range_tree<Ipv6Ranges>(l.ipv6_ranges, l.nr_ipv6_ranges, b);
}

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
 * the few between the first ranges of its bucket and of the next one.
 * Lists of any other shape keep the tree or the plain search. */
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
        std::uint32_t bits = 1;
        while (bits < 20 && (std::uint64_t(4) << bits) <= n) ++bits;
        const std::uint64_t buckets = std::uint64_t(1) << bits;
        if (!b.reserve(kIndexBase + (buckets + 1) * 4) || !b.take(n * sizeof(Item))) return nullptr;
        auto *x = new (std::nothrow) OrderedRanges;
        if (x == nullptr || !x->first_.allocate(buckets + 1)) {
            delete x;
            return nullptr;
        }
        x->items_ = items;
        x->n_ = n;
        x->base_ = wide(range_of(items[0]).low);
        x->top_ = wide(range_of(items[n - 1]).high);
        const W span = x->top_ - x->base_;
        while ((span >> x->shift_) >= buckets) ++x->shift_;
        std::uint32_t i = 0;
        for (std::uint64_t k = 0; k <= buckets; ++k) {
            while (i < n && x->bucket(range_of(items[i]).high) < k) ++i;
            x->first_[k] = i;
        }
        return x;
    }

    Shape shape() const override { return Shape::Buckets; }

private:
    friend KeyedAccel<OrderedRanges, B>;
    std::uint64_t bucket(const B &k) const { return static_cast<std::uint64_t>((wide(k) - base_) >> shift_); }

    std::int64_t search(const B &k) const
    {
        const W w = wide(k);
        if (w < base_ || w > top_) return kMiss;
        const std::uint64_t at = bucket(k);
        /* The first range ending at or after k: ranges before first_[at]
         * end in earlier buckets, the range first_[at + 1] ends after k. */
        std::uint32_t i = first_[at], len = first_[at + 1] - first_[at];
        while (len > 0) {
            const std::uint32_t half = len / 2;
            const bool right = order(range_of(items_[i + half]).high, k) < 0;
            i += right ? half + 1 : 0;
            len = right ? len - half - 1 : half;
        }
        return i < n_ && order(k, range_of(items_[i]).low) >= 0 ? 0 : kMiss;
    }

    const Item *items_ = nullptr; /* the list's own records */
    std::uint32_t n_ = 0;
    Array<std::uint32_t> first_;
    W base_ = 0, top_ = 0;
    unsigned shift_ = 0;
};

template <class B, class Item>
Accel *ordered_ranges(const Item *items, std::uint32_t n, Budget &b)
{
    return OrderedRanges<B, Item>::make(items, n, b);
}

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

template <class List>
IntKeys *index_int_keys(const List &l, Budget &b)
{
    using R = list_traits<List>;
    return IntKeys::make(l.*R::items, l.*R::count, [](const auto &e, std::uint32_t i) {
        return KeyNode<std::uint32_t>{e.key, i};
    }, b);
}
Ipv6Keys *index_ipv6_keys(const ipv6imap_list_st &l, Budget &b)
{
    return Ipv6Keys::make(l.ipv6_int_maps, l.nr_ipv6_int_maps, [](const ipv6imap_st &e, std::uint32_t i) {
        return KeyNode<U128>{U128::of(e.ipv6.bytes), i};
    }, b);
}

// ---- Text trees: exact, prefix and suffix comparisons ------------------------------------
//
// Each of the three comparators compares the key K, read with a 0 after its
// last byte, with a fixed byte string P of the entry (m bytes): the result
// is the sign of the first difference at a position below min(m, klen + 1),
// else 0. K and P are read forwards, or both backwards for suffixes:
//   exact   P = the folded NUL-terminated view and its NUL, m = view + 1;
//   prefix  P = the entry's first len bytes, cut after a NUL among them;
//   suffix  P = the entry read from its last byte, m = len.
// A search knows how many leading bytes K shares with the entries bounding
// the node (the agreement with the last entry it went right of, and with
// the last it went left of); each node knows its common prefix length with
// those two entries. That alone decides most comparisons; the rest start
// where the shared part ends, first from a few bytes kept in the node.

/* Relation stored per bound: what K compares as when it agrees with the
 * bound beyond the node's common prefix with it. */
enum Rel : unsigned { kRelZero = 0, kRelBelow = 1, kRelAbove = 2 };
int rel_value(unsigned r) { return r == kRelBelow ? -1 : r == kRelAbove ? 1 : 0; }

struct TextNode {
    std::uint64_t win;     /* bits 63..8: up to 7 bytes of P from max(lcp); bits 7..0: meta */
    std::uint32_t idx;     /* entry number, kEmpty for a free slot */
    std::uint16_t lcp[2];  /* common prefix with the lower and the upper bound */

    /* meta: bits 0-2 window length, bit 3 P goes on past the window,
     * bits 4-5 and 6-7 the Rel of the lower and of the upper bound. */
    unsigned winlen() const { return unsigned(win & 7); }
    bool more() const { return (win & 8) != 0; }
    unsigned rel(int side) const { return unsigned(win >> (4 + 2 * side)) & 3; }
    static void clear(TextNode &n) { n = {0, kEmpty, {0, 0}}; }
    bool empty() const { return idx == kEmpty; }
    std::int64_t hit() const { return idx; }
};
static_assert(sizeof(TextNode) == 16, "four nodes per cache line");

/* The compared string P of one entry. */
struct Text {
    const unsigned char *ptr;
    std::uint32_t len;
    std::uint64_t m;
    bool backward;
    unsigned char at(std::uint64_t j, const ByteMap &f) const { return f[backward ? ptr[len - 1 - j] : ptr[j]]; }
};

/* The search key, prepared: K[j] for j <= klen, zero beyond. */
struct TextKey {
    std::size_t klen;
    unsigned char k[kMaxKey + 16];
};

class TextTree final : public Accel {
public:
    template <class T, class... A>
    friend T *filled(A &&...args); /* runs fill() */

    static TextTree *make(const Texts &t, Match match, bool fold, const Payload &pl, Budget &b)
    {
        return filled<TextTree>(t, match, fold, pl, b);
    }

    std::int64_t find(const unsigned char *key) const override
    {
        if (key == nullptr) return kPlain;
        TextKey K;
        K.klen = strnlen(reinterpret_cast<const char *>(key), kMaxKey + 1);
        if (K.klen > kMaxKey) return kPlain;
        const ByteMap &f = byte_map(fold_);
        for (std::size_t j = 0; j < K.klen; ++j) K.k[j] = f[key[match_ == Match::Suffix ? K.klen - 1 - j : j]];
        std::memset(K.k + K.klen, 0, 16);
        std::uint64_t agree[2] = {0, 0};
        return tree_.search([&](const TextNode &nd) { return decide(nd, K, agree); });
    }
    Shape shape() const override { return Shape::Tree; }

private:
    /* Compares K with the node's P and updates the agreement with the bound
     * that P becomes. */
    int decide(const TextNode &nd, const TextKey &K, std::uint64_t agree[2]) const
    {
        std::uint64_t at = 0;
        int c;
        if (nd.lcp[0] == kLcpUnknown || nd.lcp[1] == kLcpUnknown) {
            c = direct(nd, K, 0, at);
        } else {
            /* The bound K agrees with longer: the lower one (K above it) or
             * the upper one (K below it). */
            const int side = agree[0] != agree[1] ? (agree[0] > agree[1] ? 0 : 1) : (nd.lcp[0] != agree[0] ? 0 : 1);
            const std::uint64_t a = agree[side];
            const std::uint64_t l = nd.lcp[side];
            if (l > a) {
                c = side == 0 ? 1 : -1; /* P agrees with the bound where K leaves it */
                at = a;
            } else if (l < a) {
                c = rel_value(nd.rel(side)); /* K agrees with the bound where P leaves it */
                at = l;
            } else {
                c = direct(nd, K, a, at);
            }
        }
        if (c != 0) agree[c > 0 ? 0 : 1] = at;
        return c;
    }

    /* Compares from position a, where K and P are known to agree so far. */
    int direct(const TextNode &nd, const TextKey &K, std::uint64_t a, std::uint64_t &at) const
    {
        const std::uint64_t w = std::max(nd.lcp[0], nd.lcp[1]);
        if (a == w && nd.lcp[0] != kLcpUnknown && nd.lcp[1] != kLcpUnknown) {
            const std::uint64_t left = K.klen + 1 - a; /* positions of K still compared */
            const unsigned n = unsigned(std::min<std::uint64_t>(nd.winlen(), left));
            const std::uint64_t mask = n == 0 ? 0 : ~0ull << (64 - 8 * n);
            const std::uint64_t x = load_be64(K.k + a) & mask;
            const std::uint64_t y = nd.win & mask;
            if (x != y) {
                at = a + unsigned(__builtin_clzll(x ^ y)) / 8;
                return x > y ? 1 : -1;
            }
            if (!(n == nd.winlen() && nd.more() && a + n <= K.klen)) {
                at = a + n;
                return 0;
            }
            a += n;
        }
        return slow(text(nd.idx), K, a, at);
    }

    /* Byte by byte from position s of the entry's own text. */
    int slow(const Text &p, const TextKey &K, std::uint64_t s, std::uint64_t &at) const
    {
        const ByteMap &f = byte_map(fold_);
        for (std::uint64_t j = s;; ++j) {
            at = j;
            if (j >= p.m) return 0;
            const unsigned kc = K.k[j];
            const unsigned pc = p.at(j, f);
            if (kc != pc) return kc > pc ? 1 : -1;
            if (kc == 0) return 0;
        }
    }

    /* An entry's P. Searches bound it by its length alone (exact texts by
     * nothing): the byte loop stops at a NUL of P as the comparators do. */
    Text text(std::uint32_t i) const
    {
        const counted_string_t &s = texts_.at(i);
        return {s.ptr, s.len, match_ == Match::Exact ? ~std::uint64_t(0) : s.len, match_ == Match::Suffix};
    }
    /* The same with m, for building. */
    Text measured(std::uint32_t i) const
    {
        Text t = text(i);
        t.m = ms_[i];
        return t;
    }

    /* Common prefix of two entries' P (at most kLcpUnknown - 1, else
     * unknown) and the Rel of `bound` towards `p` there. */
    static std::uint32_t lcp(const Text &p, const Text &bound, const ByteMap &f, unsigned &rel, Budget &b)
    {
        const std::uint64_t lim = std::min<std::uint64_t>({p.m, bound.m, kLcpUnknown});
        std::uint64_t j = 0;
        /* Eight bytes at a time while they agree (read backwards for
         * suffixes: the same bytes, in the other order). */
        const bool fold = &f == &kFolded;
        for (; j + 8 <= lim; j += 8) {
            const std::uint64_t at = p.backward ? p.len - 8 - j : j, bt = bound.backward ? bound.len - 8 - j : j;
            std::uint64_t x, y;
            std::memcpy(&x, p.ptr + at, 8);
            std::memcpy(&y, bound.ptr + bt, 8);
            if ((fold ? fold_word(x) : x) != (fold ? fold_word(y) : y)) break;
        }
        while (j < lim && p.at(j, f) == bound.at(j, f)) ++j;
        if (!b.take(j + 1) || j >= kLcpUnknown) return kLcpUnknown;
        if (j == p.m)
            rel = kRelZero; /* P ends inside the bound: a key agreeing with the bound matches */
        else if (j == bound.m)
            rel = kRelZero; /* never consulted: no key agrees with a bound past its end */
        else
            rel = bound.at(j, f) < p.at(j, f) ? kRelBelow : kRelAbove;
        return std::uint32_t(j);
    }

    bool fill(const Texts &t, Match match, bool fold, const Payload &pl, Budget &b)
    {
        texts_ = t;
        match_ = match;
        fold_ = fold;
        const ByteMap &f = byte_map(fold);
        if (!ms_.allocate(t.count)) return false;
        for (std::uint32_t i = 0; i < t.count; ++i) {
            const counted_string_t &s = t.at(i);
            if (!pl.holds(s) || s.len > 0x7FFFFFFFu || !b.take(std::uint64_t(s.len) + 16)) return false;
            if (match == Match::Exact) {
                const std::int64_t v = pl.view(s.ptr);
                if (v < 0 || !b.take(std::uint64_t(v))) return false;
                ms_[i] = std::uint64_t(v) + 1;
            } else if (match == Match::Prefix) {
                const void *nul = std::memchr(s.ptr, 0, s.len);
                ms_[i] = nul ? std::uint64_t(static_cast<const unsigned char *>(nul) - s.ptr) + 1 : s.len;
            } else {
                ms_[i] = s.len;
            }
        }
        const bool built = tree_.build(t.count, [&](TextNode &nd, std::uint32_t i, std::int64_t below, std::int64_t above) {
            const Text p = measured(i);
            unsigned rel[2] = {kRelZero, kRelZero};
            std::uint32_t l[2] = {0, 0};
            const std::int64_t bound[2] = {below, above};
            for (int side = 0; side < 2; ++side)
                if (bound[side] >= 0) l[side] = lcp(p, measured(std::uint32_t(bound[side])), f, rel[side], b);
            if (b.left == 0) return false;
            const std::uint64_t w = std::max(l[0], l[1]);
            std::uint64_t win = 0;
            unsigned wl = 0;
            if (w < kLcpUnknown) {
                wl = unsigned(std::min<std::uint64_t>(7, p.m - w));
                for (unsigned j = 0; j < wl; ++j) win |= std::uint64_t(p.at(w + j, f)) << (56 - 8 * j);
            }
            const bool more = w < kLcpUnknown && p.m > w + wl;
            win |= wl | (more ? 8u : 0u) | rel[0] << 4 | rel[1] << 6;
            nd = {win, i, {std::uint16_t(l[0]), std::uint16_t(l[1])}};
            return true;
        });
        ms_.allocate(0); /* needed for building only */
        return built;
    }

    Texts texts_{};
    Array<std::uint64_t> ms_; /* m of every entry, while building */
    Tree<TextNode> tree_;
    Match match_ = Match::Exact;
    bool fold_ = true;
};

// ---- Prefix and suffix lists: runs of entries sharing a head ------------------------------
//
// Let every entry be at least K bytes long with no NUL among its first K
// bytes (its last K, read backwards, for suffixes): its head. Both
// comparators then decide a comparison inside the head unless the key's head
// (its first K bytes, or last K backwards) equals the entry's, and answer
// the order of the two heads, folded as they fold. Zero needs equal heads,
// so a key shorter than K, or whose head no entry has, matches nothing.
// When the heads never decrease along the list, the entries sharing the
// key's head form one run, every entry before it compares below the key and
// every entry after it above: the bisection meets the same entries when
// probes outside the run are decided without reading them. A run of one
// entry is met whatever the path (every probe outside it moves towards it),
// so that entry alone decides. A hash table finds the run of a head.
//
// The same holds inside a run for longer heads: a long run whose entries
// all have more clean bytes gets a table of its own over them (and so on),
// which narrows the run the bisection reads to the entries sharing the
// longer head, or finds that none matches.

class HeadGroups final : public Accel {
public:
    static constexpr unsigned kMinHead = 4;  /* shorter heads tell too few entries apart */
    static constexpr unsigned kMaxHead = 16; /* two words */
    static constexpr std::uint64_t kMaxRun = 16; /* longest mean run: the tree does better beyond */
    static constexpr std::uint32_t kNested = 32; /* shortest run that gets a table of its own */

    static HeadGroups *make(const Texts &t, Match match, bool fold, const Payload &pl, Budget &b)
    {
        return filled<HeadGroups>(t, match, fold, pl, b, kMinHead);
    }
    ~HeadGroups() override
    {
        for (std::size_t i = 0; i < nested_.size(); ++i) delete nested_[i].table;
    }

    std::int64_t find(const unsigned char *key) const override
    {
        if (key == nullptr) return kPlain;
        const std::size_t klen = std::strlen(reinterpret_cast<const char *>(key));
        if (klen > 0xFFFFFFFFu) return kPlain; /* the comparators count the key in 32 bits */
        std::size_t a = 0, b = 0;
        return locate(key, klen, a, b) ? replay(key, klen, a, b) : kMiss;
    }
    Shape shape() const override { return Shape::Heads; }

private:
    template <class T, class... A>
    friend T *filled(A &&...args); /* runs fill() */

    /* The run's first entry; the head hash's top 24 bits and the run's
     * length (kLongRun: that many or more) below them. 0: a free slot. */
    struct Slot {
        std::uint32_t first;
        std::uint32_t tagged;
        bool free() const { return tagged == 0; }
    };
    static_assert(sizeof(Slot) == 8, "two words a slot");
    static constexpr std::uint32_t kCountMask = 0xFF, kLongRun = 0xFF;
    static std::uint32_t tag_of(std::uint64_t hv) { return std::uint32_t(hv >> 32) & ~kCountMask; }

    /* The run [a, b) of entries sharing the key's head, narrowed by the
     * tables of long runs; false when no entry has the key's head. */
    bool locate(const unsigned char *key, std::size_t klen, std::size_t &a, std::size_t &b) const
    {
        if (klen < k_) return false;
        const U128 h = klen >= kMaxHead ? head_words(key, klen) : head_bytes(key, klen);
        const std::uint64_t hv = hash(h);
        const std::uint32_t tag = tag_of(hv);
        for (std::size_t i = slot_in(hv, slots_.size());; i = next_slot(i, slots_.size())) {
            const Slot &s = slots_[i];
            if (s.free()) return false;
            if ((s.tagged & ~kCountMask) != tag || order(entry_head(s.first), h) != 0) continue;
            a = s.first;
            const std::uint32_t count = s.tagged & kCountMask;
            if (count >= kNested) {
                const Nested *end = nested_.data() + nested_.size();
                const Nested *sub = std::lower_bound(nested_.data(), end, s.first,
                                                     [](const Nested &x, std::uint32_t f) { return x.first < f; });
                if (sub != end && sub->first == s.first) {
                    std::size_t a2 = 0, b2 = 0;
                    if (!sub->table->locate(key, klen, a2, b2)) return false;
                    b = a + b2;
                    a += a2;
                    return true;
                }
            }
            b = count == kLongRun ? run_end(a + kLongRun - 1, h) : a + count;
            return true;
        }
    }

    /* The bisection over the whole list, reading only the entries of [a, b). */
    std::int64_t replay(const unsigned char *key, std::size_t klen, std::size_t a, std::size_t b) const
    {
        const counted_string_t k{key, UINT32(klen)};
        if (b - a == 1) return cmp_(&k, &texts_.at(a)) == 0 ? std::int64_t(a) : kMiss;
        const std::size_t at = bisect_at(texts_.count, [&](std::size_t m) {
            return m < a ? 1 : m >= b ? -1 : cmp_(&k, &texts_.at(m));
        });
        return at < texts_.count ? std::int64_t(at) : kMiss;
    }

    /* One past the run holding entry `last` (the heads are sorted). */
    std::size_t run_end(std::size_t last, const U128 &h) const
    {
        const std::size_t n = texts_.count;
        std::size_t step = 1;
        while (last + step < n && order(entry_head(last + step), h) == 0) {
            last += step;
            step *= 2;
        }
        std::size_t past = std::min(last + step, n);
        while (past - last > 1) {
            const std::size_t mid = last + (past - last) / 2;
            (order(entry_head(mid), h) == 0 ? last : past) = mid;
        }
        return past;
    }

    /* The head of a text of len >= K bytes, folded, as big-endian words:
     * byte by byte, or (bytes_ok) from the sixteen bytes at its head end. */
    U128 head_bytes(const unsigned char *p, std::size_t len) const
    {
        const ByteMap &f = byte_map(fold_);
        unsigned char b[kMaxHead] = {};
        for (unsigned j = 0; j < k_; ++j) b[j] = f[backward_ ? p[len - 1 - j] : p[j]];
        return U128::of(b);
    }
    U128 head_words(const unsigned char *p, std::size_t len) const
    {
        std::uint64_t w[2];
        if (backward_) {
            std::memcpy(&w[1], p + len - 16, 8); /* little-endian loads put the last byte on top */
            std::memcpy(&w[0], p + len - 8, 8);
        } else {
            std::memcpy(w, p, 16);
            w[0] = __builtin_bswap64(w[0]);
            w[1] = __builtin_bswap64(w[1]);
        }
        const auto keep = [](unsigned n) { return n == 0 ? 0 : n >= 8 ? ~0ull : ~0ull << (64 - 8 * n); };
        const std::uint64_t hi = (fold_ ? fold_word(w[0]) : w[0]) & keep(k_);
        const std::uint64_t lo = (fold_ ? fold_word(w[1]) : w[1]) & keep(k_ > 8 ? k_ - 8 : 0);
        return {hi, lo};
    }
    U128 entry_head(std::size_t i) const
    {
        const counted_string_t &s = texts_.at(i);
        const bool wide = backward_ ? s.ptr + s.len >= begin_ + kMaxHead : s.ptr + kMaxHead <= end_;
        return wide ? head_words(s.ptr, s.len) : head_bytes(s.ptr, s.len);
    }
    static std::uint64_t hash(const U128 &h) { return mix(mix(h.hi ^ 0x9E3779B97F4A7C15ull) ^ h.lo); }

    /* Bytes at the entry's head end before its first NUL, at most kMaxHead. */
    unsigned clean(const counted_string_t &s) const
    {
        const unsigned n = unsigned(std::min<std::uint64_t>(s.len, kMaxHead));
        if (backward_) {
            unsigned j = 0;
            while (j < n && s.ptr[s.len - 1 - j] != 0) ++j;
            return j;
        }
        const void *nul = std::memchr(s.ptr, 0, n);
        return nul ? unsigned(static_cast<const unsigned char *>(nul) - s.ptr) : n;
    }

    bool fill(const Texts &t, Match match, bool fold, const Payload &pl, Budget &b, unsigned min_head)
    {
        texts_ = t;
        fold_ = fold;
        backward_ = match == Match::Suffix;
        begin_ = pl.begin;
        end_ = pl.end;
        cmp_ = backward_ ? (fold ? str_compare_reverse_prefix : str_compare_reverse_case_prefix)
                         : (fold ? str_compare_prefix : str_compare_case_prefix);
        const std::uint32_t n = t.count;
        if (n == 0 || n > 0x7FFFFFFFu || (match != Match::Prefix && match != Match::Suffix)) return false;
        /* K: the shortest clean head. */
        unsigned k = kMaxHead;
        for (std::uint32_t i = 0; i < n && k >= min_head; ++i) {
            const counted_string_t &s = t.at(i);
            if (!pl.holds(s) || s.len > 0x7FFFFFFFu || !b.take(2 * kMaxHead + 16)) return false;
            k = std::min(k, clean(s));
        }
        if (k < min_head) return false;
        k_ = k;
        /* Heads never decrease; count the runs, and the long ones. */
        std::uint64_t runs = 0, long_runs = 0;
        const bool ordered = each_run([&](std::uint32_t first, std::uint32_t end, const U128 &) {
            ++runs;
            long_runs += end - first >= kNested ? 1 : 0;
        });
        if (!ordered || runs * kMaxRun < n) return false;
        const std::uint64_t slots = runs + runs / 4 + 1, bytes = kIndexBase + slots * sizeof(Slot);
        if (!b.reserve(bytes)) return false;
        if (!slots_.allocate(slots)) {
            b.memory += bytes;
            return false;
        }
        /* Long runs whose entries all have heads longer than K get tables
         * of their own (none where memory or budget runs short: such a run
         * is then bisected). */
        const bool nest = long_runs > 0 && k_ < kMaxHead && b.reserve(long_runs * sizeof(Nested)) &&
                          nested_.allocate(long_runs);
        std::size_t made = 0;
        BlockInserter<Slot> table(slots_);
        each_run([&](std::uint32_t first, std::uint32_t end, const U128 &h) {
            const std::uint64_t hv = hash(h);
            table.add(hv, {first, tag_of(hv) | std::min<std::uint32_t>(end - first, kLongRun)});
            if (!nest || end - first < kNested) return;
            const Texts run{texts_.base + std::size_t(first) * texts_.stride, texts_.stride, end - first};
            if (HeadGroups *sub = filled<HeadGroups>(run, match, fold_, pl, b, k_ + 1)) nested_[made++] = {first, sub};
        });
        table.flush();
        nested_.shrink(made);
        return true;
    }

    /* fn(first, end, head) for every run of entries sharing a head, in order;
     * false, with no call after, where a head is below the one before. */
    template <class Fn>
    bool each_run(Fn &&fn) const
    {
        const std::uint32_t n = texts_.count;
        std::uint32_t first = 0;
        U128 h = entry_head(0);
        for (std::uint32_t i = 1; i <= n; ++i) {
            const U128 next = i < n ? entry_head(i) : U128{};
            const int c = i < n ? order(next, h) : 1;
            if (c < 0) return false;
            if (c == 0) continue;
            fn(first, i, h);
            first = i;
            h = next;
        }
        return true;
    }

    /* The table of the long run starting at entry `first`. */
    struct Nested {
        std::uint32_t first;
        HeadGroups *table;
    };

    Texts texts_{};
    Array<Slot> slots_;
    Array<Nested> nested_; /* by first entry */
    Comparator cmp_ = nullptr;
    const unsigned char *begin_ = nullptr, *end_ = nullptr; /* the padded payload */
    unsigned k_ = kMaxHead;
    bool fold_ = true, backward_ = false;
};

// ---- Substring scans --------------------------------------------------------------------
//
// An entry of four bytes or more is found through one of its four-byte
// grams (its anchor, chosen among the grams of the entry as the one fewest
// entries before it chose): every position of the searched string whose
// gram some anchor has is a candidate, looked up in a table of anchors and
// verified. Entries of one to three bytes are looked up per position in a
// table of their own. The answer is the lowest stored number among the
// entries that occur, which is the entry the stored-order scan stops at.

/* Open-addressing table from a gram (with its length in the top byte for
 * short entries) to a run of candidates. */
struct GramSlot {
    std::uint32_t gram;
    std::uint32_t first; /* first candidate, or the count while building */
    std::uint32_t count;
    std::uint32_t used;
};

struct Candidate {
    std::uint32_t idx;    /* stored entry number */
    std::uint32_t anchor; /* offset of the anchor gram inside the entry */
};

class GramTable {
public:
    /* Room for n grams at two thirds load at the most. */
    bool allocate(std::size_t n) { return slots_.allocate(std::max<std::size_t>(16, n + n / 2 + 1)); }
    GramSlot *find(std::uint32_t g) const
    {
        for (std::size_t i = home(g);; i = next(i)) {
            const GramSlot &s = slots_[i];
            if (s.used == 0) return nullptr;
            if (s.gram == g) return const_cast<GramSlot *>(&s);
        }
    }
    GramSlot &insert(std::uint32_t g)
    {
        for (std::size_t i = home(g);; i = next(i)) {
            GramSlot &s = slots_[i];
            if (s.used == 0) {
                s = {g, 0, 0, 1};
                return s;
            }
            if (s.gram == g) return s;
        }
    }
    std::size_t size() const { return slots_.size(); }
    GramSlot &at(std::size_t i) { return slots_[i]; }

private:
    std::size_t home(std::uint32_t g) const { return std::size_t(std::uint64_t(g * 0x9E3779B1u) * slots_.size() >> 32); }
    std::size_t next(std::size_t i) const { return next_slot(i, slots_.size()); }
    Array<GramSlot> slots_;
};

class SubstrIndex final : public Accel {
public:
    template <class T, class... A>
    friend T *filled(A &&...args); /* runs fill() */

    static SubstrIndex *make(const Texts &t, bool fold, const Payload &pl, Budget &b)
    {
        return filled<SubstrIndex>(t, fold, pl, b);
    }

    std::int64_t find(const unsigned char *key) const override { return scan(key, false); }
    std::int64_t find_some(const unsigned char *key) const override { return scan(key, true); }
    Shape shape() const override { return Shape::Substr; }

private:
    /* The lowest entry number that occurs, or with `some` the first found. */
    std::int64_t scan(const unsigned char *key, bool some) const
    {
        if (key == nullptr) return kPlain;
        const std::size_t hl = std::strlen(reinterpret_cast<const char *>(key));
        if (hl > 0x7FFFFFFFu) return kPlain; /* the scan takes the length as signed 32 bits */
        const ByteMap &f = byte_map(fold_);
        std::uint32_t best = kEmpty;
        if (has_short_) scan_short(key, hl, f, best);
        /* Go on until entry 0 is found, or any entry when some will do. */
        auto open = [&] { return best == kEmpty || (!some && best != 0); };
        if (hl >= 4 && candidates_.size() > 0 && open()) {
            std::uint32_t g = std::uint32_t(f[key[0]]) << 16 | std::uint32_t(f[key[1]]) << 8 | f[key[2]];
            const std::uint64_t *bits = filter_.data();
            for (std::size_t i = 3; i < hl && open(); ++i) {
                g = g << 8 | f[key[i]];
                const std::uint32_t h = (g * 0x9E3779B1u) >> shift_;
                if ((bits[h >> 6] >> (h & 63)) & 1) verify(g, key, hl, i - 3, f, best);
            }
        }
        return best == kEmpty ? kMiss : std::int64_t(best);
    }

    /* Candidates of the anchor g at position pos of the key. */
    void verify(std::uint32_t g, const unsigned char *key, std::size_t hl, std::size_t pos, const ByteMap &f,
                std::uint32_t &best) const
    {
        const GramSlot *s = grams_.find(g);
        if (s == nullptr) return;
        for (std::uint32_t c = s->first; c < s->first + s->count; ++c) {
            const Candidate &cand = candidates_[c];
            if (cand.idx >= best) return; /* candidates run in stored order */
            if (cand.anchor > pos) continue;
            const std::size_t start = pos - cand.anchor;
            if (occurs(cand.idx, key + start, hl - start, f)) {
                best = cand.idx;
                return;
            }
        }
    }

    bool occurs(std::uint32_t idx, const unsigned char *at, std::size_t room, const ByteMap &f) const
    {
        const counted_string_t &e = texts_.at(idx);
        if (e.len > room) return false;
        for (std::uint32_t j = 0; j < e.len; ++j)
            if (f[at[j]] != f[e.ptr[j]]) return false;
        return true;
    }

    void scan_short(const unsigned char *key, std::size_t hl, const ByteMap &f, std::uint32_t &best) const
    {
        for (std::size_t i = 0; i < hl && best != 0; ++i) {
            std::uint32_t g = 0;
            for (std::uint32_t n = 1; n <= 3 && i + n <= hl; ++n) {
                g = g << 8 | f[key[i + n - 1]];
                const GramSlot *s = short_.find(n << 24 | g);
                if (s != nullptr) best = std::min(best, candidates_[s->first].idx);
            }
        }
    }

    /* The entries the scan can match: one byte or more (as a signed 32-bit
     * length) and no NUL among them. */
    static bool matchable(const counted_string_t &e)
    {
        return e.len >= 1 && e.len <= 0x7FFFFFFFu && std::memchr(e.ptr, 0, e.len) == nullptr;
    }

    bool fill(const Texts &t, bool fold, const Payload &pl, Budget &b)
    {
        texts_ = t;
        fold_ = fold;
        const ByteMap &f = byte_map(fold);
        const std::uint32_t n = t.count;
        if (!anchor_.allocate(n) || !grams_.allocate(n) || !short_.allocate(64)) return false;
        /* Choose anchors and count candidates per gram. */
        std::uint32_t anchored = 0, shorts = 0;
        for (std::uint32_t i = 0; i < n; ++i) {
            const counted_string_t &e = t.at(i);
            anchor_[i] = kEmpty;
            if (!pl.holds(e) || !b.take(2 * std::uint64_t(e.len) + 16)) return false;
            if (!matchable(e)) continue;
            if (e.len < 4) {
                ++shorts;
                continue;
            }
            /* At most 32 grams spread over the entry are considered: the one
             * fewest entries chose before, and among those the one with the
             * fewest bytes that are not letters or digits (punctuation is
             * common in searched text, so such grams would start futile
             * verifications). */
            const std::uint32_t last = e.len - 4;
            const std::uint32_t step = last / 32 + 1;
            std::uint32_t pick_at = 0;
            std::uint64_t pick_score = ~std::uint64_t(0);
            for (std::uint32_t o = 0; o <= last && pick_score != 0; o += step) {
                const GramSlot *s = grams_.find(gram(e.ptr + o, 4, f));
                std::uint64_t score = std::uint64_t(s ? s->count : 0) * 8;
                for (std::uint32_t j = 0; j < 4; ++j) score += word_byte(e.ptr[o + j]) ? 0 : 1;
                if (score < pick_score) {
                    pick_score = score;
                    pick_at = o;
                }
            }
            ++grams_.insert(gram(e.ptr + pick_at, 4, f)).count;
            anchor_[i] = pick_at;
            ++anchored;
        }
        has_short_ = shorts > 0;
        if (has_short_ && !short_.allocate(shorts)) return false;
        if (!candidates_.allocate(std::size_t(anchored) + shorts)) return false;
        /* Runs of candidates per gram, in stored order. */
        std::uint32_t next = 0;
        for (std::size_t k = 0; k < grams_.size(); ++k) {
            GramSlot &s = grams_.at(k);
            s.first = next;
            next += s.count;
            s.count = 0;
        }
        for (std::uint32_t i = 0; i < n; ++i) {
            const counted_string_t &e = t.at(i);
            if (anchor_[i] == kEmpty) {
                if (!matchable(e)) continue;
                /* Short entries: only the first of equal ones matters. */
                GramSlot &s = short_.insert(e.len << 24 | gram(e.ptr, e.len, f));
                if (s.count++ == 0) {
                    s.first = next;
                    candidates_[next++] = {i, 0};
                }
                continue;
            }
            GramSlot *s = grams_.find(gram(e.ptr + anchor_[i], 4, f));
            candidates_[s->first + s->count++] = {i, anchor_[i]};
        }
        candidates_.shrink(next);
        anchor_.allocate(0); /* needed only while building */
        return build_filter(anchored);
    }

    /* A letter or a digit (ASCII, whatever the locale). */
    static bool word_byte(unsigned char c) { return unsigned(c | 0x20u) - 'a' < 26u || unsigned(c) - '0' < 10u; }

    static std::uint32_t gram(const unsigned char *p, std::uint32_t n, const ByteMap &f)
    {
        std::uint32_t g = 0;
        for (std::uint32_t j = 0; j < n; ++j) g = g << 8 | f[p[j]];
        return g;
    }

    bool build_filter(std::uint32_t anchored)
    {
        unsigned bits = 12;
        while (bits < 22 && (std::uint64_t(1) << bits) < std::uint64_t(anchored) * 64) ++bits;
        shift_ = 32 - bits;
        if (!filter_.allocate((std::size_t(1) << bits) / 64)) return false;
        for (std::size_t k = 0; k < grams_.size(); ++k) {
            const GramSlot &s = grams_.at(k);
            if (s.used == 0 || s.count == 0) continue;
            const std::uint32_t h = (s.gram * 0x9E3779B1u) >> shift_;
            filter_[h >> 6] |= std::uint64_t(1) << (h & 63);
        }
        return true;
    }

    Texts texts_{};
    Array<std::uint32_t> anchor_;
    Array<Candidate> candidates_;
    Array<std::uint64_t> filter_;
    GramTable grams_;
    GramTable short_;
    unsigned shift_ = 20;
    bool fold_ = true;
    bool has_short_ = false;
};

// ---- The image's index -----------------------------------------------------------------

/* What an index does for a family: the comparison of its key search and
 * how map types select it. */
struct Use {
    Match match;
    bool fold;
    Selection selection;
};

/* Indexes are built in three rounds: first the hash tables, bucket tables
 * and substring filters, which gain the most for their memory, then the
 * head tables, then the decision trees with the memory left. */
enum class Round { Direct, Heads, Trees };

/* make() under a reservation of `bytes` of the memory budget, which is
 * given back when make() builds nothing. */
template <class Make>
Accel *within(Budget &b, std::uint64_t bytes, Make make)
{
    if (!b.reserve(bytes)) return nullptr;
    Accel *a = make();
    if (a == nullptr) b.memory += bytes;
    return a;
}

/* Most bytes a decision tree over n entries allocates. */
std::uint64_t tree_bytes(std::uint64_t n, std::uint64_t node) { return kIndexBase + (std::uint64_t(1) << depth_of(n)) * node; }

Accel *index_texts(const Texts &t, const Use &u, const Options &o, const Payload &pl, Budget &b, Round r)
{
    const std::uint64_t n = t.count;
    switch (r) {
    case Round::Direct:
        if (u.match == Match::Substr) {
            if (n < o.min_substr_entries) return nullptr;
            /* Gram slots, candidates, anchors while building, filter bits. */
            return within(b, 2 * kIndexBase + 48 * n, [&] { return SubstrIndex::make(t, u.fold, pl, b); });
        }
        if (u.match != Match::Exact || !o.hash_exact || n < o.min_entries) return nullptr;
        return within(b, kIndexBase + 18 * n, [&] { return HashIndex::make(t, u.fold, pl, b); });
    case Round::Heads:
        /* The table reserves its own memory once it knows its runs. */
        if (u.match == Match::Exact || u.match == Match::Substr || !o.head_groups || n < o.min_head_entries) return nullptr;
        return HeadGroups::make(t, u.match, u.fold, pl, b);
    case Round::Trees:
        if (u.match == Match::Substr || n < o.min_tree_entries) return nullptr;
        /* The nodes, and one word per entry while building. */
        return within(b, tree_bytes(n, sizeof(TextNode)) + 8 * n,
                      [&] { return TextTree::make(t, u.match, u.fold, pl, b); });
    }
    return nullptr;
}

/* The indexes of one image, found by list record address. */
struct ImageIndex {
    struct Entry {
        const void *list;
        Accel *accel;
    };
    Array<Entry> table; /* open addressing; a free slot has a null list */
    std::size_t used = 0;

    static std::size_t slot_of(const void *p, std::size_t size)
    {
        return std::size_t((reinterpret_cast<std::uintptr_t>(p) >> 3) * 0x9E3779B97F4A7C15ull >> 32) & (size - 1);
    }
    const Accel *find(const void *list) const
    {
        const std::size_t size = table.size();
        for (std::size_t i = slot_of(list, size);; i = (i + 1) & (size - 1)) {
            const Entry &e = table[i];
            if (e.list == list) return e.accel;
            if (e.list == nullptr) return nullptr;
        }
    }
    void add(const void *list, Accel *a)
    {
        const std::size_t size = table.size();
        std::size_t i = slot_of(list, size);
        while (table[i].list != nullptr) i = (i + 1) & (size - 1);
        table[i] = {list, a};
        ++used;
    }
    ~ImageIndex()
    {
        for (std::size_t i = 0; i < table.size(); ++i) delete table[i].accel;
    }
};

/* How a family's lists are searched (families.h): by the rule of their text
 * keys (exact for the others), folded or not, and which map types select
 * the rule. */
constexpr Use use_of(const taze::FamilyRow &r)
{
    const bool text = taze::text_keyed(r.layout);
    const Match match = text ? Match(unsigned(r.key_rule)) : Match::Exact;
    const Selection sel = r.layout == taze::Layout::StrStr                                         ? Selection::Pair
                          : r.layout == taze::Layout::StrInt || r.layout == taze::Layout::StrIpv6 ? Selection::OneSided
                                                                                                    : Selection::Any;
    return Use{match, text && r.case_rule == taze::Case::Fold, sel};
}

/* Walks every list family of an image: fn(list record, how it is searched). */
template <class Fn>
void each_list(Pattern *p, Fn &&fn)
{
    auto family = [&](auto lists, auto count, const Use &u) {
        auto *all = p->*lists;
        if (all != nullptr)
            for (UINT32 i = 0; i < p->*count; ++i) fn(all[i], u);
    };
    taze::each_family<Pattern>([&](auto f) {
        using F = decltype(f);
        family(F::lists, F::count, use_of(F::row));
    });
}

/* Entries of a list record. */
template <class List>
std::uint32_t entries_of(const List &l)
{
    return taze::entry_count(l);
}

template <class List>
constexpr bool kRangeList = std::is_same_v<List, ip_rng_list_st> || std::is_same_v<List, ipv6_rng_list_st> ||
                            std::is_same_v<List, port_rng_list_st>;

/* Fewest entries for which a list of this kind gets a tree (or a hash or
 * head table). */
template <class List>
std::uint32_t tree_threshold(const Use &u, const Options &o)
{
    if constexpr (std::is_same_v<List, ipv6_rng_list_st> || std::is_same_v<List, ipv6imap_list_st>)
        return o.min_entries;
    else if constexpr (std::is_same_v<List, ip_rng_list_st> || std::is_same_v<List, port_rng_list_st> ||
                       std::is_same_v<List, iimap_list_st> || std::is_same_v<List, ismap_list_st>)
        return o.min_tree_entries;
    else
        return u.match == Match::Substr ? o.min_substr_entries
               : u.match == Match::Exact && o.hash_exact ? std::min(o.min_entries, o.min_tree_entries)
               : o.head_groups ? std::min(o.min_head_entries, o.min_tree_entries)
                               : o.min_tree_entries;
}

/* Fewest entries for which a list of this kind is indexed at all: ordered
 * range lists get their bucket table from min_entries on. */
template <class List>
std::uint32_t threshold(const Use &u, const Options &o)
{
    const std::uint32_t tree = tree_threshold<List>(u, o);
    if constexpr (kRangeList<List>)
        return o.ordered_ranges ? std::min(tree, o.min_entries) : tree;
    else
        return tree;
}

/* Whether a list is long enough to be indexed. */
template <class List>
bool wanted(const List &l, const Use &u, const Options &o)
{
    return entries_of(l) >= threshold<List>(u, o);
}

/* A decision tree over a list of fixed-size entries, when the list is long
 * enough and the memory is there. */
template <class List, class Make>
Accel *fixed(const List &l, const Options &o, Budget &b, Make make)
{
    using Index = std::remove_pointer_t<decltype(make(l, b))>;
    const std::uint64_t n = entries_of(l);
    if (n < tree_threshold<List>(Use{Match::Exact, false, Selection::Any}, o)) return nullptr;
    return within(b, tree_bytes(n, Index::kNodeBytes), [&] { return make(l, b); });
}

/* The index of one list record in one round, or null (too short, not
 * indexable, or not in this round). */
template <class List>
Accel *index_list(const List &l, const Use &u, const Options &o, const Payload &pl, Budget &b, Round r)
{
    if constexpr (kRangeList<List>) {
        if (r == Round::Direct) return o.ordered_ranges ? index_ordered_ranges(l, b) : nullptr;
        if (r != Round::Trees) return nullptr;
        return fixed(l, o, b, [](const List &x, Budget &bb) { return index_ranges(x, bb); });
    } else if constexpr (std::is_same_v<List, iimap_list_st> || std::is_same_v<List, ismap_list_st>) {
        if (r != Round::Trees) return nullptr;
        return fixed(l, o, b, [](const List &x, Budget &bb) { return index_int_keys(x, bb); });
    } else if constexpr (std::is_same_v<List, ipv6imap_list_st>) {
        if (r != Round::Trees) return nullptr;
        return fixed(l, o, b, [](const List &x, Budget &bb) { return index_ipv6_keys(x, bb); });
    } else {
        return index_texts(texts_of(taze::entry_items(l), taze::entry_count(l)), u, o, pl, b, r);
    }
}

/* Map types that select each rule, as the map searches read them. */
bool selects(Selection s, Match rule, int map_type)
{
    switch (s) {
    case Selection::Any: return true;
    case Selection::OneSided:
        return map_type == (rule == Match::Exact    ? MT_STRING
                            : rule == Match::Prefix ? MT_PREFIX
                            : rule == Match::Suffix ? MT_SUFFIX
                                                    : MT_SUBSTR);
    case Selection::Pair: return (map_type & ~0x0303) == 0 && (map_type >> 8) == int(rule);
    }
    return false;
}
static_assert(int(Match::Exact) == 0 && int(Match::Prefix) == 1 && int(Match::Suffix) == 2 &&
              int(Match::Substr) == 3, "rules are numbered as in the map types");

} // namespace

int build(taz_pattern_st *ptn, const Options &opt)
{
    if (ptn == nullptr) return -1;
    taz_fast_release(ptn);
    const Payload pl{ptn->ptn_buf, ptn->ptn_buf + (ptn->ptn_buf ? std::size_t(ptn->ptn_len) + TAZ_PTN_PAD : 0)};
    /* Bounded by the payload: a compiled file touches each text a few
     * times, and its indexes take at most half its size plus 1 MiB of
     * memory, so that a load needs little more than twice the file's size
     * all told (trees, built last, are left out when memory runs short). */
    const std::uint64_t len = ptn->ptn_len;
    Budget budget{16 * len + (std::uint64_t(64) << 20), len / 2 + (std::uint64_t(1) << 20)};
    std::size_t lists = 0;
    each_list(ptn, [&](const auto &list, const Use &u) { lists += wanted(list, u, opt) ? 1 : 0; });
    std::size_t cap = 16;
    while (cap < 2 * lists) cap *= 2;
    if (lists == 0 || !budget.reserve(cap * sizeof(ImageIndex::Entry))) return -1;
    auto *ix = new (std::nothrow) ImageIndex;
    if (ix == nullptr || !ix->table.allocate(cap)) {
        delete ix;
        return -1;
    }
    for (const Round round : {Round::Direct, Round::Heads, Round::Trees})
        each_list(ptn, [&](const auto &list, const Use &u) {
            if (budget.left == 0 || !wanted(list, u, opt) || ix->find(&list) != nullptr) return;
            Accel *a = index_list(list, u, opt, pl, budget, round);
            if (a == nullptr) return;
            a->selection = u.selection;
            a->rule = u.match;
            ix->add(&list, a);
        });
    if (ix->used == 0) {
        delete ix;
        return -1;
    }
    ptn->fast = ix;
    return 0;
}

const Accel *find(const taz_pattern_st *ptn, const void *list)
{
    if (ptn == nullptr || ptn->fast == nullptr || list == nullptr) return nullptr;
    return static_cast<const ImageIndex *>(ptn->fast)->find(list);
}

std::int64_t lookup(const Accel *a, const unsigned char *key) { return a ? a->find(key) : kPlain; }
std::int64_t lookup(const Accel *a, std::uint32_t key) { return a ? a->find(key) : kPlain; }
std::int64_t lookup_some(const Accel *a, const unsigned char *key) { return a ? a->find_some(key) : kPlain; }
std::int64_t lookup_some(const Accel *a, std::uint32_t key) { return lookup(a, key); }
Shape shape(const Accel *a) { return a->shape(); }
bool accepts(const Accel *a, int map_type) { return a != nullptr && selects(a->selection, a->rule, map_type); }

} // namespace taze::fast

extern "C" {

int taz_fast_build(taz_pattern_st *ptn) { return taze::fast::build(ptn, taze::fast::Options{}); }

void taz_fast_release(taz_pattern_st *ptn)
{
    if (ptn == nullptr) return;
    delete static_cast<taze::fast::ImageIndex *>(ptn->fast);
    ptn->fast = nullptr;
}

} // extern "C"
