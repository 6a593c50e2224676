/* The pattern image: one loaded pattern kind held as read-only tables. */
#ifndef TAZE_PTN_H
#define TAZE_PTN_H

#include "linux_x64.h"
#include "taze_util.h"
#include "families.h"

#ifdef __cplusplus
extern "C" {
#endif

/* 16-byte section header of the payload's section stream (little-endian). */
typedef struct taz_section_hdr_st {
    UINT32 magic;
    UINT32 crc;
    UINT32 size;
    UINT32 count;
} taz_section_hdr_st;

/* 12-byte list header at the start of every list inside a section. */
typedef struct taz_pattern_hdr_st {
    UINT32 magic;
    UINT32 size;
    UINT32 count;
} taz_pattern_hdr_st;

/* Direction codes of clean entries and the risk tables. */
enum taz_direction_e { TAZ_DIR_ANY = 1, TAZ_DIR_INBOUND = 2, TAZ_DIR_OUTBOUND = 3 };

typedef struct taz_clean_info_st {
    port_rng_st protocol;
    UINT32 priority;
    UINT32 direction;
    UINT32 target;
    const unsigned char *src_ptn;
    const unsigned char *dst_ptn;
} taz_clean_info_st;

typedef struct taz_clean_info_list_st {
    UINT32 nr_clean_infos;
    taz_clean_info_st *clean_infos;
} taz_clean_info_list_st;

typedef struct taz_rule_info_st {
    UINT32 rule_id;
    UINT32 confidence_level;
    const unsigned char *risk_type;
    UINT32 risk_type_group;
    UINT32 enable;
    const unsigned char *description;
    taz_clean_info_st clean_info;
} taz_rule_info_st;

typedef struct taz_rule_info_list_st {
    UINT32 nr_rule_infos;
    taz_rule_info_st *rule_infos;
} taz_rule_info_list_st;

typedef struct taz_protocol_info_st {
    UINT32 id;
    const unsigned char *desc;
    UINT32 group_idx;
} taz_protocol_info_st;

typedef struct taz_protocol_group_info_st {
    UINT32 id;
    const unsigned char *desc;
    UINT32 nr_protocol_idxs;
    UINT32 *protocol_idx;
} taz_protocol_group_info_st;

typedef struct taz_protocol_info_list_st {
    UINT32 nr_prot_infos;
    taz_protocol_info_st *prot_infos;
    UINT32 nr_prog_infos;
    taz_protocol_group_info_st *prog_infos;
} taz_protocol_info_list_st;

typedef struct taz_risk_info_st {
    UINT32 direction;
    UINT32 severity;
    UINT32 policy_id;
} taz_risk_info_st;

typedef struct taz_known_risk_info_st {
    taz_risk_info_st info;
    port_rng_list_st protocol_ranges;
} taz_known_risk_info_st;

typedef struct taz_potential_risk_info_st {
    UINT32 rule_id;
    UINT32 nr_risk_infos;
    taz_known_risk_info_st *risk_infos;
} taz_potential_risk_info_st;

typedef struct taz_severity_info_list_st {
    UINT32 nr_known_infos;
    taz_known_risk_info_st *known_infos;
    taz_risk_info_st known_inbound_info;
    taz_risk_info_st known_outbound_info;
    UINT32 nr_potential_infos;
    taz_potential_risk_info_st *potential_infos;
    taz_risk_info_st potential_inbound_info;
    taz_risk_info_st potential_outbound_info;
} taz_severity_info_list_st;

typedef struct taz_ulm_info_st {
    const unsigned char *malname;
} taz_ulm_info_st;

typedef struct taz_threat_type_info_st {
    UINT32 rule_id;
    UINT32 threat_type;
} taz_threat_type_info_st;

typedef struct taz_threat_type_info_list_st {
    UINT32 nr_threat_type_infos;
    taz_threat_type_info_st *threat_type_infos;
} taz_threat_type_info_list_st;

#ifndef TAZE_PATTERN_ST_DECLARED
#define TAZE_PATTERN_ST_DECLARED
typedef struct taz_pattern_st taz_pattern_st;
#endif

/* Each list, range and map family is a list array, its count (one past the
 * highest list number) and where its records stand (families.h), in table
 * order. */
#define TAZ_IMAGE_FIELDS(field, count, record, ...) record *field; UINT32 count; taz_list_numbers_st field##_numbers;

struct taz_pattern_st {
    TAZ_FAMILIES(TAZ_IMAGE_FIELDS)
    taz_rule_info_list_st rule_info_list;
    taz_clean_info_list_st clean_info_list;
    taz_protocol_info_list_st protocol_info;
    taz_severity_info_list_st severity_info;
    taz_ulm_info_st ulm_info;
    taz_threat_type_info_list_st threat_type_info;
    UINT32 taz_ptn_compiler_version;
    unsigned char *ptn_buf; /* private, zero-padded copy of the payload */
    UINT32 ptn_len;         /* payload bytes, without the padding */
    void *fast;             /* load-time acceleration indexes, or null */
    unsigned long long index_bytes; /* what its indexes may allocate (set by the load) */
};
#undef TAZ_IMAGE_FIELDS

/* ---- Rule, clean, protocol, risk and threat lookups ------------------- */
UINT32 taz_rule_count(const taz_pattern_st *sp);
UINT32 taz_rule_index_rule_id(const taz_pattern_st *sp, UINT32 index);
const unsigned char *taz_rule_index_desc(const taz_pattern_st *sp, UINT32 index);
const unsigned char *taz_rule_index_risk_type(const taz_pattern_st *sp, UINT32 index);
UINT32 taz_rule_index_risk_type_group(const taz_pattern_st *sp, UINT32 index);
UINT32 taz_rule_index_confidence_level(const taz_pattern_st *sp, UINT32 index);
UINT32 taz_rule_index_enable(const taz_pattern_st *sp, UINT32 index);

const taz_rule_info_st *taz_rule_info_get(const taz_pattern_st *sp, UINT32 rule_id);
const unsigned char *taz_rule_id_description(const taz_pattern_st *sp, UINT32 rule_id);
const unsigned char *taz_rule_id_risk_type(const taz_pattern_st *sp, UINT32 rule_id);
UINT32 taz_rule_id_risk_type_group(const taz_pattern_st *sp, UINT32 rule_id);
UINT32 taz_rule_id_confidence_level(const taz_pattern_st *sp, UINT32 rule_id);

int taz_rule_id_check_clean(const taz_pattern_st *sp, UINT32 rule_id, UINT32 protocol,
                            UINT32 direction, UINT32 *target);
int taz_rule_id_get_clean(const taz_pattern_st *sp, UINT32 rule_id, UINT32 *priority,
                          const unsigned char **src_ptn, const unsigned char **dst_ptn);
int taz_clean_info_check_clean(const taz_pattern_st *sp, UINT32 protocol, UINT32 direction,
                               UINT32 *target);
int taz_clean_info_get_clean(const taz_pattern_st *sp, UINT32 protocol, UINT32 *priority,
                             const unsigned char **src_ptn, const unsigned char **dst_ptn);

UINT32 taz_protocol_count(const taz_pattern_st *sp);
UINT32 taz_protocol_group_count(const taz_pattern_st *sp);
UINT32 taz_protocol_index_id(const taz_pattern_st *sp, UINT32 index);
const unsigned char *taz_protocol_index_desc(const taz_pattern_st *sp, UINT32 index);
UINT32 taz_protocol_index_group_id(const taz_pattern_st *sp, UINT32 index);
UINT32 taz_protocol_group_index_id(const taz_pattern_st *sp, UINT32 group_index);
const unsigned char *taz_protocol_group_index_desc(const taz_pattern_st *sp, UINT32 group_index);
UINT32 taz_protocol_group_index_protocol_count(const taz_pattern_st *sp, UINT32 group_index);
UINT32 taz_protocol_group_index_protocol_index(const taz_pattern_st *sp, UINT32 group_index,
                                               UINT32 protocol_index);
const unsigned char *taz_protocol_id_desc(const taz_pattern_st *sp, UINT32 protocol_id);
UINT32 taz_protocol_id_group_id(const taz_pattern_st *sp, UINT32 protocol_id);
const unsigned char *taz_protocol_group_id_desc(const taz_pattern_st *sp, UINT32 group_id);
UINT32 taz_protocol_group_id_protocol_count(const taz_pattern_st *sp, UINT32 group_id);
UINT32 taz_protocol_group_id_protocol_index_id(const taz_pattern_st *sp, UINT32 group_id,
                                               UINT32 protocol_index);

int taz_known_risk_get_info(const taz_pattern_st *sp, UINT32 direction, UINT32 protocol,
                            UINT32 *policy_id, UINT32 *severity);
int taz_potential_risk_get_info(const taz_pattern_st *sp, UINT32 rule_id, UINT32 direction,
                                UINT32 protocol, UINT32 *policy_id, UINT32 *severity);
UINT32 taz_threat_type_get(const taz_pattern_st *sp, UINT32 rule_id);
const unsigned char *taz_ulm_get_info(const taz_pattern_st *sp);

#ifdef __cplusplus
}
#endif

#endif /* TAZE_PTN_H */
