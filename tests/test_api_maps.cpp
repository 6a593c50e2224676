/* The six map families through the public API: search by key and value, by
 * key, count and by index on loaded files; which list array each map type
 * selects; key and value rules; results that are cleared on a miss. */
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "api_fixtures.h"

namespace {

using namespace apif;
using tazw::IPv6;

/* ---- addresses, named in results -------------------------------------------------- */
const IPv6 kA = v6({0x20, 0x01, 0x0d, 0xb8}, 1), kB = v6({0xfe, 0x80}, 1), kC = v6({}, 1),
           kD = v6({0x20, 0x01, 0x0d, 0xb8}, 2);
const unsigned char *const A = kA.data(), *const B = kB.data(), *const C = kC.data(), *const D = kD.data();

std::string name_of(const std::uint8_t *b)
{
    static const std::map<IPv6, std::string> names = {{kA, "A"}, {kB, "B"}, {kC, "C"}, {kD, "D"}};
    IPv6 a;
    std::memcpy(a.data(), b, a.size());
    const auto it = names.find(a);
    return it == names.end() ? "?" : it->second;
}

/* ---- results shown as "key=value,value"; "{}" when every field is zero --------------- */
constexpr unsigned char kGarbage = 0xA5;

template <typename R>
R garbage()
{
    R r;
    std::memset(&r, kGarbage, sizeof r);
    return r;
}

bool untouched(const void *p)
{
    std::uintptr_t g;
    std::memset(&g, kGarbage, sizeof g);
    return reinterpret_cast<std::uintptr_t>(p) == g;
}

bool zero(const TAZE_CountedString &s) { return !s.ptr && !s.len; }
bool zero(const TAZE_IPv6 &a) { return std::all_of(a.bytes, a.bytes + 16, [](std::uint8_t b) { return b == 0; }); }
bool zero(std::uint32_t v) { return v == 0; }

std::string key_text(const TAZE_CountedString &s) { return text(s); }
std::string key_text(const TAZE_IPv6 &a) { return name_of(a.bytes); }
std::string key_text(std::uint32_t v) { return std::to_string(v); }

std::string value_text(const std::uint32_t &v) { return std::to_string(v); }
std::string value_text(const TAZE_IPv6 &a) { return name_of(a.bytes); }
std::string value_text(const TAZE_CountedString &s) { return text(s); }

template <typename Key, typename Value>
std::string show_fields(const Key &key, std::uint32_t n, const Value *values)
{
    if (untouched(values)) return "<untouched>";
    if (zero(key) && n == 0 && !values) return "{}";
    std::string s = key_text(key) + "=";
    for (std::uint32_t i = 0; i < n; ++i) s += (i ? "," : "") + value_text(values[i]);
    return s;
}

std::string show(const TAZE_StringIntMap &r) { return show_fields(r.string, r.nr_ints, r.ints); }
std::string show(const TAZE_StringIPv6Map &r) { return show_fields(r.string, r.nr_ipv6s, r.ipv6s); }
std::string show(const TAZE_IPv6IntMap &r) { return show_fields(r.ipv6, r.nr_ints, r.ints); }
std::string show(const TAZE_IntIntMap &r) { return show_fields(r.integer, r.nr_ints, r.ints); }
std::string show(const TAZE_IntStringMap &r) { return show_fields(r.integer, r.nr_strs, r.strs); }
std::string show(const TAZE_StringStringMap &r) { return show_fields(r.string, r.nr_strs, r.strs); }

std::string arg_text(const char *s) { return s ? std::string("\"") + s + "\"" : "null"; }
std::string arg_text(const unsigned char *a) { return a ? name_of(a) : "null"; }
std::string arg_text(unsigned int v) { return std::to_string(v); }

/* ---- one family's four functions with one signature shape ---------------------------- */
template <typename K, typename V, typename R>
struct Api {
    const char *family;
    int (*search)(TAZE *, int ptn_type, int map_type, int magic, K key, V value);
    int (*by_key)(TAZE *, int ptn_type, int map_type, int magic, K key, R *result);
    int (*count)(TAZE *, int ptn_type, int map_type, int magic);
    int (*by_index)(TAZE *, int ptn_type, int map_type, int magic, int index, R *result);
};

const Api<const char *, unsigned int, TAZE_StringIntMap> kSI = {"string to integers", TAZE_PatternSearchSIMap,
    TAZE_PatternGetSIMapByKey, TAZE_PatternGetSIMapCount, TAZE_PatternGetSIMapByIndex};
const Api<const char *, const unsigned char *, TAZE_StringIPv6Map> kSI6 = {
    "string to addresses", TAZE_PatternSearchSIPv6Map, TAZE_PatternGetSIPv6MapByKey, TAZE_PatternGetSIPv6MapCount,
    TAZE_PatternGetSIPv6MapByIndex};
const Api<unsigned int, const char *, TAZE_IntStringMap> kIS = {"integer to strings", TAZE_PatternSearchISMap,
    TAZE_PatternGetISMapByKey, TAZE_PatternGetISMapCount, TAZE_PatternGetISMapByIndex};
const Api<const char *, const char *, TAZE_StringStringMap> kSS = {"string to strings", TAZE_PatternSearchSSMap,
    TAZE_PatternGetSSMapByKey, TAZE_PatternGetSSMapCount, TAZE_PatternGetSSMapByIndex};
/* The address-keyed family takes no map type; the integer one ignores it. */
const Api<const unsigned char *, unsigned int, TAZE_IPv6IntMap> kI6I = {
    "address to integers",
    [](TAZE *h, int pt, int, int magic, const unsigned char *k, unsigned int v) {
        return TAZE_PatternSearchIPv6IMap(h, pt, magic, k, v);
    },
    [](TAZE *h, int pt, int, int magic, const unsigned char *k, TAZE_IPv6IntMap *r) {
        return TAZE_PatternGetIPv6IMapByKey(h, pt, magic, k, r);
    },
    [](TAZE *h, int pt, int, int magic) { return TAZE_PatternGetIPv6IMapCount(h, pt, magic); },
    [](TAZE *h, int pt, int, int magic, int index, TAZE_IPv6IntMap *r) {
        return TAZE_PatternGetIPv6IMapByIndex(h, pt, magic, index, r);
    },
};
const Api<unsigned int, unsigned int, TAZE_IntIntMap> kII = {
    "integer to integers",
    [](TAZE *h, int pt, int, int magic, unsigned int k, unsigned int v) {
        return TAZE_PatternSearchIIMap(h, pt, magic, k, v);
    },
    TAZE_PatternGetIIMapByKey, TAZE_PatternGetIIMapCount, TAZE_PatternGetIIMapByIndex};

enum class Op { Search, ByKey, Count, ByIndex };

template <typename K, typename V>
struct Row {
    Op op;
    int map_type, magic;
    K key;
    V value;
    int index;
    int rc;
    const char *out; /* the result record shown; nullptr: not checked */

    std::string describe() const
    {
        static const char *const ops[] = {"search", "by key", "count", "by index"};
        std::ostringstream o;
        o << ops[int(op)] << " map_type " << map_type << " magic " << magic;
        if (op == Op::Search || op == Op::ByKey) o << " key " << arg_text(key);
        if (op == Op::Search) o << " value " << arg_text(value);
        if (op == Op::ByIndex) o << " index " << index;
        return o.str();
    }
};

/* Row builders of one family. */
template <typename K, typename V>
struct Rows {
    using R = Row<K, V>;
    static R search(int mt, K key, V value, int rc, int magic = 0)
    {
        return {Op::Search, mt, magic, key, value, 0, rc, nullptr};
    }
    static R by_key(int mt, K key, int rc, const char *out, int magic = 0)
    {
        return {Op::ByKey, mt, magic, key, V{}, 0, rc, out};
    }
    static R count(int mt, int rc, int magic = 0) { return {Op::Count, mt, magic, K{}, V{}, 0, rc, nullptr}; }
    static R by_index(int mt, int index, int rc, const char *out, int magic = 0)
    {
        return {Op::ByIndex, mt, magic, K{}, V{}, index, rc, out};
    }
};

using SI = Rows<const char *, unsigned int>;
using SA = Rows<const char *, const unsigned char *>;
using AI = Rows<const unsigned char *, unsigned int>;
using II = Rows<unsigned int, unsigned int>;
using IS = Rows<unsigned int, const char *>;
using SS = Rows<const char *, const char *>;

template <typename K, typename V, typename R>
void run(TAZE *h, int ptn_type, const Api<K, V, R> &api, const std::vector<Row<K, V>> &rows)
{
    SCOPED_TRACE(api.family);
    for (const Row<K, V> &r : rows) {
        SCOPED_TRACE(r.describe());
        R res = garbage<R>();
        int rc = 0;
        switch (r.op) {
        case Op::Search: rc = api.search(h, ptn_type, r.map_type, r.magic, r.key, r.value); break;
        case Op::ByKey: rc = api.by_key(h, ptn_type, r.map_type, r.magic, r.key, &res); break;
        case Op::Count: rc = api.count(h, ptn_type, r.map_type, r.magic); break;
        case Op::ByIndex: rc = api.by_index(h, ptn_type, r.map_type, r.magic, r.index, &res); break;
        }
        EXPECT_EQ(rc, r.rc);
        if (r.out) {
            EXPECT_EQ(show(res), r.out);
        }
    }
}

constexpr int kTypes[4] = {MT_STRING, MT_PREFIX, MT_SUFFIX, MT_SUBSTR};

/* List 0 of the kind each of the four map types selects in a family. */
template <typename Entry>
Bytes one_list_per_type(Family f, const std::vector<Entry> (&by_type)[4])
{
    Bytes b;
    for (int t = 0; t < 4; ++t) {
        const Bytes s = map_section(map_kind(f, kTypes[t]), by_type[t], kTypes[t]);
        b.insert(b.end(), s.begin(), s.end());
    }
    return b;
}

/* ---- every family on its own lists ----------------------------------------------------- */
Bytes str_int_maps()
{
    using E = tazw::StrIntEntry;
    const std::vector<E> by_type[4] = {
        {{"gamma", {}}, {"alpha", {1, 2}}, {"Beta", {3}}},
        {{"http://", {80}}, {"ftp", {21}}},
        {{".example.com", {7}}, {".org", {8}}},
        {{"mail", {1}}, {"ail", {2}}}, /* scanned in this order */
    };
    return one_list_per_type(Family::StrInt, by_type);
}

Bytes str_ipv6_maps()
{
    using E = tazw::StrIPv6Entry;
    const std::vector<E> by_type[4] = {
        {{"beta", {}}, {"alpha", {kA, kB}}}, {{"http", {kC}}}, {{".com", {kA}}}, {{"mail", {kA}}, {"ail", {kB}}},
    };
    return one_list_per_type(Family::StrIPv6, by_type);
}

Bytes number_maps()
{
    const std::vector<tazw::IPv6IntEntry> by_address = {{kB, {30}}, {kA, {10, 20}}, {kC, {40}}};
    const std::vector<tazw::IntIntEntry> by_integer = {{7, {8}}, {1, {5, 6}}, {0x7FFFFFFFu, {9}}, {0, {4}}, {3, {}}};
    /* Integer lists 0 and 300000 only: held sparse. */
    const std::vector<tazw::IntIntEntry> far = {{5, {6}}};
    return tazw::concat({map_section(kind::I6IM, by_address, 0),
                         tazw::section(kind::IIM, 2, tazw::concat({map_list(0, by_integer, 0), map_list(300000, far, 0)}))});
}

Bytes int_str_maps()
{
    using E = tazw::IntStrEntry;
    const std::vector<E> by_type[4] = {
        {{5, {"beta", "Alpha"}}, {1, {"x"}}, {9, {}}},
        {{5, {"http://", "ftp"}}},
        {{5, {".exe", ".com"}}}, {{5, {"mal", "evil"}}},
    };
    return one_list_per_type(Family::IntStr, by_type);
}

TEST(ApiMaps, SearchByKeyCountAndIndexOfEveryFamily)
{
    tazt::Handle h = tazt::load_payload(tazw::concat({str_int_maps(), str_ipv6_maps(), number_maps(), int_str_maps()}));
    run(h.get(), PT_TAZ, kSI,
        {
            SI::search(MT_STRING, "ALPHA", 2, 1),
            SI::search(MT_STRING, "alpha", 3, 0), /* key found, value not: 0 */
            SI::search(MT_STRING, "alph", 1, -1), SI::search(MT_STRING, "gamma", 0, 0),
            SI::search(MT_STRING, nullptr, 1, 0),
            SI::search(MT_PREFIX, "HTTP://x", 80, 1),
            SI::search(MT_PREFIX, "http://x", 81, 0),
            SI::search(MT_PREFIX, "gopher", 80, -1), SI::search(MT_SUFFIX, "www.EXAMPLE.com", 7, 1),
            SI::search(MT_SUFFIX, "x.org", 8, 1), SI::search(MT_SUFFIX, "example.com", 7, -1),
            SI::search(MT_SUBSTR, "email", 1, 1),
            SI::search(MT_SUBSTR, "email", 2, 0), /* "mail" is met before "ail" */
            SI::search(MT_SUBSTR, "tail", 2, 1), SI::search(MT_SUBSTR, "xyz", 1, -1),
            SI::search(MT_STRING_PREFIX, "alpha", 1, -1), /* exact lists selected, type refused */
            SI::search(MT_SUFFIX_STRING, "alpha", 1, -1), SI::search(MT_STRING, "alpha", 1, PARA_ERR, 1),
            SI::search(MT_STRING, "alpha", 1, PARA_ERR, -1),

            SI::by_key(MT_STRING, "BETA", 0, "Beta=3"), SI::by_key(MT_STRING, "gamma", 0, "gamma="),
            SI::by_key(MT_PREFIX, "ftp://a", 0, "ftp=21"),
            SI::by_key(MT_SUFFIX, "a.b.ORG", 0, ".org=8"), SI::by_key(MT_SUBSTR, "email", 0, "mail=1"),
            SI::by_key(MT_STRING, "nope", -1, "{}"), SI::by_key(MT_STRING, nullptr, -1, "{}"),
            SI::by_key(MT_STRING_PREFIX, "alpha", -1, "{}"), SI::by_key(MT_STRING, "alpha", PARA_ERR, nullptr, 1),

            SI::count(MT_STRING, 3), SI::count(MT_PREFIX, 2), SI::count(MT_SUBSTR, 2),
            SI::count(MT_STRING, PARA_ERR, 1), SI::count(MT_STRING, PARA_ERR, -1),

            SI::by_index(MT_STRING, 0, 0, "alpha=1,2"), SI::by_index(MT_STRING, 1, 0, "Beta=3"),
            SI::by_index(MT_STRING, 2, 0, "gamma="), SI::by_index(MT_STRING, 3, -1, "{}"),
            SI::by_index(MT_STRING, -1, -1, "{}"),
            SI::by_index(MT_SUFFIX, 0, 0, ".org=8"), /* ordered by the reversed text */
            SI::by_index(MT_SUBSTR, 1, 0, "ail=2"), SI::by_index(MT_STRING, 0, PARA_ERR, nullptr, 1),
        });
    run(h.get(), PT_TAZ, kSI6,
        {
            SA::search(MT_STRING, "ALPHA", B, 1), SA::search(MT_STRING, "alpha", D, 0),
            SA::search(MT_STRING, "alpha", nullptr, 0),
            SA::search(MT_STRING, "nope", nullptr, 0), /* the value is checked before the key */
            SA::search(MT_STRING, "nope", A, -1), SA::search(MT_PREFIX, "HTTPS", C, 1),
            SA::search(MT_SUFFIX, "x.COM", A, 1), SA::search(MT_SUBSTR, "email", B, 0),
            SA::search(MT_SUBSTR, "tail", B, 1), SA::search(MT_STRING_PREFIX, "alpha", A, -1),
            SA::search(MT_STRING, "alpha", A, PARA_ERR, 1),

            /* By key never searches: always -1 and a cleared result. */
            SA::by_key(MT_STRING, "alpha", -1, "{}"), SA::by_key(MT_PREFIX, "http", -1, "{}"),
            SA::by_key(MT_STRING, "alpha", -1, "{}", 5), SA::by_key(MT_STRING, "alpha", -1, "{}", -1),
            SA::by_key(99, nullptr, -1, "{}"),

            SA::count(MT_STRING, 2), SA::count(MT_PREFIX, 1), SA::count(MT_SUFFIX, 1), SA::count(MT_SUBSTR, 2),
            SA::count(MT_STRING, PARA_ERR, 1),

            SA::by_index(MT_STRING, 0, 0, "alpha=A,B"), SA::by_index(MT_STRING, 1, 0, "beta="),
            SA::by_index(MT_PREFIX, 0, 0, "http=C"), SA::by_index(MT_SUBSTR, 0, 0, "mail=A"),
            SA::by_index(MT_STRING, 2, -1, "{}"), SA::by_index(MT_STRING, -1, -1, "{}"),
        });
    run(h.get(), PT_TAZ, kI6I,
        {
            AI::search(0, A, 20, 1), AI::search(0, A, 30, 0), AI::search(0, D, 10, -1), AI::search(0, nullptr, 10, 0),
            AI::search(0, A, 10, PARA_ERR, 1),
            AI::by_key(0, C, 0, "C=40"), AI::by_key(0, B, 0, "B=30"), AI::by_key(0, D, -1, "{}"),
            AI::by_key(0, nullptr, -1, "{}"),
            AI::count(0, 3), AI::count(0, PARA_ERR, 1), AI::count(0, PARA_ERR, -1),
            /* Stored in address order, the first byte most significant. */
            AI::by_index(0, 0, 0, "C=40"), AI::by_index(0, 1, 0, "A=10,20"), AI::by_index(0, 2, 0, "B=30"),
            AI::by_index(0, 3, -1, "{}"), AI::by_index(0, -1, -1, "{}"),
        });
    run(h.get(), PT_TAZ, kII,
        {
            II::search(0, 1, 6, 1), II::search(0, 1, 7, 0), II::search(0, 2, 5, -1), II::search(0, 0x7FFFFFFFu, 9, 1),
            II::search(0, 0, 4, 1), II::search(0, 3, 0, 0), II::search(0, 1, 5, PARA_ERR, 300001),
            /* The map type is ignored. */
            II::by_key(MT_SUBSTR, 7, 0, "7=8"), II::by_key(12345, 1, 0, "1=5,6"), II::by_key(0, 2, -1, "{}"),
            II::by_key(0, 7, PARA_ERR, nullptr, 300001),
            II::count(0, 5), II::count(MT_SUFFIX, 5), II::count(-1, 5), II::count(0, PARA_ERR, 300001),
            /* The sparse list, and omitted lists below it: empty. */
            II::search(0, 5, 6, 1, 300000), II::by_key(0, 5, 0, "5=6", 300000), II::count(0, 1, 300000),
            II::count(0, 0, 299999), II::search(0, 5, 6, -1, 1), II::by_key(0, 5, -1, "{}", 1),
            II::by_index(0, 0, -1, "{}", 299999),
            II::by_index(0, 0, 0, "0=4"), II::by_index(0, 1, 0, "1=5,6"), II::by_index(MT_PREFIX, 2, 0, "3="),
            II::by_index(0, 4, 0, "2147483647=9"), II::by_index(0, 5, -1, "{}"), II::by_index(0, -1, -1, "{}"),
        });
    run(h.get(), PT_TAZ, kIS,
        {
            IS::search(MT_STRING, 5, "ALPHA", 1), IS::search(MT_STRING, 5, "beta", 1),
            IS::search(MT_STRING, 5, "gamma", -1), /* a string value not found: -1 */
            IS::search(MT_STRING, 9, "x", -1), IS::search(MT_STRING, 2, "x", -1),
            IS::search(MT_PREFIX, 5, "HTTP://a", 1),
            IS::search(MT_PREFIX, 5, "ftp.example", 1), IS::search(MT_PREFIX, 5, "gopher", -1),
            IS::search(MT_SUFFIX, 5, "setup.EXE", 1), IS::search(MT_SUFFIX, 5, "exe", -1),
            IS::search(MT_SUBSTR, 5, "xxEVILxx", 1), IS::search(MT_SUBSTR, 5, "ma", -1),
            IS::search(MT_STRING_PREFIX, 5, "Alpha", -1), /* exact lists selected, type refused */
            IS::search(MT_PREFIX_SUFFIX, 5, "Alpha", -1), IS::search(MT_STRING, 5, "Alpha", PARA_ERR, 1),

            IS::by_key(MT_STRING, 5, 0, "5=Alpha,beta"), IS::by_key(MT_STRING, 9, 0, "9="),
            IS::by_key(MT_PREFIX, 5, 0, "5=ftp,http://"),
            IS::by_key(MT_SUFFIX, 5, 0, "5=.exe,.com"), IS::by_key(MT_SUBSTR, 5, 0, "5=mal,evil"),
            IS::by_key(MT_STRING, 2, -1, "{}"), IS::by_key(MT_STRING, 5, PARA_ERR, nullptr, -1),

            IS::count(MT_STRING, 3), IS::count(MT_SUFFIX, 1), IS::count(MT_STRING, PARA_ERR, 1),

            IS::by_index(MT_STRING, 0, 0, "1=x"), IS::by_index(MT_STRING, 1, 0, "5=Alpha,beta"),
            IS::by_index(MT_STRING, 3, -1, "{}"), IS::by_index(MT_SUBSTR, 1, -1, "{}"),
        });
}

/* ---- string to strings: the sixteen key and value rules ------------------------------------ */
struct RuleSample {
    std::vector<std::string> keys, values; /* stored in each list, written unsorted */
    const char *key_hit, *key_miss, *found_key;
    const char *value_hit, *value_miss, *stored_values;
};
const RuleSample kRule[4] = {
    {{"host.example", "beta"}, {"Gamma", "alpha"}, "HOST.example", "host", "host.example", "GAMMA", "gamm",
     "alpha,Gamma"},
    {{"http://", "ftp"}, {"text/", "image/"}, "HTTP://a", "gopher", "http://", "TEXT/html", "text", "image/,text/"},
    {{".example.com", ".org"}, {".dll", ".exe"}, "www.EXAMPLE.com", "example.com", ".example.com", "setup.EXE",
     "exe", ".exe,.dll"},
    {{"mail", "ail"}, {"mal", "evil"}, "email", "xyz", "mail", "xxEVILxx", "ma", "mal,evil"},
};

int ss_type(int key_rule, int value_rule) { return key_rule << 8 | value_rule; }

Bytes str_str_maps()
{
    Bytes b;
    for (int k = 0; k < 4; ++k) {
        for (int v = 0; v < 4; ++v) {
            std::vector<tazw::StrStrEntry> e;
            for (const std::string &key : kRule[k].keys) e.push_back({key, kRule[v].values});
            const Bytes s = map_section(map_kind(Family::StrStr, ss_type(k, v)), e, ss_type(k, v));
            b.insert(b.end(), s.begin(), s.end());
        }
    }
    return b;
}

TEST(ApiMaps, StringToStringsEveryRulePair)
{
    tazt::Handle h = tazt::load_payload(str_str_maps());
    std::vector<Row<const char *, const char *>> rows;
    std::vector<std::string> found; /* keeps the expected texts alive */
    found.reserve(16);
    for (int k = 0; k < 4; ++k) {
        for (int v = 0; v < 4; ++v) {
            const int mt = ss_type(k, v);
            const RuleSample &key = kRule[k], &value = kRule[v];
            found.push_back(std::string(key.found_key) + "=" + value.stored_values);
            rows.insert(rows.end(), {SS::search(mt, key.key_hit, value.value_hit, 1),
                                     SS::search(mt, key.key_hit, value.value_miss, -1),
                                     SS::search(mt, key.key_miss, value.value_hit, -1),
                                     SS::search(mt, nullptr, value.value_hit, 0),
                                     SS::by_key(mt, key.key_hit, 0, found.back().c_str()),
                                     SS::by_key(mt, key.key_miss, -1, "{}"), SS::count(mt, 2),
                                     SS::by_index(mt, 2, -1, "{}"), SS::count(mt, PARA_ERR, 1)});
        }
    }
    /* These types select the exact-exact lists, whose key "beta" is present,
     * and are then refused by the search. */
    for (int mt : {4, 255, 260, 772, 1024, -1, 0x10000}) {
        rows.insert(rows.end(), {SS::count(mt, 2), SS::search(mt, "beta", "alpha", -1),
                                 SS::by_key(mt, "beta", -1, "{}"), SS::by_index(mt, 0, 0, "beta=alpha,Gamma")});
    }
    run(h.get(), PT_TAZ, kSS, rows);
}

/* ---- which list array each map type selects ------------------------------------------------- */
/* Every kind of a family holds one list whose entry count tells the kind
 * apart: position p of the kind (key rule * 4 + value rule, or the rule of a
 * one-string family) has p + 1 entries. */
template <typename Entry, typename MakeEntry>
Bytes counting_sections(Family f, const std::vector<int> &types, MakeEntry make)
{
    Bytes b;
    for (std::size_t p = 0; p < types.size(); ++p) {
        std::vector<Entry> e;
        for (std::size_t i = 0; i <= p; ++i) e.push_back(make(i));
        const Bytes s = map_section(map_kind(f, types[p]), e, types[p]);
        b.insert(b.end(), s.begin(), s.end());
    }
    return b;
}

TEST(ApiMaps, MapTypeSelectsTheListArray)
{
    std::vector<int> sixteen;
    for (int k = 0; k < 4; ++k)
        for (int v = 0; v < 4; ++v) sixteen.push_back(ss_type(k, v));
    const std::vector<int> four(std::begin(kTypes), std::end(kTypes));
    auto key = [](std::size_t i) { return "k" + std::to_string(i); };
    const Bytes payload = tazw::concat({
        counting_sections<tazw::StrIntEntry>(Family::StrInt, four,
                                             [&](std::size_t i) { return tazw::StrIntEntry{key(i), {1}}; }),
        counting_sections<tazw::StrIPv6Entry>(Family::StrIPv6, four,
                                              [&](std::size_t i) { return tazw::StrIPv6Entry{key(i), {kA}}; }),
        counting_sections<tazw::IntStrEntry>(Family::IntStr, four,
                                             [&](std::size_t i) { return tazw::IntStrEntry{unsigned(i), {"v"}}; }),
        counting_sections<tazw::StrStrEntry>(Family::StrStr, sixteen,
                                             [&](std::size_t i) { return tazw::StrStrEntry{key(i), {"v"}}; }),
    });
    tazt::Handle h = tazt::load_payload(payload);
    struct Case {
        int map_type;
        int one_string; /* entries of the list the string-to-integer, -IPv6 and integer-to-string families select */
        int two_strings; /* entries of the list the string-to-string family selects */
    } cases[] = {
        {MT_STRING, 1, 1},          {MT_STRING_PREFIX, 1, 2},   {MT_STRING_SUFFIX, 1, 3},
        {MT_STRING_SUBSTR, 1, 4},   {MT_PREFIX_STRING, 1, 5},   {MT_PREFIX, 2, 6},
        {MT_PREFIX_SUFFIX, 1, 7},   {MT_PREFIX_SUBSTR, 1, 8},   {MT_SUFFIX_STRING, 1, 9},
        {MT_SUFFIX_PREFIX, 1, 10},  {MT_SUFFIX, 3, 11},         {MT_SUFFIX_SUBSTR, 1, 12},
        {MT_SUBSTR_STRING, 1, 13},  {MT_SUBSTR_PREFIX, 1, 14},  {MT_SUBSTR_SUFFIX, 1, 15},
        {MT_SUBSTR, 4, 16},         {4, 1, 1},                  {260, 1, 1},
        {772, 1, 1},                {-1, 1, 1},                 {0x10101, 1, 1}, {-257, 1, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE("map type " + std::to_string(c.map_type));
        EXPECT_EQ(TAZE_PatternGetSIMapCount(h.get(), PT_TAZ, c.map_type, 0), c.one_string);
        EXPECT_EQ(TAZE_PatternGetSIPv6MapCount(h.get(), PT_TAZ, c.map_type, 0), c.one_string);
        EXPECT_EQ(TAZE_PatternGetISMapCount(h.get(), PT_TAZ, c.map_type, 0), c.one_string);
        EXPECT_EQ(TAZE_PatternGetSSMapCount(h.get(), PT_TAZ, c.map_type, 0), c.two_strings);
        /* Each kind holds a single list. */
        EXPECT_EQ(TAZE_PatternGetSSMapCount(h.get(), PT_TAZ, c.map_type, 1), PARA_ERR);
    }
    /* The families without strings have no lists in this file. */
    EXPECT_EQ(TAZE_PatternGetIIMapCount(h.get(), PT_TAZ, 0, 0), PARA_ERR);
    EXPECT_EQ(TAZE_PatternGetIPv6IMapCount(h.get(), PT_TAZ, 0), PARA_ERR);
    /* A type that selects the exact-key lists but that the search refuses. */
    EXPECT_EQ(TAZE_PatternSearchSIMap(h.get(), PT_TAZ, MT_STRING_PREFIX, 0, "k0", 1), -1);
    EXPECT_EQ(TAZE_PatternSearchSIMap(h.get(), PT_TAZ, MT_STRING, 0, "k0", 1), 1);
    EXPECT_EQ(TAZE_PatternSearchSIPv6Map(h.get(), PT_TAZ, MT_SUFFIX_PREFIX, 0, "k0", kA.data()), -1);
    EXPECT_EQ(TAZE_PatternSearchISMap(h.get(), PT_TAZ, MT_PREFIX_STRING, 0, 0, "v"), -1);
    EXPECT_EQ(TAZE_PatternSearchSSMap(h.get(), PT_TAZ, 4, 0, "k0", "v"), -1);
    EXPECT_EQ(TAZE_PatternSearchSSMap(h.get(), PT_TAZ, MT_STRING, 0, "k0", "v"), 1);
}

/* ---- the handle and the pattern kind are checked first -------------------------------------- */
template <typename K, typename V, typename R>
void expect_refused(TAZE *h, int ptn_type, const Api<K, V, R> &api, K key, V value)
{
    using X = Rows<K, V>;
    run(h, ptn_type, api,
        {X::search(0, key, value, PARA_ERR), X::by_key(0, key, PARA_ERR, nullptr), X::count(0, PARA_ERR),
         X::by_index(0, 0, PARA_ERR, nullptr)});
}

TEST(ApiMaps, HandleAndKindAreCheckedFirst)
{
    const Bytes all = tazw::concat({str_int_maps(), str_ipv6_maps(), number_maps(), int_str_maps(), str_str_maps()});
    tazt::Handle main = tazt::load_payload(all);
    /* Null and empty handles are refused in the handle test. */
    struct Case {
        const char *name;
        TAZE *h;
        int ptn_type;
    } cases[] = {
        {"unknown kind", main.get(), 2}, {"negative kind", main.get(), -1},
        {"second kind not loaded", main.get(), PT_ULM},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        expect_refused(c.h, c.ptn_type, kSI, "alpha", 1u);
        expect_refused(c.h, c.ptn_type, kSI6, "alpha", A);
        expect_refused(c.h, c.ptn_type, kI6I, A, 10u);
        expect_refused(c.h, c.ptn_type, kII, 1u, 5u);
        expect_refused(c.h, c.ptn_type, kIS, 5u, "beta");
        expect_refused(c.h, c.ptn_type, kSS, "beta", "alpha");
    }
    /* The same calls answer on the main kind. */
    EXPECT_EQ(TAZE_PatternSearchSIMap(main.get(), PT_TAZ, MT_STRING, 0, "alpha", 1), 1);
    EXPECT_EQ(TAZE_PatternSearchIPv6IMap(main.get(), PT_TAZ, 0, A, 10), 1);
    EXPECT_EQ(TAZE_PatternSearchIIMap(main.get(), PT_TAZ, 0, 1, 5), 1);
    EXPECT_EQ(TAZE_PatternSearchISMap(main.get(), PT_TAZ, MT_STRING, 0, 5, "beta"), 1);
}

TEST(ApiMaps, SecondKindMaps)
{
    const std::vector<tazw::StrIntEntry> second = {{"only-second", {42}}};
    tazt::Handle h = tazt::load_payload(str_int_maps(), map_section(map_kind(Family::StrInt, MT_STRING), second, 0));
    run(h.get(), PT_ULM, kSI,
        {SI::search(MT_STRING, "ONLY-second", 42, 1), SI::search(MT_STRING, "alpha", 1, -1),
         SI::by_key(MT_STRING, "only-second", 0, "only-second=42"), SI::count(MT_STRING, 1),
         SI::count(MT_PREFIX, PARA_ERR), SI::by_index(MT_STRING, 0, 0, "only-second=42")});
    run(h.get(), PT_TAZ, kSI, {SI::search(MT_STRING, "only-second", 42, -1), SI::count(MT_STRING, 3)});
}

} // namespace
