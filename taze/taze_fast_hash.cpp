/* Exact text lists: a hash table over the folded NUL-terminated views. */
#include "taze_fast_common.h"

namespace taze::fast {

namespace {

// ---- Exact text: hash table ----------------------------------------------------------


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


} // namespace

Accel *make_hash_index(const Texts &t, bool fold, const Payload &pl, Budget &b)
{
    return HashIndex::make(t, fold, pl, b);
}

} // namespace taze::fast
