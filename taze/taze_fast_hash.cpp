/* Exact text lists: a compact hash table over the folded NUL-terminated views. */
#include "taze_fast_common.h"

#include <emmintrin.h>

namespace taze::fast {

namespace {

// ---- Exact text: a grouped hash table ------------------------------------------------
//
// The table is an array of 64-byte groups, one cache line each: 12 control
// bytes (0 for a free slot, else 0x80 and seven bits of the hash), 4 bytes
// that match no control byte, and 12 four-byte values. A value is the
// entry's text offset from the payload start for plain string lists (whose
// searches ask only whether some entry matches), or the entry number for
// map keys (whose searches need the entry; the text is then reached through
// the element array). A key's home group comes from its hash; a search
// compares the key's control byte with the twelve of a group at once and
// goes on to the next group only while the group is full. Groups are
// filled to at most 7/8 of their slots, so an index takes about 6 bytes
// per entry.

struct alignas(64) Group {
    unsigned char ctrl[16]; /* 12 slots; bytes 12..15 are kPad */
    std::uint32_t value[12];
};
static_assert(sizeof(Group) == 64, "one cache line a group");
constexpr unsigned kSlots = 12;
constexpr unsigned kFull = (1u << kSlots) - 1;
constexpr unsigned char kPad = 0x01; /* neither free (0) nor a tag (0x80 and up) */

inline unsigned char ctrl_of(std::uint64_t h) { return static_cast<unsigned char>(0x80 | (h >> 57)); }
/* Slots of a group whose control byte is c, one bit each. */
inline unsigned matching(const Group &g, unsigned char c)
{
    const __m128i v = _mm_load_si128(reinterpret_cast<const __m128i *>(g.ctrl));
    return unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8(char(c))))) & kFull;
}

class HashIndex final : public Accel {
public:
    template <class T, class... A>
    friend T *::taze::fast::filled(A &&...args); /* runs fill() */

    /* Null when the list is not in strict comparator order or cannot be
     * indexed; the caller then tries the tree. */
    static HashIndex *make(const Texts &t, bool fold, const Payload &pl, Budget &b)
    {
        return filled<HashIndex>(t, fold, pl, b);
    }

    /* Bytes the table of n entries takes. */
    static std::uint64_t bytes_for(std::uint64_t n) { return groups_for(n) * sizeof(Group); }

    /* The entry number (map keys), or for string lists kMiss or, on a hit,
     * kPlain (their values are text offsets; the plain search names the entry). */
    std::int64_t find(const unsigned char *key) const override
    {
        const std::int64_t v = probe(key);
        return v < 0 || by_entry_ ? v : kPlain;
    }
    std::int64_t find_some(const unsigned char *key) const override
    {
        const std::int64_t v = probe(key);
        return v < 0 || by_entry_ ? v : 0;
    }

private:
    static std::uint64_t groups_for(std::uint64_t n) { return n * 8 / (7 * kSlots) + 1; }
    Shape shape() const override { return Shape::Hash; }

    const unsigned char *text(std::uint32_t v) const { return by_entry_ ? texts_.at(v).ptr : base_ + v; }

    /* The value of the slot whose entry equals the key, kMiss, or kPlain. */
    std::int64_t probe(const unsigned char *key) const
    {
        if (key == nullptr) return kPlain;
        const std::size_t klen = std::strlen(reinterpret_cast<const char *>(key));
        const std::uint64_t h = hash_bytes(key, klen, fold_);
        const unsigned char c = ctrl_of(h);
        const std::size_t n = groups_.size();
        for (std::size_t gi = slot_in(h, n);; gi = next_slot(gi, n)) {
            const Group &g = groups_[gi];
            for (unsigned m = matching(g, c); m != 0; m &= m - 1) {
                const std::uint32_t v = g.value[__builtin_ctz(m)];
                if (same(key, klen, text(v))) return v;
            }
            if (matching(g, 0) != 0) return kMiss;
        }
    }

    /* The entry's NUL-terminated view equals the key: the bytes agree and
     * the view ends where the key does (the key holds no NUL, so the
     * comparison stops at the view's end at the latest). */
    bool same(const unsigned char *key, std::size_t klen, const unsigned char *p) const
    {
        const ByteMap &m = byte_map(fold_);
        for (std::size_t j = 0; j < klen; ++j)
            if (m[key[j]] != m[p[j]]) return false;
        return p[klen] == 0;
    }

    /* Where BlockInserter puts values: the first free slot from the home group on. */
    struct Groups {
        using Value = std::uint32_t;
        Array<Group> &g;
        const void *home(std::uint64_t h) const { return &g[slot_in(h, g.size())]; }
        void put(std::uint64_t h, std::uint32_t v)
        {
            for (std::size_t gi = slot_in(h, g.size());; gi = next_slot(gi, g.size())) {
                const unsigned free = matching(g[gi], 0);
                if (free == 0) continue;
                const unsigned at = unsigned(__builtin_ctz(free));
                g[gi].ctrl[at] = ctrl_of(h);
                g[gi].value[at] = v;
                return;
            }
        }
    };

    bool fill(const Texts &t, bool fold, const Payload &pl, Budget &b)
    {
        fold_ = fold;
        base_ = pl.begin;
        texts_ = t;
        /* String lists hold bare counted strings; map entries hold more. */
        by_entry_ = t.stride != sizeof(counted_string_t);
        const std::uint32_t n = t.count;
        if (std::uint64_t(pl.end - pl.begin) > 0xFFFFFFFFull) return false;
        if (!groups_.allocate(groups_for(n))) return false;
        for (std::size_t i = 0; i < groups_.size(); ++i) std::memset(groups_[i].ctrl + kSlots, kPad, 16 - kSlots);
        const Comparator cmp = fold ? str_compare : str_case_compare;
        BlockInserter<Groups> table(Groups{groups_});
        for (std::uint32_t i = 0; i < n; ++i) {
            const counted_string_t &s = t.at(i);
            if (!pl.holds(s)) return false;
            const std::int64_t len = pl.view(s.ptr);
            if (len < 0 || !b.take(2 * std::uint64_t(len) + 16)) return false;
            /* Strictly ascending: the bisection meets the one equal entry. */
            if (i > 0 && cmp(&t.at(i - 1), &s) >= 0) return false;
            table.add(hash_bytes(s.ptr, std::size_t(len), fold), by_entry_ ? i : std::uint32_t(s.ptr - pl.begin));
        }
        table.flush();
        return true;
    }

    Array<Group> groups_;
    Texts texts_{};
    const unsigned char *base_ = nullptr;
    bool fold_ = true, by_entry_ = true;
};


} // namespace

Accel *make_hash_index(const Texts &t, bool fold, const Payload &pl, Budget &b)
{
    return HashIndex::make(t, fold, pl, b);
}
std::uint64_t hash_index_bytes(std::uint64_t n) { return kIndexBase + HashIndex::bytes_for(n); }

} // namespace taze::fast
