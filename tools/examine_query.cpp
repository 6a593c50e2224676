/* taze query: every list, map, rule, clean, protocol, risk and threat
 * question of the public API, asked from the shell. The file is loaded with
 * TAZE_LoadPattern and every answer comes from an exported TAZE_* call, so
 * the tool answers exactly as a host would be answered. */
#include <arpa/inet.h>

#include <array>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>

#include "examine_commands.h"
#include "taze.hpp"
#include "tazapi.h"

namespace tazi {

namespace {

using tazc::Json;

constexpr const char *kQueryUsage =
    "usage: taze query [--ulm] [--json] [--map-type TYPE] FILE KIND [LIST] VALUE...\n"
    "\n"
    "Loads FILE with TAZE_LoadPattern and asks the library through its public\n"
    "API. LIST is the list number (idx) of list kinds and the map number (magic)\n"
    "of map kinds; other kinds take no LIST.\n"
    "\n"
    "String lists (one answer per STRING: 1 match, 0 no match):\n"
    "  exact | string LIST STRING...            TAZE_PatternSearchStringList\n"
    "  prefix LIST STRING...                    TAZE_PatternSearchPrefixList\n"
    "  suffix LIST STRING...                    TAZE_PatternSearchSuffixList\n"
    "  substring LIST STRING...                 TAZE_PatternSearchSubstringList\n"
    "  case | exact-case LIST STRING...         TAZE_PatternSearchCaseList\n"
    "  prefix-case LIST STRING...               TAZE_PatternSearchPrefixCaseList\n"
    "  suffix-case LIST STRING...               TAZE_PatternSearchSuffixCaseList\n"
    "  substring-case LIST STRING...            TAZE_PatternSearchSubstringCaseList\n"
    "  string-list LIST                         TAZE_PatternGetStringList: the whole exact list\n"
    "Ranges:\n"
    "  ip LIST ADDRESS...                       dotted IPv4 (or its host-order number)\n"
    "  ipv6 LIST ADDRESS...                     IPv6 text\n"
    "  port LIST PORT...\n"
    "Maps (map number LIST; no KEY: the count and every entry by index; KEY\n"
    "alone: the entry of the key; KEY VALUE...: whether the key maps to each\n"
    "value, 1 yes, 0 / -1 no):\n"
    "  simap LIST [KEY [INTEGER...]]            string to integers\n"
    "  sipv6map LIST [KEY [ADDRESS...]]         string to IPv6 (by key: the library\n"
    "                                           always answers -1; list or search instead)\n"
    "  ipv6imap LIST [ADDRESS [INTEGER...]]     IPv6 to integers\n"
    "  iimap LIST [INTEGER [INTEGER...]]        integer to integers\n"
    "  ismap LIST [INTEGER [STRING...]]         integer to strings\n"
    "  ssmap LIST [KEY [STRING...]]             string to strings\n"
    "  The map kinds of the source format work too and imply the map type, e.g.\n"
    "  suffix_to_int (simap, MT_SUFFIX) or prefix_to_suffix (ssmap, MT_PREFIX_SUFFIX).\n"
    "Rules and tables:\n"
    "  rule ID...                               description (main kind first, then the\n"
    "                                           second), risk, risk group, confidence,\n"
    "                                           threat type and clean data of rule ids\n"
    "  rule-index [INDEX...]                    the same by position (all without INDEX)\n"
    "  clean RULE PROTOCOL [DIRECTION]          TAZE_CheckRuleIdClean and TAZE_GetRuleIdClean\n"
    "  clean-info PROTOCOL [DIRECTION]          TAZE_CheckCleanInfo and TAZE_GetCleanInfo\n"
    "  protocol [ID...]                         protocols by id (all by index without ID)\n"
    "  group [ID...]                            protocol groups by id (all without ID)\n"
    "  known-risk DIRECTION PROTOCOL...         TAZE_GetKnownRiskInfo\n"
    "  potential-risk RULE DIRECTION PROTOCOL...  TAZE_GetPotentialRiskInfo\n"
    "  threat RULE...                           TAZE_GetThreatType\n"
    "  ulm-info                                 TAZE_GetUlmInfo (the second kind's name)\n"
    "  versions                                 pattern, compiler and peeked versions, raw bytes\n"
    "DIRECTION is any (1), inbound (2), outbound (3) or a number.\n"
    "\n"
    "Options:\n"
    "  --ulm             ask the second pattern kind (pattern type 1): Ex functions get\n"
    "                    ptn_type 1, plain ones run after TAZE_PointToULMPattern\n"
    "  --map-type TYPE   map type of simap, sipv6map, ismap and ssmap: a number, an MT_\n"
    "                    name (MT_SUFFIX_PREFIX), exact|prefix|suffix|substring (MT_STRING,\n"
    "                    MT_PREFIX, MT_SUFFIX, MT_SUBSTR) or KEY_VALUE (suffix_prefix);\n"
    "                    default 0\n"
    "  --json            print one JSON document instead of one line per answer\n"
    "  --                end of options (for values that begin with '-')\n"
    "\n"
    "Exit codes: 0 answered, 1 the file does not load or a call returned an error\n"
    "code (such as -99 PARA_ERR), 2 usage error.\n";

/* A bad argument of a kind: a usage error. */
struct BadArgument {
    std::string message;
};

/* ---- arguments ---------------------------------------------------------------------- */

std::uint32_t parse_u32(const std::string &t, const char *what)
{
    try {
        return tazc::parse_u32_text(t, "");
    } catch (const tazc::SourceError &) {
        throw BadArgument{tazc::quote_text(t) + " is not " + what};
    }
}

int parse_int(const std::string &t, const char *what)
{
    char *end = nullptr;
    errno = 0;
    const long v = std::strtol(t.c_str(), &end, 0);
    if (t.empty() || *end != '\0' || errno != 0 || v < INT32_MIN || v > INT32_MAX)
        throw BadArgument{tazc::quote_text(t) + " is not " + what};
    return int(v);
}

std::uint32_t parse_ipv4(const std::string &t)
{
    in_addr a{};
    if (inet_pton(AF_INET, t.c_str(), &a) == 1) return ntohl(a.s_addr);
    return parse_u32(t, "an IPv4 address");
}

std::array<unsigned char, 16> parse_ipv6(const std::string &t)
{
    std::array<unsigned char, 16> a{};
    if (inet_pton(AF_INET6, t.c_str(), a.data()) != 1)
        throw BadArgument{tazc::quote_text(t) + " is not an IPv6 address"};
    return a;
}

unsigned short parse_port(const std::string &t)
{
    const std::uint32_t v = parse_u32(t, "a port");
    if (v > 0xFFFF) throw BadArgument{tazc::quote_text(t) + " is not a port from 0 to 65535"};
    return static_cast<unsigned short>(v);
}

std::uint32_t parse_direction(const std::string &t)
{
    std::uint32_t d = 0;
    return direction_of(t, &d) ? d : parse_u32(t, "a direction (any, inbound, outbound or a number)");
}

constexpr const char *kRuleWords[4][2] = {
    {"exact", "string"}, {"prefix", "prefix"}, {"suffix", "suffix"}, {"substring", "substr"}};

std::optional<unsigned> rule_word(const std::string &w)
{
    for (unsigned r = 0; r < 4; ++r)
        if (w == kRuleWords[r][0] || w == kRuleWords[r][1]) return r;
    return std::nullopt;
}

std::string lower(std::string s)
{
    for (char &c : s) c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

/* The map type a source map kind stands for. */
int map_type_of(const tazc::Family &f)
{
    switch (f.shape) {
    case tazc::Shape::StrInt:
    case tazc::Shape::StrIPv6: return int(f.key_rule * 257);
    case tazc::Shape::IntStr: return int(f.value_rule * 257);
    case tazc::Shape::StrStr: return int(f.key_rule << 8 | f.value_rule);
    default: return 0;
    }
}

int parse_map_type(const std::string &text)
{
    std::string t = lower(text);
    if (!t.empty() && std::isdigit(static_cast<unsigned char>(t[0]))) return int(parse_u32(t, "a map type"));
    if (t.rfind("mt_", 0) == 0) t = t.substr(3);
    if (const auto r = rule_word(t)) return int(*r * 257);
    if (const tazc::Family *f = tazc::find_family("maps", t)) return map_type_of(*f);
    const std::size_t cut = t.find('_');
    if (cut != std::string::npos) {
        const auto k = rule_word(t.substr(0, cut)), v = rule_word(t.substr(cut + 1));
        if (k && v) return int(*k << 8 | *v);
    }
    throw BadArgument{tazc::quote_text(text) + " is not a map type"};
}

/* ---- answers ------------------------------------------------------------------------- */

struct Context {
    TAZE *h = nullptr;
    int pt = PT_TAZ;
    int map_type = 0;
    int list = 0;
    std::string file;
};

struct Answers {
    std::vector<Json> items;
    bool failed = false;
    /* Records one answer; a result code below -1 is an error of the call. */
    void add(Json j, int rc)
    {
        failed = failed || rc < -1;
        if (rc < -1 && *error_name(rc)) j["error"] = error_name(rc);
        items.push_back(std::move(j));
    }
};

/* A string the API copied for the caller, taken over and freed. */
Json take(char *&s)
{
    Json j = s ? Json(std::string(s)) : Json(nullptr);
    std::free(s);
    s = nullptr;
    return j;
}

Json counted(const TAZE_CountedString &s)
{
    return s.ptr ? Json(std::string(reinterpret_cast<const char *>(s.ptr), s.len)) : Json(nullptr);
}

/* A JSON array of n borrowed elements. */
template <typename T, typename Fn>
Json array_of(const T *p, std::uint32_t n, Fn fn)
{
    Json a = Json::array();
    for (std::uint32_t i = 0; p && i < n; ++i) a.push_back(fn(p[i]));
    return a;
}
Json ints(const std::uint32_t *p, std::uint32_t n)
{
    return array_of(p, n, [](std::uint32_t v) { return v; });
}
Json strs(const TAZE_CountedString *p, std::uint32_t n) { return array_of(p, n, counted); }
Json addresses(const TAZE_IPv6 *p, std::uint32_t n)
{
    return array_of(p, n, [](const TAZE_IPv6 &v) { return ipv6_text(v.bytes); });
}

Json threat_name(std::uint32_t t)
{
    const char *name = threat_type_name(t);
    return name ? Json(name) : Json(nullptr);
}

/* One record of answers from several getters; the lowest result code is
 * kept as the record's code. */
struct Record {
    Json j = Json::object();
    int worst = 0;

    Record &set(const char *key, Json v)
    {
        j[key] = std::move(v);
        return *this;
    }
    /* A getter that copies a string for the caller (taken over here). */
    template <typename Fn>
    Record &text(const char *key, Fn fn)
    {
        char *s = nullptr;
        worst = std::min(worst, fn(&s));
        j[key] = take(s);
        return *this;
    }
    /* A getter of one unsigned number. */
    template <typename Fn>
    Record &number(const char *key, Fn fn)
    {
        unsigned int v = 0;
        worst = std::min(worst, fn(&v));
        j[key] = v;
        return *this;
    }
    /* A getter with its own result: stored as "result" and kept. */
    Record &result(int rc)
    {
        worst = std::min(worst, rc);
        j["result"] = rc;
        return *this;
    }
};

/* ---- string and range lists -------------------------------------------------------------- */

using StringSearch = int (*)(TAZE *, int, const char *, int);

void whole_string_list(const Context &c, const Args &, Answers &a)
{
    TAZE_StringList list{};
    const int rc = TAZE_PatternGetStringList(c.h, c.list, c.pt, &list);
    a.add(Json{{"result", rc}, {"count", list.nr_strings}, {"strings", strs(list.strings, list.nr_strings)}}, rc);
}

/* ---- maps ---------------------------------------------------------------------------------- */

/* One key or value argument in the C type a map function takes. */
struct MapArg {
    std::string text;
    std::uint32_t number = 0;
    std::array<unsigned char, 16> ipv6{};
    template <typename T>
    T as() const
    {
        if constexpr (std::is_same_v<T, const char *>)
            return text.c_str();
        else if constexpr (std::is_same_v<T, unsigned int>)
            return number;
        else
            return ipv6.data();
    }
};

template <typename T>
MapArg map_arg(const std::string &t)
{
    MapArg m;
    m.text = t;
    if constexpr (std::is_same_v<T, unsigned int>)
        m.number = parse_u32(t, "an integer");
    else if constexpr (std::is_same_v<T, const unsigned char *>)
        m.ipv6 = parse_ipv6(t);
    return m;
}

/* The four functions of a map family, all with the map type. */
template <typename Key, typename Value, typename Result>
struct MapApi {
    int (*search)(TAZE *, int, int, int, Key, Value);
    int (*by_key)(TAZE *, int, int, int, Key, Result *);
    int (*count)(TAZE *, int, int, int);
    int (*by_index)(TAZE *, int, int, int, int, Result *);
};

/* The families whose functions take no map type. */
int iimap_search(TAZE *h, int pt, int, int magic, unsigned int key, unsigned int value)
{
    return TAZE_PatternSearchIIMap(h, pt, magic, key, value);
}
int ipv6imap_search(TAZE *h, int pt, int, int magic, const unsigned char *key, unsigned int value)
{
    return TAZE_PatternSearchIPv6IMap(h, pt, magic, key, value);
}
int ipv6imap_by_key(TAZE *h, int pt, int, int magic, const unsigned char *key, TAZE_IPv6IntMap *r)
{
    return TAZE_PatternGetIPv6IMapByKey(h, pt, magic, key, r);
}
int ipv6imap_count(TAZE *h, int pt, int, int magic) { return TAZE_PatternGetIPv6IMapCount(h, pt, magic); }
int ipv6imap_by_index(TAZE *h, int pt, int, int magic, int index, TAZE_IPv6IntMap *r)
{
    return TAZE_PatternGetIPv6IMapByIndex(h, pt, magic, index, r);
}

/* Key and values of one result record. */
Json entry(const TAZE_StringIntMap &r) { return Json{{"key", counted(r.string)}, {"values", ints(r.ints, r.nr_ints)}}; }
Json entry(const TAZE_StringIPv6Map &r)
{
    return Json{{"key", counted(r.string)}, {"values", addresses(r.ipv6s, r.nr_ipv6s)}};
}
Json entry(const TAZE_IPv6IntMap &r)
{
    return Json{{"key", ipv6_text(r.ipv6.bytes)}, {"values", ints(r.ints, r.nr_ints)}};
}
Json entry(const TAZE_IntIntMap &r) { return Json{{"key", r.integer}, {"values", ints(r.ints, r.nr_ints)}}; }
Json entry(const TAZE_IntStringMap &r) { return Json{{"key", r.integer}, {"values", strs(r.strs, r.nr_strs)}}; }
Json entry(const TAZE_StringStringMap &r)
{
    return Json{{"key", counted(r.string)}, {"values", strs(r.strs, r.nr_strs)}};
}

template <typename Key, typename Value, typename Result>
void map_query(const MapApi<Key, Value, Result> &api, const Context &c, const Args &values, Answers &a)
{
    if (values.empty()) { /* the count, then every entry by index */
        const int n = api.count(c.h, c.pt, c.map_type, c.list);
        a.add(Json{{"count", n}}, n);
        for (int i = 0; i < n; ++i) {
            Result r{};
            const int rc = api.by_index(c.h, c.pt, c.map_type, c.list, i, &r);
            Json j{{"index", i}, {"result", rc}};
            j.update(entry(r));
            a.add(std::move(j), rc);
        }
        return;
    }
    const MapArg key = map_arg<Key>(values[0]);
    if (values.size() == 1) {
        Result r{};
        const int rc = api.by_key(c.h, c.pt, c.map_type, c.list, key.as<Key>(), &r);
        Json j{{"lookup", key.text}, {"result", rc}, {"found", rc == 0}};
        j.update(entry(r));
        a.add(std::move(j), rc);
        return;
    }
    for (std::size_t i = 1; i < values.size(); ++i) {
        const MapArg v = map_arg<Value>(values[i]);
        const int rc = api.search(c.h, c.pt, c.map_type, c.list, key.as<Key>(), v.as<Value>());
        a.add(Json{{"key", key.text}, {"value", v.text}, {"result", rc}, {"match", rc == 1}}, rc);
    }
}

const MapApi<const char *, unsigned int, TAZE_StringIntMap> kSIMap{
    TAZE_PatternSearchSIMap, TAZE_PatternGetSIMapByKey, TAZE_PatternGetSIMapCount, TAZE_PatternGetSIMapByIndex};
const MapApi<const char *, const unsigned char *, TAZE_StringIPv6Map> kSIPv6Map{
    TAZE_PatternSearchSIPv6Map, TAZE_PatternGetSIPv6MapByKey, TAZE_PatternGetSIPv6MapCount,
    TAZE_PatternGetSIPv6MapByIndex};
const MapApi<const unsigned char *, unsigned int, TAZE_IPv6IntMap> kIPv6IMap{ipv6imap_search, ipv6imap_by_key,
                                                                             ipv6imap_count, ipv6imap_by_index};
const MapApi<unsigned int, unsigned int, TAZE_IntIntMap> kIIMap{iimap_search, TAZE_PatternGetIIMapByKey,
                                                                TAZE_PatternGetIIMapCount, TAZE_PatternGetIIMapByIndex};
const MapApi<unsigned int, const char *, TAZE_IntStringMap> kISMap{
    TAZE_PatternSearchISMap, TAZE_PatternGetISMapByKey, TAZE_PatternGetISMapCount, TAZE_PatternGetISMapByIndex};
const MapApi<const char *, const char *, TAZE_StringStringMap> kSSMap{
    TAZE_PatternSearchSSMap, TAZE_PatternGetSSMapByKey, TAZE_PatternGetSSMapCount, TAZE_PatternGetSSMapByIndex};

/* ---- rules, clean data, protocols, risks, threats ------------------------------------------ */

/* Clean data of a rule or of the clean table: copies of its strings. */
template <typename Get>
Json clean_data(Get get, int *worst)
{
    unsigned int priority = 0;
    char *src = nullptr, *dst = nullptr;
    const int rc = get(&priority, &src, &dst);
    /* -1 is "no clean data", an answer, not an error */
    *worst = std::min(*worst, rc == -1 ? 0 : rc);
    return Json{{"result", rc}, {"priority", priority}, {"src", take(src)}, {"dst", take(dst)}};
}

void rule_by_id(const Context &c, const Args &values, Answers &a)
{
    const unsigned pt = unsigned(c.pt);
    for (const std::string &v : values) {
        const std::uint32_t id = parse_u32(v, "a rule id");
        Record r;
        r.set("rule", id);
        /* the description is searched in the main kind, then the second */
        r.text("description", [&](char **s) { return TAZE_GetRuleIdDesc(c.h, id, s); });
        r.set("found", !r.j["description"].is_null());
        r.text("risk_type", [&](char **s) { return TAZE_GetRuleIdRiskEx(c.h, pt, id, s); })
            .number("risk_group", [&](unsigned *n) { return TAZE_GetRuleIdRiskGroupEx(c.h, pt, id, n); })
            .number("confidence", [&](unsigned *n) { return TAZE_GetRuleIdCLEx(c.h, pt, id, n); })
            .number("threat_type", [&](unsigned *n) { return TAZE_GetThreatTypeEx(c.h, pt, id, n); });
        r.set("threat_name", threat_name(r.j["threat_type"].get<std::uint32_t>()));
        r.set("clean", clean_data([&](unsigned *p, char **sp,
                                      char **dp) { return TAZE_GetRuleIdCleanEx(c.h, pt, id, p, sp, dp); },
                                  &r.worst));
        a.add(std::move(r.j), r.worst);
    }
}

void rule_by_index(const Context &c, const Args &values, Answers &a)
{
    const unsigned pt = unsigned(c.pt);
    std::vector<std::uint32_t> indexes;
    if (values.empty()) {
        unsigned int count = 0;
        const int rc = TAZE_GetRuleInfoCountEx(c.h, pt, &count);
        a.add(Json{{"count", count}, {"result", rc}}, rc);
        for (unsigned int i = 0; i < count; ++i) indexes.push_back(i);
    }
    for (const std::string &v : values) indexes.push_back(parse_u32(v, "a rule index"));
    for (std::uint32_t idx : indexes) {
        Record r;
        r.set("index", idx)
            .number("rule", [&](unsigned *n) { return TAZE_GetRuleIndexRuleIDEx(c.h, pt, idx, n); })
            .text("description", [&](char **s) { return TAZE_GetRuleIndexDescEx(c.h, pt, idx, s); })
            .text("risk_type", [&](char **s) { return TAZE_GetRuleIndexRiskEx(c.h, pt, idx, s); })
            .number("risk_group", [&](unsigned *n) { return TAZE_GetRuleIndexRiskGroupEx(c.h, pt, idx, n); })
            .number("confidence", [&](unsigned *n) { return TAZE_GetRuleIndexCLEx(c.h, pt, idx, n); })
            .number("enabled", [&](unsigned *n) { return TAZE_GetRuleIndexEnableEx(c.h, pt, idx, n); });
        r.set("result", r.worst);
        a.add(std::move(r.j), r.worst);
    }
}

std::uint32_t direction_arg(const Args &values, std::size_t i)
{
    return i < values.size() ? parse_direction(values[i]) : 1u;
}

/* A clean check (1 clean, 0 not) with the clean data beside it. */
template <typename Check, typename Data>
void clean_answer(Record r, Check check, Data data, Answers &a)
{
    unsigned int target = 0;
    const int rc = check(&target);
    r.result(rc).set("clean", rc == 1).set("target", target);
    r.set("data", clean_data(data, &r.worst));
    a.add(std::move(r.j), r.worst);
}

void rule_clean(const Context &c, const Args &values, Answers &a)
{
    const unsigned pt = unsigned(c.pt);
    const std::uint32_t id = parse_u32(values[0], "a rule id");
    const std::uint32_t protocol = parse_u32(values[1], "a protocol number");
    const std::uint32_t dir = direction_arg(values, 2);
    Record r;
    r.set("rule", id).set("protocol", protocol).set("direction", dir);
    clean_answer(
        r, [&](unsigned *t) { return TAZE_CheckRuleIdCleanEx(c.h, pt, id, protocol, dir, t); },
        [&](unsigned *p, char **sp, char **dp) { return TAZE_GetRuleIdCleanEx(c.h, pt, id, p, sp, dp); }, a);
}

void clean_info(const Context &c, const Args &values, Answers &a)
{
    const unsigned pt = unsigned(c.pt);
    const std::uint32_t protocol = parse_u32(values[0], "a protocol number");
    const std::uint32_t dir = direction_arg(values, 1);
    Record r;
    r.set("protocol", protocol).set("direction", dir);
    clean_answer(
        r, [&](unsigned *t) { return TAZE_CheckCleanInfoEx(c.h, pt, protocol, dir, t); },
        [&](unsigned *p, char **sp, char **dp) { return TAZE_GetCleanInfoEx(c.h, pt, protocol, p, sp, dp); }, a);
}

/* With ids: one record per id; without: the count and every entry by index. */
template <typename ById, typename ByIndex>
void table_query(const Context &c, const Args &values, int (*count_fn)(TAZE *, unsigned int *), ById by_id,
                 ByIndex by_index, Answers &a)
{
    std::vector<std::pair<bool, std::uint32_t>> asked; /* (by id, id or index) */
    for (const std::string &v : values) asked.emplace_back(true, parse_u32(v, "an id"));
    if (values.empty()) {
        unsigned int count = 0;
        const int rc = count_fn(c.h, &count);
        a.add(Json{{"count", count}, {"result", rc}}, rc);
        for (unsigned int i = 0; i < count; ++i) asked.emplace_back(false, i);
    }
    for (const auto &[is_id, n] : asked) {
        Record r;
        r.set(is_id ? "id" : "index", n);
        if (is_id)
            by_id(n, r);
        else
            by_index(n, r);
        a.add(std::move(r.j), r.worst);
    }
}

void protocol(const Context &c, const Args &values, Answers &a)
{
    table_query(
        c, values, TAZE_GetProtocolCount,
        [&](std::uint32_t id, Record &r) {
            r.text("desc", [&](char **s) { return TAZE_GetProtocolIdDesc(c.h, id, s); });
            r.number("group", [&](unsigned *n) { return TAZE_GetProtocolIdGroupIDEx(c.h, unsigned(c.pt), id, n); });
        },
        [&](std::uint32_t idx, Record &r) {
            r.number("id", [&](unsigned *n) { return TAZE_GetProtocolIndexID(c.h, idx, n); })
                .text("desc", [&](char **s) { return TAZE_GetProtocolIndexDesc(c.h, idx, s); })
                .number("group", [&](unsigned *n) { return TAZE_GetProtocolIndexGroupID(c.h, idx, n); });
        },
        a);
}

/* The member protocol ids of a group, by the group's id or position. */
template <typename Member>
void members(Record &r, Member member)
{
    Json m = Json::array();
    for (unsigned int i = 0; i < r.j["count"].get<unsigned int>(); ++i) {
        unsigned int id = 0;
        r.worst = std::min(r.worst, member(i, &id));
        m.push_back(id);
    }
    r.set("protocols", std::move(m));
}

void group(const Context &c, const Args &values, Answers &a)
{
    table_query(
        c, values, TAZE_GetProtocolGroupCount,
        [&](std::uint32_t id, Record &r) {
            r.text("desc", [&](char **s) { return TAZE_GetProtocolGroupIdDesc(c.h, id, s); });
            r.number("count", [&](unsigned *n) { return TAZE_GetProtocolGroupIdProtocolCount(c.h, id, n); });
            members(r, [&](unsigned i, unsigned *p) { return TAZE_GetProtocolGroupIdProtocolIndexId(c.h, id, i, p); });
        },
        [&](std::uint32_t idx, Record &r) {
            r.number("id", [&](unsigned *n) { return TAZE_GetProtocolGroupIndexID(c.h, idx, n); })
                .text("desc", [&](char **s) { return TAZE_GetProtocolGroupIndexDesc(c.h, idx, s); })
                .number("count", [&](unsigned *n) { return TAZE_GetProtocolGroupIndexProtocolCount(c.h, idx, n); });
            members(r,
                    [&](unsigned i, unsigned *p) { return TAZE_GetProtocolGroupIndexProtocolIndex(c.h, idx, i, p); });
        },
        a);
}

/* Risk answers: 0 with policy and severity, or -1 when nothing fits. */
template <typename Get>
void risks(const Args &protocols, std::uint32_t dir, Json base, Get get, Answers &a)
{
    for (const std::string &p : protocols) {
        const std::uint32_t protocol = parse_u32(p, "a protocol number");
        unsigned int policy = 0, severity = 0;
        const int rc = get(protocol, &policy, &severity);
        Json j = base;
        j.update(Json{{"direction", dir}, {"protocol", protocol}, {"result", rc}, {"found", rc == 0}});
        if (rc == 0) j.update(Json{{"policy", policy}, {"severity", severity}});
        a.add(std::move(j), rc);
    }
}

void known_risk(const Context &c, const Args &values, Answers &a)
{
    const std::uint32_t dir = parse_direction(values[0]);
    risks(
        Args(values.begin() + 1, values.end()), dir, Json::object(),
        [&](std::uint32_t p, unsigned int *pol, unsigned int *sev) {
            return TAZE_GetKnownRiskInfoEx(c.h, unsigned(c.pt), dir, p, pol, sev);
        },
        a);
}

void potential_risk(const Context &c, const Args &values, Answers &a)
{
    const std::uint32_t rule = parse_u32(values[0], "a rule id");
    const std::uint32_t dir = parse_direction(values[1]);
    risks(
        Args(values.begin() + 2, values.end()), dir, Json{{"rule", rule}},
        [&](std::uint32_t p, unsigned int *pol, unsigned int *sev) {
            return TAZE_GetPotentialRiskInfoEx(c.h, unsigned(c.pt), rule, dir, p, pol, sev);
        },
        a);
}

void threat(const Context &c, const Args &values, Answers &a)
{
    for (const std::string &v : values) {
        const std::uint32_t id = parse_u32(v, "a rule id");
        unsigned int t = 0;
        Record r;
        r.set("rule", id).result(TAZE_GetThreatTypeEx(c.h, unsigned(c.pt), id, &t));
        r.set("threat_type", t).set("threat_name", threat_name(t));
        a.add(std::move(r.j), r.worst);
    }
}

void ulm_info(const Context &c, const Args &, Answers &a)
{
    const char *info = nullptr;
    const int rc = TAZE_GetUlmInfo(c.h, &info);
    a.add(Json{{"result", rc}, {"info", info ? Json(std::string(info)) : Json(nullptr)}}, rc);
}

void versions(const Context &c, const Args &, Answers &a)
{
    char pattern[32] = {}, compiler[32] = {}, peeked[32] = {};
    const int prc = TAZE_GetPatternVersion(c.h, pattern, sizeof pattern);
    const int crc = TAZE_GetCompilerVersion(c.h, compiler, sizeof compiler);
    const int krc = TAZE_PeekTAZPatternVer(c.file.c_str(), peeked, sizeof peeked);
    const unsigned char *raw = nullptr;
    unsigned int raw_len = 0;
    const int rrc = TAZE_GetRawPatternByType(c.h, RPT_YUB, &raw, &raw_len);
    a.add(Json{{"pattern_version", prc == 0 ? Json(pattern) : Json(prc)},
               {"compiler_version", crc == 0 ? Json(compiler) : Json(crc)},
               {"peeked_version", krc == 0 ? Json(peeked) : Json(krc)},
               {"raw_bytes", rrc == 0 ? raw_len : 0}},
          std::min(prc, crc));
}

/* ---- the kinds ------------------------------------------------------------------------------ */

using Handler = std::function<void(const Context &, const Args &, Answers &)>;

struct QueryKind {
    std::vector<std::string> names;
    bool takes_list;
    std::size_t min_values, max_values;
    bool uses_map_type;
    Handler run;
};

constexpr std::size_t kMany = ~std::size_t(0);

template <typename K, typename V, typename R>
Handler map_handler(const MapApi<K, V, R> &api)
{
    return [&api](const Context &c, const Args &v, Answers &a) { map_query(api, c, v, a); };
}

/* A question asked once per value: 1 match, 0 no match. */
using ValueQuestion = std::function<int(const Context &, const std::string &)>;

Handler per_value(ValueQuestion ask)
{
    return [ask](const Context &c, const Args &values, Answers &a) {
        for (const std::string &v : values) {
            const int rc = ask(c, v);
            a.add(Json{{"value", v}, {"result", rc}, {"match", rc == 1}}, rc);
        }
    };
}

Handler string_handler(StringSearch s)
{
    return per_value([s](const Context &c, const std::string &v) { return s(c.h, c.list, v.c_str(), c.pt); });
}

int ip_question(const Context &c, const std::string &v)
{
    return TAZE_PatternSearchIPRangeList(c.h, c.list, parse_ipv4(v), c.pt);
}
int ipv6_question(const Context &c, const std::string &v)
{
    return TAZE_PatternSearchIPv6RangeList(c.h, c.list, parse_ipv6(v).data(), c.pt);
}
int port_question(const Context &c, const std::string &v)
{
    return TAZE_PatternSearchPortRangeList(c.h, c.list, parse_port(v), c.pt);
}

const std::vector<QueryKind> &query_kinds()
{
    static const std::vector<QueryKind> kinds = {
        {{"exact", "string"}, true, 1, kMany, false, string_handler(TAZE_PatternSearchStringList)},
        {{"prefix"}, true, 1, kMany, false, string_handler(TAZE_PatternSearchPrefixList)},
        {{"suffix"}, true, 1, kMany, false, string_handler(TAZE_PatternSearchSuffixList)},
        {{"substring"}, true, 1, kMany, false, string_handler(TAZE_PatternSearchSubstringList)},
        {{"case", "exact-case", "exact_case"}, true, 1, kMany, false, string_handler(TAZE_PatternSearchCaseList)},
        {{"prefix-case", "prefix_case"}, true, 1, kMany, false, string_handler(TAZE_PatternSearchPrefixCaseList)},
        {{"suffix-case", "suffix_case"}, true, 1, kMany, false, string_handler(TAZE_PatternSearchSuffixCaseList)},
        {{"substring-case", "substring_case"},
         true,
         1,
         kMany,
         false,
         string_handler(TAZE_PatternSearchSubstringCaseList)},
        {{"string-list"}, true, 0, 0, false, whole_string_list},
        {{"ip"}, true, 1, kMany, false, per_value(ip_question)},
        {{"ipv6"}, true, 1, kMany, false, per_value(ipv6_question)},
        {{"port"}, true, 1, kMany, false, per_value(port_question)},
        {{"simap"}, true, 0, kMany, true, map_handler(kSIMap)},
        {{"sipv6map"}, true, 0, kMany, true, map_handler(kSIPv6Map)},
        {{"ipv6imap"}, true, 0, kMany, false, map_handler(kIPv6IMap)},
        {{"iimap"}, true, 0, kMany, true, map_handler(kIIMap)},
        {{"ismap"}, true, 0, kMany, true, map_handler(kISMap)},
        {{"ssmap"}, true, 0, kMany, true, map_handler(kSSMap)},
        {{"rule"}, false, 1, kMany, false, rule_by_id},
        {{"rule-index"}, false, 0, kMany, false, rule_by_index},
        {{"clean"}, false, 2, 3, false, rule_clean},
        {{"clean-info"}, false, 1, 2, false, clean_info},
        {{"protocol"}, false, 0, kMany, false, protocol},
        {{"group"}, false, 0, kMany, false, group},
        {{"known-risk"}, false, 2, kMany, false, known_risk},
        {{"potential-risk"}, false, 3, kMany, false, potential_risk},
        {{"threat"}, false, 1, kMany, false, threat},
        {{"ulm-info"}, false, 0, 0, false, ulm_info},
        {{"versions"}, false, 0, 0, false, versions},
    };
    return kinds;
}

const QueryKind *find_kind(const std::string &name)
{
    for (const QueryKind &k : query_kinds())
        for (const std::string &n : k.names)
            if (n == name) return &k;
    return nullptr;
}

/* A source map kind (e.g. "suffix_to_int"): its API family and map type. */
const QueryKind *map_kind_of_source(const std::string &name, int *map_type)
{
    const tazc::Family *f = tazc::find_family("maps", name);
    if (!f) return nullptr;
    static constexpr std::pair<tazc::Shape, const char *> kApi[] = {
        {tazc::Shape::StrInt, "simap"},     {tazc::Shape::StrIPv6, "sipv6map"}, {tazc::Shape::IntInt, "iimap"},
        {tazc::Shape::IPv6Int, "ipv6imap"}, {tazc::Shape::IntStr, "ismap"},     {tazc::Shape::StrStr, "ssmap"}};
    for (const auto &[shape, api] : kApi)
        if (shape == f->shape) {
            *map_type = map_type_of(*f);
            return find_kind(api);
        }
    return nullptr;
}

std::string text_value(const Json &v)
{
    if (v.is_null()) return "none";
    return v.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void print_answers(std::ostream &out, const Answers &a)
{
    for (const Json &item : a.items) {
        bool first = true;
        for (const auto &[k, v] : item.items()) {
            out << (first ? "" : " ") << k << "=" << text_value(v);
            first = false;
        }
        out << "\n";
    }
}

/* Why TAZE_LoadPattern refused the file: the stage that failed (open,
 * container, checksum, sections) and what the inspector's own read of it
 * says. */
std::string load_failure(const std::string &file)
{
    LoadedFile f;
    std::string error;
    if (!f.load(file, &error)) return "the open stage failed: " + error;
    const std::string why = f.refusal();
    if (why.empty()) return "the load stage failed";
    const char *stage = why.find("checksum mismatch") != std::string::npos ? "checksum"
                        : f.status != 0 || f.truncated()                 ? "container"
                                                                          : "section";
    return std::string("the ") + stage + " stage failed: " + why;
}

/* The family a list question searches, for the list count; null when the
 * question names no list or its map type selects none. */
const tazc::Family *family_asked(const QueryKind &k, int map_type)
{
    static const char *const rules[4] = {"exact", "prefix", "suffix", "substring"};
    const std::string &api = k.names[0];
    const unsigned key = unsigned(map_type >> 8) & 0xFF, value = unsigned(map_type) & 0xFF;
    const bool diagonal = key == value && key < 4;
    std::string name;
    if (api == "case") name = "exact_case";
    else if (api == "string-list") name = "exact";
    else if (api == "simap" && diagonal) name = std::string(rules[key]) + "_to_int";
    else if (api == "sipv6map" && diagonal) name = std::string(rules[key]) + "_to_ipv6";
    else if (api == "ismap" && diagonal) name = std::string("int_to_") + rules[value];
    else if (api == "ssmap" && key < 4 && value < 4) name = std::string(rules[key]) + "_to_" + rules[value];
    else if (api == "iimap") name = "int_to_int";
    else if (api == "ipv6imap") name = "ipv6_to_int";
    else
        for (char ch : api) name += ch == '-' ? '_' : ch;
    const tazc::Family *f = tazc::find_family("lists", name);
    return f ? f : tazc::find_family("maps", name);
}

/* Lists of the family in the loaded file's image (numbers 0 to count-1). */
std::uint32_t list_count(const std::string &file, bool second_kind, const tazc::Family &family)
{
    LoadedFile f;
    std::string error;
    if (!f.load(file, &error) || !f.image(second_kind)) return 0;
    for (const ImageFamily &g : image_families(*f.image(second_kind)))
        if (g.family == &family) return std::visit([](const auto &a) { return a.lists.size; }, g.lists);
    return 0;
}

} // namespace

int cmd_query(const Args &args, std::ostream &out, std::ostream &err)
{
    if (show_help(args, out, kQueryUsage)) return kExitOk;
    bool ulm = false, json = false;
    std::string map_type;
    Args positional;
    const std::string bad = split_args(
        args, {{"--ulm", &ulm, nullptr}, {"--json", &json, nullptr}, {"--map-type", nullptr, &map_type}}, &positional);
    if (!bad.empty()) return usage_error(err, "query", bad);
    if (positional.size() < 2) return usage_error(err, "query", "give a pattern FILE and a question KIND");
    const std::string &file = positional[0], &kind_name = positional[1];
    Context c;
    c.file = file;
    c.pt = ulm ? PT_ULM : PT_TAZ;
    int implied_map_type = -1;
    const QueryKind *kind = find_kind(kind_name);
    if (!kind) kind = map_kind_of_source(kind_name, &implied_map_type);
    if (!kind) return usage_error(err, "query", "unknown question kind " + tazc::quote_text(kind_name));
    Args values(positional.begin() + 2, positional.end());
    try {
        if (!map_type.empty() && implied_map_type >= 0)
            throw BadArgument{kind_name + " implies its map type; leave out --map-type"};
        if (!map_type.empty() && !kind->uses_map_type) throw BadArgument{"--map-type does not apply to " + kind_name};
        c.map_type = !map_type.empty() ? parse_map_type(map_type) : std::max(implied_map_type, 0);
        if (kind->takes_list) {
            if (values.empty()) throw BadArgument{kind_name + " needs a LIST number"};
            c.list = parse_int(values[0], "a list number");
            values.erase(values.begin());
        }
        if (values.size() < kind->min_values || values.size() > kind->max_values)
            throw BadArgument{"wrong number of values for " + kind_name};
    } catch (const BadArgument &e) {
        return usage_error(err, "query", e.message);
    }

    std::error_code ec;
    taze::handle h(ec);
    if (ec) {
        err << "taze query: cannot create a handle: " << ec.message() << "\n";
        return kExitFailed;
    }
    ec = h.try_load(file);
    if (ec) {
        err << "taze query: TAZE_LoadPattern(" << file << ") returns " << ec.value() << ", " << ec.message() << "; "
            << load_failure(file) << "\n";
        return kExitFailed;
    }
    if (ulm) {
        unsigned int count = 0;
        if (TAZE_GetRuleInfoCountEx(h.native(), PT_ULM, &count) != 0) {
            err << "taze query: " << file << " holds no second pattern kind\n";
            return kExitFailed;
        }
        TAZE_PointToULMPattern(h.native());
    }
    c.h = h.native();
    if (kind->takes_list)
        if (const tazc::Family *f = family_asked(*kind, c.map_type); f && !(ulm && f->main_kind_only)) {
            const std::uint32_t have = list_count(file, ulm, *f);
            if (c.list < 0 || std::uint32_t(c.list) >= have) {
                err << "taze query: " << f->group << "." << f->name << ": list " << c.list
                    << " does not exist (this file has " << have << ")\n";
                return kExitFailed;
            }
        }
    Answers answers;
    try {
        kind->run(c, values, answers);
    } catch (const BadArgument &e) {
        return usage_error(err, "query", e.message);
    }
    if (json) {
        Json doc{{"file", file}, {"pattern_type", c.pt}, {"kind", kind_name}};
        if (kind->takes_list) doc["list"] = c.list;
        if (kind->uses_map_type) doc["map_type"] = c.map_type;
        doc["answers"] = answers.items;
        out << doc.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
    } else {
        print_answers(out, answers);
    }
    return answers.failed ? kExitFailed : kExitOk;
}

} // namespace tazi
