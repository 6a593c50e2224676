/* Representative pattern payloads and containers, built with the writer.
 *
 * Shared by the seed generator of the fuzz targets (make_seeds.cpp) and the
 * robustness sweeps (tests/test_robustness.cpp): one payload of each pattern
 * kind that holds every section kind the kind accepts, with every list kind
 * sorted the way its lookup expects, and a few small payloads of one section
 * each. Also the input encodings of the fuzz targets that wrap or describe
 * their input, so that seeds and targets agree on them. */
#ifndef TAZE_FUZZ_SAMPLES_H
#define TAZE_FUZZ_SAMPLES_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "taze_impl.h"
#include "tazeptn.h"
#include "tazewriter.h"
#include "tazewriter_info.h"

namespace tazf {

using tazw::Bytes;

/* ---- section kinds ----------------------------------------------------------- */

/* Layout of the entries of a list, range or map section. */
using Shape = taze::Layout;

struct ListKind {
    std::uint32_t magic;
    Shape shape;
    unsigned key_rule;   /* 0 exact, 1 prefix, 2 suffix, 3 substring (string keys) */
    unsigned value_rule; /* the same for string values */
    bool main_only;      /* the second kind skips it */
};

/* Every list, range and map section kind (the library's family table).
 * String lists carry their own order (see order_for_list_section); map
 * rules give key and value orders. */
inline const std::vector<ListKind> &list_kinds()
{
    static const std::vector<ListKind> kinds = [] {
        const auto rule = [](taze::Rule r) { return r == taze::Rule::None ? 0u : unsigned(r); };
        std::vector<ListKind> v;
        for (const taze::FamilyRow &f : taze::kFamilies)
            if (f.layout == Shape::Strings)
                v.push_back(ListKind{f.magic, f.layout, 0, 0, f.kinds == taze::Main});
            else
                v.push_back(ListKind{f.magic, f.layout, rule(f.key_rule), rule(f.value_rule), f.kinds == taze::Main});
        return v;
    }();
    return kinds;
}

/* ---- list bodies -------------------------------------------------------------- */

inline std::vector<std::string> sorted(tazw::Order order, std::vector<std::string> v)
{
    tazw::sort_in(order, v);
    return v;
}

/* Keys of the sample lists; a compact file takes the first two. */
inline std::vector<std::string> sample_words(bool compact)
{
    std::vector<std::string> words = {"Mail.Example.ORG", "", "example.com", "evil", "a", "www.test.net",
                                      "zz-top", "x86"};
    if (compact) words.resize(2);
    return words;
}

inline tazw::IPv6 v6(std::uint8_t first, std::uint8_t last)
{
    tazw::IPv6 a{};
    a[0] = first;
    a[15] = last;
    return a;
}

/* Map entries keyed by the sample words in key order, values in value order. */
template <typename Entry, typename MakeValues>
std::vector<Entry> string_keyed(unsigned key_rule, bool compact, MakeValues make_values)
{
    std::vector<Entry> out;
    std::uint32_t i = 0;
    for (const std::string &k : sorted(tazw::order_for_rule(key_rule), sample_words(compact)))
        out.push_back(Entry{k, make_values(i++)});
    return out;
}

/* The entry count and the entries of list number `number` of a section kind. */
inline std::pair<std::uint32_t, Bytes> list_entries(const ListKind &k, std::uint32_t number, bool compact)
{
    using namespace tazw;
    const auto values = [&k, compact](std::uint32_t i) {
        std::vector<std::string> v = {"v" + std::to_string(i), "Value", "abc", "zeta"};
        if (compact) v.resize(2);
        return sorted(order_for_rule(k.value_rule), v);
    };
    const auto ints = [number](std::uint32_t i) { return std::vector<std::uint32_t>{i, 7, 100 + number}; };
    const auto map = [](const auto &e) { return std::make_pair(std::uint32_t(e.size()), map_entries(e)); };
    switch (k.shape) {
    case Shape::Strings: {
        const auto s = sorted(order_for_list_section(k.magic), sample_words(compact));
        return {std::uint32_t(s.size()), string_entries(s)};
    }
    case Shape::Ip:
        return {3, ip_entries({{0x0A000000u, 0x0AFFFFFFu}, {0xC0A80000u + number, 0xC0A800FFu},
                               {0xFFFFFFFEu, 0xFFFFFFFFu}})};
    case Shape::Ipv6: return {2, ipv6_entries({{v6(0x20, 0), v6(0x20, 0xFF)}, {v6(0xFE, 1), v6(0xFE, 9)}})};
    case Shape::Port: return {3, port_entries({{0, 0}, {80, 443}, {8000, 65535}})};
    case Shape::StrInt: return map(string_keyed<StrIntEntry>(k.key_rule, compact, ints));
    case Shape::StrIpv6:
        return map(string_keyed<StrIPv6Entry>(k.key_rule, compact, [](std::uint32_t i) {
            return std::vector<IPv6>{v6(0x20, std::uint8_t(i)), v6(0xFE, 1)};
        }));
    case Shape::StrStr: return map(string_keyed<StrStrEntry>(k.key_rule, compact, values));
    case Shape::IntInt: return map(std::vector<IntIntEntry>{{1, {1, 2}}, {5, {}}, {1000, ints(number)}});
    case Shape::Ipv6Int: return map(std::vector<IPv6IntEntry>{{v6(0x20, 1), {1, 2}}, {v6(0xFE, 2), ints(number)}});
    case Shape::IntStr: return map(std::vector<IntStrEntry>{{2, values(0)}, {3, {}}, {40, values(1)}});
    }
    return {};
}

/* A section of this kind holding lists 0 and 2 (list 1 is left out). */
inline Bytes list_section(const ListKind &k, bool compact = false)
{
    Bytes body;
    for (std::uint32_t number : {0u, 2u}) {
        const auto [count, entries] = list_entries(k, number, compact);
        const Bytes l = tazw::list(number, count, entries);
        body.insert(body.end(), l.begin(), l.end());
    }
    return tazw::section(k.magic, 2, body);
}

/* ---- info sections --------------------------------------------------------- */

inline Bytes rule_section()
{
    using namespace tazw;
    std::vector<RuleInfo> rules;
    for (std::uint32_t id : {42u, 7u, 1000u, 7u})
        rules.push_back({id, id % 5, "risk-" + std::to_string(id), id % 3, 1, "rule " + std::to_string(id),
                         CleanInfo{6, 17, 1, id % 4, 3, "src", "dst", std::nullopt}, std::nullopt});
    return rule_info_section(rules);
}

inline Bytes clean_section()
{
    using namespace tazw;
    return clean_info_section({CleanInfo{1, 5, 2, 1, 9, "s1", "d1", std::nullopt},
                               CleanInfo{6, 6, 3, 2, 0, "", "d2", std::nullopt},
                               CleanInfo{17, 200, 4, 3, 11, "s3", "", std::nullopt}});
}

inline Bytes protocol_info_section()
{
    using namespace tazw;
    return protocol_section({Protocol{6, "tcp", 0, std::nullopt}, Protocol{17, "udp", 0, std::nullopt},
                             Protocol{1, "icmp", 1, std::nullopt}, Protocol{99, "bad", 7, std::nullopt}},
                            {ProtocolGroup{100, "ip", {0, 1}, std::nullopt},
                             ProtocolGroup{200, "other", {2, 9}, std::nullopt}, ProtocolGroup{300, "none", {}, std::nullopt}});
}

inline Bytes severity_info_section()
{
    using namespace tazw;
    Severity s;
    s.known = {KnownRisk{1, 5, 50, {{1, 6}, {17, 17}}, std::nullopt}, KnownRisk{2, 3, 30, {}, std::nullopt},
               KnownRisk{3, 4, 40, {{0, 65535}}, std::nullopt}};
    s.known_defaults = {RiskInfo{2, 1, 10, std::nullopt}, RiskInfo{3, 2, 20, std::nullopt}};
    s.potential = {PotentialRisk{42, {KnownRisk{2, 9, 90, {{6, 6}}, std::nullopt}}, std::nullopt},
                   PotentialRisk{7, {}, std::nullopt}};
    s.potential_defaults = {RiskInfo{2, 6, 60, std::nullopt}, RiskInfo{3, 7, 70, std::nullopt}};
    return severity_section(s);
}

inline Bytes threat_section()
{
    using namespace tazw;
    return threat_type_section({ThreatType{42, 3, std::nullopt}, ThreatType{7, 1, std::nullopt}});
}

/* Every info section of a pattern kind. */
inline std::vector<std::pair<std::string, Bytes>> info_sections(bool second)
{
    std::vector<std::pair<std::string, Bytes>> out = {
        {"rule", rule_section()},
        {"clean", clean_section()},
        {"ptn", tazw::pattern_info_section(0x00010002u)},
        {"prot", protocol_info_section()},
        {"seve", severity_info_section()},
        {"thrt", threat_section()},
    };
    if (second) out.push_back({"ulm", tazw::ulm_info_section("Trojan.Sample")});
    return out;
}

/* ---- whole payloads ---------------------------------------------------------- */

/* Every section kind a pattern kind accepts, each with lists 0 and 2; a
 * compact payload has fewer entries per list. */
inline Bytes full_payload(bool second, bool compact = false)
{
    Bytes out;
    for (const ListKind &k : list_kinds()) {
        if (second && k.main_only) continue;
        const Bytes s = list_section(k, compact);
        out.insert(out.end(), s.begin(), s.end());
    }
    for (const auto &named : info_sections(second)) out.insert(out.end(), named.second.begin(), named.second.end());
    return out;
}

/* Small payloads of one section each (name, payload). */
inline std::vector<std::pair<std::string, Bytes>> single_section_payloads(bool second)
{
    std::vector<std::pair<std::string, Bytes>> out = info_sections(second);
    for (const ListKind &k : list_kinds()) {
        if (second && k.main_only) continue;
        std::string name;
        for (int i = 0; i < 4; ++i) {
            const char c = char((k.magic >> (8 * i)) & 0xFFu);
            name += (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ? char(c + ((c >= 'A' && c <= 'Z') ? 32 : 0)) : '_';
        }
        out.push_back({name, list_section(k)});
    }
    return out;
}

/* A container with the main payload, and optionally a second-kind and a raw
 * sub-pattern; `gap` bytes of filler before the first encryption header. */
inline Bytes container_of(const Bytes &taz, const Bytes *ulm, const Bytes *raw, bool encrypted,
                          std::uint32_t gap = 0, std::uint32_t ptnVer = 0x1230004Du)
{
    tazw::Container c;
    c.ptnVer = ptnVer;
    const auto add = [&c, encrypted](std::uint16_t kind, const Bytes *payload) {
        if (!payload) return;
        tazw::SubPattern s;
        s.subtype = kind;
        s.enctype = encrypted ? KORM_ENC_TFSH_MD5 : KORM_ENC_NONE;
        s.payload = *payload;
        c.subs.push_back(s);
    };
    add(KORM_SUB_TAZE_RULE, &taz);
    if (gap) c.subs[0].offset = KORMHEAD_SIZE + KORMSUB_SIZE + gap;
    add(KORM_SUB_ULM_RULE, ulm);
    add(KORM_SUB_YUB_RULE, raw);
    return tazw::build_container(c);
}

/* ---- input of the wrapping container target -------------------------------------
 * The input is a payload followed by a trailer of 5 bytes: the feeding seed
 * (u32, little-endian; it draws the chunk sizes) and then the flags below,
 * the input's last byte. A shorter input is all payload. */
enum WrapFlags : std::uint8_t {
    kWrapSecond = 1,    /* also carry the payload as the second kind */
    kWrapRaw = 2,       /* also carry it as a raw sub-pattern */
    kWrapPlain = 4,     /* store the bodies unencrypted */
    kWrapAsSecond = 8,  /* the payload is the second kind's; the main one is empty */
    kWrapGap = 16,      /* filler before the first encryption header */
};
constexpr std::size_t kWrapTrailer = 5;

inline Bytes wrap_input(const Bytes &payload, std::uint8_t flags, std::uint32_t seed)
{
    Bytes out = payload;
    for (int i = 0; i < 4; ++i) out.push_back(std::uint8_t(seed >> (8 * i)));
    out.push_back(flags);
    return out;
}

/* Chunk sizes of one feeding, drawn from the seed: mostly small, sometimes
 * large, now and then a single byte (xorshift32). */
class ChunkSizes {
public:
    explicit ChunkSizes(std::uint32_t seed) : state_(seed | 1u) {}
    int next()
    {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        switch (state_ & 3u) {
        case 0: return 1;
        case 1: return int(1 + (state_ >> 8) % 64);
        case 2: return int(1 + (state_ >> 8) % 4096);
        default: return 32;
        }
    }

private:
    std::uint32_t state_;
};

/* ---- input of the directory target -----------------------------------------------
 * Text lines: "P <prefix>" sets the prefix, "F <name> <version-hex> <kind>"
 * adds a file holding a container of that version ("c" a loadable
 * container, "b" random bytes from the rest of the line, "e" empty),
 * "D <name>" adds a subdirectory, "S" lets the directory path end in '/'.
 * The target parses the lines leniently. */
inline Bytes dir_input(const std::string &text) { return Bytes(text.begin(), text.end()); }

} // namespace tazf

#endif /* TAZE_FUZZ_SAMPLES_H */
