/* taze info: the container and sub-pattern headers, the versions, and the
 * lists, entries and bytes of every list, map and table family per kind. */
#include <cstring>
#include <iomanip>
#include <optional>
#include <ostream>
#include <sstream>

#include "examine_commands.h"
#include "taze_impl.h"
#include "tazeptn.h"
#include "tfsh_md5.h"

namespace tazi {

namespace {

constexpr const char *kInfoUsage =
    "usage: taze info [--all] [--json] FILE\n"
    "\n"
    "Prints the container's main header, every sub-pattern header (kind,\n"
    "encryption, engine versions, offsets, lengths and whether the reader uses\n"
    "it), whether the library loads the file, the pattern version and, for each\n"
    "pattern kind, its compiler version and a table of its families: the lists\n"
    "the image holds, their entries (and values, for maps), and the bytes of the\n"
    "section in the payload.\n"
    "\n"
    "  --all   list every family, also those the kind does not hold\n"
    "  --json  print one JSON document instead (see docs/tools-json.md)\n"
    "\n"
    "Exit codes: 0 the file loads, 1 it cannot be read or does not load, 2 usage error.\n";

std::string hex32(std::uint32_t v)
{
    std::ostringstream s;
    s << "0x" << std::hex << std::setw(8) << std::setfill('0') << v;
    return s.str();
}

std::string ver(std::uint32_t v) { return hex32(v) + " (" + version_text(v) + ")"; }

/* One row of a kind's family table. */
struct Row {
    std::string family;
    std::string section;
    std::uint64_t lists = 0, entries = 0, values = 0, bytes = 0;
    bool has_values = false;
    bool present = false;
};

void print_rows(std::ostream &out, const std::vector<Row> &rows, bool all)
{
    out << "  " << std::left << std::setw(30) << "family" << std::setw(12) << "section" << std::right << std::setw(8)
        << "lists" << std::setw(10) << "entries" << std::setw(10) << "values" << std::setw(10) << "bytes"
        << "\n";
    for (const Row &r : rows) {
        if (!all && !r.present) continue;
        out << "  " << std::left << std::setw(30) << r.family << std::setw(12) << r.section << std::right
            << std::setw(8) << r.lists << std::setw(10) << r.entries << std::setw(10)
            << (r.has_values ? std::to_string(r.values) : "-") << std::setw(10) << r.bytes << "\n";
    }
}

/* Bytes of the first list of a kind inside an info section (header included). */
std::uint64_t sub_list_bytes(const Section *s, std::uint32_t magic)
{
    if (!s) return 0;
    for (const ListHeader &l : s->lists)
        if (l.number == magic || single_list_section(s->hdr.magic)) return 12u + l.size;
    return 0;
}

void family_rows(const taz_pattern_st &img, const Payload &payload, std::vector<Row> &rows)
{
    for (const ImageFamily &f : image_families(img)) {
        Row r;
        r.family = std::string(f.family->group) + "." + f.family->name;
        r.section = magic_text(f.family->magic);
        const Section *s = last_section(payload, f.family->magic);
        r.bytes = s ? s->hdr.size : 0;
        std::visit(
            [&](const auto &a) {
                r.lists = a.lists.size;
                for (const auto &l : a.lists) {
                    const auto e = elements(l);
                    r.entries += e.size;
                    using E = std::remove_cv_t<std::remove_reference_t<decltype(e[0])>>;
                    if constexpr (is_map_entry_v<E>) {
                        r.has_values = true;
                        for (const E &x : e) r.values += values_of(x).size;
                    }
                }
            },
            f.lists);
        r.present = s != nullptr || r.lists > 0;
        rows.push_back(r);
    }
}

void table_rows(const taz_pattern_st &img, const Payload &payload, bool second, std::vector<Row> &rows)
{
    auto add = [&](const char *name, std::uint32_t section, std::uint32_t list, std::uint64_t entries,
                   std::optional<std::uint64_t> values) {
        Row r;
        r.family = name;
        r.section = magic_text(section) + (list ? "/" + magic_text(list) : "");
        const Section *s = last_section(payload, section);
        r.lists = entries > 0 ? 1 : 0;
        r.entries = entries;
        r.has_values = values.has_value();
        r.values = values.value_or(0);
        r.bytes = list ? sub_list_bytes(s, list) : (s ? s->hdr.size : 0);
        r.present = entries > 0 || (s && (!list || r.bytes > 0));
        rows.push_back(r);
    };
    const auto &pi = img.protocol_info;
    const auto &sv = img.severity_info;
    std::uint64_t members = 0, known_ranges = 0, potential_risks = 0;
    for (const auto &g : Span<taz_protocol_group_info_st>(pi.prog_infos, pi.nr_prog_infos))
        members += g.nr_protocol_idxs;
    for (const auto &k : Span<taz_known_risk_info_st>(sv.known_infos, sv.nr_known_infos))
        known_ranges += k.protocol_ranges.nr_port_ranges;
    for (const auto &p : Span<taz_potential_risk_info_st>(sv.potential_infos, sv.nr_potential_infos))
        potential_risks += p.nr_risk_infos;
    auto defaults = [](const taz_risk_info_st &in, const taz_risk_info_st &out) {
        return std::uint64_t(in.direction != 0) + std::uint64_t(out.direction != 0);
    };
    add("rules", MAGIC_TAZE_PATTERN_RULE_INFO, 0, img.rule_info_list.nr_rule_infos, std::nullopt);
    add("clean", MAGIC_TAZE_PATTERN_CLEAN_INFO, 0, img.clean_info_list.nr_clean_infos, std::nullopt);
    add("protocols", MAGIC_TAZE_PATTERN_PROTOCOL_INFO, MAGIC_TAZE_PROTOCOL_LIST, pi.nr_prot_infos, std::nullopt);
    add("protocol_groups", MAGIC_TAZE_PATTERN_PROTOCOL_INFO, MAGIC_TAZE_PROTOOCOL_GROUP_LIST, pi.nr_prog_infos,
        members);
    add("severity.known", MAGIC_TAZE_PATTERN_SEVERITY_INFO, MAGIC_TAZE_SEVERITY_KNOWN, sv.nr_known_infos, known_ranges);
    add("severity.known_default", MAGIC_TAZE_PATTERN_SEVERITY_INFO, MAGIC_TAZE_SEVERITY_KNOWN_DEFAULT,
        defaults(sv.known_inbound_info, sv.known_outbound_info), std::nullopt);
    add("severity.potential", MAGIC_TAZE_PATTERN_SEVERITY_INFO, MAGIC_TAZE_SEVERITY_POTENT, sv.nr_potential_infos,
        potential_risks);
    add("severity.potential_default", MAGIC_TAZE_PATTERN_SEVERITY_INFO, MAGIC_TAZE_SEVERITY_POTENT_DEFAULT,
        defaults(sv.potential_inbound_info, sv.potential_outbound_info), std::nullopt);
    add("threat_types", MAGIC_TAZE_THREAT_TYPE, MAGIC_TAZE_THREAT_TYPE, img.threat_type_info.nr_threat_type_infos,
        std::nullopt);
    add("compiler_version", MAGIC_TAZE_PATTERN_PATTERN_INFO, MAGIC_TAZE_PATTERN_COMPILER_VER,
        last_section(payload, MAGIC_TAZE_PATTERN_PATTERN_INFO) ? 1 : 0, std::nullopt);
    if (second)
        add("name", MAGIC_TAZE_PATTERN_ULM_INFO, MAGIC_TAZE_PATTERN_ULM_INFO, img.ulm_info.malname ? 1 : 0,
            std::nullopt);
}

std::vector<Row> kind_rows(const taz_pattern_st &img, const Payload &payload, bool second)
{
    std::vector<Row> rows;
    family_rows(img, payload, rows);
    table_rows(img, payload, second, rows);
    return rows;
}

const char *kind_title(bool second)
{
    return second ? "second pattern (kind 8, pattern type 1)" : "main pattern (kind 7, pattern type 0)";
}

/* The name of the second kind, when it has one. */
std::optional<std::string_view> ulm_name(const taz_pattern_st &img)
{
    counted_string_t name{};
    if (img.ulm_info.malname && stored_string(img, img.ulm_info.malname, &name)) return text_of(name);
    return std::nullopt;
}

void print_kind(std::ostream &out, const taz_pattern_st &img, bool second, bool all)
{
    const Payload payload = walk_payload(img);
    out << kind_title(second) << ":\n";
    out << "  payload: " << img.ptn_len << " bytes in " << payload.sections.size() << " sections";
    if (payload.trailing) out << " and " << payload.trailing << " trailing bytes";
    out << "\n  compiler version: " << ver(img.taz_ptn_compiler_version) << "\n";
    if (second) {
        const auto name = ulm_name(img);
        out << "  name: " << (name ? tazc::quote_text(*name) : "none") << "\n";
    }
    print_rows(out, kind_rows(img, payload, second), all);
    for (const Section &s : payload.sections)
        if (!section_accepted(s.hdr.magic, second))
            out << "  skipped section " << section_name(s.hdr.magic) << " at payload offset " << s.offset << ", "
                << s.hdr.size << " bytes\n";
}

tazc::Json kind_json(const taz_pattern_st &img, bool second, bool all)
{
    const Payload payload = walk_payload(img);
    tazc::Json j{{"kind", second ? "second" : "main"},
                 {"subtype", second ? KORM_SUB_ULM_RULE : KORM_SUB_TAZE_RULE},
                 {"payload_bytes", img.ptn_len},
                 {"sections", payload.sections.size()},
                 {"trailing_bytes", payload.trailing},
                 {"compiler_version", img.taz_ptn_compiler_version},
                 {"compiler_version_text", version_text(img.taz_ptn_compiler_version)}};
    if (second) {
        const auto name = ulm_name(img);
        j["name"] = name ? tazc::Json(std::string(*name)) : tazc::Json();
    }
    tazc::Json families = tazc::Json::array();
    for (const Row &r : kind_rows(img, payload, second)) {
        if (!all && !r.present) continue;
        families.push_back({{"family", r.family},
                            {"section", r.section},
                            {"lists", r.lists},
                            {"entries", r.entries},
                            {"values", r.has_values ? tazc::Json(r.values) : tazc::Json()},
                            {"bytes", r.bytes}});
    }
    j["families"] = std::move(families);
    tazc::Json skipped = tazc::Json::array();
    for (const Section &s : payload.sections)
        if (!section_accepted(s.hdr.magic, second))
            skipped.push_back({{"section", section_name(s.hdr.magic)}, {"offset", s.offset}, {"bytes", s.hdr.size}});
    j["skipped_sections"] = std::move(skipped);
    return j;
}

/* Whether the container stops because the file ends early. */
bool truncated(const Layout &l)
{
    if (!l.has_head) return l.file_size < KORMHEAD_SIZE;
    if (std::memcmp(l.head.magic, TAZP_FILE_MAGIC_STR, 4) != 0) return false;
    if (!l.subs.empty() && !l.subs.back().complete) {
        const SubHeader &s = l.subs.back();
        return s.enc_pos != 0 && s.enc_pos + ENCHEAD_SIZE + s.enc.enclen > l.file_size;
    }
    return l.subs.size() < l.head.cntSub && l.end_pos + KORMSUB_SIZE > l.file_size;
}

const char *body_state(const SubHeader &s)
{
    if (!s.complete) return "truncated";
    return s.skipped.empty() ? "used" : "skipped";
}

/* Why the library refuses the file, in the inspector's words: "" when it
 * loads. A truncated file is called that and nothing more. */
std::string load_problem(const LoadedFile &f)
{
    const std::string refusal = f.refusal();
    if (refusal.empty()) return "";
    if (truncated(f.layout)) return "the file is truncated";
    const std::string checksum = f.status != 0 ? checksum_problem(f) : "";
    return checksum.empty() ? refusal : checksum + " (" + refusal + ")";
}

tazc::Json info_json(const std::string &path, const LoadedFile &f, bool all)
{
    const Layout &l = f.layout;
    tazc::Json doc{{"file", path}, {"file_size", l.file_size}, {"truncated", truncated(l)}};
    if (l.has_head) {
        const KORMHEAD &h = l.head;
        tazc::Json subs = tazc::Json::array();
        for (const SubHeader &s : l.subs)
            subs.push_back({{"offset", s.header_pos},
                            {"subtype", s.sub.subtype},
                            {"subtype_name", subtype_name(s.sub.subtype)},
                            {"enctype", s.sub.enctype},
                            {"enctype_name", enctype_name(s.sub.enctype)},
                            {"minver", s.sub.minver},
                            {"maxver", s.sub.maxver},
                            {"offset_field", s.sub.offset},
                            {"encryption_header_offset", s.enc_pos},
                            {"enclen", s.enc.enclen},
                            {"declen", s.enc.declen},
                            {"digest", hex_bytes(s.enc.digest, KORM_KEY_LEN)},
                            {"body", body_state(s)},
                            {"skip_reason", s.skipped.empty() ? tazc::Json() : tazc::Json(s.skipped)}});
        doc["main_header"] = {{"magic", std::string(reinterpret_cast<const char *>(h.magic), 4)},
                              {"format_version", h.fmtVer},
                              {"mbz", h.mbz},
                              {"sub_patterns", h.cntSub},
                              {"reserved", {h.reserved[0], h.reserved[1], h.reserved[2], h.reserved[3]}}};
        doc["pattern_version"] = h.ptnVer;
        doc["pattern_version_text"] = version_text(h.ptnVer);
        doc["sub_patterns"] = std::move(subs);
    }
    doc["container_problem"] = l.problem.empty() ? tazc::Json() : tazc::Json(l.problem);
    doc["ignored_tail_bytes"] = l.problem.empty() && l.file_size > l.end_pos ? l.file_size - l.end_pos : 0;
    const std::string problem = load_problem(f);
    doc["loads"] = problem.empty();
    doc["load_problem"] = problem.empty() ? tazc::Json() : tazc::Json(problem);
    tazc::Json kinds = tazc::Json::array();
    if (f.status == 0)
        for (bool second : {false, true})
            if (const taz_pattern_st *img = f.image(second)) kinds.push_back(kind_json(*img, second, all));
    doc["kinds"] = std::move(kinds);
    doc["raw_bytes"] = f.status == 0 ? f.raw().size() : 0;
    return doc;
}

void print_container(std::ostream &out, const LoadedFile &f)
{
    const Layout &l = f.layout;
    out << "file size: " << l.file_size << " bytes\n";
    if (!l.has_head) {
        out << "container: " << l.problem << "\n";
        return;
    }
    const KORMHEAD &h = l.head;
    out << "main header: magic " << tazc::quote_text(std::string_view(reinterpret_cast<const char *>(h.magic), 4))
        << ", format version " << h.fmtVer << ", mbz " << h.mbz << ", sub-patterns " << h.cntSub << ", reserved "
        << h.reserved[0] << " " << h.reserved[1] << " " << h.reserved[2] << " " << h.reserved[3] << "\n";
    out << "pattern version: " << ver(h.ptnVer) << "\n";
    for (std::size_t i = 0; i < l.subs.size(); ++i) {
        const SubHeader &s = l.subs[i];
        out << "sub-pattern " << i << " at offset " << s.header_pos << ": kind " << s.sub.subtype << " ("
            << subtype_name(s.sub.subtype) << "), encryption " << s.sub.enctype << " (" << enctype_name(s.sub.enctype)
            << ")\n";
        out << "  engine versions: min " << hex32(s.sub.minver) << ", max " << hex32(s.sub.maxver) << "; offset field "
            << s.sub.offset << ", encryption header at " << s.enc_pos << "\n";
        out << "  enclen " << s.enc.enclen << ", declen " << s.enc.declen << ", digest "
            << hex_bytes(s.enc.digest, KORM_KEY_LEN) << "\n";
        out << "  body at " << s.enc_pos + ENCHEAD_SIZE << ".." << s.enc_pos + ENCHEAD_SIZE + s.enc.enclen << ": "
            << body_state(s) << (s.complete && !s.skipped.empty() ? ", " + s.skipped : "") << "\n";
    }
    if (truncated(l))
        out << "container: truncated (" << l.problem << ")\n";
    else if (!l.problem.empty())
        out << "container: " << l.problem << "\n";
    else if (l.file_size > l.end_pos)
        out << "after the last sub-pattern: " << l.file_size - l.end_pos << " bytes (ignored)\n";
}

} // namespace

std::string checksum_problem(const LoadedFile &file)
{
    for (std::size_t i = 0; i < file.layout.subs.size(); ++i) {
        const SubHeader &s = file.layout.subs[i];
        if (!s.complete || !s.skipped.empty() || s.sub.enctype != KORM_ENC_TFSH_MD5) continue;
        ENCHEAD enc = s.enc; /* decBuf decrypts the stored digest in place */
        const std::uint64_t at = s.enc_pos + ENCHEAD_SIZE;
        std::vector<unsigned char> body(file.bytes.begin() + static_cast<std::ptrdiff_t>(at),
                                        file.bytes.begin() + static_cast<std::ptrdiff_t>(at + enc.enclen));
        body.resize(body.size() + 1); /* never empty */
        if (decBuf(&enc, body.data()) == KORM_TFSH_MD5_ERROR_CHECKSUM)
            return "checksum mismatch in sub-pattern " + std::to_string(i) +
                   ": the MD5 digest of its body differs from the stored one";
    }
    return "";
}

int cmd_info(const Args &args, std::ostream &out, std::ostream &err)
{
    if (show_help(args, out, kInfoUsage)) return kExitOk;
    bool all = false, json = false;
    std::string path;
    const std::string bad = one_file(args, {{"--all", &all, nullptr}, {"--json", &json, nullptr}}, &path);
    if (!bad.empty()) return usage_error(err, "info", bad);
    LoadedFile f;
    if (!load_for_command(path, f, err, false)) return kExitFailed;
    const std::string problem = load_problem(f);
    const int exit = problem.empty() ? kExitOk : kExitFailed;
    if (json) {
        out << info_json(path, f, all).dump(2, ' ', false, tazc::Json::error_handler_t::replace) << "\n";
        return exit;
    }
    out << "file: " << path << "\n";
    print_container(out, f);
    out << "load: " << (problem.empty() ? "ok" : "fails: " + problem) << "\n";
    if (f.status != 0) return kExitFailed;
    for (bool second : {false, true})
        if (const taz_pattern_st *img = f.image(second)) print_kind(out, *img, second, all);
    const std::string_view raw = f.raw();
    out << "raw pattern (kind 9): " << (raw.empty() ? "none" : std::to_string(raw.size()) + " bytes") << "\n";
    return exit;
}

} // namespace tazi
