/* Prefix and suffix lists: hash tables from an entry head to the run of
 * entries sharing it. */
#include "taze_fast_common.h"

#include <tuple>

namespace taze::fast {

namespace {

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
    friend T *::taze::fast::filled(A &&...args); /* runs fill() */

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
            b.give_back(bytes);
            return false;
        }
        /* Long runs whose entries all have heads longer than K get tables
         * of their own (none where memory or budget runs short: such a run
         * is then bisected). */
        const bool nest = long_runs > 0 && k_ < kMaxHead && b.reserve(long_runs * sizeof(Nested)) &&
                          nested_.allocate(long_runs);
        std::size_t made = 0;
        BlockInserter<LinearSlots<Slot>> table(LinearSlots<Slot>{slots_});
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



// ---- Prefix and suffix lists of any shape: windows past the shared bytes ---------------------
//
// Both comparators compare the key K, read forwards (backwards for
// suffixes), folded as they fold and followed by zeros, with the entry's
// compared bytes P (m of them: its first len bytes cut after a NUL among
// them, or all len bytes read backwards): the first position below m where
// K and P differ gives the sign, a position where both are 0 gives 0, and
// agreement over all m bytes gives 0.
//
// Every entry is the probe of one interval of the bisection; c, the number
// of leading bytes all entries of that interval share, is known when the
// list is indexed, and so is p, the c of the interval one level up (0 at
// the top). A search that reaches an interval knows that K shares its first
// p bytes with all its entries (it shares them with the probe above, and
// the interval's entries share them). The probe's entry keeps six of its
// bytes from p on and c - p in one word: the six bytes decide the
// comparison unless they all agree and both K and P go on (then the entry's
// text is compared from there), and a difference before c decides the rest
// of the search, since every entry left shares those bytes: no entry can
// match. Otherwise K shares c bytes with the entries of the next interval.
// Same probes, same order, for a list in any order.

class HeadWindows final : public Accel {
public:
    template <class T, class... A>
    friend T *::taze::fast::filled(A &&...args); /* runs fill() */

    static HeadWindows *make(const Texts &t, Match match, bool fold, const Payload &pl, Budget &b)
    {
        return filled<HeadWindows>(t, match, fold, pl, b);
    }

    std::int64_t find(const unsigned char *key) const override
    {
        if (key == nullptr) return kPlain;
        TextKey K;
        if (!K.prepare(key, fold_, backward_)) return kPlain;
        const unsigned char *k = K.k;
        const std::size_t klen = K.klen;
        std::size_t lower = 0, upper = texts_.count, p = 0, slot = 1;
        while (lower < upper) {
            const std::size_t mid = (lower + upper) / 2;
            if ((slot << 4) < words_.size()) { /* the sixteen words four levels down: two lines */
                prefetch(&words_[slot << 4]);
                prefetch(&words_[(slot << 4) + 8]);
            }
            const std::uint64_t w = words_[slot];
            const std::size_t c = p + (w & 0xFF);
            const unsigned r = unsigned(w >> 8) & 0xFF; /* min(m - p, 7) */
            const std::uint64_t x = load_be64(k + p) & kWindowMask;
            const std::uint64_t diff = (x ^ w) & kWindowMask;
            const std::size_t j = unsigned(__builtin_clzll(diff | 0x8000)) / 8; /* kWindow when they agree */
            const std::size_t left = klen - p; /* K's bytes from p on */
            int cr;
            std::size_t at = p + j; /* where the comparison was decided */
            if (__builtin_expect((left < kWindow && j > left) || j >= std::min<std::size_t>(r, kWindow), 0)) {
                if (left < kWindow && j > left)
                    cr = 0; /* both end at the same place */
                else if (r <= kWindow)
                    cr = 0; /* P agrees over all its bytes */
                else
                    std::tie(cr, at) = compare(k, mid, p + kWindow);
                if (cr == 0) return std::int64_t(mid);
            } else {
                /* The words differ first at byte j, inside both: their order is the bytes'. */
                cr = x > (w & kWindowMask) ? 1 : -1;
            }
            if (at < c) return kMiss; /* every entry left differs there alike */
            const bool right = cr > 0;
            lower = right ? mid + 1 : lower;
            upper = right ? upper : mid;
            slot = 2 * slot + (right ? 1 : 0);
            p = c;
        }
        return kMiss;
    }
    Shape shape() const override { return Shape::Heads; }

    static constexpr std::uint64_t kBytesPerEntry = 18; /* up to two words, two bytes while building */

private:
    static constexpr unsigned kWindow = 6;
    static constexpr std::size_t kMaxShared = 254;
    static constexpr std::uint64_t kWindowMask = ~0ull << 16;

    /* The entry's compared bytes, or kMeasured when there are more (the
     * words need no more, so building reads a bounded part of each entry). */
    static constexpr std::uint64_t kMeasured = kMaxShared + kWindow + 2;
    std::uint64_t measure(const counted_string_t &s) const
    {
        const std::uint64_t n = std::min<std::uint64_t>(s.len, kMeasured);
        if (backward_) return n;
        const void *nul = std::memchr(s.ptr, 0, n);
        return nul ? std::uint64_t(static_cast<const unsigned char *>(nul) - s.ptr) + 1 : n;
    }
    unsigned char byte(const counted_string_t &s, std::size_t j) const
    {
        return byte_map(fold_)[backward_ ? s.ptr[s.len - 1 - j] : s.ptr[j]];
    }

    /* The comparison of K with entry i from position a on (they agree
     * before it) and where it was decided. */
    std::pair<int, std::size_t> compare(const unsigned char *k, std::size_t i, std::size_t a) const
    {
        const counted_string_t &s = texts_.at(i);
        for (std::size_t j = a;; ++j) {
            if (j >= s.len) return {0, j}; /* a NUL inside P ends it below, as it ends m */
            const unsigned kc = k[j], pc = byte(s, j);
            if (kc != pc) return {kc > pc ? 1 : -1, j};
            if (kc == 0) return {0, j};
        }
    }

    /* Shared bytes of entries i and i + 1, up to kMaxShared. */
    std::size_t shared(std::uint32_t i) const
    {
        const counted_string_t &a = texts_.at(i), &b = texts_.at(i + 1);
        const std::size_t lim = std::min<std::uint64_t>({measure(a), measure(b), kMaxShared});
        std::size_t j = 0;
        while (j < lim && byte(a, j) == byte(b, j)) ++j;
        return j;
    }

    /* c of the interval [lo, hi) and of its descendants, kept by probe in
     * cs; answers it (kMaxShared when empty). */
    std::size_t shared_in(std::uint32_t lo, std::uint32_t hi, const Array<unsigned char> &adj, Array<unsigned char> &cs) const
    {
        if (lo >= hi) return kMaxShared;
        const std::uint32_t mid = lo + (hi - lo) / 2;
        std::size_t c = std::min<std::uint64_t>(measure(texts_.at(mid)), kMaxShared);
        c = std::min(c, shared_in(lo, mid, adj, cs));
        c = std::min(c, shared_in(mid + 1, hi, adj, cs));
        if (mid > lo) c = std::min<std::size_t>(c, adj[mid - 1]);
        if (mid + 1 < hi) c = std::min<std::size_t>(c, adj[mid]);
        cs[mid] = static_cast<unsigned char>(c);
        return c;
    }

    /* The words of [lo, hi) and its descendants, whose searches arrive
     * knowing p bytes. */
    void place(std::uint32_t lo, std::uint32_t hi, std::size_t slot, std::size_t p, const Array<unsigned char> &cs)
    {
        if (lo >= hi) return;
        const std::uint32_t mid = lo + (hi - lo) / 2;
        const std::size_t c = cs[mid];
        const counted_string_t &s = texts_.at(mid);
        const std::uint64_t r = measure(s) - p;
        std::uint64_t w = (c - p) | std::min<std::uint64_t>(r, 7) << 8;
        for (unsigned j = 0; j < std::min<std::uint64_t>(r, kWindow); ++j) w |= std::uint64_t(byte(s, p + j)) << (56 - 8 * j);
        words_[slot] = w;
        place(lo, mid, 2 * slot, c, cs);
        place(mid + 1, hi, 2 * slot + 1, c, cs);
    }

    bool fill(const Texts &t, Match match, bool fold, const Payload &pl, Budget &b)
    {
        texts_ = t;
        fold_ = fold;
        backward_ = match == Match::Suffix;
        const std::uint32_t n = t.count;
        if (n == 0 || n >= (1u << 30) || (match != Match::Prefix && match != Match::Suffix)) return false;
        const std::uint64_t bytes = kIndexBase + kBytesPerEntry * n;
        if (!b.reserve(bytes)) return false;
        Array<unsigned char> adj, cs;
        if (!words_.allocate(std::size_t(1) << depth_of(n)) || !adj.allocate(n) || !cs.allocate(n)) {
            b.give_back(bytes);
            return false;
        }
        for (std::uint32_t i = 0; i < n; ++i) {
            const counted_string_t &s = t.at(i);
            if (!pl.holds(s) || s.len > 0x7FFFFFFFu || !b.take(2 * kMaxShared + 16)) return false;
        }
        for (std::uint32_t i = 0; i + 1 < n; ++i) adj[i] = static_cast<unsigned char>(shared(i));
        shared_in(0, n, adj, cs);
        place(0, n, 1, 0, cs);
        return true;
    }

    Texts texts_{};
    Array<std::uint64_t> words_; /* breadth-first by probe: window, min(m - p, 7), c - p */
    bool fold_ = true, backward_ = false;
};

} // namespace

Accel *make_head_groups(const Texts &t, Match m, bool fold, const Payload &pl, Budget &b)
{
    if (Accel *a = HeadGroups::make(t, m, fold, pl, b)) return a;
    return HeadWindows::make(t, m, fold, pl, b);
}

} // namespace taze::fast
