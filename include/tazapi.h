/* Public interface of the taze rule-pattern engine.
 *
 * The host creates a handle with TAZE_Init, loads a pattern file (or the
 * newest good file of a directory) and then asks questions about the rule
 * data from any number of threads. Loading, reloading, unloading, switching
 * the current pattern kind and TAZE_Fini must be serialised by the host
 * against every query on the same handle and against any use of pointers
 * borrowed from the loaded pattern.
 *
 * Compiles as C99 and as C++. */
#ifndef TAZAPI_H
#define TAZAPI_H

#include <stdint.h>
#include "vkerror.h"

#if defined(__GNUC__)
#define TAZE_API __attribute__((visibility("default")))
#else
#define TAZE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

#ifndef TAZE_HANDLE_DECLARED
#define TAZE_HANDLE_DECLARED
typedef struct _TAZE TAZE;
#endif

/* Pattern kinds: the main rule pattern and the second one. */
typedef enum {
    PT_TAZ = 0,
    PT_ULM = 1
} pattern_type_e;

/* Raw sub-patterns handed back unparsed. */
typedef enum {
    RPT_YUB = 0
} raw_pattern_type_e;

/* Map type: key rule in the high byte, value rule in the low byte
 * (0 exact, 1 prefix, 2 suffix, 3 substring). Matching is case-insensitive. */
typedef enum {
    MT_STRING_STRING = 0,
    MT_STRING_PREFIX = 1,
    MT_STRING_SUFFIX = 2,
    MT_STRING_SUBSTR = 3,
    MT_PREFIX_STRING = 256,
    MT_PREFIX_PREFIX = 257,
    MT_PREFIX_SUFFIX = 258,
    MT_PREFIX_SUBSTR = 259,
    MT_SUFFIX_STRING = 512,
    MT_SUFFIX_PREFIX = 513,
    MT_SUFFIX_SUFFIX = 514,
    MT_SUFFIX_SUBSTR = 515,
    MT_SUBSTR_STRING = 768,
    MT_SUBSTR_PREFIX = 769,
    MT_SUBSTR_SUFFIX = 770,
    MT_SUBSTR_SUBSTR = 771,
    MT_STRING = 0,
    MT_PREFIX = 257,
    MT_SUFFIX = 514,
    MT_SUBSTR = 771
} map_type_e;

typedef enum {
    TT_FILE_PATTERN = 0,
    TT_MALICIOUS_BEHAVIOR = 1,
    TT_SUSPICIOUS_BEHAVIOR = 2,
    TT_EXPLOIT = 3,
    TT_GRAYWARE = 4,
    TT_QIM = 5,
    TT_ZUL = 6,
    TT_HIDDEN = 99
} threat_type_e;

/* Result records. Every pointer in them is borrowed from the loaded pattern
 * and stays valid until it is unloaded or replaced. */
typedef struct {
    const unsigned char *ptr; /* NUL-terminated */
    uint32_t len;             /* bytes without the terminator */
} TAZE_CountedString;

typedef struct {
    uint32_t nr_strings;
    TAZE_CountedString *strings;
} TAZE_StringList;

typedef struct {
    TAZE_CountedString string;
    uint32_t nr_ints;
    uint32_t *ints;
} TAZE_StringIntMap;

typedef struct {
    uint8_t bytes[16]; /* network byte order */
} TAZE_IPv6;

typedef struct {
    TAZE_CountedString string;
    uint32_t nr_ipv6s;
    TAZE_IPv6 *ipv6s;
} TAZE_StringIPv6Map;

typedef struct {
    TAZE_IPv6 ipv6;
    uint32_t nr_ints;
    uint32_t *ints;
} TAZE_IPv6IntMap;

typedef struct {
    uint32_t integer;
    uint32_t nr_ints;
    uint32_t *ints;
} TAZE_IntIntMap;

typedef struct {
    uint32_t integer;
    uint32_t nr_strs;
    TAZE_CountedString *strs;
} TAZE_IntStringMap;

typedef struct {
    TAZE_CountedString string;
    uint32_t nr_strs;
    TAZE_CountedString *strs;
} TAZE_StringStringMap;

/* ---- Handle and debug output ---------------------------------------- */
TAZE_API int TAZE_Init(TAZE **ppTAZE);
TAZE_API void TAZE_Fini(TAZE *pTAZE);
TAZE_API void TAZE_setDbgLevelErr(TAZE *pTAZE);
TAZE_API void TAZE_setDbgLevelWarn(TAZE *pTAZE);
TAZE_API void TAZE_setDbgLevelInfo(TAZE *pTAZE);
TAZE_API void TAZE_setDbgLevelDebug(TAZE *pTAZE);
TAZE_API void TAZE_disableDebug(TAZE *pTAZE);

/* ---- Loading, reloading and versions -------------------------------- */
TAZE_API int TAZE_LoadPattern(TAZE *pTAZE, const char *tazptn_path);
TAZE_API int TAZE_LoadPatternDir(TAZE *pTAZE, const char *dir, const char *prefix);
TAZE_API int TAZE_ReloadPatternDir(TAZE *pTAZE, const char *dir, const char *prefix);
TAZE_API void TAZE_UnloadPattern(TAZE *pTAZE);
TAZE_API int TAZE_PeekTAZPatternVer(const char *tazptn_path, char *buf, int size);
TAZE_API int TAZE_GetPatternVersion(TAZE *pTAZE, char *buf, int size);
TAZE_API int TAZE_GetCompilerVersion(TAZE *pTAZE, char *buf, int size);
TAZE_API void TAZE_PointToTAZPattern(TAZE *pTAZE);
TAZE_API void TAZE_PointToULMPattern(TAZE *pTAZE);
TAZE_API int TAZE_GetRawPatternByType(TAZE *pTAZE, unsigned int raw_ptn_type,
                                      const unsigned char **data, unsigned int *len);

/* ---- Rules ------------------------------------------------------------ */
TAZE_API int TAZE_GetRuleIndexDesc(TAZE *pTAZE, unsigned int idx, char **desc);
TAZE_API int TAZE_GetRuleIndexDescEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int idx, char **desc);
TAZE_API int TAZE_GetRuleIndexRisk(TAZE *pTAZE, unsigned int idx, char **risk);
TAZE_API int TAZE_GetRuleIndexRiskEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int idx, char **risk);
TAZE_API int TAZE_GetRuleIndexRiskGroup(TAZE *pTAZE, unsigned int idx, unsigned int *risk_group);
TAZE_API int TAZE_GetRuleIndexRiskGroupEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int idx, unsigned int *risk_group);
TAZE_API int TAZE_GetRuleIndexCL(TAZE *pTAZE, unsigned int idx, unsigned int *cl);
TAZE_API int TAZE_GetRuleIndexCLEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int idx, unsigned int *cl);
TAZE_API int TAZE_GetRuleIndexEnable(TAZE *pTAZE, unsigned int idx, unsigned int *enable);
TAZE_API int TAZE_GetRuleIndexEnableEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int idx, unsigned int *enable);
TAZE_API int TAZE_GetRuleIndexRuleID(TAZE *pTAZE, unsigned int idx, unsigned int *rule_id);
TAZE_API int TAZE_GetRuleIndexRuleIDEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int idx, unsigned int *rule_id);
TAZE_API int TAZE_GetRuleInfoCount(TAZE *pTAZE, unsigned int *count);
TAZE_API int TAZE_GetRuleInfoCountEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int *count);
TAZE_API int TAZE_GetRuleIdDesc(TAZE *pTAZE, unsigned int id, char **desc);
TAZE_API int TAZE_GetRuleIdRisk(TAZE *pTAZE, unsigned int id, char **risk);
TAZE_API int TAZE_GetRuleIdRiskEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int id, char **risk);
TAZE_API int TAZE_GetRuleIdRiskGroup(TAZE *pTAZE, unsigned int id, unsigned int *risk_group);
TAZE_API int TAZE_GetRuleIdRiskGroupEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int id, unsigned int *risk_group);
TAZE_API int TAZE_GetRuleIdCL(TAZE *pTAZE, unsigned int id, unsigned int *cl);
TAZE_API int TAZE_GetRuleIdCLEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int id, unsigned int *cl);

/* ---- Clean-up --------------------------------------------------------- */
TAZE_API int TAZE_CheckRuleIdClean(TAZE *pTAZE, unsigned int id, unsigned int protocol,
                                   unsigned int direction, unsigned int *target);
TAZE_API int TAZE_CheckRuleIdCleanEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int id,
                                     unsigned int protocol, unsigned int direction, unsigned int *target);
TAZE_API int TAZE_GetRuleIdClean(TAZE *pTAZE, unsigned int id, unsigned int *priority,
                                 char **src_ptn, char **dst_ptn);
TAZE_API int TAZE_GetRuleIdCleanEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int id,
                                   unsigned int *priority, char **src_ptn, char **dst_ptn);
TAZE_API int TAZE_CheckCleanInfo(TAZE *pTAZE, unsigned int protocol, unsigned int direction,
                                 unsigned int *target);
TAZE_API int TAZE_CheckCleanInfoEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int protocol,
                                   unsigned int direction, unsigned int *target);
TAZE_API int TAZE_GetCleanInfo(TAZE *pTAZE, unsigned int protocol, unsigned int *priority,
                               char **src_ptn, char **dst_ptn);
TAZE_API int TAZE_GetCleanInfoEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int protocol,
                                 unsigned int *priority, char **src_ptn, char **dst_ptn);

/* ---- Protocols and protocol groups ------------------------------------ */
TAZE_API int TAZE_GetProtocolCount(TAZE *pTAZE, unsigned int *count);
TAZE_API int TAZE_GetProtocolIndexID(TAZE *pTAZE, unsigned int idx, unsigned int *protocol_id);
TAZE_API int TAZE_GetProtocolIndexDesc(TAZE *pTAZE, unsigned int idx, char **desc);
TAZE_API int TAZE_GetProtocolIndexGroupID(TAZE *pTAZE, unsigned int idx, unsigned int *group_id);
TAZE_API int TAZE_GetProtocolIdDesc(TAZE *pTAZE, unsigned int id, char **desc);
TAZE_API int TAZE_GetProtocolIdGroupID(TAZE *pTAZE, unsigned int id, unsigned int *group_id);
TAZE_API int TAZE_GetProtocolIdGroupIDEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int id, unsigned int *group_id);
TAZE_API int TAZE_GetProtocolGroupCount(TAZE *pTAZE, unsigned int *count);
TAZE_API int TAZE_GetProtocolGroupIndexID(TAZE *pTAZE, unsigned int idx, unsigned int *group_id);
TAZE_API int TAZE_GetProtocolGroupIndexDesc(TAZE *pTAZE, unsigned int idx, char **desc);
TAZE_API int TAZE_GetProtocolGroupIndexProtocolCount(TAZE *pTAZE, unsigned int idx, unsigned int *count);
TAZE_API int TAZE_GetProtocolGroupIndexProtocolIndex(TAZE *pTAZE, unsigned int idx, unsigned int pidx,
                                                     unsigned int *protocol_id);
TAZE_API int TAZE_GetProtocolGroupIdDesc(TAZE *pTAZE, unsigned int id, char **desc);
TAZE_API int TAZE_GetProtocolGroupIdProtocolCount(TAZE *pTAZE, unsigned int id, unsigned int *count);
TAZE_API int TAZE_GetProtocolGroupIdProtocolIndexId(TAZE *pTAZE, unsigned int id, unsigned int pindex,
                                                    unsigned int *protocol_id);

/* ---- Risk, threat type and second-kind information -------------------- */
TAZE_API int TAZE_GetKnownRiskInfo(TAZE *pTAZE, unsigned int direction, unsigned int protocol,
                                   unsigned int *policy_id, unsigned int *severity);
TAZE_API int TAZE_GetKnownRiskInfoEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int direction,
                                     unsigned int protocol, unsigned int *policy_id, unsigned int *severity);
TAZE_API int TAZE_GetPotentialRiskInfo(TAZE *pTAZE, unsigned int rule_id, unsigned int direction,
                                       unsigned int protocol, unsigned int *policy_id, unsigned int *severity);
TAZE_API int TAZE_GetPotentialRiskInfoEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int rule_id,
                                         unsigned int direction, unsigned int protocol,
                                         unsigned int *policy_id, unsigned int *severity);
TAZE_API int TAZE_GetUlmInfo(TAZE *pTAZE, const char **info);
TAZE_API int TAZE_GetThreatType(TAZE *pTAZE, unsigned int rule_id, unsigned int *threat_type);
TAZE_API int TAZE_GetThreatTypeEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int rule_id,
                                  unsigned int *threat_type);

/* ---- String and range lists ------------------------------------------- */
TAZE_API int TAZE_PatternSearchStringList(TAZE *pTAZE, int idx, const char *string, int ptntype);
TAZE_API int TAZE_PatternSearchPrefixList(TAZE *pTAZE, int idx, const char *string, int ptntype);
TAZE_API int TAZE_PatternSearchSuffixList(TAZE *pTAZE, int idx, const char *string, int ptntype);
TAZE_API int TAZE_PatternSearchSubstringList(TAZE *pTAZE, int idx, const char *string, int ptntype);
TAZE_API int TAZE_PatternSearchCaseList(TAZE *pTAZE, int idx, const char *string, int ptntype);
TAZE_API int TAZE_PatternSearchPrefixCaseList(TAZE *pTAZE, int idx, const char *string, int ptntype);
TAZE_API int TAZE_PatternSearchSuffixCaseList(TAZE *pTAZE, int idx, const char *string, int ptntype);
TAZE_API int TAZE_PatternSearchSubstringCaseList(TAZE *pTAZE, int idx, const char *string, int ptntype);
TAZE_API int TAZE_PatternSearchIPRangeList(TAZE *pTAZE, int idx, unsigned int ip, int ptntype);
TAZE_API int TAZE_PatternSearchIPv6RangeList(TAZE *pTAZE, int idx, const uint8_t *ipv6, int ptntype);
TAZE_API int TAZE_PatternSearchPortRangeList(TAZE *pTAZE, int idx, unsigned short port, int ptntype);
TAZE_API int TAZE_PatternGetStringList(TAZE *pTAZE, int idx, int ptntype, TAZE_StringList *list);

/* ---- Maps ---------------------------------------------------------------
 * Search: 1 match, 0 value not found (integer and address values) or null
 * argument, -1 key not found / value not found in a string-valued map /
 * map type not accepted. By key and by index: 0 and *result filled, or -1
 * and *result cleared. */
TAZE_API int TAZE_PatternSearchSIMap(TAZE *pTAZE, int ptn_type, int map_type, int magic,
                                     const char *key, unsigned int value);
TAZE_API int TAZE_PatternGetSIMapByKey(TAZE *pTAZE, int ptn_type, int map_type, int magic,
                                       const char *key, TAZE_StringIntMap *result);
TAZE_API int TAZE_PatternGetSIMapCount(TAZE *pTAZE, int ptn_type, int map_type, int magic);
TAZE_API int TAZE_PatternGetSIMapByIndex(TAZE *pTAZE, int ptn_type, int map_type, int magic,
                                         int index, TAZE_StringIntMap *result);

TAZE_API int TAZE_PatternSearchSIPv6Map(TAZE *pTAZE, int ptn_type, int map_type, int magic,
                                        const char *key, const unsigned char *ipv6);
TAZE_API int TAZE_PatternGetSIPv6MapByKey(TAZE *pTAZE, int ptn_type, int map_type, int magic,
                                          const char *key, TAZE_StringIPv6Map *result);
TAZE_API int TAZE_PatternGetSIPv6MapCount(TAZE *pTAZE, int ptn_type, int map_type, int magic);
TAZE_API int TAZE_PatternGetSIPv6MapByIndex(TAZE *pTAZE, int ptn_type, int map_type, int magic,
                                            int index, TAZE_StringIPv6Map *result);

TAZE_API int TAZE_PatternSearchIPv6IMap(TAZE *pTAZE, int ptn_type, int magic,
                                        const unsigned char *ipv6_key, unsigned int value);
TAZE_API int TAZE_PatternGetIPv6IMapByKey(TAZE *pTAZE, int ptn_type, int magic,
                                          const unsigned char *ipv6_key, TAZE_IPv6IntMap *result);
TAZE_API int TAZE_PatternGetIPv6IMapCount(TAZE *pTAZE, int ptn_type, int magic);
TAZE_API int TAZE_PatternGetIPv6IMapByIndex(TAZE *pTAZE, int ptn_type, int magic, int index,
                                            TAZE_IPv6IntMap *result);

TAZE_API int TAZE_PatternSearchIIMap(TAZE *pTAZE, int ptn_type, int magic, unsigned int key,
                                     unsigned int value);
TAZE_API int TAZE_PatternGetIIMapByKey(TAZE *pTAZE, int ptn_type, int map_type, int magic,
                                       unsigned int key, TAZE_IntIntMap *result);
TAZE_API int TAZE_PatternGetIIMapCount(TAZE *pTAZE, int ptn_type, int map_type, int magic);
TAZE_API int TAZE_PatternGetIIMapByIndex(TAZE *pTAZE, int ptn_type, int map_type, int magic,
                                         int index, TAZE_IntIntMap *result);

TAZE_API int TAZE_PatternSearchISMap(TAZE *pTAZE, int ptn_type, int map_type, int magic,
                                     unsigned int key, const char *value);
TAZE_API int TAZE_PatternGetISMapByKey(TAZE *pTAZE, int ptn_type, int map_type, int magic,
                                       unsigned int key, TAZE_IntStringMap *result);
TAZE_API int TAZE_PatternGetISMapCount(TAZE *pTAZE, int ptn_type, int map_type, int magic);
TAZE_API int TAZE_PatternGetISMapByIndex(TAZE *pTAZE, int ptn_type, int map_type, int magic,
                                         int index, TAZE_IntStringMap *result);

TAZE_API int TAZE_PatternSearchSSMap(TAZE *pTAZE, int ptn_type, int map_type, int magic,
                                     const char *key, const char *value);
TAZE_API int TAZE_PatternGetSSMapByKey(TAZE *pTAZE, int ptn_type, int map_type, int magic,
                                       const char *key, TAZE_StringStringMap *result);
TAZE_API int TAZE_PatternGetSSMapCount(TAZE *pTAZE, int ptn_type, int map_type, int magic);
TAZE_API int TAZE_PatternGetSSMapByIndex(TAZE *pTAZE, int ptn_type, int map_type, int magic,
                                         int index, TAZE_StringStringMap *result);

/* Round num up to the next multiple of mlt. */
TAZE_API int getMultiple(int num, int mlt);

#ifdef __cplusplus
}
#endif

#endif /* TAZAPI_H */
