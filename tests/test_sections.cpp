/* The section stream and the list, range and map sections: payloads built by
 * the writer (malformed ones with LeBuf) go through the loaders of both
 * pattern kinds; the images are checked field by field. */
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "taze_impl.h"
#include "test_support.h"

namespace {

using namespace tazw;
using Image = taz_pattern_st;
using ImagePtr = std::unique_ptr<Image, void (*)(Image *)>;

ImagePtr load(const Bytes &payload, bool second = false)
{
    static const unsigned char none = 0;
    const unsigned char *buf = payload.empty() ? &none : payload.data();
    const auto len = UINT32(payload.size());
    return second ? ImagePtr(ulm_load_pattern(buf, len), ulm_unload_pattern)
                  : ImagePtr(taz_load_pattern(buf, len), taz_unload_pattern);
}

/* Loads with the error and warning bits set; returns what was printed. */
std::string load_printing(const Bytes &payload, ImagePtr &out)
{
    tazt::DebugMask mask(VKDEBUG_ERR | VKDEBUG_WARN);
    tazt::StdoutCapture cap;
    out = load(payload);
    return cap.finish();
}

std::string text(const counted_string_t &s) { return {reinterpret_cast<const char *>(s.ptr), s.len}; }

std::vector<std::string> texts(const counted_string_t *s, UINT32 n)
{
    std::vector<std::string> v;
    for (UINT32 i = 0; i < n; ++i) {
        EXPECT_EQ(s[i].ptr[s[i].len], 0) << "string " << i << " is not NUL-terminated";
        v.push_back(text(s[i]));
    }
    return v;
}

Bytes strs(std::uint32_t number, const std::vector<std::string> &v)
{
    return list(number, std::uint32_t(v.size()), string_entries(v));
}
/* A list header written as given, then the entries. */
Bytes raw_list(std::uint32_t number, std::uint32_t size, std::uint32_t count, LeBuf entries)
{
    return concat({LeBuf().u32(number).u32(size).u32(count).take(), entries.take()});
}
Bytes str_section(std::uint32_t count, const Bytes &body) { return section(MAGIC_TAZE_PATTERN_STR, count, body); }

const IPv6 kA{0x20, 0x01, 0x0d, 0xb8}, kB{0xfe, 0x80, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2};

/* ---- Every section kind, and which pattern kinds accept it ------------------ */
enum class Body { Strings, Ip, Ipv6, Port, StrInt, StrIpv6, IntInt, Ipv6Int, IntStr, StrStr };

Bytes one_entry(Body b)
{
    switch (b) {
    case Body::Strings: return string_entries({"alpha"});
    case Body::Ip: return ip_entries({{1, 2}});
    case Body::Ipv6: return ipv6_entries({{kA, kB}});
    case Body::Port: return port_entries({{80, 81}});
    case Body::StrInt: return map_entries(std::vector<tazw::StrIntEntry>{{"k", {1}}});
    case Body::StrIpv6: return map_entries(std::vector<StrIPv6Entry>{{"k", {kA}}});
    case Body::IntInt: return map_entries(std::vector<tazw::IntIntEntry>{{1, {1}}});
    case Body::Ipv6Int: return map_entries(std::vector<IPv6IntEntry>{{kA, {1}}});
    case Body::IntStr: return map_entries(std::vector<tazw::IntStrEntry>{{1, {"v"}}});
    case Body::StrStr: return map_entries(std::vector<tazw::StrStrEntry>{{"k", {"v"}}});
    }
    return {};
}

/* Entries of list i: every list record starts with its u32 entry count. */
template <auto Lists>
UINT32 entries_of(const Image &p, UINT32 i)
{
    UINT32 n;
    std::memcpy(&n, &(p.*Lists)[i], sizeof n);
    return n;
}

struct KindRow {
    UINT32 magic;
    UINT32 Image::*count;
    UINT32 (*entries)(const Image &, UINT32);
    Body body;
    bool second_kind;
};
#define ROW(magic, stem, body, second) \
    { magic, &Image::max_##stem##_list_count, entries_of<&Image::stem##_lists>, Body::body, second }
const KindRow kKinds[] = {
    ROW(MAGIC_TAZE_PATTERN_STR, string, Strings, true),
    ROW(MAGIC_TAZE_PATTERN_STR_PREFIX, string_prefix, Strings, true),
    ROW(MAGIC_TAZE_PATTERN_STR_SUFFIX, string_suffix, Strings, true),
    ROW(MAGIC_TAZE_PATTERN_STR_SUBSTR, string_substring, Strings, true),
    ROW(MAGIC_TAZE_PATTERN_STR_CASE, string_case, Strings, true),
    ROW(MAGIC_TAZE_PATTERN_STR_PREFIX_CASE, string_prefix_case, Strings, false),
    ROW(MAGIC_TAZE_PATTERN_STR_SUFFIX_CASE, string_suffix_case, Strings, false),
    ROW(MAGIC_TAZE_PATTERN_STR_SUBSTR_CASE, string_substr_case, Strings, false),
    ROW(MAGIC_TAZE_PATTERN_IP, ip_range, Ip, true), ROW(MAGIC_TAZE_PATTERN_IPV6, ipv6_range, Ipv6, true),
    ROW(MAGIC_TAZE_PATTERN_PORT, port_range, Port, true),
    ROW(MAGIC_TAZE_PATTERN_STR_INT_MAP, str_int_map, StrInt, true),
    ROW(MAGIC_TAZE_PATTERN_PREFIX_INT_MAP, prefix_int_map, StrInt, true),
    ROW(MAGIC_TAZE_PATTERN_SUFFIX_INT_MAP, suffix_int_map, StrInt, true),
    ROW(MAGIC_TAZE_PATTERN_SUBSTR_INT_MAP, substr_int_map, StrInt, true),
    ROW(MAGIC_TAZE_PATTERN_INT_INT_MAP, int_int_map, IntInt, true),
    ROW(MAGIC_TAZE_PATTERN_INT_STR_MAP, int_str_map, IntStr, true),
    ROW(MAGIC_TAZE_PATTERN_INT_PREFIX_MAP, int_prefix_map, IntStr, true),
    ROW(MAGIC_TAZE_PATTERN_INT_SUFFIX_MAP, int_suffix_map, IntStr, true),
    ROW(MAGIC_TAZE_PATTERN_INT_SUBSTR_MAP, int_substr_map, IntStr, true),
    ROW(MAGIC_TAZE_PATTERN_STR_STR_MAP, str_str_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_STR_PREFIX_MAP, str_prefix_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_STR_SUFFIX_MAP, str_suffix_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_STR_SUBSTR_MAP, str_substr_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_PREFIX_STR_MAP, prefix_str_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_PREFIX_PREFIX_MAP, prefix_prefix_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_PREFIX_SUFFIX_MAP, prefix_suffix_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_PREFIX_SUBSTR_MAP, prefix_substr_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_SUFFIX_STR_MAP, suffix_str_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_SUFFIX_PREFIX_MAP, suffix_prefix_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_SUFFIX_SUFFIX_MAP, suffix_suffix_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_SUFFIX_SUBSTR_MAP, suffix_substr_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_SUBSTR_STR_MAP, substr_str_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_SUBSTR_PREFIX_MAP, substr_prefix_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_SUBSTR_SUFFIX_MAP, substr_suffix_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_SUBSTR_SUBSTR_MAP, substr_substr_map, StrStr, true),
    ROW(MAGIC_TAZE_PATTERN_STR_IPV6_MAP, string_ipv6_map, StrIpv6, true),
    ROW(MAGIC_TAZE_PATTERN_PREFIX_IPV6_MAP, prefix_ipv6_map, StrIpv6, true),
    ROW(MAGIC_TAZE_PATTERN_SUFFIX_IPV6_MAP, suffix_ipv6_map, StrIpv6, true),
    ROW(MAGIC_TAZE_PATTERN_SUBSTR_IPV6_MAP, substr_ipv6_map, StrIpv6, true),
    ROW(MAGIC_TAZE_PATTERN_IPV6_INT_MAP, ipv6_int_map, Ipv6Int, true),
};
#undef ROW

std::string magic_text(UINT32 m)
{
    std::string s;
    for (int i = 0; i < 4; ++i) s += char(m >> (8 * i)) ? std::string(1, char(m >> (8 * i))) : "\\0";
    return s;
}

TEST(SectionKinds, EachKindFillsOnlyItsOwnFieldWhereItsPatternKindAcceptsIt)
{
    for (const KindRow &row : kKinds)
        for (bool second : {false, true}) {
            SCOPED_TRACE(magic_text(row.magic) + (second ? " (second kind)" : " (main kind)"));
            ImagePtr img = load(section(row.magic, 1, list(2, 1, one_entry(row.body))), second);
            ASSERT_TRUE(img);
            const bool accepted = !second || row.second_kind;
            for (const KindRow &other : kKinds)
                EXPECT_EQ(img.get()->*other.count, &other == &row && accepted ? 3u : 0u) << magic_text(other.magic);
            if (accepted) {
                EXPECT_EQ(row.entries(*img, 2), 1u);
                EXPECT_EQ(row.entries(*img, 0), 0u);
            }
            EXPECT_EQ(img->fast, nullptr);
        }
}

TEST(SectionWalk, PayloadsShorterThanOneSectionHeaderLoadEmpty)
{
    const Bytes header = str_section(1, strs(0, {"a"}));
    for (long n = 0; n < 16; ++n) {
        ImagePtr img = load(Bytes(header.begin(), header.begin() + n));
        ASSERT_TRUE(img) << n;
        for (const KindRow &k : kKinds) EXPECT_EQ(img.get()->*k.count, 0u) << magic_text(k.magic);
    }
}

/* Section walk and string lists, through "STR\0" sections. */
TEST(SectionWalk, SectionsListNumbersAndStrings)
{
    const Bytes one = strs(0, {"ab"});
    const Bytes junk(24, 0xEE);
    const struct {
        const char *name;
        Bytes payload;
        bool loads;
        std::vector<std::vector<std::string>> lists; /* strings per list number */
        std::string printed;
    } cases[] = {
        {"section reaching exactly to the end", str_section(1, one), true, {{"ab"}}, ""},
        {"1 stray byte", concat({str_section(1, one), Bytes(1, 0xEE)}), true, {{"ab"}}, ""},
        {"15 stray bytes", concat({str_section(1, one), Bytes(15, 0xEE)}), true, {{"ab"}}, ""},
        {"one byte past the end", section(MAGIC_TAZE_PATTERN_STR, 1, one, 0, 20), false, {},
         "Error! i+shdr.size=36 > ptn_len=35\n"},
        {"size beyond 32 bits", section(MAGIC_TAZE_PATTERN_STR, 1, one, 0, 0xFFFFFFF0u), false, {},
         "Error! i+shdr.size=4294967295 > ptn_len=35\n"},
        {"unknown kinds skipped",
         concat({section(MAGIC_TAZE_PATTERN_ULM_INFO, 1, junk), section(MAGIC_TAZE_PATTERN_COMPILER_VER, 1, junk),
         section(0x5A5A5A5A, 7, junk), str_section(1, one)}), true, {{"ab"}}, ""},
        {"crc never checked", section(MAGIC_TAZE_PATTERN_STR, 1, one, 0xDEADBEEF), true, {{"ab"}}, ""},
        {"section count 0 with a non-zero size", str_section(0, junk), true, {}, ""},
        {"list 0xFFFFFFFF ignored", str_section(2, concat({strs(0xFFFFFFFF, {"x"}), strs(1, {"y"})})), true,
         {{}, {"y"}}, ""},
        {"lists 5 and 2", str_section(2, concat({strs(5, {"5"}), strs(2, {"2"})})), true,
         {{}, {}, {"2"}, {}, {}, {"5"}}, ""},
        {"second section replaces the first",
         concat({str_section(1, strs(3, {"old"})), str_section(1, strs(1, {"new"}))}), true, {{}, {"new"}}, ""},
        {"list number given twice", str_section(2, concat({strs(1, {"a"}), strs(1, {"b", "c"})})), true,
         {{}, {"b", "c"}}, ""},
        {"text ending at the section end, no room for its NUL",
         str_section(1, raw_list(0, 7, 1, LeBuf().u32(3).raw("abc", 3))), true, {{"abc"}}, ""},
        {"3 strings declared, 2 present", str_section(1, list(0, 3, string_entries({"a", "b"}))), false, {}, ""},
        {"list count 0: next list found through the size",
         str_section(2, concat({list(0, 0, Bytes(5, 0xEE)), strs(1, {"x"})})), true, {{}, {"x"}}, ""},
        {"empty string", str_section(1, strs(0, {"", "b"})), true, {{"", "b"}}, ""},
        {"string past its list's own size", str_section(1, list(0, 1, string_entries({"abcdef"}), 0)), true,
         {{"abcdef"}}, ""},
        {"text past the section", str_section(1, raw_list(0, 8, 1, LeBuf().u32(5).raw("abcd", 4))), false, {}, ""},
        {"length field cut short", str_section(1, raw_list(0, 6, 2, LeBuf().u32(0).u8(0).u8(0))), false, {}, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ImagePtr img(nullptr, taz_unload_pattern);
        EXPECT_EQ(load_printing(c.payload, img), c.printed);
        ASSERT_EQ(bool(img), c.loads);
        if (!img) continue;
        ASSERT_EQ(img->max_string_list_count, c.lists.size());
        ASSERT_NE(img->string_lists, nullptr);
        for (UINT32 i = 0; i < c.lists.size(); ++i) {
            const str_list_st &l = img->string_lists[i];
            EXPECT_EQ(texts(l.strings, l.nr_strings), c.lists[i]) << "list " << i;
            EXPECT_EQ(l.strings == nullptr, l.nr_strings == 0) << "list " << i;
        }
    }
    tazt::StdoutCapture cap;
    EXPECT_FALSE(load(section(MAGIC_TAZE_PATTERN_STR, 1, one, 0, 20)));
    EXPECT_EQ(cap.finish(), "") << "the overrun message needs the error bit";
}

/* A section whose highest list number exceeds its list headers by more than
 * 64 keeps one record per number that a non-empty list uses; every number
 * answers as a dense array would. */
TEST(SectionWalk, SparseListNumbers)
{
    using Lists = std::vector<std::pair<UINT32, std::vector<std::string>>>;
    const struct {
        const char *name;
        Bytes payload;
        bool sparse;
        UINT32 lists, records;
        Lists expect; /* strings of some list numbers */
    } cases[] = {
        {"highest number at the dense limit", str_section(1, strs(64, {"a"})), false, 65, 65, {{64, {"a"}}, {0, {}}}},
        {"one past the dense limit", str_section(1, strs(65, {"a"})), true, 66, 1, {{65, {"a"}}, {64, {}}, {0, {}}}},
        {"empty lists, a number given twice, 0xFFFFFFFF",
         str_section(5, concat({strs(900, {"x"}), list(70, 0, {}), strs(300, {"y"}), strs(900, {"z", "zz"}),
                                strs(0xFFFFFFFF, {"g"})})),
         true, 901, 2, {{900, {"z", "zz"}}, {300, {"y"}}, {70, {}}, {899, {}}, {301, {}}, {0, {}}}},
        {"only empty lists", str_section(1, list(5000, 0, {})), true, 5001, 0, {{4999, {}}, {5000, {}}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const ImagePtr img = load(c.payload);
        ASSERT_TRUE(img);
        const taz_list_numbers_st &where = img->string_lists_numbers;
        EXPECT_EQ(where.numbers != nullptr, c.sparse);
        EXPECT_EQ(img->max_string_list_count, c.records);
        ASSERT_EQ(taze::list_count(img->max_string_list_count, where), c.lists);
        EXPECT_EQ(taze::list_at(img->string_lists, img->max_string_list_count, where, c.lists), nullptr);
        for (const auto &[n, strings] : c.expect) {
            const str_list_st *l = taze::list_at(img->string_lists, img->max_string_list_count, where, n);
            ASSERT_NE(l, nullptr) << "list " << n;
            EXPECT_EQ(texts(l->strings, l->nr_strings), strings) << "list " << n;
        }
    }
}

/* A string-to-IPv6 entry whose section holds 16 bytes after its count. */
Bytes ipv6_map_entry(std::uint32_t nr)
{
    const Bytes entry = LeBuf().str("k").u32(nr).raw(Bytes(16, 0xAB)).take();
    return section(MAGIC_TAZE_PATTERN_STR_IPV6_MAP, 1, list(0, 1, entry));
}
const Bytes kAfter = section(0x5A5A5A5A, 0, Bytes(32, 0x77)); /* 48 more payload bytes */

TEST(MapLists, Ipv6ValuesAreCheckedFourBytesEachAgainstTheSection)
{
    ImagePtr img = load(concat({ipv6_map_entry(4), kAfter}));
    ASSERT_TRUE(img);
    const sipv6map_st &m = img->string_ipv6_map_lists[0].str_ipv6_maps[0];
    ASSERT_EQ(m.nr_ipv6s, 4u);
    EXPECT_EQ(m.ipv6s[0].bytes[15], 0xAB);
    EXPECT_EQ(0, std::memcmp(m.ipv6s[1].bytes, kAfter.data(), 16)) << "copied from the bytes that follow";
    EXPECT_EQ(m.ipv6s[3].bytes[15], 0x77);
}

/* Port lists numbered 0..k-1, each of size 0 and n entries that overlap the
 * later headers and a shared tail: k * n entries from 12k + 4n bytes. */
Bytes overlapping_port_lists(std::uint32_t k, std::uint32_t n)
{
    LeBuf b;
    for (std::uint32_t i = 0; i < k; ++i) b.u32(i).u32(0).u32(n);
    return section(MAGIC_TAZE_PATTERN_PORT, k, b.raw(Bytes(4 * std::size_t(n), 0x11)).take());
}

/* Counts and list numbers past the caps are swept in test_robustness. */
TEST(Hostile, MalformedSectionsFailCleanly)
{
    auto entry = [](UINT32 magic, LeBuf e) { return section(magic, 1, list(0, 1, e.take())); };
    const UINT32 INT_INT = MAGIC_TAZE_PATTERN_INT_INT_MAP, STR_STR = MAGIC_TAZE_PATTERN_STR_STR_MAP,
                 STR_IPV6 = MAGIC_TAZE_PATTERN_STR_IPV6_MAP;
    const struct {
        const char *name;
        Bytes payload;
        bool loads;
    } cases[] = {
        {"list size past 32 bits", str_section(1, raw_list(0, 0xFFFFFFF8u, 1, LeBuf().str("a"))), false},
        {"list size one byte past the section", str_section(1, raw_list(0, 7, 1, LeBuf().str("a"))), false},
        {"list size ending at the section end", str_section(1, raw_list(0, 6, 1, LeBuf().str("a"))), true},
        {"string length 0xFFFFFFFF", str_section(1, raw_list(0, 8, 1, LeBuf().u32(0xFFFFFFFFu).u32(0))), false},
        {"list number 2^31-2: one record", str_section(1, strs(0x7FFFFFFEu, {"a"})), true},
        {"list number 2^31-1", str_section(1, strs(0x7FFFFFFFu, {"a"})), false},
        {"overlapping lists within the memory budget", overlapping_port_lists(10, 1000), true},
        {"overlapping lists beyond the memory budget", overlapping_port_lists(1000, 3000), false},
        {"IPv4 list of 3 holding 2 1/2 entries", section(MAGIC_TAZE_PATTERN_IP, 1, list(0, 3, Bytes(20, 1))), false},
        {"IPv6 range cut short", section(MAGIC_TAZE_PATTERN_IPV6, 1, list(0, 1, Bytes(31, 1))), false},
        {"huge string value count", entry(STR_STR, LeBuf().str("k").u32(0x40000000u).str("v")), false},
        {"IPv6 values 4 x nr past 32 bits", entry(STR_IPV6, LeBuf().str("k").u32(0x40000000u)), false},
        {"5 IPv6 values need 20 bytes in the section", concat({ipv6_map_entry(5), kAfter}), false},
        {"key whose NUL ends the section", concat({entry(STR_STR, LeBuf().str("key")), kAfter}), false},
        {"string value without room for its NUL",
         concat({entry(STR_STR, LeBuf().str("key").u32(1).u32(2).raw("vv", 2)), kAfter}), false},
        {"integer value past the section", concat({entry(INT_INT, LeBuf().u32(1).u32(2).u32(5)), kAfter}), false},
        {"IPv6 key cut short", entry(MAGIC_TAZE_PATTERN_IPV6_INT_MAP, LeBuf().raw(Bytes(15, 1))), false},
    };
    for (const auto &c : cases) EXPECT_EQ(bool(load(c.payload)), c.loads) << c.name;
}

/* Deliberate assertions in Debug builds; a clean failure without them. */
TEST(Preconditions, EmptyListSectionAndAbsentPayload)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const auto &[magic, second] : {std::pair{MAGIC_TAZE_PATTERN_STR, false}, {MAGIC_TAZE_PATTERN_IPV6, false},
                                        {MAGIC_TAZE_PATTERN_PREFIX_INT_MAP, false},
                                        {MAGIC_TAZE_PATTERN_STR_IPV6_MAP, false},
                                        {MAGIC_TAZE_PATTERN_IPV6_INT_MAP, false}, {MAGIC_TAZE_PATTERN_ULM_INFO, true}}) {
        SCOPED_TRACE(magic_text(magic));
#ifdef NDEBUG
        EXPECT_FALSE(load(section(magic, 1, {}), second));
#else
        EXPECT_DEATH(load(section(magic, 1, {}), second), "");
#endif
    }
#ifdef NDEBUG
    EXPECT_EQ(taz_load_pattern(nullptr, 4), nullptr);
    EXPECT_EQ(ulm_load_pattern(nullptr, 4), nullptr);
#else
    EXPECT_DEATH(taz_load_pattern(nullptr, 4), "");
#endif
}

} // namespace
