/* Building and releasing pattern images: the section walk shared by both
 * pattern kinds, and the string list, range and map families.
 *
 * A payload is a stream of sections; each list, range or map section holds
 * numbered lists. One constexpr table says, per section magic, what a section
 * fills and which pattern kinds accept it; one list walk, parameterised by a
 * record layout, loads and releases every family. */
#include "taze_impl.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

#include <sys/mman.h>
#include <unistd.h>

#include "byteorder.h"
#include "format.h"
#include "taze_fast.h"
#include "vk_platform.h"

namespace {

using taze::count_fits;
using taze::LeCursor;
using Image = taz_pattern_st;

/* Headers of the section stream. */
constexpr std::uint64_t kSectionHeader = sizeof(taz_section_hdr_st);
constexpr std::uint64_t kListHeader = sizeof(taz_pattern_hdr_st);
static_assert(kSectionHeader == 16 && kListHeader == 12, "on-disk header sizes");
static_assert(sizeof(ipv6_st) == 16, "an IPv6 address is stored as 16 bytes");

using taze::read_field;

/* Bytes that the arrays of one image may still take: list records, list
 * numbers, entry arrays and value arrays, each allocation counted with its
 * size, and the arrays of the info sections (taz_share_budget). A compiled
 * pattern spends at least a quarter of these bytes on disk (the costliest
 * case is a map entry with an empty string key and no values: 9 bytes on
 * disk, with its list's 12-byte header at least 21, for a 32-byte entry, a
 * 16-byte list record and a 4-byte value array), so a budget of four bytes
 * per payload byte and a small allowance refuses only files whose lists or
 * records overlap, which no writer produces. */
struct Budget {
    std::uint64_t bytes;

    static constexpr std::uint64_t kPerPayloadByte = 4;
    static constexpr std::uint64_t kAllowanceBytes = 64 * 1024;
    static constexpr std::uint64_t kIndexAllowanceBytes = 768 * 1024;

    static bool take(std::uint64_t &left, std::uint64_t n)
    {
        if (n > left) return false;
        left -= n;
        return true;
    }
    /* Charges an array of n elements of T. */
    template <typename T>
    bool take_array(std::uint64_t n)
    {
        return n <= bytes / sizeof(T) && take(bytes, n * sizeof(T));
    }
};

/* What one family loader may read and allocate. `avail` counts the bytes
 * readable from the start of the section body: the section itself, or the
 * rest of the payload when the section walk calls the loader. */
struct Scope {
    std::uint32_t avail;
    Budget *budget;
};

template <typename T>
T *alloc_zeroed(std::uint64_t n)
{
    return static_cast<T *>(taz_alloc_zeroed(n, sizeof(T)));
}

/* ---- Loader preconditions --------------------------------------------------
 * Deliberate assertions; the texts differ per loader. Without assertions
 * (NDEBUG) the loader fails instead. */
enum class Pre { ByImage, ByImageV6, ByList, ByListV6 };

template <Pre P>
bool args_ok(const void *first, const unsigned char *ptn_buf, UINT32 ptn_len)
{
    [[maybe_unused]] const void *ptn = first;
    [[maybe_unused]] const void *plist = first;
    if constexpr (P == Pre::ByImage) assert(ptn && ptn_buf && ptn_len>0);
    else if constexpr (P == Pre::ByImageV6) assert(ptn && ptn_buf && ptn_len > 0);
    else if constexpr (P == Pre::ByList) assert(plist && ptn_buf && ptn_len>0);
    else assert(plist && ptn_buf && ptn_len > 0);
    return first != nullptr && ptn_buf != nullptr && ptn_len > 0;
}

/* ---- Fields ------------------------------------------------------------------ */

/* Fewest bytes a field occupies on disk. */
template <typename T>
constexpr std::uint64_t disk_min = sizeof(T);
template <>
constexpr std::uint64_t disk_min<counted_string_t> = 5; /* length field and terminator */

/* Bytes per value that the section bound check of a map entry counts. The
 * IPv6 values are deliberately counted like integers (four bytes each); their
 * sixteen bytes are checked against the payload instead. */
template <typename V>
constexpr std::uint64_t section_check_bytes = disk_min<V>;
template <>
constexpr std::uint64_t section_check_bytes<ipv6_st> = 4;
/* Value kinds whose bytes may be read beyond the section, within the payload. */
template <typename V>
constexpr bool reads_past_section = std::is_same_v<V, ipv6_st>;

/* ---- Element kinds: one entry of a list -------------------------------------- */
struct NoRelease {
    static constexpr bool has_values = false;
    template <typename E>
    static void release_all(E *, UINT32) {}
};

/* A list string: length, text, terminator. Only the text must lie in the
 * section; a following string's length field covers the terminator before it. */
struct ListString : NoRelease {
    using elem = counted_string_t;
    static constexpr std::uint64_t min_bytes = 4;
    static bool parse(counted_string_t &s, LeCursor &c, Scope &) { return c.str(s, false); }
};

/* An inclusive range: low bound, high bound, copied out of the payload. */
template <typename Range, typename Bound, Bound Range::*Lo, Bound Range::*Hi>
struct RangeEntry : NoRelease {
    using elem = Range;
    static constexpr std::uint64_t min_bytes = 2 * disk_min<Bound>;
    static bool parse(Range &r, LeCursor &c, Scope &) { return read_field(c, r.*Lo) && read_field(c, r.*Hi); }
};

/* A map entry: key, value count, values. The values of all entries of one
 * list live in one array, each entry's values a slice of it in entry order
 * (entry 0's slice starts it): a list is parsed twice, first to check every
 * entry and count its values, then, over the same bytes, to copy them into
 * the array. One allocation per list instead of one per entry; the array has
 * one spare zero element, so that every slice, even an empty last one,
 * points into it. */
template <typename Entry, typename Key, Key Entry::*K, typename Value, UINT32 Entry::*N, Value *Entry::*V>
struct MapEntry {
    using elem = Entry;
    using value = Value;
    static constexpr bool has_values = true;
    static constexpr std::uint64_t min_bytes = disk_min<Key> + 4;
    static constexpr UINT32 Entry::*value_count = N;
    static constexpr Value *Entry::*value_array = V;

    /* One entry; with dst null the checking pass (the list's value array is
     * charged for the total it counts), else the copying pass into dst. */
    static bool parse(Entry &e, LeCursor &c, Scope &s, Value *dst)
    {
        UINT32 nr = 0;
        if (!read_field(c, e.*K) || !c.u32(nr)) return false;
        e.*N = nr;
        /* The values' view: the section, or for IPv6 values everything
         * readable from the section start. */
        LeCursor values(c.base(), reads_past_section<Value> ? std::max(s.avail, c.size()) : c.size(), c.pos());
        if (!count_fits(nr, section_check_bytes<Value>, c.remaining()) ||
            !count_fits(nr, disk_min<Value>, values.remaining()))
            return false;
        Value scratch{};
        for (UINT32 j = 0; j < nr; ++j)
            if (!read_field(values, dst != nullptr ? dst[j] : scratch)) return false;
        e.*V = dst;
        c.seek(values.pos());
        return true;
    }

    /* Frees the list's value array and leaves every entry without values. */
    static void release_all(Entry *entries, UINT32 n)
    {
        std::free(n > 0 ? entries[0].*V : nullptr);
        for (UINT32 j = 0; j < n; ++j) {
            entries[j].*V = nullptr;
            entries[j].*N = 0;
        }
    }
};

using IpRange = RangeEntry<ip_rng_st, UINT32, &ip_rng_st::ip_l, &ip_rng_st::ip_h>;
using Ipv6Range = RangeEntry<ipv6_rng_st, ipv6_st, &ipv6_rng_st::ipv6_l, &ipv6_rng_st::ipv6_h>;
using PortRange = RangeEntry<port_rng_st, UINT16, &port_rng_st::port_l, &port_rng_st::port_h>;
using StrIntEntry =
    MapEntry<simap_st, counted_string_t, &simap_st::string, UINT32, &simap_st::nr_ints, &simap_st::ints>;
using StrIpv6Entry =
    MapEntry<sipv6map_st, counted_string_t, &sipv6map_st::string, ipv6_st, &sipv6map_st::nr_ipv6s, &sipv6map_st::ipv6s>;
using IntIntEntry = MapEntry<iimap_st, UINT32, &iimap_st::key, UINT32, &iimap_st::nr_ints, &iimap_st::ints>;
using Ipv6IntEntry =
    MapEntry<ipv6imap_st, ipv6_st, &ipv6imap_st::ipv6, UINT32, &ipv6imap_st::nr_ints, &ipv6imap_st::ints>;
using IntStrEntry =
    MapEntry<ismap_st, UINT32, &ismap_st::key, counted_string_t, &ismap_st::nr_strings, &ismap_st::strs>;
using StrStrEntry =
    MapEntry<ssmap_st, counted_string_t, &ssmap_st::string, counted_string_t, &ssmap_st::nr_strings, &ssmap_st::strs>;

/* ---- List record layouts ---------------------------------------------------- */

/* How the loader reads one entry of each layout, and which precondition text
 * its assertion shows. */
template <taze::Layout>
struct entry_kind;
template <> struct entry_kind<taze::Layout::Strings> { using type = ListString; static constexpr Pre pre = Pre::ByImage; };
template <> struct entry_kind<taze::Layout::Ip> { using type = IpRange; static constexpr Pre pre = Pre::ByImage; };
template <> struct entry_kind<taze::Layout::Ipv6> { using type = Ipv6Range; static constexpr Pre pre = Pre::ByImageV6; };
template <> struct entry_kind<taze::Layout::Port> { using type = PortRange; static constexpr Pre pre = Pre::ByImage; };
template <> struct entry_kind<taze::Layout::StrInt> { using type = StrIntEntry; static constexpr Pre pre = Pre::ByList; };
template <> struct entry_kind<taze::Layout::StrIpv6> { using type = StrIpv6Entry; static constexpr Pre pre = Pre::ByListV6; };
template <> struct entry_kind<taze::Layout::IntInt> { using type = IntIntEntry; static constexpr Pre pre = Pre::ByImage; };
template <> struct entry_kind<taze::Layout::Ipv6Int> { using type = Ipv6IntEntry; static constexpr Pre pre = Pre::ByImageV6; };
template <> struct entry_kind<taze::Layout::IntStr> { using type = IntStrEntry; static constexpr Pre pre = Pre::ByList; };
template <> struct entry_kind<taze::Layout::StrStr> { using type = StrStrEntry; static constexpr Pre pre = Pre::ByList; };

/* A list record: its traits (families.h), its entry kind and precondition. */
template <typename Rec>
struct layout_of : entry_kind<taze::list_traits<Rec>::layout>::type {
    using T = taze::list_traits<Rec>;
    using Kind = typename entry_kind<T::layout>::type;
    using record = Rec;
    static_assert(std::is_same_v<typename T::elem, typename Kind::elem>, "the entry kind reads the record's entries");
    static constexpr Pre pre = entry_kind<T::layout>::pre;
    static UINT32 &count(record &r) { return r.*T::count; }
    static typename Kind::elem *&array(record &r) { return r.*T::items; }
};

/* ---- The list walk shared by every family ----------------------------------- */

/* Frees one record's entries and leaves it empty, so that releasing it again
 * frees nothing. */
template <typename L>
void release_record(typename L::record &r)
{
    auto *&entries = L::array(r);
    if (entries != nullptr) L::release_all(entries, L::count(r));
    std::free(entries);
    entries = nullptr;
    L::count(r) = 0;
}

template <typename L>
void taz_unload_list_ptns(typename L::record *recs, std::uint64_t limit)
{
    if (recs == nullptr) return;
    for (std::uint64_t i = 0; i < limit; ++i) release_record<L>(recs[i]);
}

/* One list of n entries, from the cursor (just after its header). Entries are
 * bounded by the section, not by the list's own size. */
template <typename L>
bool load_list(typename L::record &r, LeCursor &c, UINT32 n, Scope &s)
{
    if (!count_fits(n, L::min_bytes, c.remaining()) || !s.budget->template take_array<typename L::elem>(n))
        return false;
    release_record<L>(r); /* a list number given twice: the later list replaces the earlier */
    auto *entries = alloc_zeroed<typename L::elem>(n);
    if (entries == nullptr) return false;
    L::array(r) = entries;
    L::count(r) = n;
    if constexpr (L::has_values) {
        const std::uint64_t start = c.pos();
        std::uint64_t total = 0;
        for (UINT32 j = 0; j < n; ++j) {
            if (!L::parse(entries[j], c, s, nullptr)) return false;
            total += entries[j].*L::value_count;
        }
        if (!s.budget->template take_array<typename L::value>(total + 1)) return false;
        auto *pool = alloc_zeroed<typename L::value>(total + 1);
        if (pool == nullptr) return false;
        c.seek(start);
        std::uint64_t at = 0;
        for (UINT32 j = 0; j < n; ++j) {
            /* The same bytes as the checking pass: this cannot fail, but if it
             * did, entry 0 holds the array and the release frees it. */
            const bool ok = L::parse(entries[j], c, s, pool + at);
            if (j == 0) entries[0].*L::value_array = pool;
            if (!ok) return false;
            at += entries[j].*L::value_count;
        }
    } else {
        for (UINT32 j = 0; j < n; ++j)
            if (!L::parse(entries[j], c, s)) return false;
    }
    return true;
}

/* Loads the lists of a section into the records that place(number) gives
 * (null: a number without a record). Empty lists are skipped. On failure the
 * nrecs records are left empty. */
template <typename L, typename Place>
bool load_lists(typename L::record *recs, std::uint64_t nrecs, Place &&place, const unsigned char *ptn_buf,
                UINT32 ptn_len, UINT32 count, Scope &s)
{
    const bool ok = taze::walk_list_headers(ptn_buf, ptn_len, count, [&](UINT32 number, UINT32, UINT32 n, LeCursor &c) {
        if (n == 0) return true;
        typename L::record *r = place(number);
        return r == nullptr || load_list<L>(*r, c, n, s);
    });
    if (!ok) taz_unload_list_ptns<L>(recs, nrecs);
    return ok;
}

/* How a section numbers its lists: one past the highest number (a list
 * numbered 0xFFFFFFFF counts for nothing; 0 when a list header runs past
 * the section, as taz_get_max_list_count answers), the list headers and,
 * of them, the non-empty lists. */
struct Numbering {
    UINT32 max = 0;
    std::uint64_t headers = 0;
    std::uint64_t filled = 0;
};

Numbering numbering(const unsigned char *body, UINT32 size, UINT32 count)
{
    Numbering n;
    const bool whole = taze::walk_list_headers(body, size, count, [&n](UINT32 number, UINT32, UINT32 entries, LeCursor &) {
        n.max = std::max(n.max, UINT32(number + 1u));
        ++n.headers;
        n.filled += entries != 0 && number != UINT32_MAX;
        return true;
    });
    if (!whole) n = Numbering{};
    return n;
}

/* Gaps of list numbers that a dense list array may hold besides one record
 * per list header: up to this many records, a dense array costs at most a
 * kilobyte more than the section's headers take on disk. */
constexpr std::uint64_t kDenseSlack = 64;

/* ---- Section kinds ------------------------------------------------------------ */
constexpr unsigned kMain = taze::Main, kSecond = taze::Second, kBoth = taze::Both;

/* State of one section walk. */
struct Walk {
    Image *ptn;
    Budget budget;
};

using SectionLoad = int (*)(Walk &, const unsigned char *body, UINT32 size, UINT32 count);
using SectionRelease = void (*)(Image *);

struct SectionKind {
    UINT32 magic;
    unsigned kinds;         /* pattern kinds that accept the section */
    SectionLoad load;
    SectionRelease release; /* run by the image release, in table order */
};

/* A list, range or map family held in the image as (list array, list count,
 * where the records stand: families.h). */
template <auto Lists, auto Count, auto Numbers>
struct Family {
    using Rec = std::remove_pointer_t<std::remove_reference_t<decltype(std::declval<Image &>().*Lists)>>;
    using L = layout_of<Rec>;

    static void release(Image *ptn)
    {
        taz_unload_list_ptns<L>(ptn->*Lists, ptn->*Count);
        std::free(ptn->*Lists);
        ptn->*Lists = nullptr;
        ptn->*Count = 0;
        std::free((ptn->*Numbers).numbers);
        ptn->*Numbers = taz_list_numbers_st{};
    }

    /* The list array: one record per number below max when the numbers are
     * dense, else one per number that a non-empty list uses. */
    static int load(Walk &w, const unsigned char *body, UINT32 size, UINT32 count)
    {
        Image *ptn = w.ptn;
        release(ptn); /* a second section of this kind replaces the first */
        const Numbering nb = numbering(body, size, count);
        const UINT32 max = nb.max;
        if (max > UINT32(INT32_MAX)) return -1;
        const bool dense = max <= nb.headers + kDenseSlack;
        UINT32 *numbers = nullptr;
        std::uint64_t nrecs = max;
        if (!dense) {
            if (!w.budget.take_array<UINT32>(nb.filled)) return -1;
            numbers = alloc_zeroed<UINT32>(nb.filled);
            if (numbers == nullptr) return -1;
            std::uint64_t k = 0;
            taze::walk_list_headers(body, size, count, [&](UINT32 number, UINT32, UINT32 n, LeCursor &) {
                if (n != 0 && number != UINT32_MAX && k < nb.filled) numbers[k++] = number;
                return true;
            });
            std::sort(numbers, numbers + k);
            nrecs = UINT32(std::unique(numbers, numbers + k) - numbers);
            ptn->*Numbers = taz_list_numbers_st{numbers, max};
        }
        if (!w.budget.take_array<Rec>(nrecs)) return -1;
        Rec *recs = alloc_zeroed<Rec>(nrecs);
        if (recs == nullptr) return -1;
        ptn->*Lists = recs;
        ptn->*Count = UINT32(nrecs);
        Scope s{UINT32(ptn->ptn_len - UINT32(body - ptn->ptn_buf)), &w.budget};
        /* The image stands for the loader's first argument: it and the list
         * array are both present here. */
        if (!args_ok<L::pre>(ptn, body, size)) return -1;
        const auto place = [&](UINT32 number) -> Rec * {
            if (number >= max) return nullptr;
            if (dense) return &recs[number];
            const UINT32 *at = std::lower_bound(numbers, numbers + nrecs, number);
            return at != numbers + nrecs && *at == number ? &recs[at - numbers] : nullptr;
        };
        return count == 0 || load_lists<L>(recs, nrecs, place, body, size, count, s) ? 0 : -1;
    }
};

template <auto Lists, auto Count, auto Numbers>
constexpr SectionKind lists(UINT32 magic, unsigned kinds)
{
    return {magic, kinds, &Family<Lists, Count, Numbers>::load, &Family<Lists, Count, Numbers>::release};
}

using InfoLoad = int (*)(Image *, const unsigned char *, UINT32, UINT32);

template <InfoLoad Load>
int info_load(Walk &w, const unsigned char *body, UINT32 size, UINT32 count)
{
    return Load(w.ptn, body, size, count);
}

template <InfoLoad Load>
constexpr SectionKind info(UINT32 magic, unsigned kinds, SectionRelease release)
{
    return {magic, kinds, &info_load<Load>, release};
}

/* Every section kind, in the image's field order (the release order). The
 * second kind has no case-sensitive prefix, suffix and substring lists and
 * alone carries the "ULM\0" section; everything else is shared. Unknown
 * magics, "CMPR" at section level among them, are skipped. */
constexpr SectionKind kSections[] = {
#define TAZ_SECTION_ROW(field, count, record, magic, key, value, cs, kinds) \
    lists<&Image::field, &Image::count, &Image::field##_numbers>(magic, taze::Kinds::kinds),
    TAZ_FAMILIES(TAZ_SECTION_ROW)
#undef TAZ_SECTION_ROW
    info<taz_load_rule_info_ptns>(MAGIC_TAZE_PATTERN_RULE_INFO, kBoth, taz_unload_rule_info_ptns),
    info<taz_load_clean_info_ptns>(MAGIC_TAZE_PATTERN_CLEAN_INFO, kBoth, taz_unload_clean_info_ptns),
    info<taz_load_ptn_info_ptns>(MAGIC_TAZE_PATTERN_PATTERN_INFO, kBoth, nullptr),
    info<taz_load_protocol_ptns>(MAGIC_TAZE_PATTERN_PROTOCOL_INFO, kBoth, taz_unload_protocol_ptns),
    info<taz_load_severity_ptns>(MAGIC_TAZE_PATTERN_SEVERITY_INFO, kBoth, taz_unload_severity_ptns),
    info<taz_load_threat_type>(MAGIC_TAZE_THREAT_TYPE, kBoth, taz_unload_threat_type),
    info<taz_load_ulm_info_ptns>(MAGIC_TAZE_PATTERN_ULM_INFO, kSecond, nullptr),
};

constexpr bool magics_unique()
{
    for (const SectionKind &a : kSections) {
        int seen = 0;
        for (const SectionKind &b : kSections) seen += a.magic == b.magic;
        if (seen != 1) return false;
    }
    return true;
}
static_assert(magics_unique(), "one row per section magic");

const SectionKind *section_kind(UINT32 magic, unsigned kind)
{
    for (const SectionKind &k : kSections)
        if (k.magic == magic) return (k.kinds & kind) != 0 ? &k : nullptr;
    return nullptr;
}

/* ---- Images ------------------------------------------------------------------- */

/* Walks the sections of ptn_buf in file order: 0, or -1 with the image's
 * contents left for the caller to release. */
int walk_sections(Image *ptn, unsigned kind)
{
    if (ptn == nullptr || (ptn->ptn_buf == nullptr && ptn->ptn_len != 0)) return -1;
    const UINT32 len = ptn->ptn_len;
    Walk w{ptn, {Budget::kPerPayloadByte * len + Budget::kAllowanceBytes}};
    /* The info sections draw on the same budget. */
    struct Share {
        std::uint64_t *prev;
        ~Share() { taz_share_budget(prev); }
    } share{taz_share_budget(&w.budget.bytes)};
    LeCursor c(ptn->ptn_buf, len);
    /* Fewer than 16 trailing bytes are ignored. */
    while (c.has(kSectionHeader)) {
        taz_section_hdr_st h{};
        c.u32(h.magic);
        c.u32(h.crc); /* never checked */
        c.u32(h.size);
        c.u32(h.count);
        const std::uint64_t end = c.pos() + h.size;
        if (!c.within(end)) {
            /* A sum beyond 32 bits is shown as the largest value. */
            const UINT32 shown = UINT32(std::min<std::uint64_t>(end, UINT32_MAX));
            VK_DEBUG_PRINTF(VKDEBUG_ERR, "Error! i+shdr.size=%u > ptn_len=%u\n", shown, len);
            return -1;
        }
        const SectionKind *k = section_kind(h.magic, kind);
        if (k != nullptr && k->load(w, c.here(), h.size, h.count) != 0) return -1;
        c.seek(end);
    }
    /* The indexes get what the arrays left of three bytes per payload byte
     * and 768 KiB: with the payload copy, a load holds at most four times
     * the payload and 1 MiB (unless the arrays alone take more, which only
     * files made of the cheapest entries do; their lists keep the plain
     * searches). */
    const std::uint64_t spent = Budget::kPerPayloadByte * len + Budget::kAllowanceBytes - w.budget.bytes;
    const std::uint64_t shared = 3 * std::uint64_t(len) + Budget::kIndexAllowanceBytes;
    ptn->index_bytes = shared > spent ? shared - spent : 0;
    return 0;
}

/* Releases every field of the image that this kind fills, leaving each one
 * empty; a second call frees nothing. */
void fini_image(Image *ptn, unsigned kind)
{
    if (ptn == nullptr) return;
    for (const SectionKind &k : kSections)
        if ((k.kinds & kind) != 0 && k.release != nullptr) k.release(ptn);
}

int init_image(Image *ptn, unsigned kind)
{
    if (walk_sections(ptn, kind) == 0) return 0;
    fini_image(ptn, kind);
    return -1;
}

void unload_image(Image *ptn, unsigned kind)
{
    if (ptn == nullptr) return;
    taz_fast_release(ptn); /* the search indexes point into the image */
    fini_image(ptn, kind);
    std::free(ptn->ptn_buf);
    std::free(ptn);
}

/* An image over buf, which it owns from here on: kept as the payload copy,
 * or freed on failure. The payload is followed by zero padding, so that
 * every NUL-terminated view of a stored string ends inside the copy. */
Image *adopt_image(unsigned char *buf, UINT32 len, std::size_t capacity, unsigned kind)
{
    if (buf == nullptr) return nullptr;
    /* Too small for the padding, or much larger than the payload (a body
     * whose stored length exceeds its payload's): fit it. */
    constexpr std::size_t kSlack = 64 * 1024;
    if (capacity < std::size_t(len) + TAZ_PTN_PAD || capacity - TAZ_PTN_PAD - len > kSlack) {
        auto *grown = static_cast<unsigned char *>(std::realloc(buf, std::size_t(len) + TAZ_PTN_PAD));
        if (grown == nullptr) {
            std::free(buf);
            return nullptr;
        }
        buf = grown;
    }
    std::memset(buf + len, 0, TAZ_PTN_PAD);
    Image *ptn = alloc_zeroed<Image>(1);
    if (ptn == nullptr) {
        std::free(buf);
        return nullptr;
    }
    ptn->ptn_buf = buf;
    ptn->ptn_len = len;
    if (init_image(ptn, kind) == 0) {
        taz_fast_build(ptn); /* without indexes the plain searches answer alone */
        return ptn;
    }
    unload_image(ptn, kind); /* releases the (already empty) fields once more */
    return nullptr;
}

/* An image over a private copy of buf; the caller keeps buf. */
Image *load_image(const unsigned char *buf, UINT32 len, unsigned kind)
{
    assert(buf!=((void *)0));
    if (buf == nullptr) return nullptr;
    auto *copy = static_cast<unsigned char *>(std::malloc(std::size_t(len) + TAZ_PTN_PAD));
    if (copy == nullptr) return nullptr;
    taz_prefault(copy, len);
    std::memcpy(copy, buf, len);
    return adopt_image(copy, len, std::size_t(len) + TAZ_PTN_PAD, kind);
}

} // namespace

/* ---- Exported internals ------------------------------------------------------- */

taz_pattern_st *taz_load_pattern(const unsigned char *buf, UINT32 len) { return load_image(buf, len, kMain); }
void taz_unload_pattern(taz_pattern_st *ptn) { unload_image(ptn, kMain); }
taz_pattern_st *taz_adopt_pattern(unsigned char *buf, UINT32 len, size_t capacity)
{
    return adopt_image(buf, len, capacity, kMain);
}
taz_pattern_st *ulm_adopt_pattern(unsigned char *buf, UINT32 len, size_t capacity)
{
    return adopt_image(buf, len, capacity, kSecond);
}
int taz_pattern_init(taz_pattern_st *ptn) { return init_image(ptn, kMain); }
void taz_pattern_fini(taz_pattern_st *ptn) { fini_image(ptn, kMain); }

taz_pattern_st *ulm_load_pattern(const unsigned char *buf, UINT32 len) { return load_image(buf, len, kSecond); }
void ulm_unload_pattern(taz_pattern_st *ptn) { unload_image(ptn, kSecond); }
void ulm_pattern_fini(taz_pattern_st *ptn) { fini_image(ptn, kSecond); }

void ulm_pattern_init(taz_pattern_st *ptn)
{
    if (ptn != nullptr) std::memset(ptn, 0, sizeof *ptn);
}

/* List records a family needs for one section: one past the highest list
 * number (a list numbered 0xFFFFFFFF counts for nothing), or 0 when a list
 * header runs past the section. */
UINT32 taz_get_max_list_count(const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count)
{
    if (ptn_buf == nullptr) return 0;
    UINT32 max = 0;
    const bool whole = taze::walk_list_headers(ptn_buf, ptn_len, count, [&max](UINT32 number, UINT32, UINT32, LeCursor &) {
        max = std::max(max, UINT32(number + 1u));
        return true;
    });
    return whole ? max : 0;
}

/* The second kind's name section: lists of (length, name, terminator). A
 * later name list replaces the earlier name. */
int taz_load_ulm_info_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count)
{
    if (!args_ok<Pre::ByImage>(ptn, ptn_buf, ptn_len)) return -1;
    const bool ok = taze::walk_list_headers(ptn_buf, ptn_len, count, [ptn](UINT32 magic, UINT32, UINT32 n, LeCursor &c) {
        if (n == 0) return true;
        if (magic == MAGIC_TAZE_PATTERN_ULM_INFO) {
            counted_string_t name{};
            if (!c.str(name, true)) return false;
            ptn->ulm_info.malname = name.ptr;
        } else {
            VK_DEBUG_PRINTF(VKDEBUG_ERR, "BUG: Un-recognized pattern info pattern header magic: %08x", magic);
        }
        return true;
    });
    return ok ? 0 : -1;
}

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23 /* Linux 5.14 */
#endif

void *taz_alloc_zeroed(uint64_t n, size_t size)
{
    if (n > SIZE_MAX / (size ? size : 1)) return nullptr;
    void *a = std::calloc(n != 0 ? n : 1, size);
    if (a != nullptr) taz_prefault(a, n * size);
    return a;
}

void taz_prefault(void *p, size_t n)
{
    if (p == nullptr || n < (size_t(1) << 20)) return;
    const uintptr_t page = uintptr_t(sysconf(_SC_PAGESIZE));
    const uintptr_t first = (uintptr_t(p) + page - 1) & ~(page - 1);
    const uintptr_t last = (uintptr_t(p) + n) & ~(page - 1);
    if (last > first) (void)madvise(reinterpret_cast<void *>(first), last - first, MADV_POPULATE_WRITE);
}
