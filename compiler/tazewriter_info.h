/* Writers of the rule, clean, protocol, severity, pattern-info, threat-type
 * and second-kind name sections. Each builder returns a whole section
 * (16-byte header and body) or one list (12-byte header and records).
 *
 * Every record is written with its length field RL, the number of bytes
 * that follow it; a record's `rl` member writes another value instead, for
 * deliberately malformed files. Strings are written as u32 byte count, the
 * bytes and one NUL. */
#ifndef TAZEWRITER_INFO_H
#define TAZEWRITER_INFO_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tazewriter.h"

namespace tazw {

/* The magic the loader reads from four stored bytes ("CLN" stands for the
 * bytes 'C', 'L', 'N', 0). */
template <std::size_t N>
constexpr std::uint32_t magic4(const char (&s)[N])
{
    static_assert(N >= 1 && N <= 5, "up to four characters");
    std::uint32_t v = 0;
    for (std::size_t i = 0; i + 1 < N; ++i) v |= std::uint32_t(std::uint8_t(s[i])) << (8 * i);
    return v;
}

namespace info_magic {
/* Section kinds. */
inline constexpr std::uint32_t RULE = magic4("RULE");
inline constexpr std::uint32_t CLEAN = magic4("CLN");
inline constexpr std::uint32_t PATTERN_INFO = magic4("PTN");
inline constexpr std::uint32_t PROTOCOL = magic4("PROT");
inline constexpr std::uint32_t SEVERITY = magic4("SEVE");
inline constexpr std::uint32_t THREAT_TYPE = magic4("THRT");
inline constexpr std::uint32_t ULM = magic4("ULM");
/* Sub-lists. */
inline constexpr std::uint32_t COMPILER_VER = magic4("CMPR");
inline constexpr std::uint32_t PROTOCOL_LIST = magic4("PRTL");
inline constexpr std::uint32_t PROTOCOL_GROUP_LIST = magic4("PRGP");
inline constexpr std::uint32_t KNOWN = magic4("SKNW");
inline constexpr std::uint32_t KNOWN_DEFAULT = magic4("SKND");
inline constexpr std::uint32_t POTENTIAL = magic4("SPOT");
inline constexpr std::uint32_t POTENTIAL_DEFAULT = magic4("SPOD");
} // namespace info_magic

using RL = std::optional<std::uint32_t>;
using PortRange = std::pair<std::uint16_t, std::uint16_t>;

/* Directions: 1 either, 2 inbound, 3 outbound. */
struct CleanInfo {
    std::uint16_t port_l = 0, port_h = 0; /* inclusive protocol-number range */
    std::uint32_t priority = 0, direction = 0, target = 0;
    std::string src_ptn, dst_ptn;
    RL rl; /* used when written as a clean info record */
};

struct RuleInfo {
    std::uint32_t rule_id = 0, confidence_level = 0;
    std::string risk_type;
    std::uint32_t risk_type_group = 0, enable = 0;
    std::string description;
    CleanInfo clean; /* its rl is not used */
    RL rl;
};

struct Protocol {
    std::uint32_t id = 0;
    std::string desc;
    std::uint32_t group_idx = 0; /* position of the group, file order */
    RL rl;
};

struct ProtocolGroup {
    std::uint32_t id = 0;
    std::string desc;
    std::vector<std::uint32_t> protocol_idxs; /* positions of the member protocols */
    RL rl;
};

struct RiskInfo {
    std::uint32_t direction = 0, severity = 0, policy_id = 0;
    RL rl;
};

struct KnownRisk {
    std::uint32_t direction = 0, severity = 0, policy_id = 0;
    std::vector<PortRange> protocol_ranges; /* ascending, disjoint */
    RL rl;
};

struct PotentialRisk {
    std::uint32_t rule_id = 0;
    std::vector<KnownRisk> risks;
    RL rl;
};

/* The four lists of a severity section; an empty vector writes no list. */
struct Severity {
    std::vector<KnownRisk> known;
    std::vector<RiskInfo> known_defaults;
    std::vector<PotentialRisk> potential;
    std::vector<RiskInfo> potential_defaults;
};

struct ThreatType {
    std::uint32_t rule_id = 0, threat_type = 0;
    RL rl;
};

/* ---- lists (12-byte header + records) ------------------------------------ */
Bytes rule_info_list(const std::vector<RuleInfo> &rules, std::uint32_t number = 0);
Bytes clean_info_list(const std::vector<CleanInfo> &entries, std::uint32_t number = 0);
Bytes protocol_list(const std::vector<Protocol> &protocols);
Bytes protocol_group_list(const std::vector<ProtocolGroup> &groups);
Bytes known_risk_list(const std::vector<KnownRisk> &known);
/* magic: info_magic::KNOWN_DEFAULT or info_magic::POTENTIAL_DEFAULT. */
Bytes risk_default_list(std::uint32_t magic, const std::vector<RiskInfo> &defaults);
Bytes potential_risk_list(const std::vector<PotentialRisk> &potential);
Bytes threat_type_list(const std::vector<ThreatType> &types);
Bytes compiler_version_list(std::uint32_t version);
Bytes ulm_name_list(const std::string &name);

/* The fields of a clean body, as stored in both record kinds (no RL). */
Bytes clean_body(const CleanInfo &c);

/* ---- sections ----------------------------------------------------------------- */
/* A section made of the given lists; its count is the number of lists. */
Bytes info_section(std::uint32_t magic, const std::vector<Bytes> &lists);

Bytes rule_info_section(const std::vector<RuleInfo> &rules);
Bytes clean_info_section(const std::vector<CleanInfo> &entries);
Bytes protocol_section(const std::vector<Protocol> &protocols, const std::vector<ProtocolGroup> &groups);
Bytes severity_section(const Severity &s);
Bytes threat_type_section(const std::vector<ThreatType> &types);
/* "PTN\0" holding one compiler version list. */
Bytes pattern_info_section(std::uint32_t compiler_version);
/* The second kind's name section ("ULM\0"). */
Bytes ulm_info_section(const std::string &name);

} // namespace tazw

#endif /* TAZEWRITER_INFO_H */
