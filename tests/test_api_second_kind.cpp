/* Files with the main pattern kind, the second kind or both: which files
 * load, switching the kind the plain queries see, rule descriptions found in
 * either kind, the second kind's name and the sections it does not take. */
#include <functional>
#include <string>
#include <vector>

#include "api_fixtures.h"

namespace {

using namespace apif;
using namespace tazw;

constexpr std::uint32_t kMainVer = 0x1010000Bu, kSecondVer = 0x2020000Cu; /* 1.00011.01, 2.00012.02 */

Bytes main_payload()
{
    return concat({
        rule_info_section({{1, 10, "main-risk", 100, 1, "main rule", {6, 6, 1, 1, 3, "ms", "md", {}}, {}},
                           {3, 30, "shared-risk", 300, 1, "shared, main", {}, {}}}),
        clean_info_section({{6, 6, 1, 2, 11, "main-src", "main-dst", {}}}),
        protocol_section({{0, "main-none", 0, {}}, {6, "tcp", 0, {}}}, {{500, "main-group", {0, 1}, {}}}),
        severity_section({{{2, 1, 10, {{6, 6}}, {}}}, {}, {{1, {{2, 2, 20, {{6, 6}}, {}}}, {}}}, {}}),
        threat_type_section({{1, TT_EXPLOIT, {}}}),
        pattern_info_section(kMainVer),
        string_section(kind::STR, {{0, {"main"}}}), string_section(kind::PRCA, {{0, {"Ab"}}}),
    });
}

Bytes second_payload(const Bytes &name_section = ulm_info_section("TROJ_X"))
{
    return concat({
        rule_info_section({{2, 20, "second-risk", 200, 0, "second rule", {6, 6, 2, 2, 4, "ss", "sd", {}}, {}},
                           {3, 33, "shared-second", 330, 0, "shared, second", {}, {}},
                           {4, 40, "", 400, 1, "fourth", {}, {}}}),
        clean_info_section({{6, 6, 2, 3, 22, "second-src", "second-dst", {}}}),
        protocol_section({{0, "second-none", 0, {}}, {6, "tcp", 1, {}}, {17, "udp", 1, {}}},
                         {{600, "second-none", {0}, {}}, {700, "second-group", {1, 2}, {}}}),
        severity_section({{{3, 5, 50, {{6, 6}}, {}}}, {}, {{2, {{1, 6, 60, {{6, 6}}, {}}}, {}}}, {}}),
        threat_type_section({{2, TT_ZUL, {}}}),
        pattern_info_section(kSecondVer),
        string_section(kind::STR, {{0, {"second"}}}), string_section(kind::PRCA, {{0, {"Ab"}}}),
        name_section,
    });
}

/* A list section whose only list claims more bytes than the section holds. */
Bytes broken_list_section(std::uint32_t kind)
{
    return section(kind, 1, list(0, 1, string_entries({"Ab"}), 1000));
}

/* ---- which files load ------------------------------------------------------------------ */
TEST(ApiSecondKind, WhichFilesLoad)
{
    const Bytes tiny = {'t', 'a', 'z', 'e'};
    struct Case {
        const char *name;
        Bytes file;
        int rc;
    } cases[] = {
        {"both kinds", file_of({{7, main_payload()}, {8, second_payload()}}), 0},
        {"main kind only", file_of({{7, main_payload()}}), 0},
        {"second kind only", file_of({{8, second_payload()}}), READ_ERR},
        {"second kind before the main kind", file_of({{8, second_payload()}, {7, main_payload()}}), 0},
        {"a second kind that does not load", file_of({{7, main_payload()}, {8, broken_list_section(kind::STR)}}),
         READ_ERR},
        /* The second kind skips the case-sensitive prefix, suffix and
         * substring sections unread; the main kind reads them. */
        {"broken PRCA in the second kind", file_of({{7, tiny}, {8, broken_list_section(kind::PRCA)}}), 0},
        {"broken SFCA in the second kind", file_of({{7, tiny}, {8, broken_list_section(kind::SFCA)}}), 0},
        {"broken SUCA in the second kind", file_of({{7, tiny}, {8, broken_list_section(kind::SUCA)}}), 0},
        {"broken CASE in the second kind", file_of({{7, tiny}, {8, broken_list_section(kind::CASE)}}), READ_ERR},
        {"broken PRCA in the main kind", file_of({{7, broken_list_section(kind::PRCA)}}), READ_ERR},
        {"broken SFCA in the main kind", file_of({{7, broken_list_section(kind::SFCA)}}), READ_ERR},
        {"broken SUCA in the main kind", file_of({{7, broken_list_section(kind::SUCA)}}), READ_ERR},
        /* The name section is the second kind's own. */
        {"broken name section in the main kind", file_of({{7, broken_list_section(info_magic::ULM)}}), 0},
        {"broken name section in the second kind", file_of({{7, tiny}, {8, broken_list_section(info_magic::ULM)}}),
         READ_ERR},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(load_file(c.file).second, c.rc);
    }
}

/* ---- switching the current pattern ------------------------------------------------------- */
/* What the plain queries answer, as one line. */
std::string plain_view(TAZE *h)
{
    std::string s;
    unsigned int n = 0;
    s += TAZE_GetRuleInfoCount(h, &n) == 0 ? "rules " + std::to_string(n) : "rules refused";
    char *desc = nullptr;
    s += TAZE_GetRuleIndexDesc(h, 0, &desc) == 0 ? ", first " + take(desc) : ", first refused";
    char ver[16] = {};
    s += TAZE_GetCompilerVersion(h, ver, sizeof ver) == 0 ? std::string(", compiler ") + ver : ", compiler refused";
    unsigned int type = 0;
    s += TAZE_GetThreatType(h, 2, &type) == 0 ? ", threat of 2 " + std::to_string(type) : ", threat refused";
    s += TAZE_GetProtocolCount(h, &n) == 0 ? ", protocols " + std::to_string(n) : ", protocols refused";
    unsigned int target = 0;
    const int clean = TAZE_CheckCleanInfo(h, 6, 3, &target);
    s += ", clean " + std::to_string(clean) + (clean == 1 ? "/" + std::to_string(target) : "");
    unsigned int policy = 0, severity = 0;
    s += TAZE_GetKnownRiskInfo(h, 3, 6, &policy, &severity) == 0 ? ", known " + std::to_string(policy)
                                                                  : ", known none";
    return s;
}

const std::string kMainView =
    "rules 2, first main rule, compiler 1.00011.01, threat of 2 99, protocols 2, clean 0, known 0";
const std::string kSecondView =
    "rules 3, first second rule, compiler 2.00012.02, threat of 2 6, protocols 3, clean 1/22, known 50";
const std::string kNoView =
    "rules refused, first refused, compiler refused, threat of 2 99, protocols refused, clean -99, known none";

TEST(ApiSecondKind, SwitchingWhatPlainQueriesSee)
{
    tazt::Handle both = tazt::load_payload(main_payload(), second_payload());
    tazt::Handle main_only = tazt::load_payload(main_payload());
    struct Step {
        const char *name;
        TAZE *h;
        void (*point)(TAZE *); /* nullptr: as loaded */
        std::string view;
    } steps[] = {
        {"loaded: main kind", both.get(), nullptr, kMainView},
        {"to the second kind", both.get(), TAZE_PointToULMPattern, kSecondView},
        {"to the second kind again", both.get(), TAZE_PointToULMPattern, kSecondView},
        {"back to the main kind", both.get(), TAZE_PointToTAZPattern, kMainView},
        {"main only: loaded", main_only.get(), nullptr, kMainView},
        {"main only: to a missing second kind", main_only.get(), TAZE_PointToULMPattern, kNoView},
        {"main only: back", main_only.get(), TAZE_PointToTAZPattern, kMainView},
    };
    for (const Step &s : steps) {
        SCOPED_TRACE(s.name);
        if (s.point) s.point(s.h);
        EXPECT_EQ(plain_view(s.h), s.view);
        /* One record holds both kinds: one pattern version whatever the kind. */
        char ver[16] = {};
        if (s.h == both.get()) {
            EXPECT_EQ(TAZE_GetPatternVersion(s.h, ver, sizeof ver), 0);
            EXPECT_STREQ(ver, "1.00077.35");
        }
        /* Ex forms and list searches name their kind and do not follow the switch. */
        unsigned int n = 0;
        EXPECT_EQ(TAZE_GetRuleInfoCountEx(s.h, PT_TAZ, &n), 0);
        EXPECT_EQ(n, 2u);
        EXPECT_EQ(TAZE_PatternSearchStringList(s.h, 0, "main", PT_TAZ), 1);
    }
}

TEST(ApiSecondKind, RuleDescriptionsFromEitherKind)
{
    tazt::Handle both = tazt::load_payload(main_payload(), second_payload());
    tazt::Handle main_only = tazt::load_payload(main_payload());
    void (*const to_main)(TAZE *) = TAZE_PointToTAZPattern;
    void (*const to_second)(TAZE *) = TAZE_PointToULMPattern;
    struct Row {
        const char *name;
        TAZE *h;
        void (*point)(TAZE *);
        unsigned int id;
        int rc;
        const char *desc; /* "<null>": no copy */
    } rows[] = {
        {"main rule", both.get(), to_main, 1, 0, "main rule"},
        {"rule of the second kind only", both.get(), to_main, 2, 0, "second rule"},
        {"rule of both kinds: the main kind first", both.get(), to_main, 3, 0, "shared, main"},
        {"no such rule", both.get(), to_main, 5, 0, "<null>"}, {"rule id 0", both.get(), to_main, 0, 0, "<null>"},
        {"second current: main rule", both.get(), to_second, 1, 0, "main rule"},
        {"second current: rule of both kinds", both.get(), to_second, 3, 0, "shared, main"},
        {"second current: rule of the second kind", both.get(), to_second, 4, 0, "fourth"},
        {"no second kind", main_only.get(), to_main, 2, 0, "<null>"},
        {"current pattern missing", main_only.get(), to_second, 1, PARA_ERR, "<null>"},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        r.point(r.h);
        char *desc = nullptr;
        EXPECT_EQ(TAZE_GetRuleIdDesc(r.h, r.id, &desc), r.rc);
        EXPECT_EQ(take(desc), r.desc);
    }
}

/* ---- the second kind's name ------------------------------------------------------------------ */
TEST(ApiSecondKind, UlmInfo)
{
    const Bytes name = ulm_name_list("first"), other = ulm_name_list("TROJ_Y");
    struct Case {
        const char *name;
        Bytes file;
        int rc;
        const char *info;
        const char *printed = ""; /* with the error bit set */
    } cases[] = {
        {"a name", file_of({{7, main_payload()}, {8, second_payload()}}), 0, "TROJ_X"},
        {"an empty name", file_of({{7, main_payload()}, {8, second_payload(ulm_info_section(""))}}), 0, ""},
        {"two name lists keep the second",
         file_of({{7, main_payload()}, {8, second_payload(info_section(info_magic::ULM, {name, other}))}}), 0,
         "TROJ_Y"},
        {"a name list of count 0 is skipped",
         file_of({{7, main_payload()},
                  {8, second_payload(info_section(info_magic::ULM, {name, list(info_magic::ULM, 0, {})}))}}),
         0, "first"},
        {"an unknown list beside the name",
         file_of({{7, main_payload()},
                   {8, second_payload(info_section(info_magic::ULM, {list(magic4("ZZZZ"), 1, Bytes(4, 0)), name}))}}),
         0, "first", "BUG: Un-recognized pattern info pattern header magic: 5a5a5a5a"},
        {"a name section without lists",
         file_of({{7, main_payload()}, {8, second_payload(section(info_magic::ULM, 0, Bytes(4, 0)))}}), PARA_ERR,
         nullptr},
        {"no name section", file_of({{7, main_payload()}, {8, second_payload(Bytes{})}}), PARA_ERR, nullptr},
        {"a name section in the main kind only",
         file_of({{7, concat({main_payload(), ulm_info_section("MAIN")})}, {8, second_payload(Bytes{})}}), PARA_ERR,
         nullptr},
        {"no second kind", file_of({{7, concat({main_payload(), ulm_info_section("MAIN")})}}), PARA_ERR, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        tazt::DebugMask mask(VKDEBUG_ERR);
        tazt::StdoutCapture cap;
        auto [h, rc] = load_file(c.file);
        EXPECT_EQ(cap.finish(), c.printed);
        ASSERT_EQ(rc, 0);
        /* Borrowed from the second kind whatever the current pattern is. */
        for (void (*point)(TAZE *) : {TAZE_PointToTAZPattern, TAZE_PointToULMPattern}) {
            point(h.get());
            const char *info = "untouched";
            EXPECT_EQ(TAZE_GetUlmInfo(h.get(), &info), c.rc);
            EXPECT_STREQ(info, c.info ? c.info : "untouched");
        }
    }
    const char *info = nullptr;
    EXPECT_EQ(TAZE_GetUlmInfo(nullptr, &info), PARA_ERR);
    tazt::Handle empty = tazt::new_handle();
    EXPECT_EQ(TAZE_GetUlmInfo(empty.get(), &info), PARA_ERR);
}

/* ---- Ex forms: the second kind, and kinds that do not exist ------------------------------ */
/* Every Ex form asking for kind k, with its answer on the second kind. */
std::vector<std::pair<Query, std::string>> ex_forms(unsigned k)
{
    return {
        {query<Number>("GetRuleInfoCountEx", TAZE_GetRuleInfoCountEx, k), "0 3"},
        {query<Text>("GetRuleIndexDescEx", TAZE_GetRuleIndexDescEx, k, 0u), "0 second rule"},
        {query<Text>("GetRuleIndexRiskEx", TAZE_GetRuleIndexRiskEx, k, 1u), "0 shared-second"},
        {query<Number>("GetRuleIndexRiskGroupEx", TAZE_GetRuleIndexRiskGroupEx, k, 2u), "0 400"},
        {query<Number>("GetRuleIndexCLEx", TAZE_GetRuleIndexCLEx, k, 0u), "0 20"},
        {query<Number>("GetRuleIndexEnableEx", TAZE_GetRuleIndexEnableEx, k, 2u), "0 1"},
        {query<Number>("GetRuleIndexRuleIDEx", TAZE_GetRuleIndexRuleIDEx, k, 1u), "0 3"},
        {query<Text>("GetRuleIdRiskEx", TAZE_GetRuleIdRiskEx, k, 2u), "0 second-risk"},
        {query<Text>("GetRuleIdRiskEx of a main rule", TAZE_GetRuleIdRiskEx, k, 1u), "0 "},
        {query<Number>("GetRuleIdRiskGroupEx", TAZE_GetRuleIdRiskGroupEx, k, 3u), "0 330"},
        {query<Number>("GetRuleIdCLEx", TAZE_GetRuleIdCLEx, k, 4u), "0 40"},
        {query<Number>("CheckRuleIdCleanEx", TAZE_CheckRuleIdCleanEx, k, 2u, 6u, 2u), "1 4"},
        {query<Clean>("GetRuleIdCleanEx", TAZE_GetRuleIdCleanEx, k, 2u), "0 2 ss sd"},
        {query<Number>("CheckCleanInfoEx", TAZE_CheckCleanInfoEx, k, 6u, 3u), "1 22"},
        {query<Clean>("GetCleanInfoEx", TAZE_GetCleanInfoEx, k, 6u), "0 2 second-src second-dst"},
        {query<Number>("GetProtocolIdGroupIDEx", TAZE_GetProtocolIdGroupIDEx, k, 17u), "0 700"},
        {query<Risk>("GetKnownRiskInfoEx", TAZE_GetKnownRiskInfoEx, k, 3u, 6u), "0 50/5"},
        {query<Risk>("GetPotentialRiskInfoEx", TAZE_GetPotentialRiskInfoEx, k, 2u, 2u, 6u), "0 60/6"},
        {query<Number>("GetThreatTypeEx", TAZE_GetThreatTypeEx, k, 2u), "0 " + std::to_string(TT_ZUL)},
    };
}

TEST(ApiSecondKind, ExFormsOfTheSecondKind)
{
    tazt::Handle both = tazt::load_payload(main_payload(), second_payload());
    tazt::Handle main_only = tazt::load_payload(main_payload());
    const std::string refused = std::to_string(PARA_ERR) + " ";
    for (const auto &[q, answer] : ex_forms(PT_ULM)) {
        EXPECT_EQ(q.ask(both.get()), answer) << q.name;
        EXPECT_EQ(q.ask(main_only.get()).rfind(refused, 0), 0u) << q.name;
    }
    for (unsigned other : {2u, 0xFFFFFFFFu}) /* kinds that do not exist */
        for (const auto &[q, answer] : ex_forms(other)) EXPECT_EQ(q.ask(both.get()).rfind(refused, 0), 0u) << q.name;
}

} // namespace
