/* Section kinds of the payload and the loaders that build a pattern image. */
#ifndef TAZE_IMPL_H
#define TAZE_IMPL_H

#include "magics.h"
#include "taze_ptn.h"

/* Bytes of zero padding after the payload copy, so that every
 * NUL-terminated view of a stored string ends inside the copy. */
#define TAZ_PTN_PAD 16u

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Image build and release ------------------------------------------ */
taz_pattern_st *taz_load_pattern(const unsigned char *buf, UINT32 len);
void taz_unload_pattern(taz_pattern_st *ptn);
int taz_pattern_init(taz_pattern_st *ptn);
void taz_pattern_fini(taz_pattern_st *ptn);
UINT32 taz_get_max_list_count(const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count);
/* Makes the info section loaders on this thread charge their arrays to
 * *bytes_left (null: each section has a budget of its own) and returns the
 * previous setting; a section walk shares its budget this way. */
uint64_t *taz_share_budget(uint64_t *bytes_left);

taz_pattern_st *ulm_load_pattern(const unsigned char *buf, UINT32 len);
void ulm_unload_pattern(taz_pattern_st *ptn);

/* Like taz_load_pattern and ulm_load_pattern, but the image takes over
 * buf (malloc'ed, `capacity` bytes, the payload in its first len) as its
 * payload copy instead of copying it: the reader hands over a decrypted
 * body this way, so that a load never holds the payload twice. buf is
 * owned by the callee from the call on: kept by the image, or freed. */
taz_pattern_st *taz_adopt_pattern(unsigned char *buf, UINT32 len, size_t capacity);
taz_pattern_st *ulm_adopt_pattern(unsigned char *buf, UINT32 len, size_t capacity);

/* Asks the kernel to make the pages of bytes [p, p + n) of an allocation
 * present now, in one call, rather than one page fault at a time as they
 * are first written (a fault costs several microseconds in a virtual
 * machine). Only for allocations of 1 MiB and more; a hint that changes
 * nothing when the kernel refuses it. */
void taz_prefault(void *p, size_t n);
/* n zeroed elements of `size` bytes (room for one when n is 0, so that an
 * empty array is still a present array), made present; null on failure. */
void *taz_alloc_zeroed(uint64_t n, size_t size);
void ulm_pattern_init(taz_pattern_st *ptn);
void ulm_pattern_fini(taz_pattern_st *ptn);

/* ---- List, range and map families -------------------------------------
 * Loaded and released by the section walk of taze_impl.cpp: one row of its
 * dispatch table per family (families.h), all rows one list walk
 * parameterised by the family's record layout. */

/* ---- Info sections (rules, clean, protocols, severity, pattern info,
 * threat types, second-kind name) -> 0 or -1. Unloaders are harmless the
 * second time. */
int taz_load_rule_info_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count);
int taz_load_clean_info_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count);
int taz_load_protocol_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count);
int taz_load_severity_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count);
int taz_load_ptn_info_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count);
int taz_load_threat_type(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count);
int taz_load_ulm_info_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count);
void taz_unload_rule_info_ptns(taz_pattern_st *ptn);
void taz_unload_clean_info_ptns(taz_pattern_st *ptn);
void taz_unload_protocol_ptns(taz_pattern_st *ptn);
void taz_unload_severity_ptns(taz_pattern_st *ptn);
void taz_unload_threat_type(taz_pattern_st *ptn);

#ifdef __cplusplus
}
#endif

#endif /* TAZE_IMPL_H */
