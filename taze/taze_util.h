/* Element records of a pattern image and the list and map searches. */
#ifndef TAZE_UTIL_H
#define TAZE_UTIL_H

#include "linux_x64.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A byte string inside the image's payload copy; ptr[len] is a NUL. */
typedef struct counted_string_st {
    const unsigned char *ptr;
    UINT32 len;
} counted_string_t;

/* Eight string list kinds with one layout, kept as distinct types. */
#define TAZ_STR_LIST_RECORD(name) \
    typedef struct name {         \
        UINT32 nr_strings;        \
        counted_string_t *strings; \
    } name
TAZ_STR_LIST_RECORD(str_list_st);
TAZ_STR_LIST_RECORD(str_prefix_list_st);
TAZ_STR_LIST_RECORD(str_suffix_list_st);
TAZ_STR_LIST_RECORD(str_substring_list_st);
TAZ_STR_LIST_RECORD(str_case_list_st);
TAZ_STR_LIST_RECORD(str_prefix_case_list_st);
TAZ_STR_LIST_RECORD(str_suffix_case_list_st);
TAZ_STR_LIST_RECORD(str_substr_case_list_st);
#undef TAZ_STR_LIST_RECORD

typedef struct ip_rng_st {
    UINT32 ip_l;
    UINT32 ip_h;
} ip_rng_st;
typedef struct ip_rng_list_st {
    UINT32 nr_ip_ranges;
    ip_rng_st *ip_ranges;
} ip_rng_list_st;

typedef struct ipv6_st {
    UINT8 bytes[16];
} ipv6_st;
typedef struct ipv6_rng_st {
    ipv6_st ipv6_l;
    ipv6_st ipv6_h;
} ipv6_rng_st;
typedef struct ipv6_rng_list_st {
    UINT32 nr_ipv6_ranges;
    ipv6_rng_st *ipv6_ranges;
} ipv6_rng_list_st;

typedef struct port_rng_st {
    UINT16 port_l;
    UINT16 port_h;
} port_rng_st;
typedef struct port_rng_list_st {
    UINT32 nr_port_ranges;
    port_rng_st *port_ranges;
} port_rng_list_st;

typedef struct simap_st {
    counted_string_t string;
    UINT32 nr_ints;
    UINT32 *ints;
} simap_st;
typedef struct simap_list_st {
    UINT32 nr_str_int_maps;
    simap_st *str_int_maps;
} simap_list_st;

typedef struct sipv6map_st {
    counted_string_t string;
    UINT32 nr_ipv6s;
    ipv6_st *ipv6s;
} sipv6map_st;
typedef struct sipv6map_list_st {
    UINT32 nr_str_ipv6_maps;
    sipv6map_st *str_ipv6_maps;
} sipv6map_list_st;

typedef struct ipv6imap_st {
    ipv6_st ipv6;
    UINT32 nr_ints;
    UINT32 *ints;
} ipv6imap_st;
typedef struct ipv6imap_list_st {
    UINT32 nr_ipv6_int_maps;
    ipv6imap_st *ipv6_int_maps;
} ipv6imap_list_st;

typedef struct iimap_st {
    UINT32 key;
    UINT32 nr_ints;
    UINT32 *ints;
} iimap_st;
typedef struct iimap_list_st {
    UINT32 nr_int_int_maps;
    iimap_st *int_int_maps;
} iimap_list_st;

typedef struct ismap_st {
    UINT32 key;
    UINT32 nr_strings;
    counted_string_t *strs;
} ismap_st;
typedef struct ismap_list_st {
    UINT32 nr_int_str_maps;
    ismap_st *int_str_maps;
} ismap_list_st;

typedef struct ssmap_st {
    counted_string_t string;
    UINT32 nr_strings;
    counted_string_t *strs;
} ssmap_st;
typedef struct ssmap_list_st {
    UINT32 nr_str_str_maps;
    ssmap_st *str_str_maps;
} ssmap_list_st;

struct taz_rule_info_st;
struct taz_rule_info_list_st;

/* ASCII-only folding, independent of the locale. */
unsigned char taz_tolower(unsigned char c);

/* Comparators (key first, element second) and substring searches. Exposed
 * for the test-suite and the reference benchmarks; hosts use the API. */
int str_compare(const void *key, const void *elem);
int str_case_compare(const void *key, const void *elem);
int str_compare_prefix(const void *key, const void *elem);
int str_compare_case_prefix(const void *key, const void *elem);
int str_compare_reverse_prefix(const void *key, const void *elem);
int str_compare_reverse_case_prefix(const void *key, const void *elem);
int strncasecmp_reverse(const counted_string_t *s1, const counted_string_t *s2, UINT32 n);
int strncmp_reverse(const counted_string_t *s1, const counted_string_t *s2, UINT32 n);
const unsigned char *str_case_str(const counted_string_t *haystack, const counted_string_t *needle);
const unsigned char *str_str(const counted_string_t *haystack, const counted_string_t *needle);
int ip_rng_compare_single(const void *key, const void *elem);
int port_rng_compare_single(const void *key, const void *elem);
int ipv6_rng_compare_single(const void *key, const void *elem);
int ipv6imap_compare_key(const void *key, const void *elem);
int iimap_compare_key(const void *key, const void *elem);
int ismap_compare_key(const void *key, const void *elem);
int rule_info_cmp(const void *key, const void *elem);

/* String and range list searches: 1 match, 0 no match (also for null). */
int str_list_search(const unsigned char *string, const str_list_st *list);
int str_prefix_list_search(const unsigned char *string, const str_prefix_list_st *list);
int str_suffix_list_search(const unsigned char *string, const str_suffix_list_st *list);
int str_substring_list_search(const unsigned char *string, const str_substring_list_st *list);
int str_case_list_search(const unsigned char *string, const str_case_list_st *list);
int str_prefix_case_list_search(const unsigned char *string, const str_prefix_case_list_st *list);
int str_suffix_case_list_search(const unsigned char *string, const str_suffix_case_list_st *list);
int str_substr_case_list_search(const unsigned char *string, const str_substr_case_list_st *list);
int ip_rng_list_search(unsigned int ip, const ip_rng_list_st *list);
int ipv6_rng_list_search(const unsigned char *ipv6, const ipv6_rng_list_st *list);
int port_rng_list_search(unsigned short port, const port_rng_list_st *list);

/* Map searches. By key: 1 and *result, -1 not found or map type refused,
 * 0 null argument. By key and value: see the public header. */
int simap_list_search_by_key(const unsigned char *key, const simap_list_st *list, int map_type,
                             const simap_st **result);
int simap_list_search(const unsigned char *key, unsigned int value, const simap_list_st *list,
                      int map_type);
int sipv6map_list_search_by_key(const unsigned char *key, const sipv6map_list_st *list, int map_type,
                                const sipv6map_st **result);
int sipv6map_list_search(const unsigned char *key, const unsigned char *ipv6_value,
                         const sipv6map_list_st *list, int map_type);
int ipv6imap_list_search_by_key(const unsigned char *ipv6_key, const ipv6imap_list_st *list,
                                const ipv6imap_st **result);
int ipv6imap_list_search(const unsigned char *ipv6_key, unsigned int value, const ipv6imap_list_st *list);
int iimap_list_search_by_key(unsigned int key, const iimap_list_st *list, const iimap_st **result);
int iimap_list_search(unsigned int key, unsigned int value, const iimap_list_st *list);
int ismap_list_search_by_key(unsigned int key, const ismap_list_st *list, int map_type,
                             const ismap_st **result);
int ismap_list_search(unsigned int key, const unsigned char *value, const ismap_list_st *list,
                      int map_type);
int ssmap_list_search_by_key(const unsigned char *key, const ssmap_list_st *list, int map_type,
                             const ssmap_st **result);
int ssmap_list_search(const unsigned char *key, const unsigned char *value, const ssmap_list_st *list,
                      int map_type);

/* Rule information: sort once after loading, then bisect by rule id. */
void rule_info_list_init(struct taz_rule_info_list_st *list);
const struct taz_rule_info_st *rule_info_list_search(unsigned int rule_id,
                                                     const struct taz_rule_info_list_st *list);

#ifdef __cplusplus
}
#endif

#endif /* TAZE_UTIL_H */
