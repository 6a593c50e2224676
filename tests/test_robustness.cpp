/* Damaged and hostile pattern files: truncations, bit flips and random
 * mutations of representative files (every section kind, both pattern
 * kinds, containers of every sub-pattern kind), crafted files whose headers
 * claim huge counts, and the inputs the fuzz targets found.
 *
 * Every case must end in a clean error code or a valid image (which then
 * answers the query battery of the fuzz targets); the sanitizer build checks
 * for out-of-bounds reads and leaks. Without sanitizers a counting allocator
 * replaces malloc and checks that no case makes the library allocate more
 * than four times the file's size plus 1 MiB, and that every case gives back
 * all it allocated. */
#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <string>
#include <vector>

#include "../fuzz/battery.h"
#include "../fuzz/dir_layout.h"
#include "../fuzz/harness.h"
#include "../fuzz/samples.h"
#include "taze_file.h"
#include "test_support.h"

#include "counting_alloc.h"

namespace {

using tazw::Bytes;
using tazw::LeBuf;

/* The bound on what one file may make the library allocate: load_bound()
 * of counting_alloc.h, four times the file plus 1 MiB (the cheapest-entry
 * corner rows of HostileClaims name the corner bound themselves). */
[[maybe_unused]] long long bound_for(std::size_t file_size, bool corner = false) { return load_bound(file_size, corner); }

/* What one library call did to the heap: its peak above the bytes held
 * before it, and what it still held after it. */
struct Heap {
    long long peak = 0;
    long long kept = 0;
};

template <typename F>
Heap measure(F &&f)
{
    const long long before = g_live.load();
    g_peak = before;
    f();
    return {g_peak.load() - before, g_live.load() - before};
}

#ifdef TAZT_COUNTING
/* The case that came closest to the bound, reported at exit. */
struct Worst {
    long long peak = 0;
    std::size_t size = 0;
    std::string what;
} g_worst, g_ratio;
struct WorstReport {
    ~WorstReport()
    {
        std::fprintf(stderr, "closest to the bound: %lld bytes allocated for a file of %zu bytes (%s)\n",
                     g_worst.peak, g_worst.size, g_worst.what.c_str());
        std::fprintf(stderr, "largest ratio (files of 4 KiB and more): %lld bytes for %zu (%s)\n", g_ratio.peak,
                     g_ratio.size, g_ratio.what.c_str());
    }
} g_worst_report;
#endif

/* The memory checks of one case (no-ops under the sanitizers). */
void expect_bounded(const Heap &h, std::size_t file_size, const std::string &what, bool corner = false)
{
#ifdef TAZT_COUNTING
    if (h.peak - bound_for(file_size) > g_worst.peak - bound_for(g_worst.size)) g_worst = {h.peak, file_size, what};
    if (file_size >= 4096 && (g_ratio.size == 0 || double(h.peak) / double(file_size) > double(g_ratio.peak) / double(g_ratio.size)))
        g_ratio = {h.peak, file_size, what};
    EXPECT_LE(h.peak, bound_for(file_size, corner)) << what << ": " << h.peak << " bytes for a file of " << file_size;
    EXPECT_EQ(h.kept, 0) << what << ": bytes left allocated";
#else
    (void)h;
    (void)file_size;
    (void)what;
    (void)corner;
#endif
}

/* ---- payloads ------------------------------------------------------------------- */

[[maybe_unused]] bool accepted_section(std::uint32_t magic, bool second)
{
    for (const tazf::ListKind &k : tazf::list_kinds())
        if (k.magic == magic) return !(second && k.main_only);
    switch (magic) {
    case MAGIC_TAZE_PATTERN_RULE_INFO:
    case MAGIC_TAZE_PATTERN_CLEAN_INFO:
    case MAGIC_TAZE_PATTERN_PATTERN_INFO:
    case MAGIC_TAZE_PATTERN_PROTOCOL_INFO:
    case MAGIC_TAZE_PATTERN_SEVERITY_INFO:
    case MAGIC_TAZE_THREAT_TYPE: return true;
    case MAGIC_TAZE_PATTERN_ULM_INFO: return second;
    default: return false;
    }
}

std::uint32_t le32(const Bytes &b, std::size_t at)
{
    return std::uint32_t(b[at]) | std::uint32_t(b[at + 1]) << 8 | std::uint32_t(b[at + 2]) << 16 |
           std::uint32_t(b[at + 3]) << 24;
}

/* One section of a payload as the section walk sees it. */
struct Section {
    std::size_t at;  /* header offset */
    std::uint32_t magic, size, count;
    std::size_t end; /* offset after the body */
};

/* The sections that lie wholly inside the payload, in walk order. */
std::vector<Section> sections(const Bytes &p)
{
    std::vector<Section> out;
    for (std::size_t i = 0; i + 16 <= p.size();) {
        Section s{i, le32(p, i), le32(p, i + 8), le32(p, i + 12), i + 16 + std::size_t(le32(p, i + 8))};
        if (s.end > p.size()) break;
        out.push_back(s);
        i = s.end;
    }
    return out;
}

/* With assertions on, a section of an accepted kind whose size is 0 ends
 * the process in the loader's deliberate assertion; such inputs are left
 * out of the debug build's sweeps (the release build runs them). */
bool trips_assertion(const Bytes &p, bool second)
{
#ifdef NDEBUG
    (void)p;
    (void)second;
    return false;
#else
    for (const Section &s : sections(p))
        if (s.size == 0 && accepted_section(s.magic, second)) return true;
    return false;
#endif
}

/* List numbers from this one up once made a section allocate that many list
 * records; far numbers are now held sparse and such claims take the path of
 * smaller ones, so the sweeps try one in 32 of them (in the counting builds,
 * sanitizers included: their memory bound is about them). */
constexpr std::uint32_t kCostlyListNumber = 1u << 12;

bool costly(const Bytes &p)
{
    for (const Section &s : sections(p)) {
        bool lists = false;
        for (const tazf::ListKind &k : tazf::list_kinds()) lists = lists || k.magic == s.magic;
        std::size_t off = s.at + 16;
        for (std::uint32_t k = 0; lists && k < s.count && off + 12 <= s.end; ++k) {
            if (le32(p, off) >= kCostlyListNumber && le32(p, off) != 0xFFFFFFFFu) return true;
            off += 12 + std::size_t(le32(p, off + 4));
        }
    }
    return false;
}

bool skip_costly(const Bytes &p, int &seen)
{
    if (!costly(p)) return false;
#ifdef TAZT_COUNTING
    return ++seen % 32 != 0;
#else
    (void)seen;
    return true;
#endif
}

/* Offsets of every header byte: section headers, and the list headers of
 * every section that holds lists (the rule and clean sections hold one). */
std::vector<std::size_t> header_bytes(const Bytes &p)
{
    std::vector<std::size_t> out;
    for (const Section &s : sections(p)) {
        for (std::size_t i = 0; i < 16; ++i) out.push_back(s.at + i);
        const bool one_list = s.magic == MAGIC_TAZE_PATTERN_RULE_INFO || s.magic == MAGIC_TAZE_PATTERN_CLEAN_INFO;
        std::size_t off = s.at + 16;
        for (std::uint32_t k = 0; k < (one_list ? 1u : s.count) && off + 12 <= s.end; ++k) {
            for (std::size_t i = 0; i < 12; ++i) out.push_back(off + i);
            off += 12 + std::size_t(le32(p, off + 4));
        }
    }
    return out;
}

/* Loads a payload with the loader of its kind; a built image answers the
 * query battery. True when an image was built. */
bool load_payload(const Bytes &p, bool second, const std::string &what, bool query = true, bool corner = false)
{
    static const unsigned char none = 0;
    const unsigned char *buf = p.empty() ? &none : p.data();
    taz_pattern_st *img = nullptr;
    const Heap h = measure([&] {
        img = second ? ulm_load_pattern(buf, UINT32(p.size())) : taz_load_pattern(buf, UINT32(p.size()));
        if (img && query) tazf::exercise(img, buf, p.size());
        if (second)
            ulm_unload_pattern(img);
        else
            taz_unload_pattern(img);
    });
    expect_bounded(h, p.size(), what, corner);
    return img != nullptr;
}

/* Reads a container through the streaming reader in 32-byte pieces;
 * loaded images answer the query battery. */
tazf::Outcome read_container(const Bytes &file, const std::string &what)
{
    tazf::Outcome o;
    const Heap h = measure([&] {
        o = tazf::read_container(file.data(), file.size(), [] { return 32; }, [&file](const _TAZPattern *rec) {
            tazf::exercise_record(rec, file.data(), file.size());
        });
    });
    expect_bounded(h, file.size(), what);
    return o;
}

bool clean_code(int rc) { return rc == 0 || rc == -1 || rc == NO_MEM_ERR; }

/* Deterministic random numbers (xorshift64*). */
class Rng {
public:
    explicit Rng(std::uint64_t seed) : s_(seed * 0x9E3779B97F4A7C15ull | 1u) {}
    std::uint64_t next()
    {
        s_ ^= s_ >> 12;
        s_ ^= s_ << 25;
        s_ ^= s_ >> 27;
        return s_ * 0x2545F4914F6CDD1Dull;
    }
    std::size_t below(std::size_t n) { return n ? std::size_t(next() % n) : 0; }

private:
    std::uint64_t s_;
};

/* One to four random edits: bit flips, byte stores, interesting 32-bit
 * values (often over a header field), byte insertions and deletions, a
 * copied span. */
Bytes mutate(Bytes p, Rng &rng, const std::vector<std::size_t> &headers)
{
    static const std::uint32_t interesting[] = {0u, 1u, 2u, 0x7Fu, 0x80u, 0xFFu, 0xFFFFu, 1u << 20,
                                                0x7FFFFFFFu, 0x80000000u, 0xFFFFFFF0u, 0xFFFFFFFFu};
    const std::size_t edits = 1 + rng.below(4);
    for (std::size_t e = 0; e < edits && !p.empty(); ++e) {
        switch (rng.below(6)) {
        case 0: p[rng.below(p.size())] ^= std::uint8_t(1u << rng.below(8)); break;
        case 1: p[rng.below(p.size())] = std::uint8_t(rng.next()); break;
        case 2: {
            std::size_t at = headers.empty() || rng.below(4) == 0 ? rng.below(p.size()) : headers[rng.below(headers.size())];
            std::uint32_t v = interesting[rng.below(sizeof interesting / sizeof *interesting)];
            if (rng.below(3) == 0) v = le32(p, std::min(at, p.size() - 4)) + std::uint32_t(rng.below(5)) - 2u;
            for (int i = 0; i < 4 && at + std::size_t(i) < p.size(); ++i) p[at + std::size_t(i)] = std::uint8_t(v >> (8 * i));
            break;
        }
        case 3: p.insert(p.begin() + std::ptrdiff_t(rng.below(p.size())), std::uint8_t(rng.next())); break;
        case 4: p.erase(p.begin() + std::ptrdiff_t(rng.below(p.size()))); break;
        default: {
            const std::size_t from = rng.below(p.size()), n = std::min<std::size_t>(1 + rng.below(64), p.size() - from);
            const Bytes span(p.begin() + std::ptrdiff_t(from), p.begin() + std::ptrdiff_t(from + n));
            p.insert(p.begin() + std::ptrdiff_t(rng.below(p.size())), span.begin(), span.end());
            break;
        }
        }
    }
    return p;
}

struct Kind {
    const char *name;
    bool second;
};
constexpr Kind kKinds[] = {{"main kind", false}, {"second kind", true}};

/* ---- payload sweeps ------------------------------------------------------------------ */

/* A payload cut anywhere loads exactly when the cut leaves fewer than 16
 * bytes after the last whole section (every section of the representative
 * payload is valid on its own). */
TEST(Robustness, EveryTruncationOfAPayload)
{
    for (const Kind &kind : kKinds) {
        const Bytes full = tazf::full_payload(kind.second, true);
        const std::vector<Section> secs = sections(full);
        ASSERT_EQ(secs.back().end, full.size());
        std::size_t boundary = 0, next = 0;
        for (std::size_t cut = 0; cut <= full.size(); ++cut) {
            while (next < secs.size() && secs[next].end <= cut) boundary = secs[next++].end;
            const Bytes part(full.begin(), full.begin() + std::ptrdiff_t(cut));
            const std::string what = std::string(kind.name) + ", cut at " + std::to_string(cut);
            EXPECT_EQ(load_payload(part, kind.second, what, cut % 61 == 0), cut - boundary < 16) << what;
        }
    }
}

/* Every single-bit change of every section and list header. */
TEST(Robustness, EveryHeaderBitFlipOfAPayload)
{
    for (const Kind &kind : kKinds) {
        const Bytes full = tazf::full_payload(kind.second, true);
        int loaded = 0, tried = 0, skipped = 0, costly_seen = 0;
        for (std::size_t at : header_bytes(full)) {
            for (int bit = 0; bit < 8; ++bit) {
                Bytes bad = full;
                bad[at] ^= std::uint8_t(1u << bit);
                if (skip_costly(bad, costly_seen)) continue;
                if (trips_assertion(bad, kind.second)) {
                    ++skipped;
                    continue;
                }
                const std::string what = std::string(kind.name) + ", byte " + std::to_string(at) + " bit " +
                                         std::to_string(bit);
                loaded += load_payload(bad, kind.second, what, tried % 7 == 0);
                ++tried;
            }
        }
        EXPECT_LT(skipped, tried / 20) << kind.name;
        /* Flips of ignored fields (crc, unknown magics) keep the file loadable;
         * flips of sizes and counts mostly do not. */
        EXPECT_GT(loaded, tried / 10) << kind.name;
        EXPECT_LT(loaded, tried) << kind.name;
    }
}

/* A few thousand seeded random mutations per pattern kind. */
TEST(Robustness, RandomMutationsOfPayloads)
{
    constexpr int kMutations = 1500;
    for (const Kind &kind : kKinds) {
        const Bytes full = tazf::full_payload(kind.second, true);
        const std::vector<std::size_t> headers = header_bytes(full);
        Rng rng(kind.second ? 2 : 1);
        int loaded = 0, skipped = 0, costly_seen = 0;
        for (int i = 0; i < kMutations; ++i) {
            const Bytes bad = mutate(full, rng, headers);
            if (skip_costly(bad, costly_seen)) continue;
            if (trips_assertion(bad, kind.second)) {
                ++skipped;
                continue;
            }
            loaded += load_payload(bad, kind.second, std::string(kind.name) + ", mutation " + std::to_string(i));
        }
        EXPECT_LT(skipped, kMutations / 20) << kind.name;
        EXPECT_GT(loaded, 0) << kind.name;
    }
}

/* ---- container sweeps ----------------------------------------------------------------- */

struct ContainerCase {
    const char *name;
    bool encrypted;
};
constexpr ContainerCase kContainers[] = {{"encrypted", true}, {"plain", false}};

/* A container with a main, a second-kind and a raw sub-pattern, the main
 * one behind 40 bytes of filler. */
Bytes sample_container(bool encrypted)
{
    static const Bytes raw = {'r', 'a', 'w', 0, 1, 2, 3};
    const Bytes taz = tazw::concat({tazf::rule_section(), tazf::severity_info_section()});
    const Bytes ulm = tazw::concat({tazw::ulm_info_section("Trojan.X"), tazf::clean_section()});
    return tazf::container_of(taz, &ulm, &raw, encrypted, 40);
}

/* Offsets of the container's header bytes: main header, and each
 * sub-pattern header and encryption header. */
std::vector<std::size_t> container_header_bytes(const Bytes &f)
{
    std::vector<std::size_t> out;
    for (std::size_t i = 0; i < KORMHEAD_SIZE; ++i) out.push_back(i);
    std::size_t pos = KORMHEAD_SIZE;
    for (std::uint32_t n = bigEndianToU32(&f[12]); n > 0 && pos + KORMSUB_SIZE <= f.size(); --n) {
        for (std::size_t i = 0; i < KORMSUB_SIZE; ++i) out.push_back(pos + i);
        pos = std::max<std::size_t>(pos + KORMSUB_SIZE, bigEndianToU32(&f[pos + 12]));
        if (pos + ENCHEAD_SIZE > f.size()) break;
        for (std::size_t i = 0; i < ENCHEAD_SIZE; ++i) out.push_back(pos + i);
        pos += ENCHEAD_SIZE + bigEndianToU32(&f[pos]);
    }
    return out;
}

TEST(Robustness, EveryTruncationOfAContainer)
{
    for (const ContainerCase &c : kContainers) {
        const Bytes full = sample_container(c.encrypted);
        const tazf::Outcome whole = read_container(full, "whole");
        ASSERT_TRUE(whole.feed == 0 && whole.end == 0 && whole.taz && whole.ulm && whole.raw == 7) << c.name;
        for (std::size_t cut = 0; cut < full.size(); ++cut) {
            const std::string what = std::string(c.name) + ", cut at " + std::to_string(cut);
            const tazf::Outcome o = read_container(Bytes(full.begin(), full.begin() + std::ptrdiff_t(cut)), what);
            EXPECT_TRUE(clean_code(o.feed) && clean_code(o.end)) << what;
            /* The end of input never finds the end trap before the last body. */
            EXPECT_FALSE(o.feed == 0 && o.end == 0 && o.version != 0) << what;
        }
    }
}

TEST(Robustness, EveryHeaderBitFlipOfAContainer)
{
    for (const ContainerCase &c : kContainers) {
        const Bytes full = sample_container(c.encrypted);
        int loaded = 0, tried = 0;
        for (std::size_t at : container_header_bytes(full)) {
            for (int bit = 0; bit < 8; ++bit) {
                Bytes bad = full;
                bad[at] ^= std::uint8_t(1u << bit);
                const std::string what = std::string(c.name) + ", byte " + std::to_string(at) + " bit " +
                                         std::to_string(bit);
                const tazf::Outcome o = read_container(bad, what);
                EXPECT_TRUE(clean_code(o.feed) && clean_code(o.end)) << what;
                loaded += o.feed == 0 && o.end == 0 && o.taz;
                ++tried;
            }
        }
        EXPECT_GT(loaded, 0) << c.name; /* reserved fields, fmtVer, mbz are not looked at */
        EXPECT_LT(loaded, tried) << c.name;
    }
}

/* ---- hostile claims ------------------------------------------------------------------- */

/* A section of words. */
Bytes word_section(std::uint32_t magic, std::uint32_t count, const std::vector<std::uint32_t> &words)
{
    LeBuf b;
    for (std::uint32_t w : words) b.u32(w);
    return tazw::section(magic, count, b.take());
}

/* One sub-list of an info section, its body given as repeating words. */
Bytes info_sub_list(std::uint32_t section_magic, std::uint32_t list_magic, std::uint32_t records,
                    const std::vector<std::uint32_t> &period, std::size_t words)
{
    LeBuf body;
    for (std::size_t i = 0; i < words; ++i) body.u32(period[i % period.size()]);
    LeBuf list;
    list.u32(list_magic).u32(std::uint32_t(body.size())).u32(records).raw(body.bytes());
    return tazw::section(section_magic, 1, list.take());
}

/* Overlapping records (RL is only the stride): every record claims an
 * array as long as most of the section. Without a cap the section would
 * allocate the square of its size. */
Bytes overlapping_known_risks(std::size_t words)
{
    /* Period of 3 words: RL 8, then a count read as the previous record's
     * range count, then a filler; each record's ranges are the next X words. */
    const auto x = std::uint32_t(words / 3);
    return info_sub_list(MAGIC_TAZE_PATTERN_SEVERITY_INFO, MAGIC_TAZE_SEVERITY_KNOWN, std::uint32_t(words / 2 / 3),
                         {8, x, 1}, words);
}

Bytes overlapping_potential_risks(std::size_t words)
{
    /* Period of 3 words: RL 8, rule 0, a count Y; the Y nested known-risk
     * records of each are the potential records that follow it. */
    const auto y = std::uint32_t(words / 6);
    return info_sub_list(MAGIC_TAZE_PATTERN_SEVERITY_INFO, MAGIC_TAZE_SEVERITY_POTENT, std::uint32_t(words / 6),
                         {8, 0, y}, words);
}

Bytes overlapping_protocol_groups(std::size_t words)
{
    /* Period of 5 words: RL 16, id, a 3-byte description, then the index
     * count X; each group's indexes are the next X words. */
    const auto x = std::uint32_t(words / 2);
    const std::uint32_t desc = 'a' | 'b' << 8 | 'c' << 16;
    return info_sub_list(MAGIC_TAZE_PATTERN_PROTOCOL_INFO, MAGIC_TAZE_PROTOOCOL_GROUP_LIST,
                         std::uint32_t(words / 2 / 5), {16, 1, 3, desc, x}, words);
}

/* A string list numbered `number`, holding one string. */
Bytes numbered_list(std::uint32_t number)
{
    return tazw::section(MAGIC_TAZE_PATTERN_STR, 1, tazw::list(number, 1, tazw::string_entries({"x"})));
}

/* n entries of the cheapest kind a map or list section holds: strings, or
 * map entries with empty string keys and no values (9 bytes each). */
Bytes cheapest_entries(std::uint32_t magic, std::uint32_t n)
{
    LeBuf b;
    for (std::uint32_t i = 0; i < n; ++i) {
        b.str("");
        if (magic != MAGIC_TAZE_PATTERN_STR) b.u32(0);
    }
    return tazw::section(magic, 1, tazw::list(0, n, b.take()));
}

/* n distinct four-letter strings in ascending order: short enough that the
 * entries and the exact list's index outweigh the bytes on disk. */
Bytes short_strings(std::uint32_t n)
{
    std::vector<std::string> v;
    for (std::uint32_t i = 0; i < n; ++i)
        v.push_back({char('a' + i / 17576 % 26), char('a' + i / 676 % 26), char('a' + i / 26 % 26), char('a' + i % 26)});
    return tazw::section(MAGIC_TAZE_PATTERN_STR, 1, tazw::list(0, n, tazw::string_entries(v)));
}

/* n list headers of size 0 that each claim one entry: the entry overlaps the
 * next header, so every header costs a list record and an entry array. */
Bytes overlapping_lists(std::uint32_t n)
{
    LeBuf b;
    for (std::uint32_t i = 0; i < n; ++i) b.u32(i).u32(0).u32(1);
    return tazw::section(MAGIC_TAZE_PATTERN_PORT, n, b.u32(0).take());
}

/* Files whose headers claim far more than they hold: the load fails (or,
 * within the caps, succeeds) without allocating beyond the bound. Rows made
 * of the cheapest entries are held to the corner bound. */
TEST(Robustness, HostileClaims)
{
    struct Case {
        const char *name;
        Bytes payload;
        bool second;
        bool image;
        bool corner = false;
    };
    const Case cases[] = {
        /* One list far from list 0 (the 116-byte files that made a load
         * hold 16 MiB): one record, whatever the number. */
        {"list numbered 2^20", numbered_list(1u << 20), false, true},
        {"list numbered 2^31-2", numbered_list(0x7FFFFFFEu), false, true},
        {"list numbered 2^31-1", numbered_list(0x7FFFFFFFu), false, false},
        {"list numbered 0xFFFFFFFE", numbered_list(0xFFFFFFFEu), false, false},
        {"2^18 empty strings", cheapest_entries(MAGIC_TAZE_PATTERN_STR, 1u << 18), false, true, true},
        {"2^17 empty string keys", cheapest_entries(MAGIC_TAZE_PATTERN_STR_STR_MAP, 1u << 17), false, true, true},
        {"2^17 empty string keys, integer values", cheapest_entries(MAGIC_TAZE_PATTERN_STR_INT_MAP, 1u << 17), false,
         true, true},
        {"2^17 overlapping port lists", overlapping_lists(1u << 17), false, true, true},
        {"2^18 four-letter strings", short_strings(1u << 18), false, true},
        {"list claiming 2^32-1 strings", tazw::section(MAGIC_TAZE_PATTERN_STR, 1,
                                                      tazw::list(0, 0xFFFFFFFFu, tazw::string_entries({"x"}))),
         false, false},
        {"section claiming 2^32-1 lists", word_section(MAGIC_TAZE_PATTERN_PORT, 0xFFFFFFFFu, {0, 4, 1, 0x00500050}),
         false, false},
        {"map entry claiming 2^30 values",
         tazw::section(MAGIC_TAZE_PATTERN_INT_INT_MAP, 1, tazw::list(0, 1, LeBuf().u32(5).u32(1u << 30).u32(1).take())),
         false, false},
        {"IPv6 values inside the 4-byte check but past the payload",
         tazw::section(MAGIC_TAZE_PATTERN_STR_IPV6_MAP, 1,
                       tazw::list(0, 1, LeBuf().str("k").u32(4).raw(Bytes(16, 0xAB)).take())),
         false, false},
        {"overlapping known risks", overlapping_known_risks(3u << 14), false, false},
        {"overlapping potential risks", overlapping_potential_risks(3u << 13), false, false},
        {"overlapping protocol groups", overlapping_protocol_groups(5u << 12), true, false},
        {"rule records of 4 bytes each", info_sub_list(MAGIC_TAZE_PATTERN_RULE_INFO, 0, 1u << 14, {0}, 1u << 14),
         false, false},
    };
    for (const Case &c : cases) EXPECT_EQ(load_payload(c.payload, c.second, c.name, true, c.corner), c.image) << c.name;

    /* A container that claims a 2 GiB body but ends after its headers. */
    for (std::uint16_t kind : {KORM_SUB_TAZE_RULE, KORM_SUB_YUB_RULE}) {
        tazw::Container con;
        tazw::SubPattern s;
        s.subtype = kind;
        s.enctype = KORM_ENC_NONE;
        s.enclen = 0x7FFFFFF0u;
        s.declen = 0x7FFFFFF0u;
        con.subs.push_back(s);
        const Bytes file = tazw::build_container(con);
        const tazf::Outcome o = read_container(file, "2 GiB body claim");
        /* The end of input inside a body is accepted; nothing was built. */
        EXPECT_TRUE(o.feed == 0 && o.end == 0 && !o.taz && o.raw == 0 && o.version == 0) << "kind " << kind;
    }
}

/* ---- inputs the fuzz targets found ------------------------------------------------------ */

std::string regressions_dir()
{
    std::string here = __FILE__;
    return here.substr(0, here.rfind('/')) + "/../fuzz/regressions";
}

std::vector<std::pair<std::string, Bytes>> files_in(const std::string &dir)
{
    std::vector<std::pair<std::string, Bytes>> out;
    DIR *d = opendir(dir.c_str());
    if (!d) return out;
    while (struct dirent *e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::ifstream in(dir + "/" + e->d_name, std::ios::binary);
        out.push_back({e->d_name, Bytes(std::istreambuf_iterator<char>(in), {})});
    }
    closedir(d);
    return out;
}

/* Every checked-in input goes the way of its fuzz target once more. */
TEST(Robustness, FuzzRegressions)
{
    const std::string root = regressions_dir();
    int replayed = 0;
    for (const char *kind : {"payload", "ulm"})
        for (const auto &f : files_in(root + "/" + kind)) {
            load_payload(f.second, std::string(kind) == "ulm", f.first);
            ++replayed;
        }
    for (const auto &f : files_in(root + "/container")) {
        const tazf::Outcome o = read_container(f.second, f.first);
        EXPECT_TRUE(clean_code(o.feed) && clean_code(o.end)) << f.first;
        ++replayed;
    }
    for (const auto &f : files_in(root + "/wrapped")) {
        const std::size_t len = f.second.size() >= tazf::kWrapTrailer ? f.second.size() - tazf::kWrapTrailer : 0;
        const Bytes payload(f.second.begin(), f.second.begin() + std::ptrdiff_t(len));
        const std::uint8_t flags = f.second.empty() ? 0 : f.second.back();
        load_payload(payload, flags & tazf::kWrapAsSecond, f.first);
        ++replayed;
    }
    for (const auto &f : files_in(root + "/dir")) {
        const std::string dir = tazt::temp_dir();
        std::string prefix;
        bool slash = false;
        tazf::build_dir(dir, std::string(f.second.begin(), f.second.end()), prefix, slash);
        LIST_HEAD head;
        VK_LIST_INIT(&head);
        const int rc = getTAZPatternList((slash ? dir + "/" : dir).c_str(), prefix.c_str(), &head);
        EXPECT_TRUE(rc == 0 || (rc >= -7 && rc < 0 && VK_LIST_EMPTY(&head))) << f.first;
        delPatternVersionList(&head);
        tazf::clear_dir(dir);
        ++replayed;
    }
    EXPECT_GT(replayed, 0) << "no inputs under " << root;
}

} // namespace
