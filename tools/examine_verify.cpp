/* taze verify: the lint of a pattern file. The loaders neither sort nor
 * check order, so every array that a lookup bisects must already be stored
 * in the order of the lookup's comparator; the checks below use the
 * library's own comparators for that. */
#include <algorithm>
#include <cstring>
#include <map>
#include <ostream>
#include <set>

#include "coverage.h"
#include "examine_commands.h"
#include "taze_impl.h"

namespace tazi {

namespace {

using tazc::Family;

/* ---- ranges, through the library's range comparators -------------------------------- */

/* The low bound of a range as the key its comparator takes. */
unsigned int range_key(const ip_rng_st &r) { return r.ip_l; }
unsigned short range_key(const port_rng_st &r) { return r.port_l; }
const unsigned char *range_key(const ipv6_rng_st &r) { return r.ipv6_l.bytes; }
int range_compare(const unsigned int *key, const ip_rng_st &e) { return ip_rng_compare_single(key, &e); }
int range_compare(const unsigned short *key, const port_rng_st &e) { return port_rng_compare_single(key, &e); }
int range_compare(const unsigned char *const *key, const ipv6_rng_st &e) { return ipv6_rng_compare_single(key, &e); }

/* Where the low bound of k lies against the range e: 0 inside, -1 below, 1 above. */
template <typename R>
int low_vs(const R &k, const R &e)
{
    const auto key = range_key(k);
    return range_compare(&key, e);
}

std::string range_text(const ip_rng_st &r) { return ipv4_text(r.ip_l) + "-" + ipv4_text(r.ip_h); }
std::string range_text(const ipv6_rng_st &r) { return ipv6_text(r.ipv6_l.bytes) + "-" + ipv6_text(r.ipv6_h.bytes); }
std::string range_text(const port_rng_st &r) { return std::to_string(r.port_l) + "-" + std::to_string(r.port_h); }

template <typename E>
constexpr bool is_range_v =
    std::is_same_v<E, ip_rng_st> || std::is_same_v<E, ipv6_rng_st> || std::is_same_v<E, port_rng_st>;

/* ---- keys ---------------------------------------------------------------------------- */

/* The text as the C comparisons read it: up to the first NUL. */
std::string c_text(const counted_string_t &s)
{
    const std::string_view t = text_of(s);
    return std::string(t.substr(0, std::min(t.find('\0'), t.size())));
}

std::string fold(std::string s)
{
    for (char &c : s) c = char(taz_tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string key_text(const counted_string_t &k) { return tazc::quote_text(text_of(k)); }
std::string key_text(UINT32 k) { return std::to_string(k); }
std::string key_text(const ipv6_st &k) { return ipv6_text(k.bytes); }

/* What two keys must not share: map keys match case-insensitively, up to
 * the first NUL as the comparators read them. */
std::string key_identity(const counted_string_t &k) { return fold(c_text(k)); }
std::string key_identity(UINT32 k) { return std::to_string(k); }
std::string key_identity(const ipv6_st &k) { return std::string(reinterpret_cast<const char *>(k.bytes), 16); }

/* The library's key comparison of two entries of one map list. */
template <typename E>
int key_order(const Family &f, const E &a, const E &b)
{
    if constexpr (std::is_same_v<E, iimap_st>)
        return iimap_compare_key(&a, &b);
    else if constexpr (std::is_same_v<E, ismap_st>)
        return ismap_compare_key(&a, &b);
    else if constexpr (std::is_same_v<E, ipv6imap_st>)
        return ipv6imap_compare_key(&a, &b);
    else
        return compare_stored(a.string, b.string, f.key_rule, false);
}

std::string order_text(unsigned rule, bool case_sensitive)
{
    if (rule == 2)
        return case_sensitive ? "these strings are bisected bytewise on the text read backwards"
                              : "these strings are bisected on the case-folded text read backwards";
    return case_sensitive ? "these strings are bisected in strcmp order"
                          : "these strings are bisected in case-insensitive strcasecmp order";
}

/* ---- the checks of one image ----------------------------------------------------------- */

class Checker {
public:
    Checker(const taz_pattern_st &img, bool second, std::vector<Finding> &out)
        : img_(img), kind_(second ? "ulm" : "main"), second_(second), out_(out)
    {
    }

    void run()
    {
        const Payload payload = walk_payload(img_);
        structure(payload);
        for (const ImageFamily &f : image_families(img_))
            std::visit([&](const auto &a) { family(*f.family, a, last_section(payload, f.family->magic)); }, f.lists);
        rules();
        clean_table();
        protocols();
        severity();
        threat_types();
        if (second_) info_text("name", img_.ulm_info.malname);
    }

private:
    const taz_pattern_st &img_;
    const char *kind_;
    bool second_;
    std::vector<Finding> &out_;

    void error(const std::string &where, const std::string &what) { out_.push_back({true, kind_, where, what}); }
    void note(const std::string &where, const std::string &what) { out_.push_back({false, kind_, where, what}); }
    void warning(const std::string &where, const std::string &what)
    {
        out_.push_back({false, kind_, where, what, true});
    }

    /* Entries that a shorter entry of the same list covers: the bisection
     * can step over the shorter one. Texts as the comparisons read them. */
    template <typename E, typename Text>
    void covered(const std::string &path, const Span<E> &s, unsigned rule, bool case_sensitive, bool keys,
                 Text text_of_entry)
    {
        if (rule != 1 && rule != 2) return;
        std::vector<std::string> texts;
        for (const E &e : s) texts.push_back(c_text(text_of_entry(e)));
        const std::vector<tazc::CoveredPair> pairs =
            tazc::covered_entries(std::vector<std::string_view>(texts.begin(), texts.end()), rule, case_sensitive);
        if (pairs.empty()) return;
        constexpr std::size_t kShown = 3;
        std::string list;
        for (std::size_t i = 0; i < pairs.size() && i < kShown; ++i)
            list += std::string(i ? ", " : "") + "[" + std::to_string(pairs[i].covered) + "] " +
                    tazc::quote_text(texts[pairs[i].covered]) + " by [" + std::to_string(pairs[i].by) + "] " +
                    tazc::quote_text(texts[pairs[i].by]);
        if (pairs.size() > kShown) list += ", ...";
        const char *one = keys ? "key" : "entry";
        warning(path, std::to_string(pairs.size()) + " " + (pairs.size() == 1 ? one : keys ? "keys" : "entries") +
                          (pairs.size() == 1 ? " is" : " are") + " covered by a shorter " + one +
                          " of the same list, and the search can miss the shorter one: " + list);
    }

    /* ---- the section stream ---- */

    void structure(const Payload &p)
    {
        std::map<std::uint32_t, std::uint64_t> first_at;
        bool compiler_version = false;
        for (std::size_t k = 0; k < p.sections.size(); ++k) {
            const Section &s = p.sections[k];
            const std::string where = "section " + std::to_string(k) + " at payload offset " + std::to_string(s.offset);
            const std::string name = section_name(s.hdr.magic);
            if (!section_accepted(s.hdr.magic, second_)) {
                note(where, name + " is not read by this kind and is skipped");
                continue;
            }
            compiler_version = compiler_version || s.hdr.magic == MAGIC_TAZE_PATTERN_PATTERN_INFO;
            auto [it, fresh] = first_at.emplace(s.hdr.magic, s.offset);
            if (!fresh)
                error(where, name + " occurs a second time (first at payload offset " + std::to_string(it->second) +
                                 "); " + second_section_effect(s.hdr.magic));
            if (single_list_section(s.hdr.magic) && s.hdr.count != 1)
                note(where, name + " has a list count of " + std::to_string(s.hdr.count) +
                                "; the loader reads exactly one list");
            sub_lists(where, s);
        }
        if (!compiler_version)
            note("compiler_version", "no pattern info section: the compiler version reads as 0.00000.00");
        if (p.trailing > 0) note("payload", std::to_string(p.trailing) + " bytes after the last section are ignored");
    }

    /* What the loader makes of a second section of one kind. */
    static const char *second_section_effect(std::uint32_t magic)
    {
        switch (magic) {
        case MAGIC_TAZE_PATTERN_RULE_INFO:
        case MAGIC_TAZE_PATTERN_CLEAN_INFO: return "its list replaces the earlier one";
        case MAGIC_TAZE_PATTERN_PATTERN_INFO: return "its compiler version overwrites the earlier one";
        case MAGIC_TAZE_PATTERN_ULM_INFO: return "its name replaces the earlier one";
        case MAGIC_TAZE_PATTERN_PROTOCOL_INFO:
        case MAGIC_TAZE_PATTERN_SEVERITY_INFO:
        case MAGIC_TAZE_THREAT_TYPE: return "its lists of kinds already read are ignored";
        default: return "it replaces the earlier section, whose lists are lost";
        }
    }

    /* Expected sub-list magics of the info sections; list and map sections
     * number their lists instead. */
    static std::vector<std::uint32_t> sub_list_magics(std::uint32_t section)
    {
        switch (section) {
        case MAGIC_TAZE_PATTERN_PATTERN_INFO: return {MAGIC_TAZE_PATTERN_COMPILER_VER};
        case MAGIC_TAZE_PATTERN_PROTOCOL_INFO: return {MAGIC_TAZE_PROTOCOL_LIST, MAGIC_TAZE_PROTOOCOL_GROUP_LIST};
        case MAGIC_TAZE_PATTERN_SEVERITY_INFO:
            return {MAGIC_TAZE_SEVERITY_KNOWN, MAGIC_TAZE_SEVERITY_KNOWN_DEFAULT, MAGIC_TAZE_SEVERITY_POTENT,
                    MAGIC_TAZE_SEVERITY_POTENT_DEFAULT};
        case MAGIC_TAZE_THREAT_TYPE: return {MAGIC_TAZE_THREAT_TYPE};
        case MAGIC_TAZE_PATTERN_ULM_INFO: return {MAGIC_TAZE_PATTERN_ULM_INFO};
        default: return {};
        }
    }

    void sub_lists(const std::string &where, const Section &s)
    {
        if (single_list_section(s.hdr.magic)) return;
        const std::vector<std::uint32_t> expected = sub_list_magics(s.hdr.magic);
        std::set<std::uint32_t> seen;
        const Family *f = nullptr;
        for (const tazc::Family &g : tazc::families())
            if (g.magic == s.hdr.magic) f = &g;
        for (const ListHeader &l : s.lists) {
            if (f) { /* a list or map family: lists are numbered */
                const std::string path = std::string(f->group) + "." + f->name + "." + std::to_string(l.number);
                if (l.number == 0xFFFFFFFFu)
                    error(path, "list number 0xFFFFFFFF is ignored by the loader");
                else if (!seen.insert(l.number).second)
                    error(path, "list number " + std::to_string(l.number) +
                                    " occurs twice in the section; the later list replaces the earlier one");
                continue;
            }
            const std::string list = where + ", list \"" + magic_text(l.number) + "\"";
            if (l.count == 0) continue; /* the loaders skip empty lists of any magic */
            if (std::find(expected.begin(), expected.end(), l.number) == expected.end())
                error(list, "unknown list kind in " + section_name(s.hdr.magic) + "; the loader skips it");
            else if (!seen.insert(l.number).second)
                error(list, "second list of this kind in the section; the loader ignores or overwrites one of them");
        }
    }

    /* ---- list and map families ---- */

    template <typename L>
    void family(const Family &f, const ListArray<L> &a, const Section *sec)
    {
        /* The header each list was loaded from: the last one of its number. */
        std::map<std::uint32_t, const ListHeader *> headers;
        std::vector<std::uint32_t> listed;
        if (sec)
            for (const ListHeader &l : sec->lists) {
                headers[l.number] = &l;
                listed.push_back(l.number);
            }
        /* Numbers that neither a header nor a record names are empty lists:
         * nothing to check. */
        for (std::uint32_t n : list_numbers(a.lists, listed)) {
            const std::string path = std::string(f.group) + "." + f.name + "." + std::to_string(n);
            const auto e = elements(a.lists[n]);
            entries(f, path, e);
            const auto h = headers.find(n);
            if (h != headers.end()) list_size(path, *h->second, e);
        }
    }

    /* The entries must fill exactly the bytes the list's size field names:
     * the loader finds the next list through it. */
    template <typename E>
    void list_size(const std::string &path, const ListHeader &h, const Span<E> &e)
    {
        if (h.count == 0 || e.size == 0) return;
        std::uint64_t bytes = 0;
        for (const E &x : e) bytes += stored_size(x);
        if (bytes != h.size)
            error(path, "the list's size field says " + std::to_string(h.size) + " bytes but its " +
                            std::to_string(e.size) + " entries take " + std::to_string(bytes) +
                            "; the loader finds the next list through the size field");
    }

    void entries(const Family &f, const std::string &path, const Span<counted_string_t> &s)
    {
        strings(path, s, f.key_rule, f.case_sensitive, f.key_rule == 0);
        covered(path, s, f.key_rule, f.case_sensitive, false, [](const counted_string_t &e) { return e; });
    }

    template <typename E>
    void entries(const Family &f, const std::string &path, const Span<E> &s)
    {
        if constexpr (is_range_v<E>)
            ranges(path, s);
        else
            map_entries(f, path, s);
    }

    /* Strings of one list or of one entry's values. */
    void strings(const std::string &path, const Span<counted_string_t> &s, unsigned rule, bool case_sensitive,
                 bool unique)
    {
        std::map<std::string, std::size_t> seen;
        for (std::size_t i = 0; i < s.size; ++i) {
            const std::string p = tazc::index_path(path, i);
            text(p, s[i]);
            if (i > 0 && compare_stored(s[i - 1], s[i], rule, case_sensitive) > 0)
                error(p, key_text(s[i]) + " is stored after " + key_text(s[i - 1]) + " but sorts before it; " +
                             order_text(rule, case_sensitive));
            if (!unique) continue;
            const std::string id = case_sensitive ? c_text(s[i]) : key_identity(s[i]);
            auto [it, fresh] = seen.emplace(id, i);
            if (!fresh)
                error(p, "duplicate string " + key_text(s[i]) + " (same as [" + std::to_string(it->second) + "])");
        }
    }

    template <typename R>
    void ranges(const std::string &path, const Span<R> &s)
    {
        for (std::size_t i = 0; i < s.size; ++i) {
            const std::string p = tazc::index_path(path, i);
            const std::string t = range_text(s[i]);
            if (low_vs(s[i], s[i]) != 0) error(p, "range " + t + " is reversed and matches nothing");
            if (i == 0) continue;
            const int c = low_vs(s[i], s[i - 1]);
            const std::string before = range_text(s[i - 1]) + " at [" + std::to_string(i - 1) + "]";
            if (c == 0)
                error(p, "range " + t + " overlaps range " + before + "; ranges must be disjoint");
            else if (c < 0)
                error(p,
                      "range " + t + " is stored after range " + before + " but starts before it; ranges must ascend");
        }
    }

    template <typename E>
    void map_entries(const Family &f, const std::string &path, const Span<E> &s)
    {
        using Key = std::remove_cv_t<std::remove_reference_t<decltype(key_of(s[0]))>>;
        std::map<std::string, std::size_t> seen;
        bool ordered = true;
        std::uint64_t span = 0; /* sum of the unsigned steps between integer keys */
        for (std::size_t i = 0; i < s.size; ++i) {
            const std::string p = tazc::index_path(path, i);
            const Key &k = key_of(s[i]);
            if constexpr (std::is_same_v<Key, counted_string_t>) text(p, k);
            if (i > 0 && key_order(f, s[i - 1], s[i]) > 0) {
                ordered = false;
                error(p, "key " + key_text(k) + " is stored after key " + key_text(key_of(s[i - 1])) +
                             " but sorts before it; map keys are bisected" +
                             (std::is_same_v<Key, counted_string_t> ? " (" + order_text(f.key_rule, false) + ")"
                                                                    : std::string()));
            }
            if constexpr (std::is_same_v<Key, UINT32>)
                if (i > 0) span += UINT32(k - key_of(s[i - 1]));
            auto [it, fresh] = seen.emplace(key_identity(k), i);
            if (!fresh)
                error(p, "duplicate key " + key_text(k) + " (same as [" + std::to_string(it->second) +
                             "]); a lookup by key finds either entry");
            if constexpr (std::is_same_v<E, ismap_st> || std::is_same_v<E, ssmap_st>)
                strings(p, values_of(s[i]), f.value_rule, false, false);
        }
        if constexpr (std::is_same_v<Key, counted_string_t>)
            covered(path, s, f.key_rule, false, true, [](const E &e) { return key_of(e); });
        if constexpr (std::is_same_v<Key, UINT32>)
            if (ordered && span >= 0x80000000u)
                error(path,
                      "keys " + key_text(key_of(s[0])) + " and " + key_text(key_of(s[s.size - 1])) +
                          " lie 2^31 or more apart; keys are compared by their 32-bit difference taken as signed");
    }

    /* ---- strings in the payload ---- */

    void text(const std::string &path, const counted_string_t &s)
    {
        if (!s.ptr || !img_.ptn_buf) return;
        const std::uint64_t off = std::uint64_t(s.ptr - img_.ptn_buf);
        if (const void *nul = std::memchr(s.ptr, 0, s.len))
            error(path, key_text(s) + " holds a NUL byte at offset " +
                            std::to_string(static_cast<const unsigned char *>(nul) - s.ptr) +
                            "; the library's comparisons stop there");
        if (off + s.len >= img_.ptn_len)
            error(path, key_text(s) + " has no NUL terminator inside the payload");
        else if (s.ptr[s.len] != 0)
            error(path, key_text(s) + " is followed by the byte 0x" + hex_bytes(s.ptr + s.len, 1) +
                            " instead of a NUL; its C string runs on");
    }

    /* A string of an info record (the record keeps only its pointer). */
    void info_text(const std::string &path, const unsigned char *p)
    {
        counted_string_t s{};
        if (p && stored_string(img_, p, &s)) text(path, s);
    }

    /* ---- rule and info tables ---- */

    void clean_entry(const std::string &path, const taz_clean_info_st &c, bool in_rule)
    {
        info_text(path + ".src", c.src_ptn);
        info_text(path + ".dst", c.dst_ptn);
        const port_rng_st &r = c.protocol;
        const bool none = r.port_l == 0 && r.port_h == 0 && c.target == 0 && c.priority == 0 && c.direction == 0;
        if (in_rule && none) return; /* a rule without clean-up */
        if (r.port_l > r.port_h)
            error(path + ".protocol", "protocol range " + range_text(r) + " is reversed and matches nothing");
        else if (!in_rule && r.port_l == 0 && r.port_h == 0)
            error(path + ".protocol", "protocol range 0-0: the clean table lookup skips such entries");
        if (c.direction < 1 || c.direction > 3)
            note(path + ".direction",
                 "direction " + std::to_string(c.direction) + " is neither any (1), inbound (2) nor outbound (3)");
    }

    void rules()
    {
        const taz_rule_info_list_st &l = img_.rule_info_list;
        const Span<taz_rule_info_st> r(l.rule_infos, l.nr_rule_infos);
        for (std::size_t i = 0; i < r.size; ++i) {
            const std::string p = tazc::index_path("rules", i);
            info_text(p + ".risk_type", r[i].risk_type);
            info_text(p + ".description", r[i].description);
            clean_entry(p + ".clean", r[i].clean_info, true);
            if (r[i].rule_id == 0) note(p, "rule id 0 is never looked up by id");
            if (i > 0 && rule_info_cmp(&r[i], &r[i - 1]) == 0)
                error(p, "duplicate rule id " + std::to_string(r[i].rule_id) + "; a lookup by id finds either record");
        }
    }

    void clean_table()
    {
        const taz_clean_info_list_st &l = img_.clean_info_list;
        const Span<taz_clean_info_st> c(l.clean_infos, l.nr_clean_infos);
        for (std::size_t i = 0; i < c.size; ++i) clean_entry(tazc::index_path("clean", i), c[i], false);
    }

    /* Ids of a table that lookups by id scan: the first holder wins. */
    template <typename T>
    void unique_ids(const char *table, const Span<T> &t, bool error_level)
    {
        std::map<std::uint32_t, std::size_t> seen;
        for (std::size_t i = 0; i < t.size; ++i) {
            auto [it, fresh] = seen.emplace(t[i].*id_field<T>(), i);
            if (fresh) continue;
            const std::string msg = "id " + std::to_string(t[i].*id_field<T>()) + " is already held by [" +
                                    std::to_string(it->second) + "]; lookups by id find that one";
            if (error_level)
                error(tazc::index_path(table, i), msg);
            else
                note(tazc::index_path(table, i), msg);
        }
    }

    template <typename T>
    static constexpr auto id_field()
    {
        if constexpr (std::is_same_v<T, taz_potential_risk_info_st> || std::is_same_v<T, taz_threat_type_info_st>)
            return &T::rule_id;
        else
            return &T::id;
    }

    void protocols()
    {
        const taz_protocol_info_list_st &pi = img_.protocol_info;
        const Span<taz_protocol_info_st> prot(pi.prot_infos, pi.nr_prot_infos);
        const Span<taz_protocol_group_info_st> groups(pi.prog_infos, pi.nr_prog_infos);
        unique_ids("protocols", prot, true);
        unique_ids("protocol_groups", groups, true);
        for (std::size_t i = 0; i < prot.size; ++i) {
            const std::string p = tazc::index_path("protocols", i);
            info_text(p + ".desc", prot[i].desc);
            if (groups.size > 0 ? prot[i].group_idx >= groups.size : prot[i].group_idx != 0)
                error(p + ".group", "group position " + std::to_string(prot[i].group_idx) + " is out of range (" +
                                        std::to_string(groups.size) + " groups)");
        }
        for (std::size_t g = 0; g < groups.size; ++g) {
            const std::string p = tazc::index_path("protocol_groups", g);
            info_text(p + ".desc", groups[g].desc);
            const Span<UINT32> members(groups[g].protocol_idx, groups[g].nr_protocol_idxs);
            for (std::size_t m = 0; m < members.size; ++m)
                if (members[m] >= prot.size)
                    error(tazc::index_path(p + ".protocols", m), "protocol position " + std::to_string(members[m]) +
                                                                     " is out of range (" + std::to_string(prot.size) +
                                                                     " protocols)");
        }
    }

    void risk_entry(const std::string &path, const taz_known_risk_info_st &k)
    {
        const Span<port_rng_st> r(k.protocol_ranges.port_ranges, k.protocol_ranges.nr_port_ranges);
        ranges(path + ".protocols", r);
        if (r.size == 0) note(path + ".protocols", "no protocol ranges: the entry fits nothing");
        if (k.info.direction < 1 || k.info.direction > 3)
            note(path + ".direction",
                 "direction " + std::to_string(k.info.direction) + " is neither any (1), inbound (2) nor outbound (3)");
    }

    void severity()
    {
        const taz_severity_info_list_st &s = img_.severity_info;
        const Span<taz_known_risk_info_st> known(s.known_infos, s.nr_known_infos);
        for (std::size_t i = 0; i < known.size; ++i) risk_entry(tazc::index_path("severity.known", i), known[i]);
        const Span<taz_potential_risk_info_st> pot(s.potential_infos, s.nr_potential_infos);
        unique_ids("severity.potential", pot, false);
        for (std::size_t i = 0; i < pot.size; ++i) {
            const std::string p = tazc::index_path("severity.potential", i);
            const Span<taz_known_risk_info_st> risks(pot[i].risk_infos, pot[i].nr_risk_infos);
            if (risks.size == 0) note(p, "no risk entries: rule " + std::to_string(pot[i].rule_id) + " fits nothing");
            for (std::size_t j = 0; j < risks.size; ++j) risk_entry(tazc::index_path(p + ".risks", j), risks[j]);
        }
    }

    void threat_types()
    {
        const taz_threat_type_info_list_st &t = img_.threat_type_info;
        unique_ids("threat_types", Span<taz_threat_type_info_st>(t.threat_type_infos, t.nr_threat_type_infos), true);
    }
};

} // namespace

std::vector<Finding> verify_image(const taz_pattern_st &image, bool second_kind)
{
    std::vector<Finding> out;
    Checker(image, second_kind, out).run();
    return out;
}

std::vector<Finding> verify_file(const LoadedFile &file)
{
    std::vector<Finding> out;
    const std::string refusal = file.refusal();
    if (file.status != 0) {
        out.push_back({true, "file", "", "the library cannot load the file: " + refusal});
        return out;
    }
    if (!refusal.empty()) out.push_back({true, "file", "", refusal});
    /* Sub-patterns: a second one of a kind replaces the first. */
    std::map<std::uint16_t, std::size_t> used;
    for (std::size_t i = 0; i < file.layout.subs.size(); ++i) {
        const SubHeader &s = file.layout.subs[i];
        const std::string where = "sub-pattern " + std::to_string(i);
        if (!s.skipped.empty()) {
            out.push_back({false, "file", where, std::string("skipped by the reader: ") + s.skipped});
            continue;
        }
        auto [it, fresh] = used.emplace(s.sub.subtype, i);
        if (!fresh)
            out.push_back({true, "file", where,
                           std::string("a second ") + subtype_name(s.sub.subtype) + " replaces sub-pattern " +
                               std::to_string(it->second)});
    }
    if (!file.truncated() && file.layout.file_size > file.layout.end_pos)
        out.push_back({false, "file", "",
                       std::to_string(file.layout.file_size - file.layout.end_pos) +
                           " bytes after the last sub-pattern are ignored"});
    for (bool second : {false, true})
        if (const taz_pattern_st *img = file.image(second)) {
            std::vector<Finding> f = verify_image(*img, second);
            out.insert(out.end(), f.begin(), f.end());
        }
    return out;
}

std::size_t error_count(const std::vector<Finding> &findings)
{
    std::size_t n = 0;
    for (const Finding &f : findings) n += f.error ? 1 : 0;
    return n;
}

/* ---- the command ------------------------------------------------------------------------ */

namespace {

constexpr const char *kVerifyUsage =
    "usage: taze verify [--quiet] [--json] FILE\n"
    "\n"
    "Checks every invariant the library's lookups rely on but its loader does not\n"
    "check: string lists in the order of their comparator (suffix lists read\n"
    "backwards), ranges ascending, disjoint and not reversed, map keys ascending\n"
    "under their key comparison and unique, integer map keys within 2^31 of each\n"
    "other, string values in value order, NUL terminators after stored strings,\n"
    "list size fields, protocol and group positions in range, unique rule,\n"
    "protocol, group and threat type ids, and sections or lists the loader would\n"
    "drop or replace. Each finding names the kind (main or ulm) and its place as\n"
    "a source path: list kind, list number and entry index, e.g.\n"
    "lists.suffix.3[2].\n"
    "\n"
    "Warnings name prefix and suffix list entries and map keys that a shorter\n"
    "entry of the same list covers: the search can step over the shorter one.\n"
    "\n"
    "  --quiet     print only the errors and warnings, not the notes\n"
    "  --json      print one JSON document: file, loads, counts and findings\n"
    "\n"
    "Exit codes: 0 no errors, 1 errors found or the file does not load, 2 usage error.\n";

} // namespace

namespace {

const char *level_of(const Finding &f) { return f.error ? "error" : f.warning ? "warning" : "note"; }

std::string plural(std::size_t n, const char *word) { return std::to_string(n) + " " + word + (n == 1 ? "" : "s"); }

/* One JSON document: the file, whether the library loads it, the counts
 * and every finding (docs/inspect-json.md). */
void print_json(std::ostream &out, const std::string &path, bool loads, const std::vector<Finding> &findings)
{
    tazc::Json doc = tazc::Json::object();
    doc["file"] = path;
    doc["loads"] = loads;
    std::size_t counts[3] = {0, 0, 0};
    tazc::Json list = tazc::Json::array();
    for (const Finding &f : findings) {
        ++counts[f.error ? 0 : f.warning ? 1 : 2];
        list.push_back({{"level", level_of(f)}, {"kind", f.kind}, {"where", f.where}, {"what", f.what}});
    }
    doc["errors"] = counts[0];
    doc["warnings"] = counts[1];
    doc["notes"] = counts[2];
    doc["findings"] = std::move(list);
    out << doc.dump(2, ' ', false, tazc::Json::error_handler_t::replace) << "\n";
}

} // namespace

int cmd_verify(const Args &args, std::ostream &out, std::ostream &err)
{
    if (show_help(args, out, kVerifyUsage)) return kExitOk;
    bool quiet = false, json = false;
    std::string path;
    const std::string bad = one_file(
        args, {{"--quiet", &quiet, nullptr}, {"-q", &quiet, nullptr}, {"--json", &json, nullptr}}, &path);
    if (!bad.empty()) return usage_error(err, "verify", bad);
    LoadedFile file;
    std::string read_error;
    if (!file.load(path, &read_error)) {
        if (json) print_json(out, path, false, {{true, "file", "", read_error}});
        err << "taze: " << read_error << "\n";
        return kExitFailed;
    }
    const std::vector<Finding> findings = verify_file(file);
    const std::size_t errors = error_count(findings);
    if (json) {
        print_json(out, path, file.refusal().empty(), findings);
        return errors == 0 ? kExitOk : kExitFailed;
    }
    std::size_t warnings = 0;
    for (const Finding &f : findings) {
        warnings += f.warning ? 1 : 0;
        if (quiet && !f.error && !f.warning) continue;
        out << level_of(f) << ": " << f.kind;
        if (!f.where.empty()) out << " " << f.where;
        out << ": " << f.what << "\n";
    }
    out << path << ": " << plural(errors, "error") << ", ";
    if (warnings > 0) out << plural(warnings, "warning") << ", ";
    out << plural(findings.size() - errors - warnings, "note") << "\n";
    return errors == 0 ? kExitOk : kExitFailed;
}

} // namespace tazi
