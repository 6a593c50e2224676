/* Rule, clean, protocol, severity, pattern-info and threat-type sections:
 * the loaders run on section bodies built by the writer, and the lookups
 * run on the image they fill. */
#include <cstring>
#include <functional>
#include <list>
#include <malloc.h>

#include "taze_impl.h"
#include "tazewriter_info.h"
#include "test_support.h"

namespace {

using namespace tazw;
using Loader = int (*)(taz_pattern_st *, const unsigned char *, UINT32, UINT32);

constexpr unsigned kAll = VKDEBUG_ERR | VKDEBUG_WARN;
constexpr UINT32 kUnset = 0xDEADBEEF;

/* Section offsets of list fields: section header 16, list header 12. */
constexpr std::size_t kList = 16, kRec = 16 + 12;

Bytes patched(Bytes b, std::size_t off, std::uint32_t v)
{
    for (int i = 0; i < 4; ++i) b[off + i] = std::uint8_t(v >> (8 * i));
    return b;
}

std::uint32_t le32(const Bytes &b, std::size_t off)
{
    return std::uint32_t(b[off]) | std::uint32_t(b[off + 1]) << 8 | std::uint32_t(b[off + 2]) << 16 |
           std::uint32_t(b[off + 3]) << 24;
}

/* The section one byte shorter, its first list's size shortened to match,
 * so that only the last record runs past the end. */
Bytes cut_last_byte(Bytes s)
{
    s.pop_back();
    s = patched(s, 8, le32(s, 8) - 1);
    return patched(s, kList + 4, le32(s, kList + 4) - 1);
}

std::string text(const unsigned char *p) { return p ? reinterpret_cast<const char *>(p) : "<null>"; }

/* An image filled by section loaders. Each body is copied into a buffer of
 * exactly the size handed to the loader (so any read past it is caught),
 * and kept as long as the image points into it. Every table is released
 * twice at the end. */
struct Image {
    taz_pattern_st p{};
    std::list<Bytes> bodies;

    int load(Loader fn, const Bytes &sec)
    {
        const UINT32 size = le32(sec, 8);
        const Bytes &b = bodies.emplace_back(sec.begin() + 16, sec.begin() + 16 + size);
        return fn(&p, b.data(), size, le32(sec, 12));
    }
    void release()
    {
        taz_unload_rule_info_ptns(&p);
        taz_unload_clean_info_ptns(&p);
        taz_unload_protocol_ptns(&p);
        taz_unload_severity_ptns(&p);
        taz_unload_threat_type(&p);
    }
    ~Image()
    {
        release();
        release();
    }
};

/* Loads a section with the given debug mask and checks the result and
 * what the loader printed. */
void expect_load(Image &img, unsigned mask, Loader fn, const Bytes &sec, int rc, const std::string &printed)
{
    tazt::DebugMask m(mask);
    tazt::StdoutCapture cap;
    EXPECT_EQ(img.load(fn, sec), rc);
    EXPECT_EQ(cap.finish(), printed);
}

RuleInfo rule(std::uint32_t id, std::string desc, CleanInfo clean = {}, RL rl = {})
{
    return RuleInfo{id, id + 1, "risk" + std::to_string(id), id + 2, id % 2, std::move(desc), std::move(clean), rl};
}

const CleanInfo kClean{6, 17, 5, 1, 7, "src", "dst", {}};

TEST(InfoSections, RuleAndCleanLists)
{
    /* A first record whose RL reaches 3 bytes past its fields. */
    const Bytes last = clean_body({1, 1, 77, 1, 1, "", "", {}});
    const Bytes junk_rl = LeBuf().u32(std::uint32_t(clean_body(kClean).size() + 3)).raw(clean_body(kClean))
                              .raw(Bytes(3, 0xAA)).u32(std::uint32_t(last.size())).raw(last).take();
    struct Case {
        const char *name;
        bool is_rule;
        Bytes sec;
        int rc;
        UINT32 count, last; /* rule: highest id; clean: priority of the last entry */
    } cases[] = {
        {"clean N=0 loads empty", false, clean_info_section({}), 0, 0, 0},
        {"rule N=0 fails", true, rule_info_section({}), -1, 0, 0},
        {"rules sorted by id", true, rule_info_section({rule(30, "a"), rule(10, "b"), rule(20, "c")}), 0, 3, 30},
        {"last terminator on the last byte", true, rule_info_section({rule(7, "x")}), 0, 1, 7},
        {"rule one byte short", true, cut_last_byte(rule_info_section({rule(7, "x")})), -1, 0, 0},
        {"clean one byte short", false, cut_last_byte(clean_info_section({kClean})), -1, 0, 0},
        {"RL 0 still reads every field", true, rule_info_section({rule(9, "x", kClean, 0)}), 0, 1, 9},
        {"RL past the section", false, clean_info_section({CleanInfo{1, 2, 3, 1, 1, "", "", 1000}}), -1, 0, 0},
        {"RL longer than the fields", false, section(info_magic::CLEAN, 1, list(0, 2, junk_rl)), 0, 2, 77},
        {"list size past the section", true, patched(rule_info_section({rule(1, "")}), kList + 4, 1000), -1, 0, 0},
        {"count that cannot fit", true, patched(rule_info_section({rule(1, "")}), kList + 8, 0xFFFFFFFF), -1, 0, 0},
        {"string length past the end", true, patched(rule_info_section({rule(1, "")}), kRec + 12, 0xFFFFFFF0), -1, 0,
         0},
        {"list header cut short", false, section(info_magic::CLEAN, 1, Bytes(11, 0)), -1, 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Image img;
        EXPECT_EQ(img.load(c.is_rule ? taz_load_rule_info_ptns : taz_load_clean_info_ptns, c.sec), c.rc);
        if (c.is_rule) {
            const taz_rule_info_list_st &l = img.p.rule_info_list;
            ASSERT_EQ(l.nr_rule_infos, c.count);
            EXPECT_EQ(l.rule_infos == nullptr, c.count == 0);
            for (UINT32 i = 1; i < c.count; ++i) EXPECT_LT(l.rule_infos[i - 1].rule_id, l.rule_infos[i].rule_id);
            if (c.count) {
                EXPECT_EQ(l.rule_infos[c.count - 1].rule_id, c.last);
            }
        } else {
            const taz_clean_info_list_st &l = img.p.clean_info_list;
            ASSERT_EQ(l.nr_clean_infos, c.count);
            EXPECT_EQ(l.clean_infos == nullptr, c.count == 0);
            if (c.count) {
                EXPECT_EQ(l.clean_infos[c.count - 1].priority, c.last);
            }
        }
    }
}

TEST(InfoSections, LaterSectionReplacesEarlierUnlessEmpty)
{
    Image img;
    ASSERT_EQ(img.load(taz_load_clean_info_ptns, clean_info_section({kClean, kClean})), 0);
    ASSERT_EQ(img.load(taz_load_clean_info_ptns, clean_info_section({CleanInfo{1, 1, 42, 1, 1, "", "", {}}})), 0);
    ASSERT_EQ(img.load(taz_load_clean_info_ptns, clean_info_section({})), 0);
    ASSERT_EQ(img.p.clean_info_list.nr_clean_infos, 1u);
    EXPECT_EQ(img.p.clean_info_list.clean_infos[0].priority, 42u);
}

TEST(InfoSections, ProtocolSubLists)
{
    const Protocol p{6, "tcp", 0, {}};
    const ProtocolGroup g{1, "g", {0}, {}};
    const Bytes unknown = list(0x58585858, 2, Bytes(8, 0));
    const std::string bad_magic = "BUG: Un-recognized pattern info pattern header magic: 58585858";
    struct Case {
        const char *name;
        Bytes sec;
        unsigned mask;
        int rc;
        std::string printed;
        UINT32 protocols, groups;
    } cases[] = {
        {"lists of count 0", info_section(info_magic::PROTOCOL, {protocol_list({}), protocol_group_list({}),
                                                                 list(0x58585858, 0, Bytes(4, 0))}),
         kAll, 0, "", 0, 0},
        {"unknown sub-list", info_section(info_magic::PROTOCOL, {unknown, protocol_list({p})}), kAll, 0, bad_magic, 1,
         0},
        {"unknown sub-list, error bit off", info_section(info_magic::PROTOCOL, {unknown}), VKDEBUG_WARN, 0, "", 0, 0},
        {"duplicate protocol list", info_section(info_magic::PROTOCOL, {protocol_list({p, p}), protocol_list({p})}),
         kAll, 0, "BUG: Duplicated Protocol info list defined", 2, 0},
        {"duplicate group list",
         info_section(info_magic::PROTOCOL, {protocol_group_list({g}), protocol_group_list({g, g})}), kAll, 0,
         "BUG: Duplicated Protocol Group info list defined", 0, 1},
        {"duplicate, warning bit off",
         info_section(info_magic::PROTOCOL, {protocol_list({p}), protocol_list({p})}), VKDEBUG_ERR, 0, "", 1, 0},
        {"more lists than bytes", section(info_magic::PROTOCOL, 2, protocol_list({p})), kAll, -1, "", 0, 0},
        {"list size past the section", patched(protocol_section({p}, {}), kList + 4, 1000), kAll, -1, "", 0, 0},
        {"member count cannot fit", patched(protocol_section({p}, {g}), kList + 32 + 26, 0xFFFFFFFF), kAll, -1,
         "", 0, 0},
        {"record end past the section", protocol_section({p}, {{1, "g", {0}, 1000}}), kAll, -1, "", 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Image img;
        expect_load(img, c.mask, taz_load_protocol_ptns, c.sec, c.rc, c.printed);
        EXPECT_EQ(img.p.protocol_info.nr_prot_infos, c.protocols);
        EXPECT_EQ(img.p.protocol_info.nr_prog_infos, c.groups);
        EXPECT_EQ(img.p.protocol_info.prot_infos == nullptr, c.protocols == 0);
        EXPECT_EQ(img.p.protocol_info.prog_infos == nullptr, c.groups == 0);
    }
}

TEST(InfoSections, SeveritySubLists)
{
    const KnownRisk k{2, 5, 50, {{6, 6}}, {}};
    const PotentialRisk pot{100, {k}, {}};
    auto defaults = [](std::uint32_t magic, std::vector<RiskInfo> r) { return risk_default_list(magic, r); };
    auto sev = [](std::vector<Bytes> lists) { return info_section(info_magic::SEVERITY, lists); };
    const auto KND = info_magic::KNOWN_DEFAULT, POD = info_magic::POTENTIAL_DEFAULT;
    struct Case {
        const char *name;
        Bytes sec;
        bool cut; /* drop the last byte */
        int rc;
        std::string printed;
        UINT32 known, potential, known_inbound_severity, potential_outbound_severity;
    } cases[] = {
        {"defaults of directions 1, 0, 4 are ignored, a later list is taken",
         sev({defaults(KND, {{1, 1, 1, {}}, {0, 2, 2, {}}, {4, 3, 3, {}}}), defaults(KND, {{2, 11, 0, {}}})}), 0, 0,
         "", 0, 0, 11, 0},
        {"a later record of one direction wins", sev({defaults(KND, {{2, 5, 0, {}}, {2, 6, 0, {}}})}), 0, 0, "", 0, 0,
         6, 0},
        {"duplicate known list", sev({known_risk_list({k}), known_risk_list({k, k})}), 0, 0,
         "BUG: Duplicated known risk info list defined", 1, 0, 0, 0},
        {"duplicate known default list", sev({defaults(KND, {{2, 5, 0, {}}}), defaults(KND, {{2, 6, 0, {}}})}), 0, 0,
         "BUG: Duplicated default known risk info list defined", 0, 0, 5, 0},
        {"duplicate potential list", sev({potential_risk_list({pot}), potential_risk_list({pot, pot})}), 0, 0,
         "BUG: Duplicated potential risk info list defined", 0, 1, 0, 0},
        {"duplicate potential default list", sev({defaults(POD, {{3, 1, 0, {}}}), defaults(POD, {{3, 2, 0, {}}})}), 0,
         0, "BUG: Duplicated default potential risk info list defined", 0, 0, 0, 1},
        {"unknown sub-list", sev({list(0x01020304, 1, Bytes(4, 0))}), 0, 0,
         "BUG: Un-recognized pattern info pattern header magic: 01020304", 0, 0, 0, 0},
        {"last range one byte short", sev({known_risk_list({k})}), 1, -1, "", 0, 0, 0, 0},
        {"range count cannot fit", patched(sev({known_risk_list({k})}), kRec + 16, 0x40000000), 0, -1, "", 0, 0, 0, 0},
        {"nested count cannot fit", patched(sev({potential_risk_list({pot})}), kRec + 8, 0xFFFFFFFF), 0, -1, "", 0, 0,
         0, 0},
        {"nested record past the section", sev({potential_risk_list({{100, {{2, 5, 50, {}, 1000}}, {}}})}), 0, -1, "",
         0, 0, 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Image img;
        expect_load(img, kAll, taz_load_severity_ptns, c.cut ? cut_last_byte(c.sec) : c.sec, c.rc, c.printed);
        const taz_severity_info_list_st &si = img.p.severity_info;
        EXPECT_EQ(si.nr_known_infos, c.known);
        EXPECT_EQ(si.nr_potential_infos, c.potential);
        EXPECT_EQ(si.known_infos == nullptr, c.known == 0);
        EXPECT_EQ(si.potential_infos == nullptr, c.potential == 0);
        EXPECT_EQ(si.known_inbound_info.severity, c.known_inbound_severity);
        EXPECT_EQ(si.potential_outbound_info.severity, c.potential_outbound_severity);
    }
}

TEST(InfoSections, ThreatTypeAndCompilerVersion)
{
    const Bytes threats = threat_type_list({{10, 3, {}}, {20, 99, {}}, {10, 4, {}}, {30, 0, {}}});
    auto thrt = [](std::vector<Bytes> lists) { return info_section(info_magic::THREAT_TYPE, lists); };
    auto ptn = [](std::vector<Bytes> lists) { return info_section(info_magic::PATTERN_INFO, lists); };
    struct Case {
        const char *name;
        Loader fn;
        Bytes sec;
        bool cut; /* drop the last byte */
        int rc;
        std::string printed;
        UINT32 threat_types, version;
    } cases[] = {
        {"threat types", taz_load_threat_type, thrt({threats}), 0, 0, "", 4, 0},
        {"threat list of count 0", taz_load_threat_type, thrt({threat_type_list({})}), 0, 0, "", 0, 0},
        {"second threat list", taz_load_threat_type, thrt({threats, threat_type_list({{40, 1, {}}})}), 0, 0,
         "BUG: Duplicated threat type info list defined", 4, 0},
        {"unknown threat sub-list", taz_load_threat_type, thrt({list(0x12345678, 1, Bytes(4, 0))}), 0, 0,
         "BUG: Un-recognized threat type info header magic: 12345678", 0, 0},
        {"cut threat record stays attached", taz_load_threat_type, thrt({threats}), 1, -1, "", 4, 0},
        {"compiler version", taz_load_ptn_info_ptns, pattern_info_section(0x01020304), 0, 0, "", 0, 0x01020304},
        {"two compiler versions: the later", taz_load_ptn_info_ptns,
         ptn({compiler_version_list(1), compiler_version_list(2)}), 0, 0, "", 0, 2},
        {"only unknown lists", taz_load_ptn_info_ptns, ptn({list(0xCAFE, 1, Bytes(4, 1))}), 0, 0,
         "BUG: Un-recognized pattern info pattern header magic: 0000cafe", 0, 0},
        {"version list of count 0", taz_load_ptn_info_ptns,
         ptn({list(info_magic::COMPILER_VER, 0, LeBuf().u32(7).take())}), 0, 0, "", 0, 0},
        {"version past the section", taz_load_ptn_info_ptns, ptn({list(info_magic::COMPILER_VER, 1, {})}), 0, -1, "",
         0, 0},
        {"no lists", taz_load_ptn_info_ptns, section(info_magic::PATTERN_INFO, 0, Bytes(4, 0)), 0, 0, "", 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Image img;
        expect_load(img, kAll, c.fn, c.cut ? cut_last_byte(c.sec) : c.sec, c.rc, c.printed);
        EXPECT_EQ(img.p.threat_type_info.nr_threat_type_infos, c.threat_types);
        EXPECT_EQ(img.p.taz_ptn_compiler_version, c.version);
    }
    Image img;
    ASSERT_EQ(img.load(taz_load_threat_type, thrt({threats})), 0);
    EXPECT_GE(malloc_usable_size(img.p.threat_type_info.threat_type_infos), 4 * 16u);
}

/* Every table filled, then a section that fails: the image teardown runs
 * every releaser twice, which must free each array exactly once. */
TEST(InfoSections, FailedImageReleasesEveryTableOnce)
{
    Severity s;
    s.known = {{2, 5, 50, {{6, 6}}, {}}};
    s.potential = {{100, {{2, 8, 80, {{6, 6}}, {}}}, {}}, {200, {}, {}}};
    const Bytes good = concat({rule_info_section({rule(1, "one", kClean)}), clean_info_section({kClean}),
                               protocol_section({{6, "tcp", 0, {}}}, {{1, "g", {0}, {}}}), severity_section(s),
                               threat_type_section({{1, 3, {}}}), pattern_info_section(7)});
    for (bool fail : {false, true}) {
        const Bytes payload = fail ? concat({good, rule_info_section({})}) : good;
        taz_pattern_st *img = taz_load_pattern(payload.data(), UINT32(payload.size()));
        ASSERT_EQ(img == nullptr, fail);
        if (img) {
            EXPECT_EQ(text(taz_rule_id_description(img, 1)), "one");
            EXPECT_EQ(taz_threat_type_get(img, 1), 3u);
            EXPECT_EQ(img->taz_ptn_compiler_version, 7u);
            taz_unload_pattern(img);
        }
    }
}

TEST(InfoSections, EmptyBodyBreaksThePrecondition)
{
    const unsigned char byte = 0;
    for (Loader fn : {taz_load_rule_info_ptns, taz_load_clean_info_ptns, taz_load_protocol_ptns,
                      taz_load_severity_ptns, taz_load_ptn_info_ptns, taz_load_threat_type}) {
        taz_pattern_st p{};
#ifdef NDEBUG
        EXPECT_EQ(fn(&p, &byte, 0, 1), -1);
#else
        EXPECT_DEATH(fn(&p, &byte, 0, 1), "");
#endif
    }
}

/* Record framing written by hand: RL counts the bytes after it, strings
 * carry their terminator, nested records their own RL. */
TEST(InfoWriter, RecordLayout)
{
    auto hex = [](const Bytes &b) {
        std::string s;
        char two[3];
        for (std::uint8_t c : b) s += (std::snprintf(two, sizeof two, "%02x", c), two);
        return s;
    };
    struct Case {
        const char *name;
        Bytes bytes;
        const char *want;
    } cases[] = {
        {"clean record", clean_info_list({{0x0102, 0x0304, 5, 6, 7, "ab", "", {}}}),
         "00000000" "20000000" "01000000" "1c000000" "0201" "0403" "05000000" "06000000" "07000000"
         "02000000" "616200" "00000000" "00"},
        {"compiler version", compiler_version_list(0x0A0B0C0D), "434d5052" "04000000" "01000000" "0d0c0b0a"},
        {"name section", ulm_info_section("x"),
         "554c4d00" "00000000" "12000000" "01000000" "554c4d00" "06000000" "01000000" "01000000" "7800"},
        {"potential record", potential_risk_list({{7, {{2, 3, 4, {{5, 6}}, {}}}, {}}}),
         "53504f54" "24000000" "01000000" "20000000" "07000000" "01000000"
         "14000000" "02000000" "03000000" "04000000" "01000000" "0500" "0600"},
        {"threat type record", threat_type_list({{9, 4, {}}}),
         "54485254" "0c000000" "01000000" "08000000" "09000000" "04000000"},
    };
    for (const Case &c : cases) EXPECT_EQ(hex(c.bytes), c.want) << c.name;
}

} // namespace
