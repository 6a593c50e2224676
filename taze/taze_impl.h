/* Section kinds of the payload and the loaders that build a pattern image. */
#ifndef TAZE_IMPL_H
#define TAZE_IMPL_H

#include "taze_ptn.h"

#define MAGIC_TAZE_PATTERN_STR                0x00525453u /* "STR\0" */
#define MAGIC_TAZE_PATTERN_STR_PREFIX         0x00455250u /* "PRE\0" */
#define MAGIC_TAZE_PATTERN_STR_SUFFIX         0x00465553u /* "SUF\0" */
#define MAGIC_TAZE_PATTERN_STR_SUBSTR         0x00425553u /* "SUB\0" */
#define MAGIC_TAZE_PATTERN_STR_CASE           0x45534143u /* "CASE" */
#define MAGIC_TAZE_PATTERN_STR_PREFIX_CASE    0x41435250u /* "PRCA" */
#define MAGIC_TAZE_PATTERN_STR_SUFFIX_CASE    0x41434653u /* "SFCA" */
#define MAGIC_TAZE_PATTERN_STR_SUBSTR_CASE    0x41435553u /* "SUCA" */
#define MAGIC_TAZE_PATTERN_IP                 0x00005049u /* "IP\0\0" */
#define MAGIC_TAZE_PATTERN_IPV6               0x36565049u /* "IPV6" */
#define MAGIC_TAZE_PATTERN_PORT               0x54524F50u /* "PORT" */
#define MAGIC_TAZE_PATTERN_STR_INT_MAP        0x004D4953u /* "SIM\0" */
#define MAGIC_TAZE_PATTERN_PREFIX_INT_MAP     0x004D4950u /* "PIM\0" */
#define MAGIC_TAZE_PATTERN_SUFFIX_INT_MAP     0x004D4958u /* "XIM\0" */
#define MAGIC_TAZE_PATTERN_SUBSTR_INT_MAP     0x004D4955u /* "UIM\0" */
#define MAGIC_TAZE_PATTERN_INT_INT_MAP        0x004D4949u /* "IIM\0" */
#define MAGIC_TAZE_PATTERN_INT_STR_MAP        0x004D5349u /* "ISM\0" */
#define MAGIC_TAZE_PATTERN_INT_PREFIX_MAP     0x004D5049u /* "IPM\0" */
#define MAGIC_TAZE_PATTERN_INT_SUFFIX_MAP     0x004D5849u /* "IXM\0" */
#define MAGIC_TAZE_PATTERN_INT_SUBSTR_MAP     0x004D5549u /* "IUM\0" */
#define MAGIC_TAZE_PATTERN_STR_STR_MAP        0x004D5353u /* "SSM\0" */
#define MAGIC_TAZE_PATTERN_STR_PREFIX_MAP     0x004D5053u /* "SPM\0" */
#define MAGIC_TAZE_PATTERN_STR_SUFFIX_MAP     0x004D5853u /* "SXM\0" */
#define MAGIC_TAZE_PATTERN_STR_SUBSTR_MAP     0x004D5553u /* "SUM\0" */
#define MAGIC_TAZE_PATTERN_PREFIX_STR_MAP     0x004D5350u /* "PSM\0" */
#define MAGIC_TAZE_PATTERN_PREFIX_PREFIX_MAP  0x004D5050u /* "PPM\0" */
#define MAGIC_TAZE_PATTERN_PREFIX_SUFFIX_MAP  0x004D5850u /* "PXM\0" */
#define MAGIC_TAZE_PATTERN_PREFIX_SUBSTR_MAP  0x004D5550u /* "PUM\0" */
#define MAGIC_TAZE_PATTERN_SUFFIX_STR_MAP     0x004D5358u /* "XSM\0" */
#define MAGIC_TAZE_PATTERN_SUFFIX_PREFIX_MAP  0x004D5058u /* "XPM\0" */
#define MAGIC_TAZE_PATTERN_SUFFIX_SUFFIX_MAP  0x004D5858u /* "XXM\0" */
#define MAGIC_TAZE_PATTERN_SUFFIX_SUBSTR_MAP  0x004D5558u /* "XUM\0" */
#define MAGIC_TAZE_PATTERN_SUBSTR_STR_MAP     0x004D5355u /* "USM\0" */
#define MAGIC_TAZE_PATTERN_SUBSTR_PREFIX_MAP  0x004D5055u /* "UPM\0" */
#define MAGIC_TAZE_PATTERN_SUBSTR_SUFFIX_MAP  0x004D5855u /* "UXM\0" */
#define MAGIC_TAZE_PATTERN_SUBSTR_SUBSTR_MAP  0x004D5555u /* "UUM\0" */
#define MAGIC_TAZE_PATTERN_STR_IPV6_MAP       0x4D364953u /* "SI6M" */
#define MAGIC_TAZE_PATTERN_PREFIX_IPV6_MAP    0x4D364950u /* "PI6M" */
#define MAGIC_TAZE_PATTERN_SUFFIX_IPV6_MAP    0x4D364958u /* "XI6M" */
#define MAGIC_TAZE_PATTERN_SUBSTR_IPV6_MAP    0x4D364955u /* "UI6M" */
#define MAGIC_TAZE_PATTERN_IPV6_INT_MAP       0x4D493649u /* "I6IM" */
#define MAGIC_TAZE_PATTERN_RULE_INFO          0x454C5552u /* "RULE" */
#define MAGIC_TAZE_PATTERN_CLEAN_INFO         0x004E4C43u /* "CLN\0" */
#define MAGIC_TAZE_PATTERN_PATTERN_INFO       0x004E5450u /* "PTN\0" */
#define MAGIC_TAZE_PATTERN_PROTOCOL_INFO      0x544F5250u /* "PROT" */
#define MAGIC_TAZE_PATTERN_SEVERITY_INFO      0x45564553u /* "SEVE" */
#define MAGIC_TAZE_THREAT_TYPE                0x54524854u /* "THRT" */
#define MAGIC_TAZE_PATTERN_ULM_INFO           0x004D4C55u /* "ULM\0" */
#define MAGIC_TAZE_PATTERN_COMPILER_VER       0x52504D43u /* "CMPR" */

/* Sub-list magics of the protocol and severity sections. */
#define MAGIC_TAZE_PROTOCOL_LIST              0x4C545250u /* "PRTL" */
#define MAGIC_TAZE_PROTOOCOL_GROUP_LIST       0x50475250u /* "PRGP" */
#define MAGIC_TAZE_SEVERITY_KNOWN             0x574E4B53u /* "SKNW" */
#define MAGIC_TAZE_SEVERITY_KNOWN_DEFAULT     0x444E4B53u /* "SKND" */
#define MAGIC_TAZE_SEVERITY_POTENT            0x544F5053u /* "SPOT" */
#define MAGIC_TAZE_SEVERITY_POTENT_DEFAULT    0x444F5053u /* "SPOD" */

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
 * (first argument, section body, section size, list count, list records
 * available) -> 0 or -1. Releasers free element arrays of records
 * 0..limit-1 and leave them empty. */
int taz_load_string_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
int taz_load_string_prefix_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
int taz_load_string_suffix_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
int taz_load_string_substring_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
int taz_load_string_case_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
int taz_load_string_prefix_case_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
int taz_load_string_suffix_case_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
int taz_load_string_substring_case_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
void taz_unload_string_ptns(taz_pattern_st *ptn, INT32 limit);
void taz_unload_string_prefix_ptns(taz_pattern_st *ptn, INT32 limit);
void taz_unload_string_suffix_ptns(taz_pattern_st *ptn, INT32 limit);
void taz_unload_string_substring_ptns(taz_pattern_st *ptn, INT32 limit);
void taz_unload_string_case_ptns(taz_pattern_st *ptn, INT32 limit);
void taz_unload_string_prefix_case_ptns(taz_pattern_st *ptn, INT32 limit);
void taz_unload_string_suffix_case_ptns(taz_pattern_st *ptn, INT32 limit);
void taz_unload_string_substring_case_ptns(taz_pattern_st *ptn, INT32 limit);

int taz_load_ip_range_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
int taz_load_ipv6_range_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
int taz_load_port_range_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
void taz_unload_ip_range_ptns(taz_pattern_st *ptn, INT32 limit);
void taz_unload_ipv6_range_ptns(taz_pattern_st *ptn, INT32 limit);
void taz_unload_port_range_ptns(taz_pattern_st *ptn, INT32 limit);

int taz_load_str_int_map_ptns(simap_list_st *plist, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
int taz_load_str_ipv6_map_ptns(sipv6map_list_st *plist, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
int taz_load_int_int_map_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
int taz_load_ipv6_int_map_ptns(taz_pattern_st *ptn, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
int taz_load_int_str_map_ptns(ismap_list_st *plist, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
int taz_load_str_str_map_ptns(ssmap_list_st *plist, const unsigned char *ptn_buf, UINT32 ptn_len, UINT32 count, INT32 limit);
void taz_unload_str_int_map_ptns(simap_list_st *plist, INT32 limit);
void taz_unload_str_ipv6_map_ptns(sipv6map_list_st *plist, INT32 limit);
void taz_unload_int_int_map_ptns(taz_pattern_st *ptn, INT32 limit);
void taz_unload_ipv6_int_map_ptns(taz_pattern_st *ptn, INT32 limit);
void taz_unload_int_str_map_ptns(ismap_list_st *plist, INT32 limit);
void taz_unload_str_str_map_ptns(ssmap_list_st *plist, INT32 limit);

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
