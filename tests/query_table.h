/* Every kind of query of the C interface as text, with keys of the sample
 * pattern of the fuzz targets that hit and keys that miss. */
#ifndef TAZE_QUERY_TABLE_H
#define TAZE_QUERY_TABLE_H

#include "../fuzz/samples.h"
#include "api_fixtures.h"

namespace apif {

inline const unsigned char kV6Hit[16] = {0x20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10};
inline const unsigned char kV6Miss[16] = {0x30};
inline const tazw::IPv6 kV6KeyA = tazf::v6(0x20, 1), kV6KeyB = tazf::v6(0xFE, 2); /* keys of the IPv6 maps */

/* Every kind of query, with keys that hit and keys that miss. */
inline std::vector<Query> every_query()
{
    std::vector<Query> t;
    for (unsigned k : {0u, 1u}) {
        const std::string kind = k ? " (second)" : "";
        for (unsigned i : {0u, 2u, 9u}) {
            const std::string at = " " + std::to_string(i) + kind;
            t.push_back(query<Text>("rule index desc" + at, TAZE_GetRuleIndexDescEx, k, i));
            t.push_back(query<Text>("rule index risk" + at, TAZE_GetRuleIndexRiskEx, k, i));
            t.push_back(query<Number>("rule index group" + at, TAZE_GetRuleIndexRiskGroupEx, k, i));
            t.push_back(query<Number>("rule index cl" + at, TAZE_GetRuleIndexCLEx, k, i));
            t.push_back(query<Number>("rule index enable" + at, TAZE_GetRuleIndexEnableEx, k, i));
            t.push_back(query<Number>("rule index id" + at, TAZE_GetRuleIndexRuleIDEx, k, i));
        }
        for (unsigned id : {7u, 42u, 5u}) {
            const std::string at = " " + std::to_string(id) + kind;
            t.push_back(query<Text>("rule id risk" + at, TAZE_GetRuleIdRiskEx, k, id));
            t.push_back(query<Number>("rule id group" + at, TAZE_GetRuleIdRiskGroupEx, k, id));
            t.push_back(query<Number>("rule id cl" + at, TAZE_GetRuleIdCLEx, k, id));
            t.push_back(query<Number>("rule clean check" + at, TAZE_CheckRuleIdCleanEx, k, id, 6u, 2u));
            t.push_back(query<Clean>("rule clean" + at, TAZE_GetRuleIdCleanEx, k, id));
            t.push_back(query<Risk>("potential risk" + at, TAZE_GetPotentialRiskInfoEx, k, id, 2u, 6u));
            t.push_back(query<Number>("threat type" + at, TAZE_GetThreatTypeEx, k, id));
        }
        t.push_back(query<Number>("rule count" + kind, TAZE_GetRuleInfoCountEx, k));
        t.push_back(query<Number>("clean info check" + kind, TAZE_CheckCleanInfoEx, k, 1u, 2u));
        t.push_back(query<Clean>("clean info" + kind, TAZE_GetCleanInfoEx, k, 17u));
        t.push_back(query<Risk>("known risk" + kind, TAZE_GetKnownRiskInfoEx, k, 1u, 17u));
        t.push_back(query<Number>("protocol group of id" + kind, TAZE_GetProtocolIdGroupIDEx, k, 17u));
    }
    t.push_back(query<Text>("rule id desc", TAZE_GetRuleIdDesc, 42u));
    t.push_back(query<Text>("rule index desc", TAZE_GetRuleIndexDesc, 1u));
    t.push_back(query<Number>("rule count", TAZE_GetRuleInfoCount));
    for (unsigned i : {0u, 1u, 7u}) {
        const std::string at = " " + std::to_string(i);
        t.push_back(query<Number>("protocol index id" + at, TAZE_GetProtocolIndexID, i));
        t.push_back(query<Text>("protocol index desc" + at, TAZE_GetProtocolIndexDesc, i));
        t.push_back(query<Number>("protocol index group" + at, TAZE_GetProtocolIndexGroupID, i));
        t.push_back(query<Number>("group index id" + at, TAZE_GetProtocolGroupIndexID, i));
        t.push_back(query<Text>("group index desc" + at, TAZE_GetProtocolGroupIndexDesc, i));
        t.push_back(query<Number>("group index members" + at, TAZE_GetProtocolGroupIndexProtocolCount, i));
        t.push_back(query<Number>("group index member 1" + at, TAZE_GetProtocolGroupIndexProtocolIndex, i, 1u));
    }
    for (unsigned id : {6u, 100u, 200u}) {
        const std::string at = " " + std::to_string(id);
        t.push_back(query<Text>("protocol id desc" + at, TAZE_GetProtocolIdDesc, id));
        t.push_back(query<Number>("protocol id group" + at, TAZE_GetProtocolIdGroupID, id));
        t.push_back(query<Text>("group id desc" + at, TAZE_GetProtocolGroupIdDesc, id));
        t.push_back(query<Number>("group id members" + at, TAZE_GetProtocolGroupIdProtocolCount, id));
        t.push_back(query<Number>("group id member 0" + at, TAZE_GetProtocolGroupIdProtocolIndexId, id, 0u));
    }
    t.push_back(query<Number>("protocol count", TAZE_GetProtocolCount));
    t.push_back(query<Number>("group count", TAZE_GetProtocolGroupCount));
    t.push_back(query<Number>("threat type", TAZE_GetThreatType, 42u));
    t.push_back(query<Risk>("known risk", TAZE_GetKnownRiskInfo, 3u, 100u));
    t.push_back(query<Risk>("potential risk", TAZE_GetPotentialRiskInfo, 42u, 2u, 6u));
    t.push_back(query<Number>("clean check", TAZE_CheckCleanInfo, 6u, 3u));
    t.push_back({"second kind name", [](TAZE *h) {
                     const char *info = nullptr;
                     const int rc = TAZE_GetUlmInfo(h, &info);
                     return std::to_string(rc) + " " + (info ? info : "<null>");
                 }});
    t.push_back({"raw pattern", [](TAZE *h) {
                     const unsigned char *data = nullptr;
                     unsigned len = 0;
                     const int rc = TAZE_GetRawPatternByType(h, RPT_YUB, &data, &len);
                     const std::string raw = data ? std::string(reinterpret_cast<const char *>(data), len) : "<none>";
                     return std::to_string(rc) + " " + raw;
                 }});
    t.push_back({"compiler version", [](TAZE *h) {
                     char buf[32] = {};
                     const int rc = TAZE_GetCompilerVersion(h, buf, sizeof buf);
                     return std::to_string(rc) + " " + buf;
                 }});

    using ListSearch = int (*)(TAZE *, int, const char *, int);
    const std::pair<const char *, ListSearch> lists[] = {
        {"exact", TAZE_PatternSearchStringList},          {"prefix", TAZE_PatternSearchPrefixList},
        {"suffix", TAZE_PatternSearchSuffixList},         {"substring", TAZE_PatternSearchSubstringList},
        {"case", TAZE_PatternSearchCaseList},             {"prefix case", TAZE_PatternSearchPrefixCaseList},
        {"suffix case", TAZE_PatternSearchSuffixCaseList}, {"substring case", TAZE_PatternSearchSubstringCaseList}};
    for (const auto &l : lists)
        for (int k : {0, 1})
            for (const char *key : {"example.com", "mail.example.org.evil", "www.test.net/x", "nothing"})
                t.push_back(plain(std::string(l.first) + " list " + key + (k ? " (second)" : ""), l.second, 2, key, k));
    t.push_back(plain("ip range", TAZE_PatternSearchIPRangeList, 0, 0x0A000102u, 0));
    t.push_back(plain("ip range miss", TAZE_PatternSearchIPRangeList, 2, 0x0B000000u, 0));
    t.push_back(plain("ipv6 range", TAZE_PatternSearchIPv6RangeList, 0, kV6Hit, 0));
    t.push_back(plain("ipv6 range miss", TAZE_PatternSearchIPv6RangeList, 0, kV6Miss, 1));
    t.push_back(plain("port range", TAZE_PatternSearchPortRangeList, 2, static_cast<unsigned short>(443), 0));
    t.push_back(plain("port range miss", TAZE_PatternSearchPortRangeList, 0, static_cast<unsigned short>(500), 1));

    for (int k : {0, 1})
        for (int mt : {MT_STRING, MT_PREFIX, MT_SUFFIX, MT_SUBSTR, MT_STRING_SUFFIX, MT_SUBSTR_PREFIX}) {
            const std::string at = " type " + std::to_string(mt) + (k ? " (second)" : "");
            t.push_back(plain("SI search" + at, TAZE_PatternSearchSIMap, k, mt, 2, "example.com", 7u));
            t.push_back(query<Record<TAZE_StringIntMap>>("SI by key" + at, TAZE_PatternGetSIMapByKey, k, mt, 0, "evil"));
            t.push_back(plain("SI count" + at, TAZE_PatternGetSIMapCount, k, mt, 2));
            t.push_back(query<Record<TAZE_StringIntMap>>("SI by index" + at, TAZE_PatternGetSIMapByIndex, k, mt, 2, 1));
            t.push_back(plain("SIPv6 search" + at, TAZE_PatternSearchSIPv6Map, k, mt, 0, "a", kV6Hit));
            t.push_back(query<Record<TAZE_StringIPv6Map>>("SIPv6 by key" + at, TAZE_PatternGetSIPv6MapByKey, k, mt, 2, "x86"));
            t.push_back(query<Record<TAZE_StringIPv6Map>>("SIPv6 by index" + at, TAZE_PatternGetSIPv6MapByIndex, k, mt, 0, 3));
            t.push_back(plain("IS search" + at, TAZE_PatternSearchISMap, k, mt, 0, 2u, "Value"));
            t.push_back(query<Record<TAZE_IntStringMap>>("IS by key" + at, TAZE_PatternGetISMapByKey, k, mt, 2, 40u));
            t.push_back(query<Record<TAZE_IntStringMap>>("IS by index" + at, TAZE_PatternGetISMapByIndex, k, mt, 0, 0));
            t.push_back(plain("SS search" + at, TAZE_PatternSearchSSMap, k, mt, 0, "zz-top", "abc"));
            t.push_back(query<Record<TAZE_StringStringMap>>("SS by key" + at, TAZE_PatternGetSSMapByKey, k, mt, 2, "a"));
            t.push_back(plain("SS count" + at, TAZE_PatternGetSSMapCount, k, mt, 0));
            t.push_back(query<Record<TAZE_StringStringMap>>("SS by index" + at, TAZE_PatternGetSSMapByIndex, k, mt, 2, 4));
            t.push_back(query<Record<TAZE_IntIntMap>>("II by key" + at, TAZE_PatternGetIIMapByKey, k, mt, 0, 1000u));
            t.push_back(query<Record<TAZE_IntIntMap>>("II by index" + at, TAZE_PatternGetIIMapByIndex, k, mt, 2, 0));
        }
    for (int k : {0, 1}) {
        const std::string at = k ? " (second)" : "";
        t.push_back(plain("II search" + at, TAZE_PatternSearchIIMap, k, 2, 1000u, 102u));
        t.push_back(plain("II count" + at, TAZE_PatternGetIIMapCount, k, MT_STRING, 0));
        t.push_back(plain("IPv6I search" + at, TAZE_PatternSearchIPv6IMap, k, 0, kV6KeyA.data(), 2u));
        t.push_back(query<Record<TAZE_IPv6IntMap>>("IPv6I by key" + at, TAZE_PatternGetIPv6IMapByKey, k, 2,
                                            kV6KeyB.data()));
        t.push_back(plain("IPv6I count" + at, TAZE_PatternGetIPv6IMapCount, k, 0));
        t.push_back(query<Record<TAZE_IPv6IntMap>>("IPv6I by index" + at, TAZE_PatternGetIPv6IMapByIndex, k, 2, 1));
    }
    return t;
}

} // namespace apif

#endif /* TAZE_QUERY_TABLE_H */
