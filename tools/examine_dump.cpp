/* taze dump: a loaded pattern file back as the JSON source tazc reads. The
 * image becomes the compiler's model (tazc::Source), and the model is
 * written with a fixed key order, so that dump, tazc and dump again give
 * the same text. */
#include <algorithm>
#include <fstream>
#include <map>
#include <optional>
#include <ostream>
#include <set>
#include <unordered_set>

#include "examine_commands.h"

namespace tazi {

/* ---- image -> model ------------------------------------------------------------------ */

namespace {

/* The compiler's entry type of each map entry record. */
// clang-format off
template <typename E> struct ModelEntry;
template <> struct ModelEntry<simap_st> { using type = tazw::StrIntEntry; };
template <> struct ModelEntry<sipv6map_st> { using type = tazw::StrIPv6Entry; };
template <> struct ModelEntry<iimap_st> { using type = tazw::IntIntEntry; };
template <> struct ModelEntry<ipv6imap_st> { using type = tazw::IPv6IntEntry; };
template <> struct ModelEntry<ismap_st> { using type = tazw::IntStrEntry; };
template <> struct ModelEntry<ssmap_st> { using type = tazw::StrStrEntry; };
// clang-format on

std::string model_of(const counted_string_t &s) { return std::string(text_of(s)); }
std::uint32_t model_of(UINT32 v) { return v; }
tazw::IPv6 model_of(const ipv6_st &a)
{
    tazw::IPv6 out{};
    std::copy(a.bytes, a.bytes + 16, out.begin());
    return out;
}
tazc::IPv4Range model_of(const ip_rng_st &r) { return {r.ip_l, r.ip_h}; }
tazc::IPv6Range model_of(const ipv6_rng_st &r) { return {model_of(r.ipv6_l), model_of(r.ipv6_h)}; }
tazc::PortRange model_of(const port_rng_st &r) { return {r.port_l, r.port_h}; }

template <typename E, typename = std::enable_if_t<is_map_entry_v<E>>>
typename ModelEntry<E>::type model_of(const E &e)
{
    typename ModelEntry<E>::type m;
    m.key = model_of(key_of(e));
    for (const auto &v : values_of(e)) m.values.push_back(model_of(v));
    return m;
}

template <typename L>
tazc::ListData list_data(const L &list)
{
    const auto e = elements(list);
    std::vector<decltype(model_of(e[0]))> out;
    for (const auto &x : e) out.push_back(model_of(x));
    return out;
}

/* A string an info record points at, with its stored length. */
std::string info_string(const taz_pattern_st &img, const unsigned char *p)
{
    counted_string_t s{};
    return p && stored_string(img, p, &s) ? std::string(text_of(s)) : std::string();
}

tazw::CleanInfo clean_of(const taz_pattern_st &img, const taz_clean_info_st &c)
{
    tazw::CleanInfo m;
    m.port_l = c.protocol.port_l;
    m.port_h = c.protocol.port_h;
    m.priority = c.priority;
    m.direction = c.direction;
    m.target = c.target;
    m.src_ptn = info_string(img, c.src_ptn);
    m.dst_ptn = info_string(img, c.dst_ptn);
    return m;
}

tazw::KnownRisk risk_of(const taz_known_risk_info_st &k)
{
    tazw::KnownRisk m;
    m.direction = k.info.direction;
    m.severity = k.info.severity;
    m.policy_id = k.info.policy_id;
    for (const port_rng_st &r : Span<port_rng_st>(k.protocol_ranges.port_ranges, k.protocol_ranges.nr_port_ranges))
        m.protocol_ranges.push_back(model_of(r));
    return m;
}

/* Defaults are kept per direction; a direction of 0 was never loaded. */
std::vector<tazw::RiskInfo> defaults_of(const taz_risk_info_st &inbound, const taz_risk_info_st &outbound)
{
    std::vector<tazw::RiskInfo> out;
    for (const taz_risk_info_st *r : {&inbound, &outbound})
        if (r->direction != 0) {
            tazw::RiskInfo m;
            m.direction = r->direction;
            m.severity = r->severity;
            m.policy_id = r->policy_id;
            out.push_back(m);
        }
    return out;
}

void severity_of(const taz_severity_info_list_st &s, tazw::Severity &m)
{
    for (const auto &k : Span<taz_known_risk_info_st>(s.known_infos, s.nr_known_infos)) m.known.push_back(risk_of(k));
    m.known_defaults = defaults_of(s.known_inbound_info, s.known_outbound_info);
    for (const auto &p : Span<taz_potential_risk_info_st>(s.potential_infos, s.nr_potential_infos)) {
        tazw::PotentialRisk pm;
        pm.rule_id = p.rule_id;
        for (const auto &k : Span<taz_known_risk_info_st>(p.risk_infos, p.nr_risk_infos))
            pm.risks.push_back(risk_of(k));
        m.potential.push_back(std::move(pm));
    }
    m.potential_defaults = defaults_of(s.potential_inbound_info, s.potential_outbound_info);
}

void tables_of(const taz_pattern_st &img, tazc::Kind &k)
{
    for (const auto &r : Span<taz_rule_info_st>(img.rule_info_list.rule_infos, img.rule_info_list.nr_rule_infos)) {
        tazw::RuleInfo m;
        m.rule_id = r.rule_id;
        m.confidence_level = r.confidence_level;
        m.risk_type = info_string(img, r.risk_type);
        m.risk_type_group = r.risk_type_group;
        m.enable = r.enable;
        m.description = info_string(img, r.description);
        m.clean = clean_of(img, r.clean_info);
        k.rules.push_back(std::move(m));
    }
    for (const auto &c : Span<taz_clean_info_st>(img.clean_info_list.clean_infos, img.clean_info_list.nr_clean_infos))
        k.clean.push_back(clean_of(img, c));
    const taz_protocol_info_list_st &pi = img.protocol_info;
    for (const auto &p : Span<taz_protocol_info_st>(pi.prot_infos, pi.nr_prot_infos)) {
        tazw::Protocol m;
        m.id = p.id;
        m.desc = info_string(img, p.desc);
        m.group_idx = p.group_idx;
        k.protocols.push_back(std::move(m));
    }
    for (const auto &g : Span<taz_protocol_group_info_st>(pi.prog_infos, pi.nr_prog_infos)) {
        tazw::ProtocolGroup m;
        m.id = g.id;
        m.desc = info_string(img, g.desc);
        for (UINT32 idx : Span<UINT32>(g.protocol_idx, g.nr_protocol_idxs)) m.protocol_idxs.push_back(idx);
        k.groups.push_back(std::move(m));
    }
    severity_of(img.severity_info, k.severity);
    const taz_threat_type_info_list_st &t = img.threat_type_info;
    for (const auto &x : Span<taz_threat_type_info_st>(t.threat_type_infos, t.nr_threat_type_infos)) {
        tazw::ThreatType m;
        m.rule_id = x.rule_id;
        m.threat_type = x.threat_type;
        k.threat_types.push_back(m);
    }
}

/* The list numbers the file gives for a family: those of the section the
 * image took its lists from (the last one of its kind). */
std::set<std::uint32_t> listed_numbers(const Payload &p, std::uint32_t magic)
{
    std::set<std::uint32_t> out;
    for (const Section &s : p.sections)
        if (s.hdr.magic == magic) {
            out.clear();
            for (const ListHeader &l : s.lists) out.insert(l.number);
        }
    return out;
}

} // namespace

tazc::Kind kind_of_image(const taz_pattern_st &image, bool second_kind)
{
    tazc::Kind k;
    k.compiler_version = image.taz_ptn_compiler_version;
    const Payload payload = walk_payload(image);
    for (const ImageFamily &f : image_families(image)) {
        const std::set<std::uint32_t> numbers = listed_numbers(payload, f.family->magic);
        tazc::FamilyLists fl{f.family, {}};
        std::visit(
            [&](const auto &a) {
                for (std::uint32_t n : list_numbers(a.lists, numbers))
                    if (numbers.count(n) || elements(a.lists[n]).size > 0)
                        fl.lists.push_back(tazc::NumberedList{n, list_data(a.lists[n])});
            },
            f.lists);
        if (!fl.lists.empty()) k.lists.push_back(std::move(fl));
    }
    tables_of(image, k);
    if (second_kind && image.ulm_info.malname) k.name = info_string(image, image.ulm_info.malname);
    return k;
}

tazc::Source source_of(const LoadedFile &file)
{
    tazc::Source s;
    s.pattern_version = file.pattern_version();
    if (const taz_pattern_st *m = file.image(false)) s.main = kind_of_image(*m, false);
    if (const taz_pattern_st *u = file.image(true)) s.ulm = kind_of_image(*u, true);
    const std::string_view raw = file.raw();
    if (!raw.empty()) s.raw = tazw::Bytes(raw.begin(), raw.end());
    return s;
}

/* ---- model -> JSON ------------------------------------------------------------------------ */

namespace {

using tazc::child_path;
using tazc::index_path;
using tazc::Json;

/* A JSON array of fn(x) for every x. */
template <typename Container, typename Fn>
Json array_of(const Container &c, Fn fn)
{
    Json a = Json::array();
    for (std::size_t i = 0; i < c.size(); ++i) a.push_back(fn(c[i], i));
    return a;
}

/* A JSON object built member by member. The keys are checked in a hash
 * set: the ordered object itself searches its keys one by one. */
class ObjectBuilder {
public:
    /* false (and nothing added) when the key is already there. */
    bool add(const std::string &key, Json value)
    {
        if (!keys_.insert(key).second) return false;
        obj_.get_ref<Json::object_t &>().emplace_back(key, std::move(value));
        return true;
    }
    Json take() { return std::move(obj_); }

private:
    Json obj_ = Json::object();
    std::unordered_set<std::string> keys_;
};

/* A direction or threat type by its source name when it has one. */
Json named(std::uint32_t v, const char *name) { return name ? Json(name) : Json(v); }

bool valid_utf8(const std::string &s)
{
    try {
        (void)Json(s).dump();
        return true;
    } catch (const Json::type_error &) {
        return false;
    }
}

class JsonWriter {
public:
    explicit JsonWriter(std::vector<std::string> *warnings) : warnings_(warnings) {}

    Json source(const tazc::Source &src)
    {
        Json j = Json::object();
        j["pattern_version"] = version(src.pattern_version);
        const std::uint32_t main_cv = src.main.compiler_version.value_or(tazc::kToolVersion);
        j["compiler_version"] = version(main_cv);
        kind(src.main, "", j);
        if (src.ulm) {
            Json u = Json::object();
            if (src.ulm->name) u["name"] = text(*src.ulm->name, "ulm.name");
            const std::uint32_t cv = src.ulm->compiler_version.value_or(main_cv);
            if (cv != main_cv) u["compiler_version"] = version(cv);
            kind(*src.ulm, "ulm", u);
            j["ulm"] = std::move(u);
        }
        if (src.raw) j["raw"] = raw(*src.raw);
        return j;
    }

private:
    std::vector<std::string> *warnings_;

    void warn(const std::string &path, const std::string &what) { warnings_->push_back(path + ": " + what); }

    /* A stored string as a JSON string: tazc refuses NUL bytes, and JSON
     * holds only UTF-8. */
    Json text(const std::string &s, const std::string &path)
    {
        if (s.find('\0') != std::string::npos) warn(path, "the string holds a NUL byte, which tazc refuses");
        if (!valid_utf8(s)) warn(path, "the string is not valid UTF-8; invalid bytes are written as U+FFFD");
        return s;
    }

    static Json version(std::uint32_t v)
    {
        return Json{{"product", v >> 28}, {"build", (v >> 20) & 0xFFu}, {"version", v & 0xFFFFFu}};
    }

    /* Ranges: one value, or "low-high". */
    static Json range(const tazc::IPv4Range &r)
    {
        return r.first == r.second ? ipv4_text(r.first) : ipv4_text(r.first) + "-" + ipv4_text(r.second);
    }
    static Json range(const tazc::IPv6Range &r)
    {
        return r.first == r.second ? ipv6_text(r.first.data())
                                   : ipv6_text(r.first.data()) + "-" + ipv6_text(r.second.data());
    }
    static Json range(const tazc::PortRange &r)
    {
        if (r.first == r.second) return r.first;
        return std::to_string(r.first) + "-" + std::to_string(r.second);
    }

    static std::string key(const std::string &k) { return k; }
    static std::string key(std::uint32_t k) { return std::to_string(k); }
    static std::string key(const tazw::IPv6 &k) { return ipv6_text(k.data()); }

    Json value(const std::string &v, const std::string &path) { return text(v, path); }
    static Json value(std::uint32_t v, const std::string &) { return v; }
    static Json value(const tazw::IPv6 &v, const std::string &) { return ipv6_text(v.data()); }

    Json list(const std::vector<std::string> &v, const std::string &path)
    {
        return array_of(v, [&](const std::string &s, std::size_t i) { return text(s, index_path(path, i)); });
    }

    template <typename T>
    static Json list(const std::vector<std::pair<T, T>> &v, const std::string &)
    {
        return array_of(v, [](const std::pair<T, T> &r, std::size_t) { return range(r); });
    }

    template <typename Entry>
    Json list(const std::vector<Entry> &v, const std::string &path)
    {
        using Value = typename decltype(Entry::values)::value_type;
        ObjectBuilder o;
        for (const Entry &e : v) {
            const std::string k = key(e.key);
            const std::string p = child_path(path, k);
            if constexpr (std::is_same_v<decltype(e.key), std::string>) text(k, p);
            if (e.values.empty() && !std::is_same_v<Value, std::string>)
                warn(p, "the key has no values; tazc needs at least one");
            if (!o.add(k,
                       array_of(e.values, [&](const Value &x, std::size_t i) { return value(x, index_path(p, i)); })))
                warn(p, "the key occurs twice; the JSON object keeps the first entry");
        }
        return o.take();
    }

    static Json direction(std::uint32_t d) { return named(d, direction_name(d)); }

    Json clean(const tazw::CleanInfo &c, const std::string &path)
    {
        return Json{{"protocol", range(tazc::PortRange{c.port_l, c.port_h})},
                    {"direction", direction(c.direction)},
                    {"target", c.target},
                    {"priority", c.priority},
                    {"src", text(c.src_ptn, path + ".src")},
                    {"dst", text(c.dst_ptn, path + ".dst")}};
    }

    static bool no_clean(const tazw::CleanInfo &c)
    {
        return c.port_l == 0 && c.port_h == 0 && c.priority == 0 && c.direction == 0 && c.target == 0 &&
               c.src_ptn.empty() && c.dst_ptn.empty();
    }

    Json rule(const tazw::RuleInfo &r, const std::string &path)
    {
        Json j{{"id", r.rule_id},
               {"description", text(r.description, path + ".description")},
               {"risk_type", text(r.risk_type, path + ".risk_type")},
               {"risk_group", r.risk_type_group},
               {"confidence", r.confidence_level}};
        j["enabled"] = r.enable == 1 ? Json(true) : r.enable == 0 ? Json(false) : Json(r.enable);
        if (!no_clean(r.clean)) j["clean"] = clean(r.clean, path + ".clean");
        return j;
    }

    /* Protocols and groups refer to each other by id in the source and by
     * position in the file. */
    void protocols(const tazc::Kind &k, const std::string &prefix, Json &out)
    {
        const std::string ppath = child_path(prefix, "protocols"), gpath = child_path(prefix, "protocol_groups");
        auto position_of = [](const auto &table, std::uint32_t id) {
            std::size_t i = 0;
            while (i < table.size() && table[i].id != id) ++i;
            return i;
        };
        Json groups = Json::array();
        for (std::size_t g = 0; g < k.groups.size(); ++g) {
            const tazw::ProtocolGroup &grp = k.groups[g];
            const std::string p = index_path(gpath, g);
            Json members = Json::array();
            for (std::size_t m = 0; m < grp.protocol_idxs.size(); ++m) {
                const std::uint32_t idx = grp.protocol_idxs[m];
                const std::string mp = index_path(p + ".protocols", m);
                if (idx >= k.protocols.size()) {
                    warn(mp, "protocol position " + std::to_string(idx) + " is out of range; left out");
                    continue;
                }
                if (position_of(k.protocols, k.protocols[idx].id) != idx)
                    warn(mp, "the protocol's id is not unique; tazc refers to the first protocol with it");
                members.push_back(k.protocols[idx].id);
            }
            groups.push_back(Json{{"id", grp.id}, {"desc", text(grp.desc, p + ".desc")}, {"protocols", members}});
        }
        Json prots = Json::array();
        for (std::size_t i = 0; i < k.protocols.size(); ++i) {
            const tazw::Protocol &pr = k.protocols[i];
            const std::string p = index_path(ppath, i);
            Json j{{"id", pr.id}, {"desc", text(pr.desc, p + ".desc")}};
            /* Without "group", tazc takes the first group that lists the
             * protocol, else the first group. */
            std::uint32_t implied = 0;
            for (std::size_t g = 0; g < k.groups.size(); ++g) {
                const auto &idx = k.groups[g].protocol_idxs;
                if (std::find(idx.begin(), idx.end(), std::uint32_t(i)) != idx.end()) {
                    implied = std::uint32_t(g);
                    break;
                }
            }
            if (pr.group_idx != implied) {
                if (pr.group_idx >= k.groups.size()) {
                    warn(p + ".group", "group position " + std::to_string(pr.group_idx) + " is out of range; left out");
                } else {
                    if (position_of(k.groups, k.groups[pr.group_idx].id) != pr.group_idx)
                        warn(p + ".group", "the group's id is not unique; tazc refers to the first group with it");
                    j["group"] = k.groups[pr.group_idx].id;
                }
            }
            prots.push_back(std::move(j));
        }
        if (!prots.empty()) out["protocols"] = std::move(prots);
        if (!groups.empty()) out["protocol_groups"] = std::move(groups);
    }

    static Json risk(const tazw::KnownRisk &r, std::size_t)
    {
        return Json{{"direction", direction(r.direction)},
                    {"severity", r.severity},
                    {"policy", r.policy_id},
                    {"protocols", list(r.protocol_ranges, "")}};
    }

    static Json risks(const std::vector<tazw::KnownRisk> &v) { return array_of(v, risk); }

    static Json defaults(const std::vector<tazw::RiskInfo> &v)
    {
        Json o = Json::object();
        for (const auto &[dir, side] : {std::pair<std::uint32_t, const char *>{2, "inbound"}, {3, "outbound"}})
            for (const tazw::RiskInfo &r : v)
                if (r.direction == dir) o[side] = Json{{"severity", r.severity}, {"policy", r.policy_id}};
        return o;
    }

    Json severity(const tazw::Severity &s, const std::string &path)
    {
        Json j = Json::object();
        if (!s.known.empty()) j["known"] = risks(s.known);
        if (!s.known_defaults.empty()) j["known_default"] = defaults(s.known_defaults);
        if (!s.potential.empty())
            j["potential"] = array_of(s.potential, [&](const tazw::PotentialRisk &p, std::size_t i) {
                if (p.risks.empty())
                    warn(index_path(path + ".potential", i), "no risk entries; tazc needs at least one");
                return Json{{"rule", p.rule_id}, {"risks", risks(p.risks)}};
            });
        if (!s.potential_defaults.empty()) j["potential_default"] = defaults(s.potential_defaults);
        return j;
    }

    void kind(const tazc::Kind &k, const std::string &prefix, Json &out)
    {
        Json groups[2] = {Json::object(), Json::object()}; /* "lists", "maps" */
        for (const tazc::FamilyLists &fl : k.lists) {
            const bool is_list = std::string(fl.family->group) == "lists";
            const std::string fpath = child_path(child_path(prefix, fl.family->group), fl.family->name);
            ObjectBuilder fam;
            for (const tazc::NumberedList &l : fl.lists) {
                const std::string lp = child_path(fpath, std::to_string(l.number));
                if (l.number > tazc::kMaxListNumber)
                    warn(lp, "list number " + std::to_string(l.number) + " is above " +
                                 std::to_string(tazc::kMaxListNumber) + ", which tazc refuses");
                fam.add(std::to_string(l.number), std::visit([&](const auto &v) { return list(v, lp); }, l.data));
            }
            groups[is_list ? 0 : 1][fl.family->name] = fam.take();
        }
        if (!groups[0].empty()) out["lists"] = std::move(groups[0]);
        if (!groups[1].empty()) out["maps"] = std::move(groups[1]);
        if (!k.rules.empty())
            out["rules"] = array_of(k.rules, [&](const tazw::RuleInfo &r, std::size_t i) {
                return rule(r, index_path(child_path(prefix, "rules"), i));
            });
        if (!k.clean.empty())
            out["clean"] = array_of(k.clean, [&](const tazw::CleanInfo &c, std::size_t i) {
                return clean(c, index_path(child_path(prefix, "clean"), i));
            });
        protocols(k, prefix, out);
        Json sev = severity(k.severity, child_path(prefix, "severity"));
        if (!sev.empty()) out["severity"] = std::move(sev);
        if (!k.threat_types.empty()) {
            ObjectBuilder t;
            for (const tazw::ThreatType &x : k.threat_types) {
                const std::string id = std::to_string(x.rule_id);
                if (!t.add(id, named(x.threat_type, threat_type_name(x.threat_type))))
                    warn(child_path(child_path(prefix, "threat_types"), id),
                         "the rule id occurs twice; the JSON object keeps the first (which the lookup uses)");
            }
            out["threat_types"] = t.take();
        }
    }

    /* Printable UTF-8 as text, anything else as hex pairs. */
    static Json raw(const tazw::Bytes &b)
    {
        const std::string s(b.begin(), b.end());
        const bool printable = std::all_of(s.begin(), s.end(), [](char c) {
            const auto u = static_cast<unsigned char>(c);
            return u >= 0x20 ? u != 0x7F : (u == '\n' || u == '\t' || u == '\r');
        });
        if (printable && valid_utf8(s)) return Json{{"text", s}};
        return Json{{"hex", hex_bytes(b.data(), b.size(), " ")}};
    }
};

} // namespace

tazc::Json source_json(const tazc::Source &src, std::vector<std::string> *warnings)
{
    return JsonWriter(warnings).source(src);
}

std::string source_text(const tazc::Source &src, std::vector<std::string> *warnings)
{
    return source_json(src, warnings).dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

/* ---- the command ------------------------------------------------------------------------ */

namespace {

constexpr const char *kDumpUsage = "usage: taze dump [-o OUT.json] FILE\n"
                                   "\n"
                                   "Writes the pattern file back as the JSON source that tazc compiles\n"
                                   "(docs/pattern-source.md), with every key in a fixed order: dump, compile\n"
                                   "with tazc and dump again gives the same text. Rules are listed in the\n"
                                   "library's rule-index order (sorted by id).\n"
                                   "\n"
                                   "  -o OUT.json   write the source to OUT.json instead of standard output\n"
                                   "\n"
                                   "What the source cannot say faithfully (strings with NUL bytes or invalid\n"
                                   "UTF-8, duplicate keys, positions out of range, and every error that\n"
                                   "taze verify reports) is listed on standard error.\n"
                                   "\n"
                                   "Exit codes: 0 a faithful source was written, 1 the file does not load or\n"
                                   "the source is not faithful (it is still written), 2 usage error.\n";

} // namespace

int cmd_dump(const Args &args, std::ostream &out, std::ostream &err)
{
    if (show_help(args, out, kDumpUsage)) return kExitOk;
    std::string out_path, file_arg;
    const std::string bad = one_file(args, {{"-o", nullptr, &out_path}}, &file_arg);
    if (!bad.empty()) return usage_error(err, "dump", bad);
    LoadedFile file;
    if (!load_for_command(file_arg, file, err, true)) return kExitFailed;
    std::vector<std::string> warnings;
    const std::string text = source_text(source_of(file), &warnings);
    const std::size_t errors = error_count(verify_file(file));
    if (out_path.empty()) {
        out << text;
    } else {
        std::ofstream o(out_path, std::ios::binary);
        if (!(o << text) || !o.flush()) {
            err << "taze dump: cannot write " << out_path << "\n";
            return kExitFailed;
        }
    }
    for (const std::string &w : warnings) err << "warning: " << w << "\n";
    if (errors > 0)
        err << "warning: the file breaks " << errors << " invariant" << (errors == 1 ? "" : "s")
            << " (taze verify lists them); tazc may refuse the source or store it differently\n";
    return warnings.empty() && errors == 0 ? kExitOk : kExitFailed;
}

} // namespace tazi
