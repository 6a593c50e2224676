/* Substring lists and substring-keyed maps: an anchor filter whose candidates
 * are verified in stored order. */
#include "taze_fast_common.h"

namespace taze::fast {

namespace {

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
    friend T *::taze::fast::filled(A &&...args); /* runs fill() */

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


} // namespace

Accel *make_substr_index(const Texts &t, bool fold, const Payload &pl, Budget &b)
{
    return SubstrIndex::make(t, fold, pl, b);
}

} // namespace taze::fast
