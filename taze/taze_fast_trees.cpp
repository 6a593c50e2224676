/* The bisection's decision trees stored breadth-first: over ranges, integer and
 * IPv6 map keys, and texts (exact, prefix and suffix comparisons). */
#include "taze_fast_common.h"

namespace taze::fast {

namespace {

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

class TextTree final : public Accel {
public:
    template <class T, class... A>
    friend T *::taze::fast::filled(A &&...args); /* runs fill() */

    static TextTree *make(const Texts &t, Match match, bool fold, const Payload &pl, Budget &b)
    {
        return filled<TextTree>(t, match, fold, pl, b);
    }

    std::int64_t find(const unsigned char *key) const override
    {
        if (key == nullptr) return kPlain;
        TextKey K;
        if (!K.prepare(key, fold_, match_ == Match::Suffix)) return kPlain;
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

} // namespace

static_assert(sizeof(TextNode) == kTextNodeBytes);

Accel *make_text_tree(const Texts &t, Match m, bool fold, const Payload &pl, Budget &b)
{
    return TextTree::make(t, m, fold, pl, b);
}

/* A tree over a list of fixed-size entries, under a reservation of the
 * memory it takes. */
template <class Index, class List, class Make>
Accel *fixed_tree(const List &l, Budget &b, Make make)
{
    return within(b, tree_bytes(entry_count(l), Index::kNodeBytes), [&] { return make(l, b); });
}

Accel *tree_index(const ip_rng_list_st &l, Budget &b) { return fixed_tree<Ipv4Ranges>(l, b, [](const auto &x, Budget &bb) { return index_ranges(x, bb); }); }
Accel *tree_index(const port_rng_list_st &l, Budget &b) { return fixed_tree<PortRanges>(l, b, [](const auto &x, Budget &bb) { return index_ranges(x, bb); }); }
Accel *tree_index(const ipv6_rng_list_st &l, Budget &b) { return fixed_tree<Ipv6Ranges>(l, b, [](const auto &x, Budget &bb) { return index_ranges(x, bb); }); }
Accel *tree_index(const iimap_list_st &l, Budget &b) { return fixed_tree<IntKeys>(l, b, [](const auto &x, Budget &bb) { return index_int_keys(x, bb); }); }
Accel *tree_index(const ismap_list_st &l, Budget &b) { return fixed_tree<IntKeys>(l, b, [](const auto &x, Budget &bb) { return index_int_keys(x, bb); }); }
Accel *tree_index(const ipv6imap_list_st &l, Budget &b) { return fixed_tree<Ipv6Keys>(l, b, [](const auto &x, Budget &bb) { return index_ipv6_keys(x, bb); }); }

} // namespace taze::fast
