/* Rule, clean, protocol, risk and threat queries through the public API on
 * loaded files: plain and Ex forms, copies the caller frees, the fallbacks of
 * unknown ids. */
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "api_fixtures.h"
#include "tazeptn.h"

namespace {

using namespace apif;
using namespace tazw;


const std::vector<RuleInfo> kRules = {
    /* Written out of id order; the queries by position see them sorted. */
    {30, 3, "risk30", 33, 1, "thirty", {6, 17, 5, 1, 7, "src30", "dst30", {}}, {}},
    {10, 1, "risk10", 11, 0, "ten", {6, 6, 2, 2, 4, "s10", "d10", {}}, {}},
    {0, 9, "risk0", 99, 1, "zero", {0, 65535, 1, 1, 1, "s0", "d0", {}}, {}},
    {20, 2, "", 22, 1, "twenty", {0, 0, 0, 0, 0, "", "", {}}, {}},
};

const std::vector<CleanInfo> kCleanTable = {
    {0, 0, 1, 1, 1, "never", "never", {}}, /* a range of all zeros fits nothing */
    {6, 6, 2, 2, 5, "tcp-in-src", "tcp-in-dst", {}}, {6, 17, 3, 3, 9, "s2", "d2", {}},
    {20, 30, 4, 1, 0, "s3", "d3", {}}, /* target 0: never cleaned */
    {40, 50, 5, 1, 4, "s4", "d4", {}},
};

const std::vector<Protocol> kProtocols = {
    {0, "unknown", 0, {}}, {6, "tcp", 1, {}}, {17, "udp", 1, {}}, {1, "icmp", 2, {}}};
const std::vector<ProtocolGroup> kGroups = {
    {50, "none", {3}, {}}, {100, "transport", {1, 2}, {}}, {200, "control", {3}, {}}, {300, "empty", {}, {}}};

Severity severity()
{
    Severity s;
    s.known = {{2, 5, 50, {{6, 6}, {17, 17}}, {}},
               {1, 7, 70, {{1, 1}}, {}}, {3, 8, 80, {{6, 17}}, {}},
               {2, 9, 90, {}, {}}}; /* no ranges: fits no protocol */
    s.known_defaults = {{2, 1, 11, {}}, {3, 2, 22, {}}};
    s.potential = {{10, {}, {}},
                   {10, {{1, 3, 33, {{6, 6}}, {}}}, {}},
                   {20, {{3, 4, 44, {{1, 10}}, {}}, {1, 6, 66, {{1, 100}}, {}}}, {}}};
    s.potential_defaults = {{2, 12, 120, {}}, {3, 13, 130, {}}};
    return s;
}

const std::vector<ThreatType> kThreats = {{10, TT_EXPLOIT, {}}, {20, TT_ZUL, {}}, {10, TT_MALICIOUS_BEHAVIOR, {}},
                                          {30, TT_HIDDEN, {}}, {40, 12345, {}}};

Bytes full_payload()
{
    return concat({rule_info_section(kRules), clean_info_section(kCleanTable), protocol_section(kProtocols, kGroups),
                   severity_section(severity()), threat_type_section(kThreats),
                   info_section(info_magic::PATTERN_INFO,
                                {compiler_version_list(KORM_MAKE_PATTERN_VER(1, 1, 1)),
                                 compiler_version_list(KORM_MAKE_PATTERN_VER(2, 3, 456))})});
}

/* Only rules: no clean table, protocols, risks, threat types or compiler version. */
Bytes rules_only() { return rule_info_section({kRules[0]}); }

/* ---- getters of one number ----------------------------------------------------------- */
using NumberGetter = std::function<int(TAZE *, unsigned int *)>;

struct NumberCase {
    std::string name;
    NumberGetter get;
    int rc;
    unsigned int value;
};

void expect_numbers(TAZE *h, const std::vector<NumberCase> &cases)
{
    for (const NumberCase &c : cases) {
        SCOPED_TRACE(c.name);
        unsigned int v = 0xDEADBEEFu;
        EXPECT_EQ(c.get(h, &v), c.rc);
        EXPECT_EQ(v, c.rc == 0 ? c.value : 0xDEADBEEFu);
        if (c.rc == 0) {
            EXPECT_EQ(c.get(h, nullptr), PARA_ERR) << "null output";
        }
    }
}

/* ---- getters of a copied string ------------------------------------------------------- */
using TextGetter = std::function<int(TAZE *, char **)>;

struct TextCase {
    std::string name;
    TextGetter get;
    int rc;
    const char *text; /* nullptr: the output stays null */
};

void expect_texts(TAZE *h, const std::vector<TextCase> &cases)
{
    for (const TextCase &c : cases) {
        SCOPED_TRACE(c.name);
        char *out = nullptr;
        EXPECT_EQ(c.get(h, &out), c.rc);
        if (c.rc != 0 || !c.text) {
            EXPECT_EQ(out, nullptr);
        } else {
            EXPECT_EQ(take(out), c.text); /* freed with free() */
        }
        std::free(out);
        /* An earlier result not yet freed is never overwritten. */
        char keep[] = "earlier";
        char *busy = keep;
        EXPECT_EQ(c.get(h, &busy), PARA_ERR);
        EXPECT_EQ(busy, keep);
        EXPECT_EQ(c.get(h, nullptr), PARA_ERR);
    }
}

/* A getter keyed by position or rule id, in its plain and Ex forms. */
template <typename Out>
struct Forms {
    const char *name;
    int (*plain)(TAZE *, unsigned int key, Out *out);
    int (*ex)(TAZE *, unsigned int ptn_type, unsigned int key, Out *out); /* nullptr: no Ex form */
};

/* Both forms of a getter for one key, the Ex form asking for the main kind. */
template <typename Out>
std::vector<std::pair<std::string, std::function<int(TAZE *, Out *)>>> forms_of(const Forms<Out> &f, unsigned int key)
{
    const std::string at = " " + std::to_string(key);
    std::vector<std::pair<std::string, std::function<int(TAZE *, Out *)>>> v = {
        {f.name + at, [f, key](TAZE *h, Out *o) { return f.plain(h, key, o); }}};
    if (f.ex) {
        v.push_back({f.name + std::string("Ex") + at, [f, key](TAZE *h, Out *o) { return f.ex(h, PT_TAZ, key, o); }});
    }
    return v;
}

TEST(ApiRules, RulesByPosition)
{
    tazt::Handle h = tazt::load_payload(full_payload());
    const Forms<char *> text_forms[] = {{"GetRuleIndexDesc", TAZE_GetRuleIndexDesc, TAZE_GetRuleIndexDescEx},
                                        {"GetRuleIndexRisk", TAZE_GetRuleIndexRisk, TAZE_GetRuleIndexRiskEx}};
    const Forms<unsigned int> number_forms[] = {
        {"GetRuleIndexRuleID", TAZE_GetRuleIndexRuleID, TAZE_GetRuleIndexRuleIDEx},
        {"GetRuleIndexRiskGroup", TAZE_GetRuleIndexRiskGroup, TAZE_GetRuleIndexRiskGroupEx},
        {"GetRuleIndexCL", TAZE_GetRuleIndexCL, TAZE_GetRuleIndexCLEx},
        {"GetRuleIndexEnable", TAZE_GetRuleIndexEnable, TAZE_GetRuleIndexEnableEx}};
    struct Row {
        unsigned int idx;
        int text_rc;
        const char *text[2];     /* description, risk type */
        unsigned int number[4]; /* rule id, risk group, confidence level, enable */
    } rows[] = {
        {0, 0, {"zero", "risk0"}, {0, 99, 9, 1}}, {1, 0, {"ten", "risk10"}, {10, 11, 1, 0}},
        {2, 0, {"twenty", ""}, {20, 22, 2, 1}}, {3, 0, {"thirty", "risk30"}, {30, 33, 3, 1}},
        /* Past the rules: no text, and numbers that read 0. */
        {4, PARA_ERR, {nullptr, nullptr}, {0, 0, 0, 0}}, {0xFFFFFFFFu, PARA_ERR, {nullptr, nullptr}, {0, 0, 0, 0}},
    };
    std::vector<NumberCase> numbers;
    std::vector<TextCase> texts;
    for (const Row &r : rows) {
        for (int i = 0; i < 2; ++i)
            for (auto &[name, get] : forms_of(text_forms[i], r.idx)) texts.push_back({name, get, r.text_rc, r.text[i]});
        for (int i = 0; i < 4; ++i)
            for (auto &[name, get] : forms_of(number_forms[i], r.idx)) numbers.push_back({name, get, 0, r.number[i]});
    }
    numbers.push_back({"GetRuleInfoCount", TAZE_GetRuleInfoCount, 0, 4});
    numbers.push_back(
        {"GetRuleInfoCountEx", [](TAZE *t, unsigned *o) { return TAZE_GetRuleInfoCountEx(t, PT_TAZ, o); }, 0, 4});
    expect_texts(h.get(), texts);
    expect_numbers(h.get(), numbers);
}

TEST(ApiRules, RulesById)
{
    tazt::Handle h = tazt::load_payload(full_payload());
    /* The description is looked up in both kinds and has no Ex form; an
     * unknown rule's risk is an empty copy, freed like any other. */
    const Forms<char *> text_forms[] = {{"GetRuleIdDesc", TAZE_GetRuleIdDesc, nullptr},
                                        {"GetRuleIdRisk", TAZE_GetRuleIdRisk, TAZE_GetRuleIdRiskEx}};
    const Forms<unsigned int> number_forms[] = {
        {"GetRuleIdRiskGroup", TAZE_GetRuleIdRiskGroup, TAZE_GetRuleIdRiskGroupEx},
        {"GetRuleIdCL", TAZE_GetRuleIdCL, TAZE_GetRuleIdCLEx}};
    struct Row {
        unsigned int id;
        const char *text[2];     /* description (nullptr: result 0 and no copy), risk type */
        unsigned int number[2]; /* risk group, confidence level */
    } rows[] = {
        {10, {"ten", "risk10"}, {11, 1}}, {20, {"twenty", ""}, {22, 2}}, {30, {"thirty", "risk30"}, {33, 3}},
        {0, {nullptr, ""}, {0, 0}}, /* id 0 is never looked up, although a rule has it */
        {25, {nullptr, ""}, {0, 0}}, {0xFFFFFFFFu, {nullptr, ""}, {0, 0}},
    };
    std::vector<NumberCase> numbers;
    std::vector<TextCase> texts;
    for (const Row &r : rows) {
        for (int i = 0; i < 2; ++i)
            for (auto &[name, get] : forms_of(text_forms[i], r.id)) texts.push_back({name, get, 0, r.text[i]});
        for (int i = 0; i < 2; ++i)
            for (auto &[name, get] : forms_of(number_forms[i], r.id)) numbers.push_back({name, get, 0, r.number[i]});
    }
    expect_texts(h.get(), texts);
    expect_numbers(h.get(), numbers);
}

/* ---- clean decisions and clean data ------------------------------------------------------ */
using CheckFn = std::function<int(TAZE *, unsigned int *target)>;
using DataFn = std::function<int(TAZE *, unsigned int *priority, char **src, char **dst)>;

struct CheckCase {
    std::string name;
    CheckFn check;
    int rc;
    unsigned int target; /* when rc is 1 */
};

void expect_checks(TAZE *h, const std::vector<CheckCase> &cases)
{
    for (const CheckCase &c : cases) {
        SCOPED_TRACE(c.name);
        unsigned int target = 0xDEADu;
        EXPECT_EQ(c.check(h, &target), c.rc);
        EXPECT_EQ(target, c.rc == 1 ? c.target : 0xDEADu);
        EXPECT_EQ(c.check(h, nullptr), PARA_ERR) << "null target";
    }
}

struct DataCase {
    std::string name;
    DataFn get;
    int rc;
    unsigned int priority;
    const char *src, *dst; /* checked when rc is 0 and src is not nullptr */
};

void expect_data(TAZE *h, const std::vector<DataCase> &cases)
{
    for (const DataCase &c : cases) {
        SCOPED_TRACE(c.name);
        unsigned int priority = 0xDEADu;
        /* The outputs are overwritten, whatever they hold. */
        char *earlier = strdup("earlier");
        char *src = earlier, *dst = nullptr;
        EXPECT_EQ(c.get(h, &priority, &src, &dst), c.rc);
        if (c.rc == 0 && c.src) {
            EXPECT_EQ(priority, c.priority);
            EXPECT_NE(src, earlier);
            EXPECT_EQ(take(src), c.src);
            EXPECT_EQ(take(dst), c.dst);
        }
        if (src != earlier) std::free(src);
        std::free(dst);
        std::free(earlier);
    }
}

template <typename Plain, typename Ex>
void add_check(std::vector<CheckCase> &v, const std::string &name, Plain plain, Ex ex, int rc, unsigned int target)
{
    v.push_back({name, plain, rc, target});
    v.push_back({name + " (Ex)", [ex](TAZE *h, unsigned int *t) { return ex(h, PT_TAZ, t); }, rc, target});
}

TEST(ApiRules, RuleCleanDecisions)
{
    tazt::Handle h = tazt::load_payload(full_payload());
    struct Row {
        const char *name;
        unsigned int id, protocol, direction;
        int rc;
        unsigned int target;
    } rows[] = {
        {"rule id 0", 0, 6, 2, PARA_ERR, 0}, {"unknown rule", 25, 6, 2, 0, 0},
        {"either direction fits inbound", 30, 6, 2, 1, 7}, {"either direction fits outbound", 30, 17, 3, 1, 7},
        {"protocol above the range", 30, 18, 3, 0, 0}, {"protocol below the range", 30, 5, 3, 0, 0},
        {"protocol number past 16 bits", 30, 65536 + 6, 2, 0, 0}, {"inbound entry, inbound asked", 10, 6, 2, 1, 4},
        {"inbound entry, outbound asked", 10, 6, 3, 0, 0}, {"inbound entry, either asked", 10, 6, 1, 0, 0},
        {"target 0 is never cleaned", 20, 0, 0, 0, 0},
    };
    std::vector<CheckCase> cases;
    for (const Row &r : rows) {
        add_check(
            cases, r.name,
            [r](TAZE *t, unsigned *o) { return TAZE_CheckRuleIdClean(t, r.id, r.protocol, r.direction, o); },
            [r](TAZE *t, unsigned pt, unsigned *o) {
                return TAZE_CheckRuleIdCleanEx(t, pt, r.id, r.protocol, r.direction, o);
            },
            r.rc, r.target);
    }
    expect_checks(h.get(), cases);

    /* Clean data of a rule: a found rule and an unknown one both give 0. */
    auto data = [](unsigned int id) {
        return [id](TAZE *t, unsigned *p, char **s, char **d) { return TAZE_GetRuleIdClean(t, id, p, s, d); };
    };
    auto data_ex = [](unsigned int id) {
        return [id](TAZE *t, unsigned *p, char **s, char **d) { return TAZE_GetRuleIdCleanEx(t, PT_TAZ, id, p, s, d); };
    };
    expect_data(h.get(), {
                             {"data of rule 30", data(30), 0, 5, "src30", "dst30"},
                             {"data of rule 30 (Ex)", data_ex(30), 0, 5, "src30", "dst30"},
                             {"empty clean strings", data(20), 0, 0, "", ""},
                             {"data of rule id 0", data(0), PARA_ERR, 0, nullptr, nullptr},
                             {"data of rule id 0 (Ex)", data_ex(0), PARA_ERR, 0, nullptr, nullptr},
                             {"data of an unknown rule", data(25), 0, 0, nullptr, nullptr},
                         });
}

TEST(ApiRules, CleanTableFirstFittingEntry)
{
    tazt::Handle h = tazt::load_payload(full_payload());
    tazt::Handle bare = tazt::load_payload(rules_only());
    struct Row {
        const char *name;
        TAZE *h;
        unsigned int protocol, direction;
        int rc;
        unsigned int target;
    } rows[] = {
        {"first entry covering 6 is inbound", h.get(), 6, 2, 1, 5},
        {"a later outbound entry covering 6 is not looked at", h.get(), 6, 3, 0, 0},
        {"inbound entry, either asked", h.get(), 6, 1, 0, 0}, {"second entry", h.get(), 10, 3, 1, 9},
        {"second entry, wrong direction", h.get(), 10, 2, 0, 0}, {"target 0", h.get(), 25, 2, 0, 0},
        {"either direction", h.get(), 45, 3, 1, 4}, {"all-zero range skipped", h.get(), 0, 1, 0, 0},
        {"no entry", h.get(), 99, 1, 0, 0}, {"protocol past 16 bits", h.get(), 65536 + 45, 1, 0, 0},
        {"no clean table", bare.get(), 6, 2, 0, 0},
    };
    std::vector<CheckCase> cases;
    for (const Row &r : rows) {
        add_check(
            cases, r.name, [r](TAZE *, unsigned *o) { return TAZE_CheckCleanInfo(r.h, r.protocol, r.direction, o); },
            [r](TAZE *, unsigned pt, unsigned *o) {
                return TAZE_CheckCleanInfoEx(r.h, pt, r.protocol, r.direction, o);
            },
            r.rc, r.target);
    }
    expect_checks(h.get(), cases);

    /* Clean data of the table: unlike the rule form, a miss is -1. */
    auto data = [](TAZE *on, unsigned int protocol) {
        return [on, protocol](TAZE *, unsigned *p, char **s, char **d) {
            return TAZE_GetCleanInfo(on, protocol, p, s, d);
        };
    };
    auto data_ex = [](TAZE *on, unsigned int protocol) {
        return [on, protocol](TAZE *, unsigned *p, char **s, char **d) {
            return TAZE_GetCleanInfoEx(on, PT_TAZ, protocol, p, s, d);
        };
    };
    expect_data(h.get(), {
                             {"first entry covering 6", data(h.get(), 6), 0, 2, "tcp-in-src", "tcp-in-dst"},
                             {"first entry covering 6 (Ex)", data_ex(h.get(), 6), 0, 2, "tcp-in-src", "tcp-in-dst"},
                             {"second entry", data(h.get(), 10), 0, 3, "s2", "d2"},
                             {"target 0 does not matter here", data(h.get(), 25), 0, 4, "s3", "d3"},
                             {"all-zero range skipped", data(h.get(), 0), -1, 0, nullptr, nullptr},
                             {"no entry", data(h.get(), 99), -1, 0, nullptr, nullptr},
                             {"no entry (Ex)", data_ex(h.get(), 99), -1, 0, nullptr, nullptr},
                             {"no clean table", data(bare.get(), 6), -1, 0, nullptr, nullptr},
                         });
}

/* ---- protocols and groups ------------------------------------------------------------------ */
TEST(ApiRules, ProtocolsAndGroups)
{
    tazt::Handle h = tazt::load_payload(full_payload());
    using N1 = int (*)(TAZE *, unsigned, unsigned *);
    using N2 = int (*)(TAZE *, unsigned, unsigned, unsigned *);
    using T1 = int (*)(TAZE *, unsigned, char **);
    auto n1 = [](N1 f, unsigned a) { return NumberGetter([f, a](TAZE *t, unsigned *o) { return f(t, a, o); }); };
    auto n2 = [](N2 f, unsigned a, unsigned b) {
        return NumberGetter([f, a, b](TAZE *t, unsigned *o) { return f(t, a, b, o); });
    };
    auto txt = [](T1 f, unsigned a) { return TextGetter([f, a](TAZE *t, char **o) { return f(t, a, o); }); };
    const N1 index_id = TAZE_GetProtocolIndexID, index_group = TAZE_GetProtocolIndexGroupID,
             id_group = TAZE_GetProtocolIdGroupID, group_id = TAZE_GetProtocolGroupIndexID,
             group_size = TAZE_GetProtocolGroupIndexProtocolCount, id_size = TAZE_GetProtocolGroupIdProtocolCount;
    const N2 member = TAZE_GetProtocolGroupIndexProtocolIndex, id_member = TAZE_GetProtocolGroupIdProtocolIndexId;
    expect_numbers(h.get(), {
        {"protocol count", TAZE_GetProtocolCount, 0, 4}, {"protocol 1 id", n1(index_id, 1), 0, 6},
        {"protocol 3 id", n1(index_id, 3), 0, 1}, {"protocol past the end id", n1(index_id, 4), 0, 0},
        {"protocol 1 group", n1(index_group, 1), 0, 100}, {"protocol 0 group", n1(index_group, 0), 0, 50},
        {"protocol 3 group", n1(index_group, 3), 0, 200}, {"protocol past the end group", n1(index_group, 4), 0, 0},
        {"group of id 17", n1(id_group, 17), 0, 100}, {"group of id 1", n1(id_group, 1), 0, 200},
        {"group of an unknown id: entry 0's", n1(id_group, 999), 0, 50},
        {"group of id 6 (Ex)", [](TAZE *t, unsigned *o) { return TAZE_GetProtocolIdGroupIDEx(t, PT_TAZ, 6, o); }, 0,
         100},
        {"group count", TAZE_GetProtocolGroupCount, 0, 4}, {"group 2 id", n1(group_id, 2), 0, 200},
        {"group past the end id", n1(group_id, 4), 0, 0}, {"group 1 size", n1(group_size, 1), 0, 2},
        {"group 3 size", n1(group_size, 3), 0, 0}, {"group past the end size", n1(group_size, 4), 0, 0},
        {"group 1 member 1", n2(member, 1, 1), 0, 17}, {"group 1 member 0", n2(member, 1, 0), 0, 6},
        {"group 1 member 2", n2(member, 1, 2), 0, 0}, {"group 0 member 0", n2(member, 0, 0), 0, 1},
        {"empty group member 0", n2(member, 3, 0), 0, 0}, {"group past the end member", n2(member, 4, 0), 0, 0},
        {"size of group 100", n1(id_size, 100), 0, 2}, {"size of group 300", n1(id_size, 300), 0, 0},
        {"size of an unknown group: entry 0's", n1(id_size, 999), 0, 1},
        {"group 100 member 0", n2(id_member, 100, 0), 0, 6}, {"group 100 member 1", n2(id_member, 100, 1), 0, 17},
        {"group 100 member 2", n2(id_member, 100, 2), 0, 0},
        {"unknown group member 0: entry 0's", n2(id_member, 999, 0), 0, 1},
        {"unknown group member 1", n2(id_member, 999, 1), 0, 0},
        {"empty group member 0 by id", n2(id_member, 300, 0), 0, 0},
    });
    expect_texts(h.get(), {
        {"protocol 2 desc", txt(TAZE_GetProtocolIndexDesc, 2), 0, "udp"},
        {"protocol past the end desc", txt(TAZE_GetProtocolIndexDesc, 4), PARA_ERR, nullptr},
        {"desc of id 17", txt(TAZE_GetProtocolIdDesc, 17), 0, "udp"},
        {"desc of id 0", txt(TAZE_GetProtocolIdDesc, 0), 0, "unknown"},
        {"desc of an unknown id: entry 0's", txt(TAZE_GetProtocolIdDesc, 999), 0, "unknown"},
        {"group 1 desc", txt(TAZE_GetProtocolGroupIndexDesc, 1), 0, "transport"},
        {"group past the end desc", txt(TAZE_GetProtocolGroupIndexDesc, 4), PARA_ERR, nullptr},
        {"desc of group 200", txt(TAZE_GetProtocolGroupIdDesc, 200), 0, "control"},
        {"desc of an unknown group: entry 0's", txt(TAZE_GetProtocolGroupIdDesc, 999), 0, "none"},
    });

    /* Without a protocol section there is no entry 0 to fall back on. */
    tazt::Handle bare = tazt::load_payload(rules_only());
    expect_numbers(bare.get(), {{"protocol count", TAZE_GetProtocolCount, 0, 0},
                                {"group of id 6", n1(id_group, 6), 0, 0},
                                {"size of group 100", n1(id_size, 100), 0, 0}});
    expect_texts(bare.get(), {{"desc of id 6", txt(TAZE_GetProtocolIdDesc, 6), PARA_ERR, nullptr},
                              {"desc of group 100", txt(TAZE_GetProtocolGroupIdDesc, 100), PARA_ERR, nullptr}});
}

/* ---- known and potential risk ----------------------------------------------------------------- */
using RiskFn = std::function<int(TAZE *, unsigned int *policy, unsigned int *severity)>;

struct RiskCase {
    std::string name;
    RiskFn get;
    int rc;
    unsigned int policy, severity; /* when rc is 0 */
};

void expect_risks(TAZE *h, const std::vector<RiskCase> &cases)
{
    for (const RiskCase &c : cases) {
        SCOPED_TRACE(c.name);
        unsigned int policy = 0xDEADu, sev = 0xBEEFu;
        EXPECT_EQ(c.get(h, &policy, &sev), c.rc);
        EXPECT_EQ(policy, c.rc == 0 ? c.policy : 0xDEADu);
        EXPECT_EQ(sev, c.rc == 0 ? c.severity : 0xBEEFu);
    }
}

RiskFn known(unsigned int direction, unsigned int protocol)
{
    return [=](TAZE *t, unsigned *p, unsigned *s) { return TAZE_GetKnownRiskInfo(t, direction, protocol, p, s); };
}
RiskFn potential(unsigned int rule, unsigned int direction, unsigned int protocol)
{
    return [=](TAZE *t, unsigned *p, unsigned *s) {
        return TAZE_GetPotentialRiskInfo(t, rule, direction, protocol, p, s);
    };
}

TEST(ApiRules, KnownAndPotentialRisk)
{
    tazt::Handle h = tazt::load_payload(full_payload());
    expect_risks(h.get(), {
                              {"known inbound tcp", known(2, 6), 0, 50, 5},
                              {"known inbound udp", known(2, 17), 0, 50, 5},
                              {"known inbound, between the ranges: default", known(2, 10), 0, 11, 1},
                              {"known outbound in a wide range", known(3, 10), 0, 80, 8},
                              {"known outbound tcp skips the inbound entry", known(3, 6), 0, 80, 8},
                              {"known entry of either direction, outbound", known(3, 1), 0, 70, 7},
                              {"known entry of either direction, inbound", known(2, 1), 0, 70, 7},
                              {"known entry of either direction, either asked", known(1, 1), 0, 70, 7},
                              {"known, either asked, nothing fits", known(1, 6), -1, 0, 0},
                              {"known protocol taken to 16 bits", known(2, 65536 + 6), 0, 50, 5},
                              {"known outbound default", known(3, 99), 0, 22, 2},
                              {"known, direction 4, nothing fits", known(4, 6), -1, 0, 0},
                              {"known, direction 0, entry of either direction", known(0, 1), 0, 70, 7},
                              {"known Ex", [](TAZE *t, unsigned *p, unsigned *s) {
                               return TAZE_GetKnownRiskInfoEx(t, PT_TAZ, 2, 6, p, s); },
                               0, 50, 5},
                              {"potential, a first entry without risks is passed", potential(10, 2, 6), 0, 33, 3},
                              {"potential inbound default", potential(10, 2, 7), 0, 120, 12},
                              {"potential outbound default", potential(10, 3, 7), 0, 130, 13},
                              {"potential, either asked, nothing fits", potential(10, 1, 7), -1, 0, 0},
                              {"potential outbound entry", potential(20, 3, 5), 0, 44, 4},
                              {"potential, first fitting risk of the entry", potential(20, 2, 5), 0, 66, 6},
                              {"potential, second risk", potential(20, 3, 50), 0, 66, 6},
                              {"potential, no range", potential(20, 3, 200), 0, 130, 13},
                              {"potential unknown rule, either", potential(99, 1, 6), -1, 0, 0},
                              {"potential unknown rule, inbound", potential(99, 2, 6), 0, 120, 12},
                              {"potential Ex", [](TAZE *t, unsigned *p, unsigned *s) {
                               return TAZE_GetPotentialRiskInfoEx(t, PT_TAZ, 20, 3, 5, p, s); },
                               0, 44, 4},
                          });
    /* Without a severity section the defaults read as zeros. */
    tazt::Handle bare = tazt::load_payload(rules_only());
    expect_risks(bare.get(), {
                                 {"known inbound", known(2, 6), 0, 0, 0}, {"known either", known(1, 6), -1, 0, 0},
                                 {"potential outbound", potential(10, 3, 6), 0, 0, 0},
                                 {"potential either", potential(10, 1, 6), -1, 0, 0},
                             });
}

/* ---- threat types and the compiler version -------------------------------------------------------- */
TEST(ApiRules, ThreatTypes)
{
    tazt::Handle h = tazt::load_payload(full_payload());
    tazt::Handle bare = tazt::load_payload(rules_only());
    struct Row {
        TAZE *h;
        unsigned int rule;
        unsigned int type;
    } rows[] = {
        {h.get(), 10, TT_EXPLOIT}, /* the first entry of the rule */
        {h.get(), 20, TT_ZUL}, {h.get(), 30, TT_HIDDEN},
        {h.get(), 40, 12345}, /* stored as it is */
        {h.get(), 25, TT_HIDDEN}, {h.get(), 0, TT_HIDDEN}, {bare.get(), 10, TT_HIDDEN},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE("rule " + std::to_string(r.rule));
        unsigned int type = 0xDEADu;
        EXPECT_EQ(TAZE_GetThreatType(r.h, r.rule, &type), 0);
        EXPECT_EQ(type, r.type);
        type = 0xDEADu;
        EXPECT_EQ(TAZE_GetThreatTypeEx(r.h, PT_TAZ, r.rule, &type), 0);
        EXPECT_EQ(type, r.type);
    }
}

TEST(ApiRules, CompilerVersion)
{
    tazt::Handle h = tazt::load_payload(full_payload());
    tazt::Handle bare = tazt::load_payload(rules_only());
    struct Row {
        const char *name;
        TAZE *h;
        int size;
        int rc;
        const char *text;
    } rows[] = {
        {"the later of two version lists", h.get(), 32, 0, "2.00456.03"},
        {"smallest buffer", h.get(), 11, 0, "2.00456.03"}, {"buffer too small", h.get(), 10, PARA_ERR, ""},
        {"no version list", bare.get(), 32, 0, "0.00000.00"},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        char buf[32] = {};
        EXPECT_EQ(TAZE_GetCompilerVersion(r.h, buf, r.size), r.rc);
        EXPECT_STREQ(buf, r.text);
    }
}

} // namespace
