/* Exact text lists: a compact hash table over the folded NUL-terminated views. */
#include "taze_fast_common.h"

#include <emmintrin.h>

namespace taze::fast {

namespace {

// ---- Exact text: two-choice buckets of packed slots -----------------------------------
//
// The table is an array of 64-byte buckets, one cache line each, of 4-byte
// slots (16 a bucket) or, where the fields need more bits, 8-byte slots (8
// a bucket). A slot packs, from its low bits up: the payload offset of the
// entry's text, the entry number (map keys only: their searches need the
// entry), and in its highest bits a tag of the key's hash. A slot of all
// ones is free (no offset reaches the all-ones value of its field, and no
// tag is all ones). A key may sit in two buckets: its home bucket, from its
// hash, and the partner, (X(tag) - home) mod buckets, so that a slot's
// other bucket follows from its bucket and its tag alone (cuckoo
// insertion moves slots without reading their texts). A search reads both
// lines at once, compares the tags of their slots and reads the text only
// behind a matching tag: straight from the payload, with no element record
// in between. With two choices among sixteen slots a table fills to 127/128
// of its slots (about 4 bytes per entry) with few moves (an insertion takes
// the bucket with more free slots); the moves are bounded. A 4-byte table
// that cannot be filled within them (few tag bits give a slot few partners)
// is built again with 8-byte slots; one of those that cannot be filled is
// not built (the list keeps the plain search or its tree).

constexpr unsigned kBucketBytes = 64;
/* Fewest tag bits a 4-byte slot must keep, else the slots take 8 bytes. */
constexpr unsigned kMinTagBits = 8;
/* Moves an insertion may make, and all insertions of a table together per entry. */
constexpr unsigned kMaxMoves = 512;
constexpr std::uint64_t kMovesPerEntry = 16;
/* Longest key whose folded copy a search keeps on its stack; longer keys
 * are hashed and compared byte by byte. */
constexpr std::size_t kShortKey = 256;

inline unsigned bits_for(std::uint64_t v) { return v == 0 ? 1 : 64u - unsigned(__builtin_clzll(v)); }

/* How the slots of a list's table are laid out and how many there are. */
struct Layout {
    unsigned slot_bytes;  /* 4 or 8 */
    unsigned offset_bits; /* text offset field, from bit 0 */
    unsigned entry_bits;  /* entry number field above it; 0 for string lists */
    unsigned tag_bits;    /* tag in the highest bits, at most 32 */
    std::uint64_t buckets;
    std::uint64_t bytes() const { return buckets * kBucketBytes; }
};

/* The layout of the table over n entries whose texts lie in `payload`
 * bytes; by_entry for map keys. The one place the index's size is decided. */
Layout layout_for(std::uint64_t n, std::uint64_t payload, bool by_entry, bool wide = false)
{
    Layout l{};
    l.offset_bits = bits_for(payload);
    l.entry_bits = by_entry ? bits_for(n) : 0;
    const unsigned used = l.offset_bits + l.entry_bits;
    l.slot_bytes = used + kMinTagBits <= 32 && !wide ? 4 : 8;
    l.tag_bits = std::min(32u, 8 * l.slot_bytes - used);
    /* 4-byte slots filled to 127/128, 8-byte slots (8 a bucket) to 15/16,
     * and two buckets more (small tables). */
    const std::uint64_t per = kBucketBytes / l.slot_bytes;
    const std::uint64_t slots = (l.slot_bytes == 4 ? n + n / 127 : n + n / 15) + 2 * per;
    l.buckets = std::max<std::uint64_t>(1, (slots + per - 1) / per);
    return l;
}

/* A key folded as the comparator folds, in words, then eight zeros. */
struct FoldedKey {
    std::size_t klen;
    std::uint64_t hash;
    alignas(8) unsigned char k[kShortKey + 8];

    /* False for keys longer than kShortKey. */
    bool prepare(const unsigned char *key, std::size_t len, bool fold)
    {
        klen = len;
        if (len > kShortKey) return false;
        hash = hash_bytes(key, len, fold, [this](std::size_t i, std::uint64_t w) { std::memcpy(k + i, &w, 8); });
        const std::uint64_t zero = 0;
        std::memcpy(k + (len + 7) / 8 * 8, &zero, 8); /* the word after the key's last */
        return true;
    }
    /* The stored view at p equals the key: the folded words agree up to
     * and with the view's NUL. A word is read only while all before it
     * agreed (so the view holds no NUL before it), and the builder checked
     * that every view leaves eight readable bytes after its NUL. */
    bool same(const unsigned char *p, bool fold) const
    {
        for (std::size_t j = 0;; j += 8) {
            std::uint64_t w, kw;
            std::memcpy(&w, p + j, 8);
            std::memcpy(&kw, k + j, 8);
            if (fold) w = fold_word(w);
            const std::size_t rest = klen + 1 - j; /* bytes left to agree, the NUL included */
            if (rest <= 8) return ((w ^ kw) & (~0ull >> (64 - 8 * rest))) == 0;
            if (w != kw) return false;
        }
    }
};

template <class W>
class HashIndex final : public Accel {
public:
    template <class T, class... A>
    friend T *::taze::fast::filled(A &&...args); /* runs fill() */

    /* The entry number (map keys), or for string lists kMiss or, on a hit,
     * kPlain (the plain search names the entry). */
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
    static constexpr unsigned kPer = kBucketBytes / sizeof(W);
    static constexpr W kFree = ~W(0);
    Shape shape() const override { return Shape::Hash; }

    struct alignas(64) Bucket {
        W slot[kPer];
    };
    static_assert(sizeof(Bucket) == kBucketBytes, "one cache line a bucket");

    W tag_of(std::uint64_t h) const
    {
        const W t = W(std::uint32_t(h >> 32) >> (32 - lay_.tag_bits));
        return t - (t == tag_max_ ? 1 : 0); /* never all ones */
    }
    /* The other bucket of a slot with tag t in bucket b (and back). */
    std::size_t partner(std::size_t b, W t) const
    {
        const std::size_t n = buckets_.size();
        const std::size_t x = slot_in((std::uint64_t(t) + 1) * 0x9E3779B97F4A7C15ull, n);
        return x >= b ? x - b : x + n - b;
    }
    /* Slots of a bucket whose tag is t, one bit each: the tags shifted
     * down and compared four (or two) slots at a time. */
    static unsigned matching(const Bucket &bk, W t, unsigned shift)
    {
        const __m128i by = _mm_cvtsi32_si128(int(shift));
        const __m128i *v = reinterpret_cast<const __m128i *>(bk.slot);
        if constexpr (sizeof(W) == 4) {
            const __m128i want = _mm_set1_epi32(int(t));
            auto eq = [&](int i) { return _mm_cmpeq_epi32(_mm_srl_epi32(_mm_load_si128(v + i), by), want); };
            const __m128i lo = _mm_packs_epi32(eq(0), eq(1)), hi = _mm_packs_epi32(eq(2), eq(3));
            return unsigned(_mm_movemask_epi8(_mm_packs_epi16(lo, hi)));
        } else {
            /* Tags of 8-byte slots sit above bit 32: both halves must agree. */
            const __m128i want = _mm_set_epi32(0, int(t), 0, int(t));
            unsigned m = 0;
            for (int i = 0; i < 4; ++i) {
                const __m128i e = _mm_cmpeq_epi32(_mm_srl_epi64(_mm_load_si128(v + i), by), want);
                const __m128i both = _mm_and_si128(e, _mm_shuffle_epi32(e, _MM_SHUFFLE(2, 3, 0, 1)));
                m |= unsigned(_mm_movemask_pd(_mm_castsi128_pd(both))) << (2 * i);
            }
            return m;
        }
    }
    /* Free slots of a bucket, one bit each. Slots fill from the first
     * on and are never emptied, so a bucket with more free slots has the
     * larger mask. */
    static unsigned free_in(const Bucket &bk)
    {
        const __m128i *v = reinterpret_cast<const __m128i *>(bk.slot);
        const __m128i ones = _mm_set1_epi32(-1);
        auto eq = [&](int i) { return _mm_cmpeq_epi32(_mm_load_si128(v + i), ones); };
        const unsigned m = unsigned(_mm_movemask_epi8(_mm_packs_epi16(_mm_packs_epi32(eq(0), eq(1)), _mm_packs_epi32(eq(2), eq(3)))));
        if constexpr (sizeof(W) == 4) {
            return m;
        } else {
            /* An 8-byte slot is free when both its halves are: keep one bit a pair. */
            unsigned x = m & (m >> 1) & 0x5555u;
            x = (x | x >> 1) & 0x3333u;
            x = (x | x >> 2) & 0x0F0Fu;
            return (x | x >> 4) & 0x00FFu;
        }
    }
    std::uint32_t offset(W w) const { return std::uint32_t(w & W(offset_mask_)); }
    std::uint32_t entry(W w) const { return std::uint32_t((w >> lay_.offset_bits) & W(entry_mask_)); }

    /* The value (entry number, or 0 for a string list) of the slot whose
     * text equals the key, kMiss, or kPlain. */
    std::int64_t probe(const unsigned char *key) const
    {
        if (key == nullptr) return kPlain;
        const std::size_t klen = std::strlen(reinterpret_cast<const char *>(key));
        FoldedKey fk;
        const bool short_key = fk.prepare(key, klen, fold_);
        const std::uint64_t h = short_key ? fk.hash : hash_bytes(key, klen, fold_);
        const W t = tag_of(h);
        const std::size_t b1 = slot_in(h, buckets_.size()), b2 = partner(b1, t);
        const Bucket &one = buckets_[b1], &two = buckets_[b2];
        /* The candidates of both buckets in one mask, so that which of the
         * two holds the key costs no branch. */
        for (std::uint32_t m = matching(one, t, shift_) | matching(two, t, shift_) << kPer; m != 0; m &= m - 1) {
            const unsigned at = unsigned(__builtin_ctz(m));
            const W w = (at < kPer ? one : two).slot[at % kPer];
            if (by_entry_) prefetch(texts_.base + std::size_t(entry(w)) * texts_.stride);
            const unsigned char *p = base_ + offset(w);
            if (short_key ? fk.same(p, fold_) : same_long(key, klen, p)) return by_entry_ ? entry(w) : 0;
        }
        return kMiss;
    }

    /* Keys longer than kShortKey, byte by byte (the key holds no NUL, so
     * the comparison stops at the view's end at the latest). */
    bool same_long(const unsigned char *key, std::size_t klen, const unsigned char *p) const
    {
        const ByteMap &m = byte_map(fold_);
        for (std::size_t j = 0; j < klen; ++j)
            if (m[key[j]] != m[p[j]]) return false;
        return p[klen] == 0;
    }

    /* Puts w (tag t, home bucket b) into the table, moving slots between
     * their two buckets when both of its buckets are full. */
    bool insert(std::size_t b, W t, W w)
    {
        std::size_t c[2] = {b, partner(b, t)};
        for (unsigned move = 0;; ++move) {
            /* The bucket with more free slots (the home bucket on a tie). */
            const unsigned f0 = free_in(buckets_[c[0]]), f1 = free_in(buckets_[c[1]]);
            if ((f0 | f1) != 0) {
                const bool second = f1 > f0;
                buckets_[c[second]].slot[__builtin_ctz(second ? f1 : f0)] = w;
                return true;
            }
            if (move == kMaxMoves || moves_left_ == 0) return false;
            --moves_left_;
            /* Evict a slot chosen at random and go on with it in its other bucket. */
            rng_ ^= rng_ << 13;
            rng_ ^= rng_ >> 17;
            rng_ ^= rng_ << 5;
            const std::size_t at = c[rng_ >> 31];
            std::swap(buckets_[at].slot[rng_ % kPer], w);
            t = W(w >> shift_);
            c[0] = c[1] = partner(at, t);
        }
    }

    /* Where BlockInserter puts slots. */
    struct Into {
        using Value = W;
        HashIndex *ix;
        /* The home bucket, for BlockInserter to prefetch; the partner is prefetched here. */
        const void *home(std::uint64_t h) const
        {
            const std::size_t b = slot_in(h, ix->buckets_.size());
            prefetch(&ix->buckets_[ix->partner(b, ix->tag_of(h))]);
            return &ix->buckets_[b];
        }
        /* w: the slot without its tag */
        void put(std::uint64_t h, W w)
        {
            const W t = ix->tag_of(h);
            if (ix->ok_) ix->ok_ = ix->insert(slot_in(h, ix->buckets_.size()), t, w | t << ix->shift_);
        }
    };

    /* *crowded: the slots were all read and ordered, but could not all be placed. */
    bool fill(const Texts &t, bool fold, const Payload &pl, const Layout &lay, Budget &b, bool *crowded)
    {
        fold_ = fold;
        base_ = pl.begin;
        texts_ = t;
        lay_ = lay;
        /* String lists hold bare counted strings; map entries hold more. */
        by_entry_ = t.stride != sizeof(counted_string_t);
        shift_ = 8 * sizeof(W) - lay.tag_bits;
        tag_max_ = W((std::uint64_t(1) << lay.tag_bits) - 1);
        offset_mask_ = (std::uint64_t(1) << lay.offset_bits) - 1;
        entry_mask_ = (std::uint64_t(1) << lay.entry_bits) - 1;
        const std::uint32_t n = t.count;
        moves_left_ = kMovesPerEntry * n + kMaxMoves;
        if (!buckets_.allocate(lay.buckets)) return false;
        std::memset(buckets_.data(), 0xFF, buckets_.size() * sizeof(Bucket));
        const Comparator cmp = fold ? str_compare : str_case_compare;
        BlockInserter<Into> table(Into{this});
        for (std::uint32_t i = 0; i < n && ok_; ++i) {
            const counted_string_t &s = t.at(i);
            if (!pl.holds(s)) return false;
            const std::int64_t len = pl.view(s.ptr);
            /* Searches read the view in words up to eight bytes past its NUL. */
            if (len < 0 || std::uint64_t(pl.end - s.ptr) < std::uint64_t(len) + 9) return false;
            if (!b.take(2 * std::uint64_t(len) + 16)) return false;
            /* Strictly ascending: the bisection meets the one equal entry. */
            if (i > 0 && cmp(&t.at(i - 1), &s) >= 0) return false;
            const W off = W(s.ptr - pl.begin);
            table.add(hash_bytes(s.ptr, std::size_t(len), fold), by_entry_ ? off | W(i) << lay.offset_bits : off);
        }
        table.flush();
        *crowded = !ok_;
        return ok_;
    }

    Array<Bucket> buckets_;
    Texts texts_{};
    const unsigned char *base_ = nullptr;
    Layout lay_{};
    unsigned shift_ = 0;
    W tag_max_ = 0;
    std::uint64_t offset_mask_ = 0, entry_mask_ = 0, moves_left_ = 0;
    std::uint32_t rng_ = 0x9E3779B9u;
    bool fold_ = true, by_entry_ = true, ok_ = true;
};

} // namespace

Accel *make_hash_index(const Texts &t, bool fold, const Payload &pl, Budget &b)
{
    const std::uint64_t payload = std::uint64_t(pl.end - pl.begin);
    if (payload > 0xFFFFFFFFull) return nullptr;
    const bool by_entry = t.stride != sizeof(counted_string_t);
    const Layout lay = layout_for(t.count, payload, by_entry);
    if (lay.offset_bits + lay.entry_bits + kMinTagBits > 64) return nullptr;
    bool crowded = false;
    if (lay.slot_bytes == 8) return filled<HashIndex<std::uint64_t>>(t, fold, pl, lay, b, &crowded);
    if (Accel *a = filled<HashIndex<std::uint32_t>>(t, fold, pl, lay, b, &crowded)) return a;
    if (!crowded) return nullptr;
    /* Few tag bits give a slot few partners, and moves near a full table
     * may run out: once, 8-byte slots (more tag bits, a lighter fill),
     * under a reservation of the bytes they take beyond the 4-byte table. */
    const Layout wide = layout_for(t.count, payload, by_entry, true);
    const std::uint64_t more = wide.bytes() - std::min(wide.bytes(), lay.bytes());
    return within(b, more, [&]() -> Accel * { return filled<HashIndex<std::uint64_t>>(t, fold, pl, wide, b, &crowded); });
}

std::uint64_t hash_index_bytes(const Texts &t, const Payload &pl)
{
    return kIndexBase + layout_for(t.count, std::uint64_t(pl.end - pl.begin), t.stride != sizeof(counted_string_t)).bytes();
}

} // namespace taze::fast
