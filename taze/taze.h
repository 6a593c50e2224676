/* Internal helpers of the exported interface: choosing the pattern kind of a
 * handle and one map list of a pattern. Hidden from the shared object. */
#ifndef TAZE_TAZE_H
#define TAZE_TAZE_H

#include "tazapi.h"
#include "taze_ptn.h"
#include "vkc.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The image of kind ptn_type (PT_TAZ or PT_ULM), or null when the handle,
 * its loaded pattern, the kind or that image is missing. */
taz_pattern_st *TAZE_GetPatternByPatternType(TAZE *pTAZE, unsigned int ptn_type);

/* 0 and *ptn set, or PARA_ERR (null handle, nothing loaded, unknown kind,
 * or no image of that kind). */
int TAZE_PatternGetByType(TAZE *pTAZE, int ptn_type, taz_pattern_st **ptn);

/* Map list number `magic` of the array that map_type selects: 0 and *list
 * set, or PARA_ERR when magic is negative or not below that array's count.
 * ptn_type is not used. */
int TAZE_PatternGetSIMapList(taz_pattern_st *ptn, int ptn_type, int map_type, int magic,
                             simap_list_st **list);
int TAZE_PatternGetSIPv6MapList(taz_pattern_st *ptn, int ptn_type, int map_type, int magic,
                                sipv6map_list_st **list);
int TAZE_PatternGetISMapList(taz_pattern_st *ptn, int ptn_type, int map_type, int magic,
                             ismap_list_st **list);
int TAZE_PatternGetSSMapList(taz_pattern_st *ptn, int ptn_type, int map_type, int magic,
                             ssmap_list_st **list);
int TAZE_PatternGetIPv6IMapList(taz_pattern_st *ptn, int ptn_type, int magic, ipv6imap_list_st **list);
int TAZE_PatternGetIIMapList(taz_pattern_st *ptn, int ptn_type, int magic, iimap_list_st **list);

#ifdef __cplusplus
}
#endif

#endif /* TAZE_TAZE_H */
