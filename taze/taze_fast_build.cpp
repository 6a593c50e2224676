/* The builder of an image's indexes: which index each list gets, in three
 * rounds under one budget, and the routing of searches to them. */
#include "taze_fast_common.h"

#include <new>

namespace taze::fast {

namespace {

// ---- The image's index -----------------------------------------------------------------


Accel *index_texts(const Texts &t, const Use &u, const Options &o, const Payload &pl, Budget &b, Round r)
{
    const std::uint64_t n = t.count;
    switch (r) {
    case Round::Direct:
        if (u.match == Match::Substr) {
            if (n < o.min_substr_entries) return nullptr;
            /* Gram slots, candidates, anchors while building, filter bits. */
            return within(b, 2 * kIndexBase + 48 * n, [&] { return make_substr_index(t, u.fold, pl, b); });
        }
        if (u.match != Match::Exact || !o.hash_exact || n < o.min_entries) return nullptr;
        return within(b, hash_index_bytes(t, pl), [&] { return make_hash_index(t, u.fold, pl, b); });
    case Round::Heads:
        /* The table reserves its own memory once it knows its runs. */
        if (u.match == Match::Exact || u.match == Match::Substr || !o.head_groups || n < o.min_head_entries) return nullptr;
        return make_head_groups(t, u.match, u.fold, pl, b);
    case Round::Trees:
        if (u.match == Match::Substr || n < o.min_tree_entries) return nullptr;
        /* The nodes, and one word per entry while building. */
        return within(b, tree_bytes(n, kTextNodeBytes) + 8 * n,
                      [&] { return make_text_tree(t, u.match, u.fold, pl, b); });
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
template <class List>
Accel *fixed(const List &l, const Options &o, Budget &b)
{
    if (entries_of(l) < tree_threshold<List>(Use{Match::Exact, false, Selection::Any}, o)) return nullptr;
    return tree_index(l, b);
}

/* The index of one list record in one round, or null (too short, not
 * indexable, or not in this round). */
template <class List>
Accel *index_list(const List &l, const Use &u, const Options &o, const Payload &pl, Budget &b, Round r)
{
    if constexpr (kRangeList<List>) {
        if (r == Round::Direct) return o.ordered_ranges ? index_ordered_ranges(l, b) : nullptr;
        if (r != Round::Trees) return nullptr;
        return fixed(l, o, b);
    } else if constexpr (std::is_same_v<List, iimap_list_st> || std::is_same_v<List, ismap_list_st>) {
        if (r != Round::Trees) return nullptr;
        return fixed(l, o, b);
    } else if constexpr (std::is_same_v<List, ipv6imap_list_st>) {
        if (r != Round::Trees) return nullptr;
        return fixed(l, o, b);
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
    /* Memory is granted per list (kBytesPerEntry per entry), within what
     * the load left the image's indexes (index_bytes); the work guard over
     * the whole image only stops lists that overlap in a hostile file
     * (taze_fast_common.h, Budget). */
    const std::uint64_t len = ptn->ptn_len;
    Budget budget{32 * len + (std::uint64_t(64) << 20), ptn->index_bytes};
    std::size_t lists = 0;
    each_list(ptn, [&](const auto &list, const Use &u) { lists += wanted(list, u, opt) ? 1 : 0; });
    std::size_t cap = 16;
    while (cap < 2 * lists) cap *= 2;
    budget.grant = cap * sizeof(ImageIndex::Entry);
    if (lists == 0 || !budget.reserve(budget.grant)) return -1;
    auto *ix = new (std::nothrow) ImageIndex;
    if (ix == nullptr || !ix->table.allocate(cap)) {
        delete ix;
        return -1;
    }
    for (const Round round : {Round::Direct, Round::Heads, Round::Trees})
        each_list(ptn, [&](const auto &list, const Use &u) {
            if (budget.left == 0 || !wanted(list, u, opt) || ix->find(&list) != nullptr) return;
            budget.grant = 2 * kIndexBase + kBytesPerEntry * std::uint64_t(entries_of(list));
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
