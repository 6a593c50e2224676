/* Shared parts of the load-time search indexes (taze_fast.h): arrays and the
 * build budget, hashing and ASCII folding, entry views, the index base and
 * the bisection's decision tree. Five index shapes build on it, one source
 * each, each answering exactly what the plain search of its list answers:
 *
 * HashIndex      exact lists in comparator order with unique entries
 *                (taze_fast_hash.cpp).
 * OrderedRanges  range lists ascending without overlap: bucket tables
 *                (taze_fast_ranges.cpp).
 * HeadGroups     prefix and suffix lists whose entries' heads never decrease
 *                (taze_fast_heads.cpp).
 * Tree<Node>     the bisection's decision tree in breadth-first order: slot k
 *                holds the entry the bisection probes at that point, its
 *                children are slots 2k (the key ordered before it) and 2k+1.
 *                Every level but the last is full, so the tree takes fewer
 *                than 2n slots; empty slots of the last level end a search
 *                (taze_fast_trees.cpp).
 * SubstrIndex    anchor filter and verification for the stored-order scans
 *                (taze_fast_substr.cpp).
 *
 * taze_fast_build.cpp picks among them per list. Everything is allocated
 * with malloc and freed with free; allocation failures leave a list without
 * index instead of failing the load. */
#ifndef TAZE_FAST_COMMON_H
#define TAZE_FAST_COMMON_H

#include "taze_fast.h"
#include "format.h"

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
    /* Grows to n records (no fewer than the size), keeping the records. */
    bool grow(std::size_t n)
    {
        Array more;
        if (!more.allocate(n)) return false;
        if (n_ != 0) std::memcpy(static_cast<void *>(more.p_), p_, n_ * sizeof(T));
        std::swap(p_, more.p_);
        std::swap(n_, more.n_);
        return true;
    }
    std::size_t size() const { return n_; }
    T *data() { return p_; }
    const T *data() const { return p_; }
    T &operator[](std::size_t i) { return p_[i]; }
    const T &operator[](std::size_t i) const { return p_[i]; }

private:
    T *p_ = nullptr;
    std::size_t n_ = 0;
};

/* Memory and work of building one image's indexes.
 *
 * Memory is granted per list: an index may take at most kBytesPerEntry
 * bytes per entry of its list plus kIndexBase (`grant`, set before each
 * list), whatever else the file holds. Work is bounded per entry by
 * construction (each index reads an entry's text a few times). Two guards
 * over the whole image catch what per-list grants cannot: the memory the
 * load left the indexes (index_bytes: what the image's arrays left of three
 * bytes per payload byte plus 768 KiB), and bytes touched proportional to
 * the payload, for lists of a hostile file that overlap, so that their
 * entries outnumber what the payload could hold. */
struct Budget {
    std::uint64_t left;   /* work guard, bytes touched */
    std::uint64_t memory; /* memory guard */
    std::uint64_t grant = 0; /* what the list being indexed may still take */
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
        if (bytes > memory || bytes > grant) return false;
        memory -= bytes;
        grant -= bytes;
        return true;
    }
    void give_back(std::uint64_t bytes)
    {
        memory += bytes;
        grant += bytes;
    }
};

/* Bytes reserved for the fixed parts of one index, and the most an index
 * may take per entry of its list. */
constexpr std::uint64_t kIndexBase = 8192;
constexpr std::uint64_t kBytesPerEntry = 64;

inline void prefetch(const void *p) { __builtin_prefetch(p); }

// ---- Folding and words -------------------------------------------------------------

using taze::ByteMap;
inline constexpr const ByteMap &kFolded = taze::kFoldTable;
constexpr ByteMap kIdentity = taze::make_byte_map(false);
inline const ByteMap &byte_map(bool fold) { return fold ? kFolded : kIdentity; }

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

inline std::uint64_t load_le64(const unsigned char *p)
{
    std::uint64_t w;
    std::memcpy(&w, p, 8);
    return w;
}
/* 1 to 7 bytes as a little-endian word, the rest zero, read inside them. */
inline std::uint64_t load_short(const unsigned char *p, std::size_t n)
{
    if (n >= 4) {
        std::uint32_t a, b;
        std::memcpy(&a, p, 4);
        std::memcpy(&b, p + n - 4, 4);
        return a | std::uint64_t(b) << (8 * (n - 4));
    }
    const std::uint64_t w = p[0] | std::uint64_t(p[n / 2]) << (8 * (n / 2));
    return w | std::uint64_t(p[n - 1]) << (8 * (n - 1));
}
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "texts are hashed in little-endian words");

/* Hash of n bytes (folded or not), read in words inside them: the last
 * one overlaps the word before, or for fewer than eight bytes is pieced
 * together from smaller loads. sink(offset, word) sees each folded word,
 * its bytes past n zero. */
template <class Sink>
inline std::uint64_t hash_bytes(const unsigned char *p, std::size_t n, bool fold, Sink &&sink)
{
    std::uint64_t h = 0x9E3779B97F4A7C15ull ^ n;
    std::size_t i = 0;
    auto step = [&](std::uint64_t w) {
        if (fold) w = fold_word(w);
        sink(i, w);
        h = mix(h ^ w) + i;
    };
    for (; i + 8 <= n; i += 8) step(load_le64(p + i));
    if (i < n) step(n >= 8 ? load_le64(p + n - 8) >> (8 * (8 - (n - i))) : load_short(p, n));
    return mix(h);
}
inline std::uint64_t hash_bytes(const unsigned char *p, std::size_t n, bool fold)
{
    return hash_bytes(p, n, fold, [](std::size_t, std::uint64_t) {});
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


/* A search key prepared for the text indexes: its bytes folded as the
 * comparator folds, read backwards for suffixes, then 16 zeros. */
struct TextKey {
    std::size_t klen;
    unsigned char k[kMaxKey + 16];
    /* False for keys longer than kMaxKey (they search plainly). */
    bool prepare(const unsigned char *key, bool fold, bool backward)
    {
        klen = strnlen(reinterpret_cast<const char *>(key), kMaxKey + 1);
        if (klen > kMaxKey) return false;
        const ByteMap &f = byte_map(fold);
        for (std::size_t j = 0; j < klen; ++j) k[j] = f[key[backward ? klen - 1 - j : j]];
        std::memset(k + klen, 0, 16);
        return true;
    }
};

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

// ---- Exact text: hash table ----------------------------------------------------------

/* Slot of a hash in an open-addressing table of `size` slots (any size),
 * from the hash's low 32 bits; its high bits serve as the slot's tag. */
inline std::size_t slot_in(std::uint64_t h, std::size_t size)
{
    return std::size_t((unsigned __int128)(h >> 32 | h << 32) * size >> 64);
}
/* The slot after i in a linear probe. */
inline std::size_t next_slot(std::size_t i, std::size_t size) { return i + 1 == size ? 0 : i + 1; }

/* A linear-probe table of slots (Slot::free() tells a free slot), for
 * BlockInserter. */
template <class Slot>
struct LinearSlots {
    using Value = Slot;
    Array<Slot> &slots;
    const void *home(std::uint64_t h) const { return &slots[slot_in(h, slots.size())]; }
    void put(std::uint64_t h, const Slot &s)
    {
        std::size_t at = slot_in(h, slots.size());
        while (!slots[at].free()) at = next_slot(at, slots.size());
        slots[at] = s;
    }
};

/* Fills an open-addressing table in blocks: a block's home slots are
 * prefetched as its records arrive and written when it is full, so that
 * their cache misses overlap. Table::home(h) is where a hash lands,
 * Table::put(h, value) stores a value. */
template <class Table>
class BlockInserter {
    using Value = typename Table::Value;

public:
    explicit BlockInserter(Table table) : table_(table) {}
    void add(std::uint64_t h, const Value &s)
    {
        hashes_[used_] = h;
        block_[used_++] = s;
        prefetch(table_.home(h));
        if (used_ == kBlock) flush();
    }
    void flush()
    {
        for (std::uint32_t j = 0; j < used_; ++j) table_.put(hashes_[j], block_[j]);
        used_ = 0;
    }

private:
    static constexpr std::uint32_t kBlock = 32;
    Table table_;
    Value block_[kBlock];
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
// ---- The bisection tree --------------------------------------------------------------

/* Depth of the bisection's decision tree over n entries. */
inline unsigned depth_of(std::uint64_t n) { return n == 0 ? 0 : 64u - unsigned(__builtin_clzll(n)); }

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

inline int order(std::uint64_t a, std::uint64_t b) { return (a > b) - (a < b); }
/* 16 address bytes as two big-endian halves, compared like memcmp. */
struct U128 {
    std::uint64_t hi, lo;
    static U128 of(const unsigned char *b) { return {load_be64(b), load_be64(b + 8)}; }
};
inline int order(const U128 &a, const U128 &b) { return a.hi != b.hi ? order(a.hi, b.hi) : order(a.lo, b.lo); }

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

/* A stored range as the indexes keep it. */
inline RangeNode<std::uint32_t> range_of(const ip_rng_st &r) { return {r.ip_l, r.ip_h}; }
inline RangeNode<std::uint16_t> range_of(const port_rng_st &r) { return {r.port_l, r.port_h}; }
inline RangeNode<U128> range_of(const ipv6_rng_st &r) { return {U128::of(r.ipv6_l.bytes), U128::of(r.ipv6_h.bytes)}; }

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
    if (a == nullptr) b.give_back(bytes);
    return a;
}

/* Most bytes a decision tree over n entries allocates. */
inline std::uint64_t tree_bytes(std::uint64_t n, std::uint64_t node) { return kIndexBase + (std::uint64_t(1) << depth_of(n)) * node; }

// ---- The index kinds, one source each ------------------------------------------------

/* Exact text lists in strict comparator order (taze_fast_hash.cpp). */
Accel *make_hash_index(const Texts &t, bool fold, const Payload &pl, Budget &b);
/* Most bytes the hash index of a list takes (the one place its size is decided). */
std::uint64_t hash_index_bytes(const Texts &t, const Payload &pl);
/* Range lists ascending without overlap: bucket tables (taze_fast_ranges.cpp). */
Accel *index_ordered_ranges(const ip_rng_list_st &l, Budget &b);
Accel *index_ordered_ranges(const port_rng_list_st &l, Budget &b);
Accel *index_ordered_ranges(const ipv6_rng_list_st &l, Budget &b);
/* Prefix and suffix lists whose heads never decrease (taze_fast_heads.cpp);
 * the table reserves its own memory. */
Accel *make_head_groups(const Texts &t, Match m, bool fold, const Payload &pl, Budget &b);
/* Decision trees (taze_fast_trees.cpp): over texts, and over fixed-size
 * entries under a reservation of the memory they take. */
constexpr std::uint64_t kTextNodeBytes = 16;
Accel *make_text_tree(const Texts &t, Match m, bool fold, const Payload &pl, Budget &b);
Accel *tree_index(const ip_rng_list_st &l, Budget &b);
Accel *tree_index(const port_rng_list_st &l, Budget &b);
Accel *tree_index(const ipv6_rng_list_st &l, Budget &b);
Accel *tree_index(const iimap_list_st &l, Budget &b);
Accel *tree_index(const ismap_list_st &l, Budget &b);
Accel *tree_index(const ipv6imap_list_st &l, Budget &b);
/* Substring lists: anchor filter and verification (taze_fast_substr.cpp). */
Accel *make_substr_index(const Texts &t, bool fold, const Payload &pl, Budget &b);

} // namespace taze::fast

#endif /* TAZE_FAST_COMMON_H */
