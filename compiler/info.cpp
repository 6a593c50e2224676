/* Rule, clean, protocol, severity, pattern-info, threat-type and name
 * sections. */
#include "tazewriter_info.h"

namespace tazw {

namespace {

/* The fields of each record kind, without RL. */
void put_fields(LeBuf &b, const CleanInfo &c) { b.raw(clean_body(c)); }

void put_fields(LeBuf &b, const RuleInfo &r)
{
    b.u32(r.rule_id).u32(r.confidence_level).str(r.risk_type).u32(r.risk_type_group).u32(r.enable)
        .str(r.description).raw(clean_body(r.clean));
}

void put_fields(LeBuf &b, const Protocol &p) { b.u32(p.id).str(p.desc).u32(p.group_idx); }

void put_fields(LeBuf &b, const ProtocolGroup &g)
{
    b.u32(g.id).str(g.desc).u32(std::uint32_t(g.protocol_idxs.size()));
    for (std::uint32_t idx : g.protocol_idxs) b.u32(idx);
}

void put_fields(LeBuf &b, const RiskInfo &r) { b.u32(r.direction).u32(r.severity).u32(r.policy_id); }

void put_fields(LeBuf &b, const KnownRisk &k);
void put_fields(LeBuf &b, const PotentialRisk &p);

void put_fields(LeBuf &b, const ThreatType &t) { b.u32(t.rule_id).u32(t.threat_type); }

/* One record: RL (bytes that follow, unless overridden), then its fields. */
template <typename T>
void put_record(LeBuf &out, const T &rec)
{
    LeBuf fields;
    put_fields(fields, rec);
    out.u32(rec.rl.value_or(std::uint32_t(fields.size()))).raw(fields.bytes());
}

template <typename T>
Bytes records(const std::vector<T> &recs)
{
    LeBuf b;
    for (const T &r : recs) put_record(b, r);
    return b.take();
}

void put_fields(LeBuf &b, const KnownRisk &k)
{
    b.u32(k.direction).u32(k.severity).u32(k.policy_id).u32(std::uint32_t(k.protocol_ranges.size()));
    for (const PortRange &r : k.protocol_ranges) b.u16(r.first).u16(r.second);
}

/* A potential record's nested known risk records follow its count. */
void put_fields(LeBuf &b, const PotentialRisk &p)
{
    b.u32(p.rule_id).u32(std::uint32_t(p.risks.size())).raw(records(p.risks));
}

template <typename T>
Bytes record_list(std::uint32_t magic, const std::vector<T> &recs)
{
    return list(magic, std::uint32_t(recs.size()), records(recs));
}

/* A section of the given lists, leaving out those without records. */
Bytes nonempty_lists(std::uint32_t magic, std::initializer_list<std::pair<bool, Bytes>> lists)
{
    std::vector<Bytes> kept;
    for (const auto &l : lists)
        if (l.first) kept.push_back(l.second);
    return info_section(magic, kept);
}

} // namespace

Bytes clean_body(const CleanInfo &c)
{
    LeBuf b;
    b.u16(c.port_l).u16(c.port_h).u32(c.priority).u32(c.direction).u32(c.target).str(c.src_ptn).str(c.dst_ptn);
    return b.take();
}

Bytes rule_info_list(const std::vector<RuleInfo> &rules, std::uint32_t number) { return record_list(number, rules); }
Bytes clean_info_list(const std::vector<CleanInfo> &c, std::uint32_t number) { return record_list(number, c); }
Bytes protocol_list(const std::vector<Protocol> &p) { return record_list(info_magic::PROTOCOL_LIST, p); }
Bytes protocol_group_list(const std::vector<ProtocolGroup> &g)
{
    return record_list(info_magic::PROTOCOL_GROUP_LIST, g);
}
Bytes known_risk_list(const std::vector<KnownRisk> &known) { return record_list(info_magic::KNOWN, known); }
Bytes risk_default_list(std::uint32_t magic, const std::vector<RiskInfo> &d) { return record_list(magic, d); }
Bytes potential_risk_list(const std::vector<PotentialRisk> &p) { return record_list(info_magic::POTENTIAL, p); }
Bytes threat_type_list(const std::vector<ThreatType> &t) { return record_list(info_magic::THREAT_TYPE, t); }

Bytes compiler_version_list(std::uint32_t version)
{
    return list(info_magic::COMPILER_VER, 1, LeBuf().u32(version).take());
}

Bytes ulm_name_list(const std::string &name) { return list(info_magic::ULM, 1, LeBuf().str(name).take()); }

Bytes info_section(std::uint32_t magic, const std::vector<Bytes> &lists)
{
    LeBuf body;
    for (const Bytes &l : lists) body.raw(l);
    return section(magic, std::uint32_t(lists.size()), body.bytes());
}

/* Sections of one list. */
Bytes rule_info_section(const std::vector<RuleInfo> &r) { return info_section(info_magic::RULE, {rule_info_list(r)}); }
Bytes clean_info_section(const std::vector<CleanInfo> &c)
{
    return info_section(info_magic::CLEAN, {clean_info_list(c)});
}
Bytes threat_type_section(const std::vector<ThreatType> &t)
{
    return info_section(info_magic::THREAT_TYPE, {threat_type_list(t)});
}
Bytes pattern_info_section(std::uint32_t version)
{
    return info_section(info_magic::PATTERN_INFO, {compiler_version_list(version)});
}
Bytes ulm_info_section(const std::string &name) { return info_section(info_magic::ULM, {ulm_name_list(name)}); }

Bytes protocol_section(const std::vector<Protocol> &protocols, const std::vector<ProtocolGroup> &groups)
{
    return nonempty_lists(info_magic::PROTOCOL, {{!protocols.empty(), protocol_list(protocols)},
                                                 {!groups.empty(), protocol_group_list(groups)}});
}

Bytes severity_section(const Severity &s)
{
    return nonempty_lists(info_magic::SEVERITY,
                          {{!s.known.empty(), known_risk_list(s.known)},
                           {!s.known_defaults.empty(), risk_default_list(info_magic::KNOWN_DEFAULT, s.known_defaults)},
                           {!s.potential.empty(), potential_risk_list(s.potential)},
                           {!s.potential_defaults.empty(),
                            risk_default_list(info_magic::POTENTIAL_DEFAULT, s.potential_defaults)}});
}

} // namespace tazw
