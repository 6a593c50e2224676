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

static_assert(info_magic::RULE == MAGIC_TAZE_PATTERN_RULE_INFO && info_magic::CLEAN == MAGIC_TAZE_PATTERN_CLEAN_INFO &&
              info_magic::PATTERN_INFO == MAGIC_TAZE_PATTERN_PATTERN_INFO &&
              info_magic::PROTOCOL == MAGIC_TAZE_PATTERN_PROTOCOL_INFO &&
              info_magic::SEVERITY == MAGIC_TAZE_PATTERN_SEVERITY_INFO &&
              info_magic::THREAT_TYPE == MAGIC_TAZE_THREAT_TYPE && info_magic::ULM == MAGIC_TAZE_PATTERN_ULM_INFO &&
              info_magic::COMPILER_VER == MAGIC_TAZE_PATTERN_COMPILER_VER &&
              info_magic::PROTOCOL_LIST == MAGIC_TAZE_PROTOCOL_LIST &&
              info_magic::PROTOCOL_GROUP_LIST == MAGIC_TAZE_PROTOOCOL_GROUP_LIST &&
              info_magic::KNOWN == MAGIC_TAZE_SEVERITY_KNOWN &&
              info_magic::KNOWN_DEFAULT == MAGIC_TAZE_SEVERITY_KNOWN_DEFAULT &&
              info_magic::POTENTIAL == MAGIC_TAZE_SEVERITY_POTENT &&
              info_magic::POTENTIAL_DEFAULT == MAGIC_TAZE_SEVERITY_POTENT_DEFAULT);

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

TEST(InfoLookups, RulesByIndexAndId)
{
    Image img;
    ASSERT_EQ(img.load(taz_load_rule_info_ptns,
                       rule_info_section({rule(30, "thirty"), rule(10, "ten"), rule(0, "zero"), rule(20, "")})),
              0);
    const taz_pattern_st *sp = &img.p;
    EXPECT_EQ(taz_rule_count(sp), 4u);
    EXPECT_EQ(taz_rule_count(nullptr), 0u);
    struct Row {
        UINT32 index, id;
        const char *desc; /* "<null>": absent */
    } rows[] = {{0, 0, "zero"}, {1, 10, "ten"}, {2, 20, ""}, {3, 30, "thirty"}, {4, 0, "<null>"}};
    for (const Row &r : rows) {
        SCOPED_TRACE(r.index);
        const bool present = r.index < 4;
        const UINT32 id = present ? r.id : 0;
        EXPECT_EQ(taz_rule_index_rule_id(sp, r.index), id);
        EXPECT_EQ(text(taz_rule_index_desc(sp, r.index)), r.desc);
        EXPECT_EQ(text(taz_rule_index_risk_type(sp, r.index)), present ? "risk" + std::to_string(id) : "<null>");
        EXPECT_EQ(taz_rule_index_confidence_level(sp, r.index), present ? id + 1 : 0);
        EXPECT_EQ(taz_rule_index_risk_type_group(sp, r.index), present ? id + 2 : 0);
        EXPECT_EQ(taz_rule_index_enable(sp, r.index), present ? id % 2 : 0);
        EXPECT_EQ(taz_rule_index_rule_id(nullptr, r.index), 0u);
        /* By id: id 0 is never searched, even though a rule 0 is stored. */
        const bool found = present && id != 0;
        EXPECT_EQ(text(taz_rule_id_description(sp, id)), found ? r.desc : "<null>");
        EXPECT_EQ(text(taz_rule_id_risk_type(sp, id)), found ? "risk" + std::to_string(id) : "<null>");
        EXPECT_EQ(taz_rule_id_confidence_level(sp, id), found ? id + 1 : 0);
        EXPECT_EQ(taz_rule_id_risk_type_group(sp, id), found ? id + 2 : 0);
        EXPECT_EQ(taz_rule_id_description(nullptr, r.id), nullptr);
    }
    EXPECT_EQ(taz_rule_id_description(sp, 25), nullptr);
    EXPECT_EQ(taz_rule_info_get(nullptr, 10), nullptr);
}

TEST(InfoLookups, CleanChecksAndData)
{
    Image img;
    ASSERT_EQ(img.load(taz_load_rule_info_ptns,
                       rule_info_section({rule(1, "", kClean), rule(2, "", {6, 6, 6, 2, 5, "s2", "d2", {}}),
                                          rule(3, "", {0, 65535, 7, 1, 0, "", "", {}})})),
              0);
    ASSERT_EQ(img.load(taz_load_clean_info_ptns,
                       clean_info_section({{0, 0, 1, 1, 9, "zero", "", {}}, {6, 6, 2, 2, 4, "a", "b", {}},
                                           {1, 100, 3, 3, 8, "c", "d", {}}, {200, 300, 4, 1, 0, "", "", {}}})),
              0);
    const taz_pattern_st *sp = &img.p;
    struct Check {
        const char *name;
        bool by_rule;
        UINT32 key, protocol, direction;
        bool null_target;
        int rc;
        UINT32 target;
    } checks[] = {
        {"direction 1 fits inbound", true, 1, 6, 2, false, 1, 7},
        {"direction 1 fits outbound", true, 1, 17, 3, false, 1, 7},
        {"below the range", true, 1, 5, 2, false, 0, kUnset},
        {"above the range", true, 1, 18, 2, false, 0, kUnset},
        {"protocol above 65535", true, 1, 65536 + 6, 2, false, 0, kUnset},
        {"other direction", true, 2, 6, 3, false, 0, kUnset},
        {"same direction", true, 2, 6, 2, false, 1, 5},
        {"target 0 never fits", true, 3, 6, 1, false, 0, kUnset},
        {"unknown rule", true, 9, 6, 2, false, 0, kUnset},
        {"rule id 0", true, 0, 6, 2, false, 0, kUnset},
        {"null target", true, 1, 6, 2, true, -1, kUnset},
        {"first covering entry decides", false, 0, 6, 3, false, 0, kUnset},
        {"table entry fits", false, 0, 6, 2, false, 1, 4},
        {"later entry for another protocol", false, 0, 50, 3, false, 1, 8},
        {"all-zero range is skipped", false, 0, 0, 1, false, 0, kUnset},
        {"table target 0", false, 0, 250, 1, false, 0, kUnset},
        {"no table entry", false, 0, 500, 1, false, 0, kUnset},
        {"table null target", false, 0, 6, 2, true, -1, kUnset},
    };
    for (const Check &c : checks) {
        SCOPED_TRACE(c.name);
        UINT32 target = kUnset;
        UINT32 *out = c.null_target ? nullptr : &target;
        EXPECT_EQ(c.by_rule ? taz_rule_id_check_clean(sp, c.key, c.protocol, c.direction, out)
                            : taz_clean_info_check_clean(sp, c.protocol, c.direction, out),
                  c.rc);
        EXPECT_EQ(target, c.target);
    }
    struct Get {
        const char *name;
        bool by_rule;
        UINT32 key;
        bool null_out;
        int rc;
        UINT32 priority;
        const char *src, *dst;
    } gets[] = {
        {"rule clean data", true, 1, false, 0, 5, "src", "dst"},
        {"unknown rule: 0, outputs untouched", true, 9, false, 0, kUnset, "<null>", "<null>"},
        {"rule 0 before the outputs are looked at", true, 0, true, 0, kUnset, "<null>", "<null>"},
        {"rule with null outputs", true, 1, true, -1, kUnset, "<null>", "<null>"},
        {"table clean data", false, 6, false, 0, 2, "a", "b"},
        {"no table entry: -1", false, 500, false, -1, kUnset, "<null>", "<null>"},
        {"all-zero entry is never taken", false, 0, false, -1, kUnset, "<null>", "<null>"},
        {"table with null outputs", false, 6, true, -1, kUnset, "<null>", "<null>"},
    };
    for (const Get &g : gets) {
        SCOPED_TRACE(g.name);
        UINT32 pri = kUnset;
        const unsigned char *src = nullptr, *dst = nullptr;
        UINT32 *ppri = g.null_out ? nullptr : &pri;
        EXPECT_EQ(g.by_rule ? taz_rule_id_get_clean(sp, g.key, ppri, &src, &dst)
                            : taz_clean_info_get_clean(sp, g.key, ppri, &src, &dst),
                  g.rc);
        EXPECT_EQ(pri, g.priority);
        EXPECT_EQ(text(src), g.src);
        EXPECT_EQ(text(dst), g.dst);
    }
    UINT32 t = 0, pri = 0;
    const unsigned char *s = nullptr, *d = nullptr;
    EXPECT_EQ(taz_rule_id_check_clean(nullptr, 1, 6, 2, &t), -1);
    EXPECT_EQ(taz_clean_info_check_clean(nullptr, 6, 2, &t), -1);
    EXPECT_EQ(taz_rule_id_get_clean(nullptr, 1, &pri, &s, &d), -1);
    EXPECT_EQ(taz_clean_info_get_clean(nullptr, 6, &pri, &s, &d), -1);
    Image empty;
    EXPECT_EQ(taz_clean_info_check_clean(&empty.p, 6, 2, &t), 0);
    EXPECT_EQ(taz_clean_info_get_clean(&empty.p, 6, &pri, &s, &d), -1);
}

TEST(InfoLookups, ProtocolsAndGroups)
{
    Image img;
    ASSERT_EQ(img.load(taz_load_protocol_ptns,
                       protocol_section({{0, "unknown", 2, {}}, {6, "tcp", 1, {}}, {17, "udp", 1, {}},
                                         {99, "bad group", 7, {}}, {17, "udp again", 1, {}}},
                                        {{3, "other", {2}, {}}, {1, "transport", {1, 2, 9}, {}}, {5, "none", {}, {}}})),
              0);
    Image empty;
    enum On { Loaded, Empty, Null };
    auto pick = [&](On on) -> const taz_pattern_st * {
        return on == Loaded ? &img.p : on == Empty ? &empty.p : nullptr;
    };
    using Num = std::function<UINT32(const taz_pattern_st *)>;
    struct NumRow {
        const char *name;
        On on;
        Num f;
        UINT32 want;
    } nums[] = {
        {"protocol count", Loaded, [](auto sp) { return taz_protocol_count(sp); }, 5},
        {"group count", Loaded, [](auto sp) { return taz_protocol_group_count(sp); }, 3},
        {"no pattern: count 0", Null, [](auto sp) { return taz_protocol_count(sp); }, 0},
        {"id by index", Loaded, [](auto sp) { return taz_protocol_index_id(sp, 1); }, 6},
        {"index out of range", Loaded, [](auto sp) { return taz_protocol_index_id(sp, 5); }, 0},
        {"group id by protocol index", Loaded, [](auto sp) { return taz_protocol_index_group_id(sp, 0); }, 5},
        {"group position out of range", Loaded, [](auto sp) { return taz_protocol_index_group_id(sp, 3); }, 0},
        {"group id by index", Loaded, [](auto sp) { return taz_protocol_group_index_id(sp, 0); }, 3},
        {"group index out of range", Loaded, [](auto sp) { return taz_protocol_group_index_id(sp, 3); }, 0},
        {"members of a group", Loaded, [](auto sp) { return taz_protocol_group_index_protocol_count(sp, 1); }, 3},
        {"member id", Loaded, [](auto sp) { return taz_protocol_group_index_protocol_index(sp, 1, 1); }, 17},
        {"member position out of range", Loaded,
         [](auto sp) { return taz_protocol_group_index_protocol_index(sp, 1, 2); }, 0},
        {"member index past the count", Loaded,
         [](auto sp) { return taz_protocol_group_index_protocol_index(sp, 1, 3); }, 0},
        {"member of an empty group", Loaded,
         [](auto sp) { return taz_protocol_group_index_protocol_index(sp, 2, 0); }, 0},
        {"group of a protocol id", Loaded, [](auto sp) { return taz_protocol_id_group_id(sp, 6); }, 1},
        {"unknown protocol: group of entry 0", Loaded, [](auto sp) { return taz_protocol_id_group_id(sp, 1234); }, 5},
        {"protocol with a bad group position", Loaded, [](auto sp) { return taz_protocol_id_group_id(sp, 99); }, 0},
        {"members by group id", Loaded, [](auto sp) { return taz_protocol_group_id_protocol_count(sp, 1); }, 3},
        {"unknown group: entry 0's members", Loaded,
         [](auto sp) { return taz_protocol_group_id_protocol_count(sp, 777); }, 1},
        {"member id by group id", Loaded, [](auto sp) { return taz_protocol_group_id_protocol_index_id(sp, 1, 0); }, 6},
        {"unknown group: entry 0's member", Loaded,
         [](auto sp) { return taz_protocol_group_id_protocol_index_id(sp, 777, 0); }, 17},
        {"unknown group, index past entry 0's count", Loaded,
         [](auto sp) { return taz_protocol_group_id_protocol_index_id(sp, 777, 1); }, 0},
        {"no protocol table", Empty, [](auto sp) { return taz_protocol_id_group_id(sp, 6); }, 0},
        {"no group table", Empty, [](auto sp) { return taz_protocol_group_id_protocol_count(sp, 1); }, 0},
        {"no pattern", Null, [](auto sp) { return taz_protocol_group_id_protocol_index_id(sp, 1, 0); }, 0},
    };
    for (const NumRow &r : nums) EXPECT_EQ(r.f(pick(r.on)), r.want) << r.name;
    using Txt = std::function<const unsigned char *(const taz_pattern_st *)>;
    struct TxtRow {
        const char *name;
        On on;
        Txt f;
        const char *want;
    } txts[] = {
        {"description by index", Loaded, [](auto sp) { return taz_protocol_index_desc(sp, 3); }, "bad group"},
        {"index out of range", Loaded, [](auto sp) { return taz_protocol_index_desc(sp, 5); }, "<null>"},
        {"group description by index", Loaded, [](auto sp) { return taz_protocol_group_index_desc(sp, 1); },
         "transport"},
        {"group index out of range", Loaded, [](auto sp) { return taz_protocol_group_index_desc(sp, 3); }, "<null>"},
        {"first equal id after entry 0", Loaded, [](auto sp) { return taz_protocol_id_desc(sp, 17); }, "udp"},
        {"id of entry 0", Loaded, [](auto sp) { return taz_protocol_id_desc(sp, 0); }, "unknown"},
        {"unknown id: entry 0", Loaded, [](auto sp) { return taz_protocol_id_desc(sp, 1234); }, "unknown"},
        {"group by id", Loaded, [](auto sp) { return taz_protocol_group_id_desc(sp, 5); }, "none"},
        {"unknown group: entry 0", Loaded, [](auto sp) { return taz_protocol_group_id_desc(sp, 777); }, "other"},
        {"no protocol table", Empty, [](auto sp) { return taz_protocol_id_desc(sp, 6); }, "<null>"},
        {"no pattern", Null, [](auto sp) { return taz_protocol_group_id_desc(sp, 1); }, "<null>"},
    };
    for (const TxtRow &r : txts) EXPECT_EQ(text(r.f(pick(r.on))), r.want) << r.name;
    EXPECT_EQ(img.p.protocol_info.prog_infos[2].protocol_idx, nullptr);
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

TEST(InfoLookups, KnownAndPotentialRisk)
{
    Severity s;
    s.known = {{2, 5, 50, {{6, 6}, {17, 17}}, {}}, {1, 3, 30, {{1, 100}}, {}}, {3, 9, 90, {}, {}}};
    s.known_defaults = {{2, 11, 110, {}}, {3, 12, 120, {}}, {1, 13, 130, {}}};
    s.potential = {{100, {{3, 7, 70, {{6, 6}}, {}}}, {}},
                   {100, {{2, 8, 80, {{6, 6}}, {}}}, {}},
                   {200, {}, {}},
                   {200, {{1, 4, 40, {{0, 65535}}, {}}}, {}}};
    s.potential_defaults = {{2, 21, 210, {}}, {3, 22, 220, {}}};
    Image img;
    ASSERT_EQ(img.load(taz_load_severity_ptns, severity_section(s)), 0);
    taz_severity_info_list_st &si = img.p.severity_info;
    EXPECT_EQ(si.known_infos[2].protocol_ranges.port_ranges, nullptr);
    EXPECT_EQ(si.potential_infos[2].nr_risk_infos, 0u);
    EXPECT_NE(si.potential_infos[2].risk_infos, nullptr);
    struct Row {
        const char *name;
        bool potential;
        UINT32 rule_id, direction, protocol;
        int rc;
        UINT32 policy, severity;
    } rows[] = {
        {"inbound entry", false, 0, 2, 17, 0, 50, 5},
        {"direction 1 entry fits outbound", false, 0, 3, 6, 0, 30, 3},
        {"direction 1 asked", false, 0, 1, 6, 0, 30, 3},
        {"low 16 bits of the protocol", false, 0, 2, 65536 + 6, 0, 50, 5},
        {"entry without ranges fits nothing", false, 0, 3, 0, 0, 120, 12},
        {"inbound default", false, 0, 2, 200, 0, 110, 11},
        {"outbound default", false, 0, 3, 200, 0, 120, 12},
        {"no default for direction 1", false, 0, 1, 200, -1, kUnset, kUnset},
        {"no default for direction 4", false, 0, 4, 200, -1, kUnset, kUnset},
        {"second entry of the rule", true, 100, 2, 6, 0, 80, 8},
        {"first entry of the rule", true, 100, 3, 6, 0, 70, 7},
        {"rule without a fit: inbound default", true, 100, 2, 7, 0, 210, 21},
        {"empty entry, the scan goes on", true, 200, 3, 9, 0, 40, 4},
        {"unknown rule: outbound default", true, 300, 3, 1, 0, 220, 22},
        {"unknown rule, direction 1", true, 300, 1, 1, -1, kUnset, kUnset},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        UINT32 policy = kUnset, severity = kUnset;
        EXPECT_EQ(r.potential ? taz_potential_risk_get_info(&img.p, r.rule_id, r.direction, r.protocol, &policy,
                                                            &severity)
                              : taz_known_risk_get_info(&img.p, r.direction, r.protocol, &policy, &severity),
                  r.rc);
        EXPECT_EQ(policy, r.policy);
        EXPECT_EQ(severity, r.severity);
    }
    UINT32 a = 0, b = 0;
    /* An entry without a risk array ends the scan: the defaults answer even
     * though the next entry of the same rule fits. */
    taz_known_risk_info_st *saved = si.potential_infos[0].risk_infos;
    si.potential_infos[0].risk_infos = nullptr;
    EXPECT_EQ(taz_potential_risk_get_info(&img.p, 100, 2, 6, &a, &b), 0);
    EXPECT_EQ(a, 210u);
    si.potential_infos[0].risk_infos = saved;
    EXPECT_EQ(taz_known_risk_get_info(&img.p, 2, 6, nullptr, &b), -1);
    EXPECT_EQ(taz_potential_risk_get_info(&img.p, 100, 2, 6, &a, nullptr), -1);
    EXPECT_EQ(taz_known_risk_get_info(nullptr, 2, 6, &a, &b), -1);
    EXPECT_EQ(taz_potential_risk_get_info(nullptr, 100, 2, 6, &a, &b), -1);
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
    const std::pair<UINT32, UINT32> answers[] = {{10, 3}, {20, 99}, {30, TT_FILE_PATTERN}, {40, TT_HIDDEN}};
    for (auto [rule_id, type] : answers) EXPECT_EQ(taz_threat_type_get(&img.p, rule_id), type) << rule_id;
    Image empty;
    EXPECT_EQ(taz_threat_type_get(&empty.p, 10), UINT32(TT_HIDDEN));
    EXPECT_EQ(taz_threat_type_get(nullptr, 10), UINT32(TT_HIDDEN));
    const unsigned char name[] = "mal";
    empty.p.ulm_info.malname = name;
    EXPECT_EQ(taz_ulm_get_info(&empty.p), name);
    EXPECT_EQ(taz_ulm_get_info(nullptr), nullptr);
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
        EXPECT_DEATH(fn(&p, &byte, 0, 1), "ptn && ptn_buf && ptn_len>0");
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
