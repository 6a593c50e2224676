/* A battery of queries over every list, map and table of a pattern image.
 *
 * Keys come from the image itself (stored strings, their tails, range
 * bounds and their neighbours, map keys and values, rule, protocol and
 * group ids) and from the fuzz input (a string, an integer and an IPv6
 * address). Every search and lookup of taze_util.h and taze_ptn.h runs on
 * them; answers are folded into a sink so that nothing is optimised away,
 * and every returned string is measured so that the sanitizers check that it
 * ends inside the image. The number of lists and entries probed is capped
 * so that one input stays fast. */
#ifndef TAZE_FUZZ_BATTERY_H
#define TAZE_FUZZ_BATTERY_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "tazapi.h"
#include "taze_impl.h"
#include "taze_ptn.h"
#include "taze_util.h"
#include "vkc.h"

namespace tazf {

constexpr UINT32 kMaxLists = 8;
constexpr UINT32 kMaxEntries = 16;
constexpr UINT32 kMaxRecords = 32;

/* Keys taken from the fuzz input. */
struct Probe {
    std::string text;      /* a NUL-terminated key */
    UINT32 number = 0;     /* an integer key, rule id or protocol */
    unsigned char ipv6[16] = {};

    Probe(const std::uint8_t *data, std::size_t size)
    {
        const std::size_t n = std::min<std::size_t>(size, 24);
        text.assign(reinterpret_cast<const char *>(data + size - n), n);
        for (std::size_t i = 0; i < 4 && i < size; ++i) number |= UINT32(data[i]) << (8 * i);
        std::memcpy(ipv6, data, std::min<std::size_t>(size, sizeof ipv6));
    }
    const unsigned char *key() const { return reinterpret_cast<const unsigned char *>(text.c_str()); }
};

class Battery {
public:
    explicit Battery(const Probe &p) : p_(p) {}
    std::uint64_t sink() const { return sink_; }

    void run(const taz_pattern_st *img)
    {
        string_lists(img);
        ranges(img);
        maps(img);
        rules(img);
        protocols(img);
        risks(img);
        take(img->taz_ptn_compiler_version);
        take(taz_ulm_get_info(img));
    }

private:
    void take(std::uint64_t v) { sink_ = sink_ * 31 + v; }
    void take(const unsigned char *s) { take(s ? std::strlen(reinterpret_cast<const char *>(s)) + 1 : 0); }
    template <typename A, typename B, typename... More>
    void take(A a, B b, More... more) /* in argument order */
    {
        take(a);
        take(b, more...);
    }

    /* ---- string lists -------------------------------------------------------- */
    template <typename L>
    void string_family(const L *lists, UINT32 count, int (*search)(const unsigned char *, const L *))
    {
        take(search(p_.key(), nullptr));
        for (UINT32 i = 0; lists && i < std::min(count, kMaxLists); ++i) {
            const L &l = lists[i];
            take(search(p_.key(), &l));
            for (UINT32 j = 0; l.strings && j < std::min(l.nr_strings, kMaxEntries); ++j) {
                const counted_string_t &s = l.strings[j];
                take(search(s.ptr, &l));
                take(s.ptr);
                if (s.len > 1) take(search(s.ptr + s.len - 1, &l));
            }
        }
    }

    void string_lists(const taz_pattern_st *img)
    {
        string_family(img->string_lists, img->max_string_list_count, str_list_search);
        string_family(img->string_prefix_lists, img->max_string_prefix_list_count, str_prefix_list_search);
        string_family(img->string_suffix_lists, img->max_string_suffix_list_count, str_suffix_list_search);
        string_family(img->string_substring_lists, img->max_string_substring_list_count,
                      str_substring_list_search);
        string_family(img->string_case_lists, img->max_string_case_list_count, str_case_list_search);
        string_family(img->string_prefix_case_lists, img->max_string_prefix_case_list_count,
                      str_prefix_case_list_search);
        string_family(img->string_suffix_case_lists, img->max_string_suffix_case_list_count,
                      str_suffix_case_list_search);
        string_family(img->string_substr_case_lists, img->max_string_substr_case_list_count,
                      str_substr_case_list_search);
    }

    /* ---- ranges: each bound, its neighbours and the input's value ------------- */
    static UINT32 next(UINT32 v, int d) { return UINT32(v + UINT32(d)); }
    static unsigned short next(unsigned short v, int d) { return static_cast<unsigned short>(v + d); }
    static ipv6_st next(ipv6_st v, int d)
    {
        v.bytes[15] = static_cast<UINT8>(v.bytes[15] + d);
        return v;
    }

    template <typename L, typename R, typename V, typename Search>
    void range_family(const L *lists, UINT32 count, UINT32 L::*nr, R *L::*arr, V R::*lo, V R::*hi, V input,
                      Search search)
    {
        take(search(input, nullptr));
        for (UINT32 i = 0; lists && i < std::min(count, kMaxLists); ++i) {
            const L &l = lists[i];
            take(search(input, &l));
            for (UINT32 j = 0; l.*arr && j < std::min(l.*nr, kMaxEntries); ++j)
                for (V bound : {(l.*arr)[j].*lo, (l.*arr)[j].*hi})
                    for (int d : {-1, 0, 1}) take(search(next(bound, d), &l));
        }
    }

    void ranges(const taz_pattern_st *img)
    {
        range_family(img->ip_range_lists, img->max_ip_range_list_count, &ip_rng_list_st::nr_ip_ranges,
                     &ip_rng_list_st::ip_ranges, &ip_rng_st::ip_l, &ip_rng_st::ip_h, p_.number,
                     [](UINT32 v, const ip_rng_list_st *l) { return ip_rng_list_search(v, l); });
        range_family(img->port_range_lists, img->max_port_range_list_count, &port_rng_list_st::nr_port_ranges,
                     &port_rng_list_st::port_ranges, &port_rng_st::port_l, &port_rng_st::port_h,
                     static_cast<unsigned short>(p_.number),
                     [](unsigned short v, const port_rng_list_st *l) { return port_rng_list_search(v, l); });
        ipv6_st input;
        std::memcpy(input.bytes, p_.ipv6, sizeof input.bytes);
        range_family(img->ipv6_range_lists, img->max_ipv6_range_list_count, &ipv6_rng_list_st::nr_ipv6_ranges,
                     &ipv6_rng_list_st::ipv6_ranges, &ipv6_rng_st::ipv6_l, &ipv6_rng_st::ipv6_h, input,
                     [](ipv6_st v, const ipv6_rng_list_st *l) { return ipv6_rng_list_search(v.bytes, l); });
    }

    /* ---- maps -----------------------------------------------------------------
     * Keys and values of the stored entries and of the input, with the map
     * type that selects the array and with one type no array answers to. */
    static const unsigned char *key_of(const counted_string_t &s) { return s.ptr; }
    static UINT32 key_of(UINT32 k) { return k; }
    static const unsigned char *key_of(const ipv6_st &k) { return k.bytes; }
    static const unsigned char *value_of(const counted_string_t &s) { return s.ptr; }
    static UINT32 value_of(UINT32 v) { return v; }
    static const unsigned char *value_of(const ipv6_st &v) { return v.bytes; }
    void take_entry(const counted_string_t &s) { take(s.ptr); }
    void take_entry(UINT32 v) { take(v); }
    void take_entry(const ipv6_st &v) { take(v.bytes[0]); }

    /* One map list array: ByKey(key, list, type, &entry) and
     * Search(key, value, list, type), with the family's key and value kinds. */
    template <typename L, typename E, typename K, typename V, typename ByKey, typename Search>
    void map_family(const L *lists, UINT32 count, int map_type, UINT32 L::*nr, E *L::*arr, K E::*key,
                    UINT32 E::*nv, V *E::*values, decltype(key_of(K{})) input_key,
                    decltype(value_of(V{})) input_value, ByKey by_key, Search search)
    {
        for (int type : {map_type, 0x7F}) {
            const E *found = nullptr;
            take(by_key(input_key, nullptr, type, &found));
            for (UINT32 i = 0; lists && i < std::min(count, kMaxLists); ++i) {
                const L &l = lists[i];
                take(by_key(input_key, &l, type, &found));
                take(search(input_key, input_value, &l, type));
                for (UINT32 j = 0; l.*arr && j < std::min(l.*nr, kMaxEntries); ++j) {
                    const E &e = (l.*arr)[j];
                    if (by_key(key_of(e.*key), &l, type, &found) == 1 && found) {
                        take_entry(found->*key);
                        for (UINT32 k = 0; found->*values && k < std::min(found->*nv, kMaxEntries); ++k)
                            take_entry((found->*values)[k]);
                    }
                    take(search(key_of(e.*key), input_value, &l, type));
                    if (e.*values && e.*nv != 0) {
                        take(search(key_of(e.*key), value_of((e.*values)[0]), &l, type));
                        take(search(input_key, value_of((e.*values)[e.*nv - 1]), &l, type));
                    }
                }
            }
        }
    }

    template <typename L>
    struct MapArray {
        L *taz_pattern_st::*lists;
        UINT32 taz_pattern_st::*count;
        int type; /* the map type that selects the array */
    };

    /* Every array of a family, each with the rest of map_family's arguments. */
    template <typename L, std::size_t N, typename... Rest>
    void map_arrays(const taz_pattern_st *img, const MapArray<L> (&arrays)[N], Rest... rest)
    {
        for (const MapArray<L> &a : arrays) map_family(img->*a.lists, img->*a.count, a.type, rest...);
    }

#define TAZF_ARRAY(name, type) {&taz_pattern_st::name##_lists, &taz_pattern_st::max_##name##_list_count, type}
/* The four arrays of a family keyed (or valued) by strings on one side. */
#define TAZF_ONE_SIDED(L, name, exact, prefix, suffix, substr)                                          \
    static constexpr MapArray<L> name[] = {TAZF_ARRAY(exact, MT_STRING), TAZF_ARRAY(prefix, MT_PREFIX), \
                                           TAZF_ARRAY(suffix, MT_SUFFIX), TAZF_ARRAY(substr, MT_SUBSTR)}
#define TAZF_KEY_RULE(key, rule)                                                                       \
    TAZF_ARRAY(key##_str_map, rule << 8 | 0), TAZF_ARRAY(key##_prefix_map, rule << 8 | 1),             \
        TAZF_ARRAY(key##_suffix_map, rule << 8 | 2), TAZF_ARRAY(key##_substr_map, rule << 8 | 3)
    void maps(const taz_pattern_st *img)
    {
        const unsigned char *k = p_.key();
        const unsigned char *v6 = p_.ipv6;
        const UINT32 n = p_.number;
        TAZF_ONE_SIDED(simap_list_st, kStrInt, str_int_map, prefix_int_map, suffix_int_map, substr_int_map);
        TAZF_ONE_SIDED(sipv6map_list_st, kStrIpv6, string_ipv6_map, prefix_ipv6_map, suffix_ipv6_map, substr_ipv6_map);
        TAZF_ONE_SIDED(ismap_list_st, kIntStr, int_str_map, int_prefix_map, int_suffix_map, int_substr_map);
        static constexpr MapArray<ssmap_list_st> kStrStr[] = {TAZF_KEY_RULE(str, 0), TAZF_KEY_RULE(prefix, 1),
                                                              TAZF_KEY_RULE(suffix, 2), TAZF_KEY_RULE(substr, 3)};
        static constexpr MapArray<iimap_list_st> kIntInt[] = {TAZF_ARRAY(int_int_map, MT_STRING)};
        static constexpr MapArray<ipv6imap_list_st> kIpv6Int[] = {TAZF_ARRAY(ipv6_int_map, MT_STRING)};

        map_arrays(img, kStrInt, &simap_list_st::nr_str_int_maps, &simap_list_st::str_int_maps, &simap_st::string,
                   &simap_st::nr_ints, &simap_st::ints, k, n, simap_list_search_by_key, simap_list_search);
        map_arrays(img, kStrIpv6, &sipv6map_list_st::nr_str_ipv6_maps, &sipv6map_list_st::str_ipv6_maps,
                   &sipv6map_st::string, &sipv6map_st::nr_ipv6s, &sipv6map_st::ipv6s, k, v6,
                   sipv6map_list_search_by_key, sipv6map_list_search);
        map_arrays(img, kIntStr, &ismap_list_st::nr_int_str_maps, &ismap_list_st::int_str_maps, &ismap_st::key,
                   &ismap_st::nr_strings, &ismap_st::strs, n, k, ismap_list_search_by_key, ismap_list_search);
        map_arrays(img, kStrStr, &ssmap_list_st::nr_str_str_maps, &ssmap_list_st::str_str_maps, &ssmap_st::string,
                   &ssmap_st::nr_strings, &ssmap_st::strs, k, k, ssmap_list_search_by_key, ssmap_list_search);
        /* The integer-to-integer and IPv6-to-integer searches take no map type. */
        map_arrays(
            img, kIntInt, &iimap_list_st::nr_int_int_maps, &iimap_list_st::int_int_maps, &iimap_st::key,
            &iimap_st::nr_ints, &iimap_st::ints, n, n,
            [](UINT32 key, const iimap_list_st *l, int, const iimap_st **r) { return iimap_list_search_by_key(key, l, r); },
            [](UINT32 key, UINT32 value, const iimap_list_st *l, int) { return iimap_list_search(key, value, l); });
        map_arrays(
            img, kIpv6Int, &ipv6imap_list_st::nr_ipv6_int_maps, &ipv6imap_list_st::ipv6_int_maps, &ipv6imap_st::ipv6,
            &ipv6imap_st::nr_ints, &ipv6imap_st::ints, v6, n,
            [](const unsigned char *key, const ipv6imap_list_st *l, int, const ipv6imap_st **r) {
                return ipv6imap_list_search_by_key(key, l, r);
            },
            [](const unsigned char *key, UINT32 value, const ipv6imap_list_st *l, int) {
                return ipv6imap_list_search(key, value, l);
            });
    }
#undef TAZF_KEY_RULE
#undef TAZF_ONE_SIDED
#undef TAZF_ARRAY

    /* ---- rules and clean-up ------------------------------------------------------ */
    void rule_id(const taz_pattern_st *img, UINT32 id)
    {
        take(taz_rule_id_description(img, id), taz_rule_id_risk_type(img, id), taz_rule_id_risk_type_group(img, id),
             taz_rule_id_confidence_level(img, id), taz_threat_type_get(img, id));
        UINT32 target = 0, priority = 0;
        const unsigned char *src = nullptr, *dst = nullptr;
        for (UINT32 protocol : {0u, 6u, 17u, p_.number & 0xFFFFu})
            for (UINT32 direction : {1u, 2u, 3u}) take(taz_rule_id_check_clean(img, id, protocol, direction, &target));
        if (taz_rule_id_get_clean(img, id, &priority, &src, &dst) == 0) take(src, dst);
    }

    void rules(const taz_pattern_st *img)
    {
        const UINT32 count = taz_rule_count(img);
        for (UINT32 i = 0; i <= std::min(count, kMaxRecords); ++i) {
            take(taz_rule_index_desc(img, i), taz_rule_index_risk_type(img, i), taz_rule_index_risk_type_group(img, i),
                 taz_rule_index_confidence_level(img, i), taz_rule_index_enable(img, i));
            rule_id(img, taz_rule_index_rule_id(img, i));
        }
        rule_id(img, p_.number);
        const taz_threat_type_info_list_st &tt = img->threat_type_info;
        for (UINT32 i = 0; tt.threat_type_infos && i < std::min(tt.nr_threat_type_infos, kMaxRecords); ++i)
            take(taz_threat_type_get(img, tt.threat_type_infos[i].rule_id));
        const taz_clean_info_list_st &cl = img->clean_info_list;
        for (UINT32 i = 0; cl.clean_infos && i <= std::min(cl.nr_clean_infos, kMaxRecords); ++i) {
            const UINT32 protocol = i < cl.nr_clean_infos ? cl.clean_infos[i].protocol.port_l : p_.number;
            UINT32 target = 0, priority = 0;
            const unsigned char *src = nullptr, *dst = nullptr;
            for (UINT32 direction : {1u, 2u, 3u}) take(taz_clean_info_check_clean(img, protocol, direction, &target));
            if (taz_clean_info_get_clean(img, protocol, &priority, &src, &dst) == 0) take(src, dst);
        }
    }

    /* ---- protocols and groups -------------------------------------------------------- */
    void protocols(const taz_pattern_st *img)
    {
        const UINT32 np = taz_protocol_count(img), ng = taz_protocol_group_count(img);
        for (UINT32 i = 0; i <= std::min(np, kMaxRecords); ++i) {
            const UINT32 id = taz_protocol_index_id(img, i);
            take(taz_protocol_index_desc(img, i), taz_protocol_index_group_id(img, i), taz_protocol_id_desc(img, id),
                 taz_protocol_id_group_id(img, id));
        }
        for (UINT32 g = 0; g <= std::min(ng, kMaxRecords); ++g) {
            const UINT32 id = taz_protocol_group_index_id(img, g);
            take(taz_protocol_group_index_desc(img, g));
            const UINT32 members = taz_protocol_group_index_protocol_count(img, g);
            for (UINT32 m = 0; m <= std::min(members, kMaxRecords); ++m)
                take(taz_protocol_group_index_protocol_index(img, g, m),
                     taz_protocol_group_id_protocol_index_id(img, id, m));
            take(taz_protocol_group_id_desc(img, id), taz_protocol_group_id_protocol_count(img, id));
        }
        take(taz_protocol_id_desc(img, p_.number), taz_protocol_group_id_desc(img, p_.number));
    }

    /* ---- risks -------------------------------------------------------------------------- */
    void risks(const taz_pattern_st *img)
    {
        UINT32 policy = 0, severity = 0;
        const taz_severity_info_list_st &si = img->severity_info;
        for (UINT32 protocol : {0u, 1u, 6u, 17u, 65535u, 65536u + 6u, p_.number})
            for (UINT32 direction : {0u, 1u, 2u, 3u, 4u}) {
                take(taz_known_risk_get_info(img, direction, protocol, &policy, &severity));
                take(taz_potential_risk_get_info(img, p_.number, direction, protocol, &policy, &severity));
                for (UINT32 i = 0; si.potential_infos && i < std::min(si.nr_potential_infos, kMaxEntries); ++i)
                    take(taz_potential_risk_get_info(img, si.potential_infos[i].rule_id, direction, protocol,
                                                     &policy, &severity));
            }
        take(policy + severity);
    }

    const Probe &p_;
    std::uint64_t sink_ = 0;
};

/* Runs the battery; the result only keeps the work from being dropped. */
inline std::uint64_t exercise(const taz_pattern_st *img, const std::uint8_t *data, std::size_t size)
{
    if (!img) return 0;
    Probe p(data, size);
    Battery b(p);
    b.run(img);
    return b.sink();
}

/* The battery over both images of a loaded-pattern record (if any). */
inline void exercise_record(const _TAZPattern *rec, const std::uint8_t *data, std::size_t size)
{
    if (!rec) return;
    exercise(rec->taz_ptn, data, size);
    exercise(rec->ulm_ptn, data, size);
}

} // namespace tazf

#endif /* TAZE_FUZZ_BATTERY_H */
