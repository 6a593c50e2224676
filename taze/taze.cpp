/* The exported interface: the handle and the debug mask, loading and
 * reloading, version texts, and the query and search wrappers. Every query
 * checks its arguments, picks one pattern image of the handle (the current
 * one, or the kind its ptn_type names) and hands the work to one lookup of
 * taze_ptn.h or one search of taze_util.h. */
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "taze.h"
#include "taze_query.h"
#include "format.h"
#include "taze_fast.h"
#include "taze_file.h"
#include "taze_util.h"
#include "tazeptn.h"
#include "vk_platform.h"
#include "vkerror.h"

extern "C" {
/* The process-wide debug mask; all output is off until a setter runs. */
VK_EXPORT unsigned int debugLevel = 0;
}

namespace {

/* The shortest version text, "0.00000.00", with its terminator. */
constexpr int kVersionTextMin = 11;

using namespace taze::api;

/* ---- loading ------------------------------------------------------------- */

/* Scans a pattern directory into head: true, or false after the message. */
bool scan_dir(const char *dir, const char *prefix, LIST_HEAD *head)
{
    VK_LIST_INIT(head);
    const int rc = getTAZPatternList(dir, prefix, head);
    if (rc < 0) {
        VK_DEBUG_PRINTF(VKDEBUG_ERR, "getTAZPatternList()=%d\n", rc);
        return false;
    }
    return true;
}

/* Loads the newest file of the list that loads, highest version first, and
 * frees the list: 0, or the code of the last (oldest) file tried. */
int load_newest(TAZE *h, LIST_HEAD *head)
{
    int rc = ACCESS_ERR;
    for (LIST_HEAD *link = head->prev; link != head; link = link->prev) {
        const PatternVersion_st *pv = VK_LIST_ENTRY(link, PatternVersion_st, pattern_list);
        rc = TAZE_LoadPattern(h, pv->path);
        if (rc == 0) break;
    }
    delPatternVersionList(head);
    return rc;
}

using taze::version_text;

void set_debug_mask(unsigned int mask) { debugLevel = mask; }

} // namespace

extern "C" {

/* ---- handle and debug output --------------------------------------------- */

TAZE_API int TAZE_Init(TAZE **ppTAZE)
{
    if (!ppTAZE) return PARA_ERR;
    TAZE *h = static_cast<TAZE *>(calloc(1, sizeof(TAZE)));
    if (!h) {
        VK_DEBUG_PUTS(VKDEBUG_ERR, "Error: Can't Malloc(sizeof(TAZE))");
        *ppTAZE = nullptr;
        return NO_MEM_ERR;
    }
    h->magic = MAGIC_TAZ;
    *ppTAZE = h;
    return 0;
}

TAZE_API void TAZE_Fini(TAZE *pTAZE)
{
    if (!pTAZE) return;
    if (pTAZE->pTAZPattern) delTAZPattern(pTAZE->pTAZPattern);
    if (pTAZE->pRawPattern[TAZE_YUB]) delRawPattern(pTAZE->pRawPattern[TAZE_YUB]);
    free(pTAZE);
}

/* The mask is one for the whole process: the handle plays no part. */
TAZE_API void TAZE_setDbgLevelErr(TAZE *) { set_debug_mask(VKDEBUG_ERR | VKDEBUG_WARN | VKDEBUG_INFO | VKDEBUG_DEBUG); }
TAZE_API void TAZE_setDbgLevelWarn(TAZE *) { set_debug_mask(VKDEBUG_WARN); }
TAZE_API void TAZE_setDbgLevelInfo(TAZE *) { set_debug_mask(VKDEBUG_INFO); }
TAZE_API void TAZE_setDbgLevelDebug(TAZE *) { set_debug_mask(VKDEBUG_DEBUG); }
TAZE_API void TAZE_disableDebug(TAZE *) { set_debug_mask(0u); }

/* ---- choosing the pattern kind ------------------------------------------- */

taz_pattern_st *TAZE_GetPatternByPatternType(TAZE *pTAZE, unsigned int ptn_type)
{
    if (!pTAZE || !pTAZE->pTAZPattern) return nullptr;
    if (ptn_type == PT_TAZ) return pTAZE->pTAZPattern->taz_ptn;
    if (ptn_type == PT_ULM) return pTAZE->pTAZPattern->ulm_ptn;
    return nullptr;
}

int TAZE_PatternGetByType(TAZE *pTAZE, int ptn_type, taz_pattern_st **ptn)
{
    if (!ptn || (ptn_type != PT_TAZ && ptn_type != PT_ULM)) return PARA_ERR;
    taz_pattern_st *sp = TAZE_GetPatternByPatternType(pTAZE, static_cast<unsigned int>(ptn_type));
    if (!sp) return PARA_ERR;
    *ptn = sp;
    return 0;
}

/* Neither switch checks anything beyond the handle and its record. */
TAZE_API void TAZE_PointToTAZPattern(TAZE *pTAZE)
{
    if (pTAZE && pTAZE->pTAZPattern) pTAZE->pTAZPattern->cur_ptn = pTAZE->pTAZPattern->taz_ptn;
}

TAZE_API void TAZE_PointToULMPattern(TAZE *pTAZE)
{
    if (pTAZE && pTAZE->pTAZPattern) pTAZE->pTAZPattern->cur_ptn = pTAZE->pTAZPattern->ulm_ptn;
}

/* ---- loading, reloading and versions -------------------------------------- */

TAZE_API int TAZE_LoadPattern(TAZE *pTAZE, const char *tazptn_path)
{
    if (!pTAZE || !tazptn_path || pTAZE->pTAZPattern) return PARA_ERR;
    FILE *f = fopen(tazptn_path, "rb");
    if (!f) return OPEN_R_ERR;
    QDPatternBuf *reader = newPatternBuffer();
    if (!reader) {
        fclose(f);
        return NO_MEM_ERR;
    }
    int rc = readPatternFile(reader, f);
    _TAZPattern *rec = reader->pTAZPattern;
    if (rc == 0 && rec && rec->taz_ptn) {
        /* A TAZ image is required; the record and a non-empty raw record
         * move into the handle, the reader releases whatever is left. */
        rec->cur_ptn = rec->taz_ptn;
        pTAZE->pTAZPattern = rec;
        reader->pTAZPattern = nullptr;
        _RawPattern *raw = reader->pRawPattern[TAZE_YUB];
        if (raw && raw->data && raw->len) {
            delRawPattern(pTAZE->pRawPattern[TAZE_YUB]);
            pTAZE->pRawPattern[TAZE_YUB] = raw;
            reader->pRawPattern[TAZE_YUB] = nullptr;
        }
    } else {
        rc = READ_ERR;
    }
    delPatternBuffer(reader);
    fclose(f);
    return rc;
}

TAZE_API int TAZE_LoadPatternDir(TAZE *pTAZE, const char *dir, const char *prefix)
{
    if (!pTAZE || !dir || !prefix || pTAZE->pTAZPattern) return PARA_ERR;
    LIST_HEAD head;
    if (!scan_dir(dir, prefix, &head)) return ACCESS_ERR;
    return load_newest(pTAZE, &head);
}

TAZE_API int TAZE_ReloadPatternDir(TAZE *pTAZE, const char *dir, const char *prefix)
{
    if (!pTAZE || !dir || !prefix || !pTAZE->pTAZPattern) return PARA_ERR;
    LIST_HEAD head;
    if (!scan_dir(dir, prefix, &head)) return ACCESS_ERR;
    /* Keep the old records aside; they come back when no file loads, so a
     * bad directory never leaves the handle empty. */
    _TAZPattern *old = pTAZE->pTAZPattern;
    _RawPattern *old_raw = pTAZE->pRawPattern[TAZE_YUB];
    pTAZE->pTAZPattern = nullptr;
    pTAZE->pRawPattern[TAZE_YUB] = nullptr;
    const int rc = load_newest(pTAZE, &head);
    if (rc == 0) {
        delTAZPattern(old);
        delRawPattern(old_raw);
    } else {
        pTAZE->pTAZPattern = old;
        pTAZE->pRawPattern[TAZE_YUB] = old_raw;
    }
    return rc;
}

/* Releases the record but deliberately leaves the handle's pointer (and
 * the raw record) as they are: the handle must not be used afterwards. */
TAZE_API void TAZE_UnloadPattern(TAZE *pTAZE)
{
    if (pTAZE && pTAZE->pTAZPattern) delTAZPattern(pTAZE->pTAZPattern);
}

TAZE_API int TAZE_PeekTAZPatternVer(const char *tazptn_path, char *buf, int size)
{
    if (!tazptn_path || !buf || size < kVersionTextMin) return PARA_ERR;
    unsigned int ver = KORM_VER_NONE; /* a peek that succeeds without a version reads 0.00000.00 */
    const int rc = peekTAZPatternVer(tazptn_path, &ver);
    if (rc != 0) {
        VK_DEBUG_PRINTF(VKDEBUG_ERR, "TAZE_PeekTAZPatternVer()=%d\n", rc);
        return rc;
    }
    return version_text(ver, buf, size);
}

TAZE_API int TAZE_GetPatternVersion(TAZE *pTAZE, char *buf, int size)
{
    if (!pTAZE || !pTAZE->pTAZPattern || !buf || size < kVersionTextMin) return PARA_ERR;
    return version_text(pTAZE->pTAZPattern->patternVer, buf, size);
}

/* Also refused when the current pattern is empty (switched to a missing
 * second kind). */
TAZE_API int TAZE_GetCompilerVersion(TAZE *pTAZE, char *buf, int size)
{
    const Pattern *sp = current_pattern(pTAZE);
    if (!sp || !buf || size < kVersionTextMin) return PARA_ERR;
    return version_text(sp->taz_ptn_compiler_version, buf, size);
}

TAZE_API int TAZE_GetRawPatternByType(TAZE *pTAZE, unsigned int raw_ptn_type, const unsigned char **data,
                                      unsigned int *len)
{
    if (!pTAZE || !data || !len || raw_ptn_type != static_cast<unsigned int>(RPT_YUB)) return PARA_ERR;
    const _RawPattern *raw = pTAZE->pRawPattern[TAZE_YUB];
    if (!raw || !raw->data) return UNKNOWN_ERR;
    *data = raw->data;
    *len = static_cast<unsigned int>(raw->len);
    return 0;
}

/* ---- rules ----------------------------------------------------------------- */

TAZE_API int TAZE_GetRuleIndexDesc(TAZE *pTAZE, unsigned int idx, char **desc)
{
    return text<Absent::Refused>(current_pattern(pTAZE), taz_rule_index_desc, desc, idx);
}

TAZE_API int TAZE_GetRuleIndexDescEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int idx, char **desc)
{
    return text<Absent::Refused>(pattern_of_kind(pTAZE, ptn_type), taz_rule_index_desc, desc, idx);
}

TAZE_API int TAZE_GetRuleIndexRisk(TAZE *pTAZE, unsigned int idx, char **risk)
{
    return text<Absent::Refused>(current_pattern(pTAZE), taz_rule_index_risk_type, risk, idx);
}

TAZE_API int TAZE_GetRuleIndexRiskEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int idx, char **risk)
{
    return text<Absent::Refused>(pattern_of_kind(pTAZE, ptn_type), taz_rule_index_risk_type, risk, idx);
}

TAZE_API int TAZE_GetRuleIndexRiskGroup(TAZE *pTAZE, unsigned int idx, unsigned int *risk_group)
{
    return number(current_pattern(pTAZE), taz_rule_index_risk_type_group, risk_group, idx);
}

TAZE_API int TAZE_GetRuleIndexRiskGroupEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int idx, unsigned int *risk_group)
{
    return number(pattern_of_kind(pTAZE, ptn_type), taz_rule_index_risk_type_group, risk_group, idx);
}

TAZE_API int TAZE_GetRuleIndexCL(TAZE *pTAZE, unsigned int idx, unsigned int *cl)
{
    return number(current_pattern(pTAZE), taz_rule_index_confidence_level, cl, idx);
}

TAZE_API int TAZE_GetRuleIndexCLEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int idx, unsigned int *cl)
{
    return number(pattern_of_kind(pTAZE, ptn_type), taz_rule_index_confidence_level, cl, idx);
}

TAZE_API int TAZE_GetRuleIndexEnable(TAZE *pTAZE, unsigned int idx, unsigned int *enable)
{
    return number(current_pattern(pTAZE), taz_rule_index_enable, enable, idx);
}

TAZE_API int TAZE_GetRuleIndexEnableEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int idx, unsigned int *enable)
{
    return number(pattern_of_kind(pTAZE, ptn_type), taz_rule_index_enable, enable, idx);
}

TAZE_API int TAZE_GetRuleIndexRuleID(TAZE *pTAZE, unsigned int idx, unsigned int *rule_id)
{
    return number(current_pattern(pTAZE), taz_rule_index_rule_id, rule_id, idx);
}

TAZE_API int TAZE_GetRuleIndexRuleIDEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int idx, unsigned int *rule_id)
{
    return number(pattern_of_kind(pTAZE, ptn_type), taz_rule_index_rule_id, rule_id, idx);
}

TAZE_API int TAZE_GetRuleInfoCount(TAZE *pTAZE, unsigned int *count)
{
    return number(current_pattern(pTAZE), taz_rule_count, count);
}

TAZE_API int TAZE_GetRuleInfoCountEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int *count)
{
    return number(pattern_of_kind(pTAZE, ptn_type), taz_rule_count, count);
}

TAZE_API int TAZE_GetRuleIdRisk(TAZE *pTAZE, unsigned int id, char **risk)
{
    return text<Absent::Empty>(current_pattern(pTAZE), taz_rule_id_risk_type, risk, id);
}

TAZE_API int TAZE_GetRuleIdRiskEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int id, char **risk)
{
    return text<Absent::Empty>(pattern_of_kind(pTAZE, ptn_type), taz_rule_id_risk_type, risk, id);
}

TAZE_API int TAZE_GetRuleIdRiskGroup(TAZE *pTAZE, unsigned int id, unsigned int *risk_group)
{
    return number(current_pattern(pTAZE), taz_rule_id_risk_type_group, risk_group, id);
}

TAZE_API int TAZE_GetRuleIdRiskGroupEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int id, unsigned int *risk_group)
{
    return number(pattern_of_kind(pTAZE, ptn_type), taz_rule_id_risk_type_group, risk_group, id);
}

TAZE_API int TAZE_GetRuleIdCL(TAZE *pTAZE, unsigned int id, unsigned int *cl)
{
    return number(current_pattern(pTAZE), taz_rule_id_confidence_level, cl, id);
}

TAZE_API int TAZE_GetRuleIdCLEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int id, unsigned int *cl)
{
    return number(pattern_of_kind(pTAZE, ptn_type), taz_rule_id_confidence_level, cl, id);
}


/* Checks the current pattern but looks in the main kind, then the second. */
TAZE_API int TAZE_GetRuleIdDesc(TAZE *pTAZE, unsigned int id, char **desc)
{
    if (!current_pattern(pTAZE) || !desc || *desc) return PARA_ERR;
    const _TAZPattern *rec = pTAZE->pTAZPattern;
    const unsigned char *found = taz_rule_id_description(rec->taz_ptn, id);
    if (!found) found = taz_rule_id_description(rec->ulm_ptn, id);
    return found ? copy_text(found, desc) : 0; /* found in neither: *desc stays null */
}

/* ---- clean-up ---------------------------------------------------------------- */

TAZE_API int TAZE_CheckRuleIdClean(TAZE *pTAZE, unsigned int id, unsigned int protocol, unsigned int direction, unsigned int *target)
{
    return rule_clean_check(current_pattern(pTAZE), taz_rule_id_check_clean, target, id, protocol, direction);
}

TAZE_API int TAZE_CheckRuleIdCleanEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int id, unsigned int protocol, unsigned int direction, unsigned int *target)
{
    return rule_clean_check(pattern_of_kind(pTAZE, ptn_type), taz_rule_id_check_clean, target, id, protocol, direction);
}

TAZE_API int TAZE_GetRuleIdClean(TAZE *pTAZE, unsigned int id, unsigned int *priority, char **src_ptn, char **dst_ptn)
{
    return rule_clean_data(current_pattern(pTAZE), taz_rule_id_get_clean, priority, src_ptn, dst_ptn, id);
}

TAZE_API int TAZE_GetRuleIdCleanEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int id, unsigned int *priority, char **src_ptn, char **dst_ptn)
{
    return rule_clean_data(pattern_of_kind(pTAZE, ptn_type), taz_rule_id_get_clean, priority, src_ptn, dst_ptn, id);
}

TAZE_API int TAZE_CheckCleanInfo(TAZE *pTAZE, unsigned int protocol, unsigned int direction, unsigned int *target)
{
    return clean_check(current_pattern(pTAZE), taz_clean_info_check_clean, target, protocol, direction);
}

TAZE_API int TAZE_CheckCleanInfoEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int protocol, unsigned int direction, unsigned int *target)
{
    return clean_check(pattern_of_kind(pTAZE, ptn_type), taz_clean_info_check_clean, target, protocol, direction);
}

TAZE_API int TAZE_GetCleanInfo(TAZE *pTAZE, unsigned int protocol, unsigned int *priority, char **src_ptn, char **dst_ptn)
{
    return clean_data(current_pattern(pTAZE), taz_clean_info_get_clean, priority, src_ptn, dst_ptn, protocol);
}

TAZE_API int TAZE_GetCleanInfoEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int protocol, unsigned int *priority, char **src_ptn, char **dst_ptn)
{
    return clean_data(pattern_of_kind(pTAZE, ptn_type), taz_clean_info_get_clean, priority, src_ptn, dst_ptn, protocol);
}


/* ---- protocols and protocol groups ------------------------------------------ */

TAZE_API int TAZE_GetProtocolCount(TAZE *pTAZE, unsigned int *count)
{
    return number(current_pattern(pTAZE), taz_protocol_count, count);
}

TAZE_API int TAZE_GetProtocolIndexID(TAZE *pTAZE, unsigned int idx, unsigned int *protocol_id)
{
    return number(current_pattern(pTAZE), taz_protocol_index_id, protocol_id, idx);
}

TAZE_API int TAZE_GetProtocolIndexDesc(TAZE *pTAZE, unsigned int idx, char **desc)
{
    return text<Absent::Refused>(current_pattern(pTAZE), taz_protocol_index_desc, desc, idx);
}

TAZE_API int TAZE_GetProtocolIndexGroupID(TAZE *pTAZE, unsigned int idx, unsigned int *group_id)
{
    return number(current_pattern(pTAZE), taz_protocol_index_group_id, group_id, idx);
}

TAZE_API int TAZE_GetProtocolIdDesc(TAZE *pTAZE, unsigned int id, char **desc)
{
    return text<Absent::Refused>(current_pattern(pTAZE), taz_protocol_id_desc, desc, id);
}

TAZE_API int TAZE_GetProtocolIdGroupID(TAZE *pTAZE, unsigned int id, unsigned int *group_id)
{
    return number(current_pattern(pTAZE), taz_protocol_id_group_id, group_id, id);
}

TAZE_API int TAZE_GetProtocolIdGroupIDEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int id, unsigned int *group_id)
{
    return number(pattern_of_kind(pTAZE, ptn_type), taz_protocol_id_group_id, group_id, id);
}

TAZE_API int TAZE_GetProtocolGroupCount(TAZE *pTAZE, unsigned int *count)
{
    return number(current_pattern(pTAZE), taz_protocol_group_count, count);
}

TAZE_API int TAZE_GetProtocolGroupIndexID(TAZE *pTAZE, unsigned int idx, unsigned int *group_id)
{
    return number(current_pattern(pTAZE), taz_protocol_group_index_id, group_id, idx);
}

TAZE_API int TAZE_GetProtocolGroupIndexDesc(TAZE *pTAZE, unsigned int idx, char **desc)
{
    return text<Absent::Refused>(current_pattern(pTAZE), taz_protocol_group_index_desc, desc, idx);
}

TAZE_API int TAZE_GetProtocolGroupIndexProtocolCount(TAZE *pTAZE, unsigned int idx, unsigned int *count)
{
    return number(current_pattern(pTAZE), taz_protocol_group_index_protocol_count, count, idx);
}

TAZE_API int TAZE_GetProtocolGroupIndexProtocolIndex(TAZE *pTAZE, unsigned int idx, unsigned int pidx, unsigned int *protocol_id)
{
    return number(current_pattern(pTAZE), taz_protocol_group_index_protocol_index, protocol_id, idx, pidx);
}

TAZE_API int TAZE_GetProtocolGroupIdDesc(TAZE *pTAZE, unsigned int id, char **desc)
{
    return text<Absent::Refused>(current_pattern(pTAZE), taz_protocol_group_id_desc, desc, id);
}

TAZE_API int TAZE_GetProtocolGroupIdProtocolCount(TAZE *pTAZE, unsigned int id, unsigned int *count)
{
    return number(current_pattern(pTAZE), taz_protocol_group_id_protocol_count, count, id);
}

TAZE_API int TAZE_GetProtocolGroupIdProtocolIndexId(TAZE *pTAZE, unsigned int id, unsigned int pindex, unsigned int *protocol_id)
{
    return number(current_pattern(pTAZE), taz_protocol_group_id_protocol_index_id, protocol_id, id, pindex);
}


/* ---- risk, threat type and second-kind information --------------------------- */

TAZE_API int TAZE_GetKnownRiskInfo(TAZE *pTAZE, unsigned int direction, unsigned int protocol, unsigned int *policy_id, unsigned int *severity)
{
    return risk_info(current_pattern(pTAZE), taz_known_risk_get_info, policy_id, severity, direction, protocol);
}

TAZE_API int TAZE_GetKnownRiskInfoEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int direction, unsigned int protocol, unsigned int *policy_id, unsigned int *severity)
{
    return risk_info(pattern_of_kind(pTAZE, ptn_type), taz_known_risk_get_info, policy_id, severity, direction, protocol);
}

TAZE_API int TAZE_GetPotentialRiskInfo(TAZE *pTAZE, unsigned int rule_id, unsigned int direction, unsigned int protocol, unsigned int *policy_id, unsigned int *severity)
{
    return risk_info(current_pattern(pTAZE), taz_potential_risk_get_info, policy_id, severity, rule_id, direction, protocol);
}

TAZE_API int TAZE_GetPotentialRiskInfoEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int rule_id, unsigned int direction, unsigned int protocol, unsigned int *policy_id, unsigned int *severity)
{
    return risk_info(pattern_of_kind(pTAZE, ptn_type), taz_potential_risk_get_info, policy_id, severity, rule_id, direction, protocol);
}

/* The plain form is below: it answers for an empty current pattern too. */
TAZE_API int TAZE_GetThreatTypeEx(TAZE *pTAZE, unsigned int ptn_type, unsigned int rule_id, unsigned int *threat_type)
{
    return number(pattern_of_kind(pTAZE, ptn_type), taz_threat_type_get, threat_type, rule_id);
}


/* Borrowed from the second kind's image, whatever the current pattern. */
TAZE_API int TAZE_GetUlmInfo(TAZE *pTAZE, const char **info)
{
    const Pattern *ulm = pattern_of_kind(pTAZE, PT_ULM);
    if (!ulm || !info) return PARA_ERR;
    const unsigned char *name = taz_ulm_get_info(ulm);
    if (!name) return PARA_ERR;
    *info = reinterpret_cast<const char *>(name);
    return 0;
}

/* An empty current pattern answers TT_HIDDEN, like an unknown rule. */
TAZE_API int TAZE_GetThreatType(TAZE *pTAZE, unsigned int rule_id, unsigned int *threat_type)
{
    if (!pTAZE || !pTAZE->pTAZPattern || !threat_type) return PARA_ERR;
    *threat_type = taz_threat_type_get(pTAZE->pTAZPattern->cur_ptn, rule_id);
    return 0;
}

/* ---- string and range lists ---------------------------------------------------- */

TAZE_API int TAZE_PatternSearchStringList(TAZE *pTAZE, int idx, const char *string, int ptntype)
{
    return search_list(pTAZE, idx, as_bytes(string), ptntype, str_list_search);
}

TAZE_API int TAZE_PatternSearchPrefixList(TAZE *pTAZE, int idx, const char *string, int ptntype)
{
    return search_list(pTAZE, idx, as_bytes(string), ptntype, str_prefix_list_search);
}

TAZE_API int TAZE_PatternSearchSuffixList(TAZE *pTAZE, int idx, const char *string, int ptntype)
{
    return search_list(pTAZE, idx, as_bytes(string), ptntype, str_suffix_list_search);
}

TAZE_API int TAZE_PatternSearchSubstringList(TAZE *pTAZE, int idx, const char *string, int ptntype)
{
    return search_list(pTAZE, idx, as_bytes(string), ptntype, str_substring_list_search);
}

TAZE_API int TAZE_PatternSearchCaseList(TAZE *pTAZE, int idx, const char *string, int ptntype)
{
    return search_list(pTAZE, idx, as_bytes(string), ptntype, str_case_list_search);
}

/* The second kind has no case-sensitive prefix, suffix or substring lists:
 * it answers 0 there. */
TAZE_API int TAZE_PatternSearchPrefixCaseList(TAZE *pTAZE, int idx, const char *string, int ptntype)
{
    return search_list(pTAZE, idx, as_bytes(string), ptntype, str_prefix_case_list_search);
}

TAZE_API int TAZE_PatternSearchSuffixCaseList(TAZE *pTAZE, int idx, const char *string, int ptntype)
{
    return search_list(pTAZE, idx, as_bytes(string), ptntype, str_suffix_case_list_search);
}

TAZE_API int TAZE_PatternSearchSubstringCaseList(TAZE *pTAZE, int idx, const char *string, int ptntype)
{
    return search_list(pTAZE, idx, as_bytes(string), ptntype, str_substr_case_list_search);
}

TAZE_API int TAZE_PatternSearchIPRangeList(TAZE *pTAZE, int idx, unsigned int ip, int ptntype)
{
    return search_list(pTAZE, idx, ip, ptntype, ip_rng_list_search);
}

TAZE_API int TAZE_PatternSearchIPv6RangeList(TAZE *pTAZE, int idx, const uint8_t *ipv6, int ptntype)
{
    return search_list(pTAZE, idx, ipv6, ptntype, ipv6_rng_list_search, KeyRule::Required);
}

TAZE_API int TAZE_PatternSearchPortRangeList(TAZE *pTAZE, int idx, unsigned short port, int ptntype)
{
    return search_list(pTAZE, idx, port, ptntype, port_rng_list_search);
}

TAZE_API int TAZE_PatternGetStringList(TAZE *pTAZE, int idx, int ptntype, TAZE_StringList *list)
{
    taz_pattern_st *sp = nullptr;
    if (!list || idx < 0 || TAZE_PatternGetByType(pTAZE, ptntype, &sp) != 0) return PARA_ERR;
    const str_list_st *chosen = family_list<str_list_st>(sp, MT_STRING, static_cast<UINT32>(idx));
    if (!chosen) return PARA_ERR;
    const str_list_st &found = *chosen;
    list->nr_strings = found.nr_strings;
    list->strings = reinterpret_cast<TAZE_CountedString *>(found.strings);
    return 0;
}

/* ---- map list selectors ------------------------------------------------------------ */

int TAZE_PatternGetSIMapList(taz_pattern_st *ptn, int /*ptn_type*/, int map_type, int list_number, simap_list_st **list)
{
    return select_map_list(ptn, map_type, list_number, list);
}

int TAZE_PatternGetSIPv6MapList(taz_pattern_st *ptn, int /*ptn_type*/, int map_type, int list_number,
                                sipv6map_list_st **list)
{
    return select_map_list(ptn, map_type, list_number, list);
}

int TAZE_PatternGetISMapList(taz_pattern_st *ptn, int /*ptn_type*/, int map_type, int list_number, ismap_list_st **list)
{
    return select_map_list(ptn, map_type, list_number, list);
}

int TAZE_PatternGetSSMapList(taz_pattern_st *ptn, int /*ptn_type*/, int map_type, int list_number, ssmap_list_st **list)
{
    return select_map_list(ptn, map_type, list_number, list);
}

int TAZE_PatternGetIPv6IMapList(taz_pattern_st *ptn, int /*ptn_type*/, int list_number, ipv6imap_list_st **list)
{
    return select_map_list(ptn, kNoMapType, list_number, list);
}

int TAZE_PatternGetIIMapList(taz_pattern_st *ptn, int /*ptn_type*/, int list_number, iimap_list_st **list)
{
    return select_map_list(ptn, kNoMapType, list_number, list);
}

/* ---- maps -------------------------------------------------------------------------- */

TAZE_API int TAZE_PatternSearchSIMap(TAZE *pTAZE, int ptn_type, int map_type, int magic, const char * key, unsigned int value)
{
    return map_search<SIMap>(pTAZE, ptn_type, map_type, magic, key, value);
}

TAZE_API int TAZE_PatternGetSIMapByKey(TAZE *pTAZE, int ptn_type, int map_type, int magic, const char * key, SIMap::Result *result)
{
    return map_by_key<SIMap>(pTAZE, ptn_type, map_type, magic, key, result);
}

TAZE_API int TAZE_PatternGetSIMapCount(TAZE *pTAZE, int ptn_type, int map_type, int magic)
{
    return map_count<SIMap>(pTAZE, ptn_type, map_type, magic);
}

TAZE_API int TAZE_PatternGetSIMapByIndex(TAZE *pTAZE, int ptn_type, int map_type, int magic, int index, SIMap::Result *result)
{
    return map_by_index<SIMap>(pTAZE, ptn_type, map_type, magic, index, result);
}


TAZE_API int TAZE_PatternSearchSIPv6Map(TAZE *pTAZE, int ptn_type, int map_type, int magic, const char * key, const unsigned char * value)
{
    return map_search<SIPv6Map>(pTAZE, ptn_type, map_type, magic, key, value);
}

TAZE_API int TAZE_PatternGetSIPv6MapCount(TAZE *pTAZE, int ptn_type, int map_type, int magic)
{
    return map_count<SIPv6Map>(pTAZE, ptn_type, map_type, magic);
}

TAZE_API int TAZE_PatternGetSIPv6MapByIndex(TAZE *pTAZE, int ptn_type, int map_type, int magic, int index, SIPv6Map::Result *result)
{
    return map_by_index<SIPv6Map>(pTAZE, ptn_type, map_type, magic, index, result);
}


/* Deliberately searches nothing once the kind is chosen: string-to-IPv6
 * entries are read by index, and membership is asked with
 * TAZE_PatternSearchSIPv6Map. */
TAZE_API int TAZE_PatternGetSIPv6MapByKey(TAZE *pTAZE, int ptn_type, int /*map_type*/, int /*magic*/,
                                          const char * /*key*/, TAZE_StringIPv6Map *result)
{
    taz_pattern_st *ptn = nullptr;
    const int r = TAZE_PatternGetByType(pTAZE, ptn_type, &ptn);
    if (r != 0) return r;
    return result ? fill_result<SIPv6Map>(result, nullptr) : PARA_ERR;
}

TAZE_API int TAZE_PatternSearchIPv6IMap(TAZE *pTAZE, int ptn_type, int magic, const unsigned char *ipv6_key,
                                        unsigned int value)
{
    return map_search<IPv6IMap>(pTAZE, ptn_type, kNoMapType, magic, ipv6_key, value);
}

TAZE_API int TAZE_PatternGetIPv6IMapByKey(TAZE *pTAZE, int ptn_type, int magic, const unsigned char *ipv6_key,
                                          TAZE_IPv6IntMap *result)
{
    return map_by_key<IPv6IMap>(pTAZE, ptn_type, kNoMapType, magic, ipv6_key, result);
}

TAZE_API int TAZE_PatternGetIPv6IMapCount(TAZE *pTAZE, int ptn_type, int magic)
{
    return map_count<IPv6IMap>(pTAZE, ptn_type, kNoMapType, magic);
}

TAZE_API int TAZE_PatternGetIPv6IMapByIndex(TAZE *pTAZE, int ptn_type, int magic, int index,
                                            TAZE_IPv6IntMap *result)
{
    return map_by_index<IPv6IMap>(pTAZE, ptn_type, kNoMapType, magic, index, result);
}

/* The integer-to-integer functions that take a map type ignore it. */
TAZE_API int TAZE_PatternSearchIIMap(TAZE *pTAZE, int ptn_type, int magic, unsigned int key, unsigned int value)
{
    return map_search<IIMap>(pTAZE, ptn_type, kNoMapType, magic, key, value);
}
TAZE_API int TAZE_PatternGetIIMapByKey(TAZE *pTAZE, int ptn_type, int map_type, int magic, unsigned int key, IIMap::Result *result)
{
    return map_by_key<IIMap>(pTAZE, ptn_type, map_type, magic, key, result);
}

TAZE_API int TAZE_PatternGetIIMapCount(TAZE *pTAZE, int ptn_type, int map_type, int magic)
{
    return map_count<IIMap>(pTAZE, ptn_type, map_type, magic);
}

TAZE_API int TAZE_PatternGetIIMapByIndex(TAZE *pTAZE, int ptn_type, int map_type, int magic, int index, IIMap::Result *result)
{
    return map_by_index<IIMap>(pTAZE, ptn_type, map_type, magic, index, result);
}


TAZE_API int TAZE_PatternSearchISMap(TAZE *pTAZE, int ptn_type, int map_type, int magic, unsigned int key, const char * value)
{
    return map_search<ISMap>(pTAZE, ptn_type, map_type, magic, key, value);
}

TAZE_API int TAZE_PatternGetISMapByKey(TAZE *pTAZE, int ptn_type, int map_type, int magic, unsigned int key, ISMap::Result *result)
{
    return map_by_key<ISMap>(pTAZE, ptn_type, map_type, magic, key, result);
}

TAZE_API int TAZE_PatternGetISMapCount(TAZE *pTAZE, int ptn_type, int map_type, int magic)
{
    return map_count<ISMap>(pTAZE, ptn_type, map_type, magic);
}

TAZE_API int TAZE_PatternGetISMapByIndex(TAZE *pTAZE, int ptn_type, int map_type, int magic, int index, ISMap::Result *result)
{
    return map_by_index<ISMap>(pTAZE, ptn_type, map_type, magic, index, result);
}


TAZE_API int TAZE_PatternSearchSSMap(TAZE *pTAZE, int ptn_type, int map_type, int magic, const char * key, const char * value)
{
    return map_search<SSMap>(pTAZE, ptn_type, map_type, magic, key, value);
}

TAZE_API int TAZE_PatternGetSSMapByKey(TAZE *pTAZE, int ptn_type, int map_type, int magic, const char * key, SSMap::Result *result)
{
    return map_by_key<SSMap>(pTAZE, ptn_type, map_type, magic, key, result);
}

TAZE_API int TAZE_PatternGetSSMapCount(TAZE *pTAZE, int ptn_type, int map_type, int magic)
{
    return map_count<SSMap>(pTAZE, ptn_type, map_type, magic);
}

TAZE_API int TAZE_PatternGetSSMapByIndex(TAZE *pTAZE, int ptn_type, int map_type, int magic, int index, SSMap::Result *result)
{
    return map_by_index<SSMap>(pTAZE, ptn_type, map_type, magic, index, result);
}


} // extern "C"
