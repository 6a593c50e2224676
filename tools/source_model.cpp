/* Reading a pattern source: every value checked, every searched array put in
 * the order its lookup bisects. */
#include "source_model.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <sstream>
#include <tuple>
#include <type_traits>

#include "coverage.h"
#include "families.h"
#include "names.h"
#include "source_import.h"
#include "taze_impl.h"

namespace names = taze::names;

namespace tazc {

/* ---- the family table -------------------------------------------------------- */

namespace {

constexpr const char *kRuleNames[4] = {"exact", "prefix", "suffix", "substring"};

unsigned rule_number(taze::Rule r) { return r == taze::Rule::None ? kNoRule : unsigned(r); }

Shape shape_of(taze::Layout l)
{
    switch (l) {
    case taze::Layout::Strings: return Shape::Strings;
    case taze::Layout::Ip: return Shape::IPv4Ranges;
    case taze::Layout::Ipv6: return Shape::IPv6Ranges;
    case taze::Layout::Port: return Shape::PortRanges;
    case taze::Layout::StrInt: return Shape::StrInt;
    case taze::Layout::StrIpv6: return Shape::StrIPv6;
    case taze::Layout::IntInt: return Shape::IntInt;
    case taze::Layout::Ipv6Int: return Shape::IPv6Int;
    case taze::Layout::IntStr: return Shape::IntStr;
    case taze::Layout::StrStr: return Shape::StrStr;
    }
    return Shape::Strings;
}

/* A side of a map's source name: its rule, or what it holds. */
std::string side_name(taze::Rule r, const char *other) { return r == taze::Rule::None ? other : kRuleNames[unsigned(r)]; }

/* Source names: lists by rule ("prefix", "suffix_case") or kind ("ip"), maps
 * by key, then value ("prefix_to_int", "int_to_substring"). */
std::string source_name(const taze::FamilyRow &r)
{
    switch (r.layout) {
    case taze::Layout::Strings:
        return std::string(kRuleNames[unsigned(r.key_rule)]) + (r.case_rule == taze::Case::Sensitive ? "_case" : "");
    case taze::Layout::Ip: return "ip";
    case taze::Layout::Ipv6: return "ipv6";
    case taze::Layout::Port: return "port";
    case taze::Layout::StrInt: return side_name(r.key_rule, "") + "_to_int";
    case taze::Layout::StrIpv6: return side_name(r.key_rule, "") + "_to_ipv6";
    case taze::Layout::IntInt: return "int_to_int";
    case taze::Layout::Ipv6Int: return "ipv6_to_int";
    case taze::Layout::IntStr: return "int_to_" + side_name(r.value_rule, "");
    case taze::Layout::StrStr: return side_name(r.key_rule, "") + "_to_" + side_name(r.value_rule, "");
    }
    return "";
}

/* Sources list the families as the table does, the maps grouped by what
 * they map: strings to integers, to IPv6 addresses, integers to integers,
 * to strings, strings to strings, IPv6 addresses to integers. */
int source_rank(taze::Layout l)
{
    constexpr taze::Layout kMapOrder[] = {taze::Layout::StrInt, taze::Layout::StrIpv6, taze::Layout::IntInt,
                                          taze::Layout::IntStr, taze::Layout::StrStr, taze::Layout::Ipv6Int};
    for (int i = 0; i < 6; ++i)
        if (kMapOrder[i] == l) return i + 1;
    return 0;
}

std::vector<Family> make_families()
{
    std::vector<Family> t;
    for (const taze::FamilyRow &r : taze::kFamilies)
        t.push_back(Family{taze::is_map(r.layout) ? "maps" : "lists", source_name(r), r.magic, shape_of(r.layout),
                           rule_number(r.key_rule), rule_number(r.value_rule),
                           r.case_rule == taze::Case::Sensitive, r.kinds == taze::Main});
    std::stable_sort(t.begin(), t.end(), [](const Family &a, const Family &b) {
        return source_rank(taze::family_row(a.magic)->layout) < source_rank(taze::family_row(b.magic)->layout);
    });
    return t;
}

} // namespace

const std::vector<Family> &families()
{
    static const std::vector<Family> table = make_families();
    return table;
}

const Family *find_family(std::string_view group, std::string_view name)
{
    for (const Family &f : families())
        if (group == f.group && name == f.name) return &f;
    return nullptr;
}

namespace {

/* ---- scalar values -------------------------------------------------------------- */

std::string trim(std::string_view s)
{
    std::size_t b = s.find_first_not_of(" \t");
    std::size_t e = s.find_last_not_of(" \t");
    return b == std::string_view::npos ? std::string() : std::string(s.substr(b, e - b + 1));
}

std::string fold_ascii(std::string s)
{
    for (char &c : s)
        if (c >= 'A' && c <= 'Z') c = char(c + 0x20);
    return s;
}

/* Range bounds: IPv4 as the host-order number of the dotted address, IPv6
 * in network order, ports as numbers. */
bool parse_bound(const std::string &text, std::uint32_t &out)
{
    /* An IPv4 address may also be given as its number. */
    if (!text.empty() && text.size() <= 10 && text.find_first_not_of("0123456789") == std::string::npos) {
        const unsigned long long v = std::stoull(text);
        out = std::uint32_t(v);
        return v <= 0xFFFFFFFFull;
    }
    in_addr a{};
    if (inet_pton(AF_INET, text.c_str(), &a) != 1) return false;
    out = ntohl(a.s_addr);
    return true;
}

bool parse_bound(const std::string &text, tazw::IPv6 &out)
{
    return inet_pton(AF_INET6, text.c_str(), out.data()) == 1;
}

bool parse_bound(const std::string &text, std::uint16_t &out)
{
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    unsigned long v = std::stoul(text);
    if (v > 0xFFFF) return false;
    out = std::uint16_t(v);
    return true;
}

template <typename T> constexpr const char *bound_name();
template <> constexpr const char *bound_name<std::uint32_t>() { return "an IPv4 address (dotted, or a number up to 4294967295)"; }
template <> constexpr const char *bound_name<tazw::IPv6>() { return "an IPv6 address"; }
template <> constexpr const char *bound_name<std::uint16_t>() { return "a number from 0 to 65535"; }

template <typename T>
T bound_of(const std::string &text, const std::string &path)
{
    T v{};
    if (!parse_bound(text, v)) fail(path, quote_text(text) + " is not " + bound_name<T>());
    return v;
}

/* Address prefixes ("10.0.0.0/8"): sets the host bits of hi; false when the
 * address itself has host bits set. */
bool apply_prefix(std::uint32_t lo, std::uint32_t &hi, unsigned len)
{
    std::uint32_t host = len >= 32 ? 0 : (0xFFFFFFFFu >> len);
    hi = lo | host;
    return (lo & host) == 0;
}

bool apply_prefix(const tazw::IPv6 &lo, tazw::IPv6 &hi, unsigned len)
{
    bool clean = true;
    hi = lo;
    for (unsigned i = 0; i < 16; ++i) {
        unsigned keep = len > 8 * i ? std::min(8u, len - 8 * i) : 0;
        auto host = std::uint8_t(0xFFu >> keep);
        clean = clean && (lo[i] & host) == 0;
        hi[i] = std::uint8_t(lo[i] | host);
    }
    return clean;
}

template <typename T> constexpr unsigned prefix_bits() { return 0; } /* ports: no prefix notation */
template <> constexpr unsigned prefix_bits<std::uint32_t>() { return 32; }
template <> constexpr unsigned prefix_bits<tazw::IPv6>() { return 128; }

template <typename T>
struct SourceRange {
    std::pair<T, T> range;
    std::string text;
    std::string path;
};

/* "lo-hi", "addr/len", "addr", or for ports also a bare number. */
template <typename T>
SourceRange<T> parse_range(const Json &j, const std::string &path)
{
    if constexpr (std::is_integral_v<T>) { /* ports, and IPv4 addresses as numbers */
        if (j.is_number()) {
            auto v = T(get_uint(j, path, std::numeric_limits<T>::max()));
            return {{v, v}, std::to_string(v), path};
        }
    }
    std::string text = get_string(j, path);
    SourceRange<T> r{{}, text, path};
    std::size_t dash = text.find('-');
    std::size_t slash = text.find('/');
    if (dash != std::string::npos) {
        r.range = {bound_of<T>(trim(text.substr(0, dash)), path), bound_of<T>(trim(text.substr(dash + 1)), path)};
        if (r.range.second < r.range.first) fail(path, "range " + text + " is reversed");
    } else if (slash != std::string::npos && prefix_bits<T>() > 0) {
        if constexpr (prefix_bits<T>() > 0) {
            std::string len_text = trim(text.substr(slash + 1));
            std::uint16_t len = 0;
            if (!parse_bound(len_text, len) || len > prefix_bits<T>())
                fail(path, "prefix length " + quote_text(len_text) + " is not from 0 to " +
                               std::to_string(prefix_bits<T>()));
            r.range.first = bound_of<T>(trim(text.substr(0, slash)), path);
            if (!apply_prefix(r.range.first, r.range.second, len)) fail(path, "prefix " + text + " has host bits set");
        }
    } else {
        r.range.first = r.range.second = bound_of<T>(trim(text), path);
    }
    return r;
}

/* Range lists are bisected: ascending and disjoint. */
template <typename T>
std::vector<std::pair<T, T>> parse_ranges(const Json &j, const std::string &path)
{
    std::vector<SourceRange<T>> items;
    for (const SourceItem &it : list_items(j, path))
        attempt([&] { items.push_back(parse_range<T>(it.value, it.path)); });
    std::vector<std::size_t> order(items.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&items](std::size_t a, std::size_t b) { return items[a].range < items[b].range; });
    std::vector<std::pair<T, T>> out;
    for (std::size_t k = 0; k < order.size(); ++k) {
        if (k > 0 && !(items[order[k - 1]].range.second < items[order[k]].range.first)) {
            const auto &a = items[std::min(order[k - 1], order[k])];
            const auto &b = items[std::max(order[k - 1], order[k])];
            report(b.path, "range " + b.text + " overlaps " + a.text + " at " + a.path);
            continue;
        }
        out.push_back(items[order[k]].range);
    }
    return out;
}

/* ---- keys and values of lists and maps ----------------------------------------- */

void read_key(const std::string &text, const std::string &path, std::string &out)
{
    out = get_string(Json(text), path);
}
void read_key(const std::string &text, const std::string &path, std::uint32_t &out)
{
    out = parse_u32_text(text, path);
}
void read_key(const std::string &text, const std::string &path, tazw::IPv6 &out)
{
    out = bound_of<tazw::IPv6>(trim(text), path);
}

void read_value(const Json &j, const std::string &path, std::uint32_t &out) { out = get_u32(j, path); }
void read_value(const Json &j, const std::string &path, std::string &out) { out = get_string(j, path); }
void read_value(const Json &j, const std::string &path, tazw::IPv6 &out)
{
    out = bound_of<tazw::IPv6>(trim(get_string(j, path)), path);
}

/* What two keys must not share: string keys and exact list strings compare
 * case-insensitively (except in the case-sensitive lists). */
std::string identity_of(const std::string &k, bool case_sensitive) { return case_sensitive ? k : fold_ascii(k); }
std::uint32_t identity_of(std::uint32_t k, bool) { return k; }
tazw::IPv6 identity_of(const tazw::IPv6 &k, bool) { return k; }

std::string shown(const std::string &k) { return quote_text(k) + " "; }
std::string shown(std::uint32_t) { return ""; }
std::string shown(const tazw::IPv6 &) { return ""; }

/* Reports every key equal to an earlier one, naming both places and both
 * texts. With drop, exact duplicates are marked in *dropped (and noted)
 * instead of refused. */
template <typename K>
std::size_t refuse_duplicates(const std::vector<K> &keys, const std::vector<std::string> &paths, bool case_sensitive,
                       const char *what, std::vector<bool> *dropped = nullptr)
{
    std::map<decltype(identity_of(keys[0], case_sensitive)), std::size_t> seen;
    std::size_t dropped_count = 0;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        auto [it, fresh] = seen.emplace(identity_of(keys[i], case_sensitive), i);
        if (fresh) continue;
        if (dropped) {
            (*dropped)[i] = true;
            ++dropped_count;
            continue;
        }
        report(paths[i], std::string("duplicate ") + what + " " + shown(keys[i]) + "(same as " +
                             (std::is_same_v<K, std::string> ? shown(keys[it->second]) + "at " : "") +
                             paths[it->second] +
                             (std::is_same_v<K, std::string> && !case_sensitive ? " when compared case-insensitively)"
                                                                                : ")"));
    }
    return dropped_count;
}

void add_note(const std::string &line)
{
    if (parse_context()) parse_context()->notes.push_back(line);
}

std::string count_text(std::size_t n, const char *one, const char *many)
{
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

/* Integer keys are compared by their 32-bit difference taken as signed, so
 * the keys of one list must lie within 2^31 of each other. */
template <typename Entry>
void sort_keys(std::vector<Entry> &e, const Family &f, const std::string &path)
{
    using Key = decltype(Entry::key);
    if constexpr (std::is_same_v<Key, std::string>) {
        tazw::Order o = tazw::order_for_rule(f.key_rule);
        std::stable_sort(e.begin(), e.end(),
                         [o](const Entry &a, const Entry &b) { return tazw::less_in(o, a.key, b.key); });
    } else {
        std::stable_sort(e.begin(), e.end(), [](const Entry &a, const Entry &b) { return a.key < b.key; });
        if constexpr (std::is_same_v<Key, std::uint32_t>) {
            if (!e.empty() && e.back().key - e.front().key >= 0x80000000u)
                fail(path, "keys " + std::to_string(e.front().key) + " and " + std::to_string(e.back().key) +
                               " lie 2^31 or more apart; integer keys are compared by their 32-bit difference");
        }
    }
}

/* String values are bisected in the order of the value rule; integer and
 * address values are scanned. */
void sort_values(std::vector<std::string> &v, const Family &f) { tazw::sort_in(tazw::order_for_rule(f.value_rule), v); }
template <typename T>
void sort_values(std::vector<T> &, const Family &)
{
}

/* Prefix- and suffix-keyed maps: a covered key hides the covering key's
 * entry from some lookups, and dropping it would lose its values. */
template <typename Entry>
void refuse_covered_keys(const std::vector<Entry> &e, const std::vector<std::string> &paths, const Family &f,
                         const std::string &path)
{
    std::vector<std::string_view> keys;
    for (const Entry &x : e) keys.push_back(x.key);
    const std::vector<CoveredPair> covered = covered_entries(keys, f.key_rule, false);
    if (covered.empty()) return;
    const bool allow = parse_context() && parse_context()->options.allow_covered_keys;
    const char *ends = f.key_rule == 1 ? "begin" : "end";
    for (const CoveredPair &c : covered) {
        const std::string &a = e[c.by].key, &b = e[c.covered].key;
        const std::string what = "key " + quote_text(b) + " is covered by key " + quote_text(a) + " at " +
                                 paths[c.by] + ": lookups of strings that " + ends + " with " + quote_text(a) +
                                 " can stop at " + quote_text(b) + " and miss the entry " + quote_text(a);
        if (allow) {
            add_note("warning: " + path + ": " + count_text(covered.size(), "key is", "keys are") +
                     " covered by another key (e.g. " + paths[c.covered] + ": " + what + ")");
            return;
        }
        report(paths[c.covered], what + " (--allow-covered-keys accepts this)");
    }
}

template <typename Entry>
std::vector<Entry> parse_map(const Json &j, const std::string &path, const Family &f)
{
    using Value = typename decltype(Entry::values)::value_type;
    /* KEY: VALUES pairs, or keys imported from a file that all get one set of values. */
    std::vector<std::pair<std::string, std::string>> keys_in; /* key text, its path */
    std::vector<std::pair<const Json *, std::string>> values_in;
    if (is_import(j) && j.contains("values")) {
        const Json *values = nullptr;
        std::string values_path;
        for (const SourceItem &it : import_keys(j, path, &values, &values_path)) {
            keys_in.emplace_back(it.value.get<std::string>(), it.path);
            values_in.emplace_back(values, values_path);
        }
    } else {
        for (const auto &item : get_object(j, path).items()) {
            keys_in.emplace_back(item.key(), child_path(path, item.key()));
            values_in.emplace_back(&item.value(), keys_in.back().second);
        }
    }
    std::vector<Entry> entries;
    std::vector<std::string> paths;
    std::vector<decltype(Entry::key)> keys;
    for (std::size_t i = 0; i < keys_in.size(); ++i)
        attempt([&] {
            const std::string &p = keys_in[i].second;
            Entry e{};
            read_key(keys_in[i].first, p, e.key);
            for_each_value(*values_in[i].first, values_in[i].second, [&e](const Json &v, const std::string &vp) {
                Value x{};
                attempt([&] {
                    read_value(v, vp, x);
                    e.values.push_back(std::move(x));
                });
            });
            if (e.values.empty() && !std::is_same_v<Value, std::string> && !values_in[i].first->empty())
                return;
            if (e.values.empty() && !std::is_same_v<Value, std::string>) fail(p, "a key needs at least one value");
            sort_values(e.values, f);
            keys.push_back(e.key);
            paths.push_back(p);
            entries.push_back(std::move(e));
        });
    if (!keys.empty()) refuse_duplicates(keys, paths, false, "key");
    if constexpr (std::is_same_v<decltype(Entry::key), std::string>)
        if (f.key_rule == 1 || f.key_rule == 2) refuse_covered_keys(entries, paths, f, path);
    sort_keys(entries, f, path);
    return entries;
}

/* Keeps the entries whose flag is false. */
template <typename T>
void keep_unflagged(std::vector<T> &v, const std::vector<bool> &flag)
{
    std::size_t k = 0;
    for (std::size_t i = 0; i < v.size(); ++i)
        if (!flag[i]) {
            if (k != i) v[k] = std::move(v[i]);
            ++k;
        }
    v.resize(k);
}

std::vector<std::string_view> views_of(const std::vector<std::string> &v)
{
    return std::vector<std::string_view>(v.begin(), v.end());
}

std::vector<std::string> parse_strings(const Json &j, const std::string &path, const Family &f)
{
    std::vector<std::string> v, paths;
    for (const SourceItem &it : list_items(j, path))
        attempt([&] {
            v.push_back(get_string(it.value, it.path));
            paths.push_back(it.path);
        });
    if (v.empty()) return v;
    const ParseOptions opt = parse_context() ? parse_context()->options : ParseOptions{};
    std::vector<bool> drop(v.size(), false);
    if (f.key_rule != 3) { /* substring lists: a repeated entry is harmless */
        /* Prefix and suffix lists: an equal entry is a covered one (below). */
        if (f.key_rule == 0) {
            const std::size_t n = refuse_duplicates(v, paths, f.case_sensitive, "string", opt.dedupe ? &drop : nullptr);
            if (n > 0) add_note("note: " + path + ": dropped " + count_text(n, "duplicate", "duplicates"));
        }
        const std::vector<CoveredPair> covered = covered_entries(views_of(v), f.key_rule, f.case_sensitive);
        if (!covered.empty() && opt.keep_covered) {
            add_note("warning: " + path + ": kept " + count_text(covered.size(), "entry", "entries") +
                     " covered by a shorter entry of the list (e.g. " + quote_text(v[covered[0].covered]) + " at " +
                     paths[covered[0].covered] + " by " + quote_text(v[covered[0].by]) + " at " +
                     paths[covered[0].by] + "); the search can miss the shorter entry");
        } else if (!covered.empty()) {
            for (const CoveredPair &c : covered) drop[c.covered] = true;
            add_note("note: " + path + ": left out " + count_text(covered.size(), "entry", "entries") +
                     " covered by a shorter entry of the list");
        }
    }
    keep_unflagged(v, drop);
    tazw::sort_in(tazw::order_for_list_section(f.magic), v);
    return v;
}


ListData parse_list(const Json &j, const std::string &path, const Family &f)
{
    switch (f.shape) {
    case Shape::Strings: return parse_strings(j, path, f);
    case Shape::IPv4Ranges: return parse_ranges<std::uint32_t>(j, path);
    case Shape::IPv6Ranges: return parse_ranges<tazw::IPv6>(j, path);
    case Shape::PortRanges: return parse_ranges<std::uint16_t>(j, path);
    case Shape::StrInt: return parse_map<tazw::StrIntEntry>(j, path, f);
    case Shape::StrIPv6: return parse_map<tazw::StrIPv6Entry>(j, path, f);
    case Shape::IntInt: return parse_map<tazw::IntIntEntry>(j, path, f);
    case Shape::IPv6Int: return parse_map<tazw::IPv6IntEntry>(j, path, f);
    case Shape::IntStr: return parse_map<tazw::IntStrEntry>(j, path, f);
    case Shape::StrStr: return parse_map<tazw::StrStrEntry>(j, path, f);
    }
    fail(path, "unsupported list kind");
}

void parse_families(const Json &j, const std::string &path, const char *group, bool second_kind,
                    std::vector<FamilyLists> &out)
{
    get_object(j, path);
    for (const auto &item : j.items()) attempt([&] {
        std::string fp = child_path(path, item.key());
        const Family *f = find_family(group, item.key());
        if (!f) {
            std::string names;
            for (const Family &g : families())
                if (std::strcmp(g.group, group) == 0) names += (names.empty() ? "" : ", ") + g.name;
            fail(fp, std::string("unknown ") + (group[0] == 'l' ? "list" : "map") + " kind (expected one of: " +
                         names + ")");
        }
        if (second_kind && f->main_kind_only) fail(fp, "the second kind has no " + f->name + " lists");
        FamilyLists fl{f, {}};
        for (const auto &list : get_object(item.value(), fp).items()) attempt([&] {
            std::string lp = child_path(fp, list.key());
            std::uint32_t n = parse_u32_text(list.key(), lp);
            if (n > kMaxListNumber) fail(lp, "list numbers run from 0 to " + std::to_string(kMaxListNumber));
            for (const NumberedList &seen : fl.lists)
                if (seen.number == n) fail(lp, "list number " + std::to_string(n) + " is given twice");
            fl.lists.push_back(NumberedList{n, parse_list(list.value(), lp, *f)});
        });
        std::sort(fl.lists.begin(), fl.lists.end(),
                  [](const NumberedList &a, const NumberedList &b) { return a.number < b.number; });
        if (!fl.lists.empty()) out.push_back(std::move(fl));
    });
    const Family *base = families().data();
    std::sort(out.begin(), out.end(),
              [base](const FamilyLists &a, const FamilyLists &b) { return a.family - base < b.family - base; });
}

/* ---- rule tables ------------------------------------------------------------------- */

template <typename T, typename Read>
void opt_field(const Fields &f, const char *name, T &out, Read read)
{
    if (const Json *v = f.opt(name)) out = read(*v, f.at(name));
}

std::uint32_t read_u32(const Json &j, const std::string &p) { return get_u32(j, p); }
std::string read_string(const Json &j, const std::string &p) { return get_string(j, p); }

/* A name from a table, or a number. */
template <std::size_t N>
std::uint32_t named_number(const Json &j, const std::string &path, const names::Name (&table)[N])
{
    if (j.is_number()) return get_u32(j, path);
    std::string s = get_string(j, path);
    if (const names::Name *n = names::find_name(table, s.c_str())) return n->value;
    std::string expected;
    for (const names::Name &n : table) expected += (expected.empty() ? "" : ", ") + std::string(n.name);
    fail(path, quote_text(s) + " is not one of " + expected + ", or a number");
}

std::uint32_t read_direction(const Json &j, const std::string &p) { return named_number(j, p, names::kDirections); }

std::uint32_t read_version(const Json &j, const std::string &path)
{
    if (j.is_number()) return get_u32(j, path);
    Fields f(j, path, {"product", "build", "version"});
    auto part = [&f](const char *name, std::uint64_t max) { return std::uint32_t(get_uint(f.req(name), f.at(name), max)); };
    std::uint32_t v = make_version(part("product", 0xF), part("build", 0xFF), part("version", 0xFFFFF));
    f.done();
    return v;
}

PortRange read_protocol_range(const Json &j, const std::string &p) { return parse_range<std::uint16_t>(j, p).range; }

/* Optional text and number fields of a record, by name. */
template <typename T>
void opt_members(const Fields &f, T &rec, std::initializer_list<std::pair<const char *, std::string T::*>> texts,
                 std::initializer_list<std::pair<const char *, std::uint32_t T::*>> numbers)
{
    for (const auto &[name, member] : texts) opt_field(f, name, rec.*member, read_string);
    for (const auto &[name, member] : numbers) opt_field(f, name, rec.*member, read_u32);
}

tazw::CleanInfo parse_clean(const Json &j, const std::string &path)
{
    using C = tazw::CleanInfo;
    Fields f(j, path, {"protocol", "direction", "target", "priority", "src", "dst"});
    C c;
    std::tie(c.port_l, c.port_h) = read_protocol_range(f.req("protocol"), f.at("protocol"));
    c.target = get_u32(f.req("target"), f.at("target"));
    c.direction = TAZ_DIR_ANY;
    opt_field(f, "direction", c.direction, read_direction);
    opt_members(f, c, {{"src", &C::src_ptn}, {"dst", &C::dst_ptn}}, {{"priority", &C::priority}});
    f.done();
    return c;
}

tazw::RuleInfo parse_rule(const Json &j, const std::string &path)
{
    using R = tazw::RuleInfo;
    Fields f(j, path, {"id", "description", "risk_type", "risk_group", "confidence", "enabled", "clean"});
    R r;
    r.rule_id = get_u32(f.req("id"), f.at("id"));
    r.enable = 1;
    opt_members(f, r, {{"description", &R::description}, {"risk_type", &R::risk_type}},
                {{"risk_group", &R::risk_type_group}, {"confidence", &R::confidence_level}});
    opt_field(f, "enabled", r.enable, get_flag);
    opt_field(f, "clean", r.clean, parse_clean);
    f.done();
    return r;
}

/* Array of records, each read by parse; paths of the elements kept. */
template <typename T, typename Parse>
std::vector<T> parse_records(const Json &j, const std::string &path, Parse parse)
{
    get_array(j, path);
    std::vector<T> out;
    for (std::size_t i = 0; i < j.size(); ++i) out.push_back(parse(j[i], index_path(path, i)));
    return out;
}

/* Refuses a second record whose id equals an earlier one's. */
template <typename T, typename Id>
void refuse_duplicate_ids(const std::vector<T> &records, Id id, const std::string &path, const char *field)
{
    std::vector<std::uint32_t> ids;
    std::vector<std::string> paths;
    for (std::size_t i = 0; i < records.size(); ++i) {
        ids.push_back(records[i].*id);
        paths.push_back(child_path(index_path(path, i), field));
    }
    if (!ids.empty()) refuse_duplicates(ids, paths, true, "id");
}

std::size_t position_of_id(const std::vector<std::uint32_t> &ids, std::uint32_t id, const std::string &path,
                           const char *what)
{
    auto it = std::find(ids.begin(), ids.end(), id);
    if (it == ids.end()) fail(path, std::string("no ") + what + " has id " + std::to_string(id));
    return std::size_t(it - ids.begin());
}

/* Records with "id", "desc" and one more field, which extra reads. */
template <typename T, typename Extra>
void parse_id_desc_records(const Fields &kf, const char *field, const char *third, std::vector<T> &out, Extra extra)
{
    opt_field(kf, field, out, [&](const Json &a, const std::string &ap) {
        return parse_records<T>(a, ap, [&](const Json &j, const std::string &p) {
            Fields f(j, p, {"id", "desc", third});
            T r;
            r.id = get_u32(f.req("id"), f.at("id"));
            opt_field(f, "desc", r.desc, read_string);
            extra(f, third);
            f.done();
            return r;
        });
    });
    refuse_duplicate_ids(out, &T::id, kf.at(field), "id");
}

/* Protocols refer to their group, groups to their protocols, both by id;
 * the file stores positions. */
void parse_protocols(const Fields &kf, Kind &k)
{
    const std::string ppath = kf.at("protocols"), gpath = kf.at("protocol_groups");
    std::vector<std::optional<std::uint32_t>> group_of;
    std::vector<std::vector<std::uint32_t>> members;
    parse_id_desc_records(kf, "protocols", "group", k.protocols, [&group_of](const Fields &f, const char *name) {
        group_of.emplace_back();
        opt_field(f, name, group_of.back(), read_u32);
    });
    parse_id_desc_records(kf, "protocol_groups", "protocols", k.groups, [&members](const Fields &f, const char *name) {
        members.emplace_back();
        opt_field(f, name, members.back(), [](const Json &m, const std::string &mp) {
            return parse_records<std::uint32_t>(m, mp, read_u32);
        });
    });
    std::vector<std::uint32_t> protocol_ids, group_ids;
    for (const auto &p : k.protocols) protocol_ids.push_back(p.id);
    for (const auto &g : k.groups) group_ids.push_back(g.id);
    for (std::size_t g = 0; g < k.groups.size(); ++g)
        for (std::size_t m = 0; m < members[g].size(); ++m)
            k.groups[g].protocol_idxs.push_back(std::uint32_t(position_of_id(
                protocol_ids, members[g][m], index_path(index_path(gpath, g) + ".protocols", m), "protocol")));
    for (std::size_t p = 0; p < k.protocols.size(); ++p) {
        if (group_of[p]) {
            k.protocols[p].group_idx = std::uint32_t(
                position_of_id(group_ids, *group_of[p], index_path(ppath, p) + ".group", "protocol group"));
            continue;
        }
        /* Without "group": the first group that lists the protocol, else group 0. */
        for (std::size_t g = 0; g < k.groups.size(); ++g) {
            const auto &idx = k.groups[g].protocol_idxs;
            if (std::find(idx.begin(), idx.end(), std::uint32_t(p)) != idx.end()) {
                k.protocols[p].group_idx = std::uint32_t(g);
                break;
            }
        }
    }
}

tazw::KnownRisk parse_known_risk(const Json &j, const std::string &path)
{
    Fields f(j, path, {"direction", "severity", "policy", "protocols"});
    tazw::KnownRisk r;
    r.direction = TAZ_DIR_ANY;
    opt_field(f, "direction", r.direction, read_direction);
    r.severity = get_u32(f.req("severity"), f.at("severity"));
    r.policy_id = get_u32(f.req("policy"), f.at("policy"));
    r.protocol_ranges = parse_ranges<std::uint16_t>(f.req("protocols"), f.at("protocols"));
    f.done();
    return r;
}

/* {"inbound": {"severity": S, "policy": P}, "outbound": {...}} */
std::vector<tazw::RiskInfo> parse_defaults(const Json &j, const std::string &path)
{
    Fields f(j, path, {"inbound", "outbound"});
    std::vector<tazw::RiskInfo> out;
    for (const auto &[name, dir] : {std::pair<const char *, std::uint32_t>{"inbound", TAZ_DIR_INBOUND},
                                    std::pair<const char *, std::uint32_t>{"outbound", TAZ_DIR_OUTBOUND}}) {
        const Json *d = f.opt(name);
        if (!d) continue;
        Fields r(*d, f.at(name), {"severity", "policy"});
        tazw::RiskInfo info;
        info.direction = dir;
        info.severity = get_u32(r.req("severity"), r.at("severity"));
        info.policy_id = get_u32(r.req("policy"), r.at("policy"));
        out.push_back(info);
        r.done();
    }
    f.done();
    return out;
}

tazw::PotentialRisk parse_potential(const Json &j, const std::string &path)
{
    Fields f(j, path, {"rule", "risks"});
    tazw::PotentialRisk p;
    p.rule_id = get_u32(f.req("rule"), f.at("rule"));
    p.risks = parse_records<tazw::KnownRisk>(f.req("risks"), f.at("risks"), parse_known_risk);
    if (p.risks.empty()) fail(f.at("risks"), "a potential risk needs at least one risk entry");
    f.done();
    return p;
}

tazw::Severity parse_severity(const Json &j, const std::string &path)
{
    Fields f(j, path, {"known", "known_default", "potential", "potential_default"});
    tazw::Severity s;
    opt_field(f, "known", s.known, [](const Json &a, const std::string &p) {
        return parse_records<tazw::KnownRisk>(a, p, parse_known_risk);
    });
    opt_field(f, "known_default", s.known_defaults, parse_defaults);
    opt_field(f, "potential", s.potential, [](const Json &a, const std::string &p) {
        return parse_records<tazw::PotentialRisk>(a, p, parse_potential);
    });
    opt_field(f, "potential_default", s.potential_defaults, parse_defaults);
    f.done();
    return s;
}

std::vector<tazw::ThreatType> parse_threat_types(const Json &j, const std::string &path)
{
    std::vector<tazw::ThreatType> out;
    std::vector<std::uint32_t> ids;
    std::vector<std::string> paths;
    for (const auto &item : get_object(j, path).items()) {
        paths.push_back(child_path(path, item.key()));
        ids.push_back(parse_u32_text(item.key(), paths.back()));
        tazw::ThreatType t;
        t.rule_id = ids.back();
        t.threat_type = named_number(item.value(), paths.back(), names::kThreatTypes);
        out.push_back(t);
    }
    if (!ids.empty()) refuse_duplicates(ids, paths, true, "rule id");
    return out;
}

/* The fields both kinds share. */
Kind parse_kind(const Fields &f, bool second_kind)
{
    Kind k;
    attempt([&] { opt_field(f, "compiler_version", k.compiler_version, read_version); });
    attempt([&] {
        if (const Json *v = f.opt("lists")) parse_families(*v, f.at("lists"), "lists", second_kind, k.lists);
    });
    attempt([&] {
        if (const Json *v = f.opt("maps")) parse_families(*v, f.at("maps"), "maps", second_kind, k.lists);
    });
    attempt([&] {
        opt_field(f, "rules", k.rules, [](const Json &a, const std::string &p) {
            return parse_records<tazw::RuleInfo>(a, p, parse_rule);
        });
        refuse_duplicate_ids(k.rules, &tazw::RuleInfo::rule_id, f.at("rules"), "id");
    });
    attempt([&] { opt_field(f, "clean", k.clean, [](const Json &a, const std::string &p) {
        auto v = parse_records<tazw::CleanInfo>(a, p, parse_clean);
        for (std::size_t i = 0; i < v.size(); ++i)
            if (v[i].port_l == 0 && v[i].port_h == 0)
                fail(index_path(p, i) + ".protocol", "protocol 0 is never matched by the clean table lookup");
        return v;
    }); });
    attempt([&] { parse_protocols(f, k); });
    attempt([&] { opt_field(f, "severity", k.severity, parse_severity); });
    attempt([&] { opt_field(f, "threat_types", k.threat_types, parse_threat_types); });
    return k;
}

tazw::Bytes read_blob(std::string file, const std::string &path, const std::string &base_dir)
{
    if (!file.empty() && file[0] != '/' && !base_dir.empty()) file = base_dir + "/" + file;
    std::ifstream in(file, std::ios::binary);
    if (!in) fail(path, "cannot open " + quote_text(file) + ": " + std::strerror(errno));
    return tazw::Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

tazw::Bytes hex_bytes(const std::string &hex, const std::string &path)
{
    tazw::Bytes b;
    std::string digits;
    for (char c : hex)
        if (!std::isspace(static_cast<unsigned char>(c))) digits += c;
    if (digits.size() % 2 != 0 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        fail(path, "expected pairs of hex digits");
    for (std::size_t i = 0; i < digits.size(); i += 2) b.push_back(std::uint8_t(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return b;
}

/* The raw blob: a file name (relative to the source), or
 * {"file": F} | {"text": T} | {"hex": H}. */
tazw::Bytes parse_raw(const Json &j, const std::string &path, const std::string &base_dir)
{
    tazw::Bytes b;
    if (j.is_string()) {
        b = read_blob(get_string(j, path), path, base_dir);
    } else {
        Fields f(j, path, {"file", "text", "hex"});
        if (!!f.opt("file") + !!f.opt("text") + !!f.opt("hex") != 1)
            fail(path, "give exactly one of \"file\", \"text\" or \"hex\"");
        if (const Json *v = f.opt("file")) b = read_blob(get_string(*v, f.at("file")), f.at("file"), base_dir);
        if (const Json *v = f.opt("text")) {
            if (!v->is_string()) fail(f.at("text"), "expected a string");
            const std::string &t = v->get_ref<const std::string &>();
            b.assign(t.begin(), t.end());
        }
        if (const Json *v = f.opt("hex")) b = hex_bytes(get_string(*v, f.at("hex")), f.at("hex"));
        f.done();
    }
    if (b.empty()) fail(path, "the raw blob is empty; the library ignores empty sub-patterns");
    return b;
}

} // namespace

namespace {

Source parse_root(std::string_view json_text, const std::string &base_dir)
{
    Json root = parse_json(json_text);
    Fields f(root, "",
             {"pattern_version", "compiler_version", "lists", "maps", "rules", "clean", "protocols",
              "protocol_groups", "severity", "threat_types", "ulm", "raw"});
    Source s;
    attempt([&] { s.pattern_version = read_version(f.req("pattern_version"), "pattern_version"); });
    s.main = parse_kind(f, false);
    if (!s.main.compiler_version) s.main.compiler_version = kToolVersion;
    attempt([&] {
        if (const Json *u = f.opt("ulm")) {
            Fields uf(*u, "ulm",
                      {"name", "compiler_version", "lists", "maps", "rules", "clean", "protocols",
                       "protocol_groups", "severity", "threat_types"});
            s.ulm = parse_kind(uf, true);
            opt_field(uf, "name", s.ulm->name, read_string);
            if (!s.ulm->compiler_version) s.ulm->compiler_version = s.main.compiler_version;
            uf.done();
        }
    });
    attempt([&] {
        if (const Json *r = f.opt("raw")) s.raw = parse_raw(*r, "raw", base_dir);
    });
    attempt([&] { f.done(); });
    return s;
}

} // namespace

Source parse_source(std::string_view json_text, const std::string &base_dir, const ParseOptions &options,
                    std::vector<std::string> *notes)
{
    ParseContext ctx;
    ctx.options = options;
    ctx.base_dir = base_dir;
    Source s;
    {
        ParseScope scope(ctx);
        attempt([&] { s = parse_root(json_text, base_dir); });
    }
    if (notes) *notes = std::move(ctx.notes);
    if (!ctx.errors.empty()) throw SourceErrors(std::move(ctx.errors));
    return s;
}

/* As written: covered entries and keys stay (the inspector's round trips
 * and the tests read sources this way); tazc's defaults are stricter. */
constexpr ParseOptions kAsWritten{false, true, true};

Source parse_source(std::string_view json_text, const std::string &base_dir)
{
    return parse_source(json_text, base_dir, kAsWritten, nullptr);
}

Source load_source_file(const std::string &path, const ParseOptions &options, std::vector<std::string> *notes)
{
    errno = 0;
    std::ifstream in(path, std::ios::binary);
    if (!in) throw SourceError(path, std::string("cannot open: ") + std::strerror(errno));
    std::stringstream text;
    text << in.rdbuf();
    if (in.bad() || (in.fail() && !in.eof()))
        throw SourceError(path, std::string("cannot read: ") + std::strerror(errno ? errno : EIO));
    std::size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
    try {
        return parse_source(text.str(), dir, options, notes);
    } catch (const SourceErrors &e) {
        /* Syntax errors carry no path: name the file. */
        std::vector<SourceError> all;
        for (const SourceError &x : e.all()) all.push_back(x.path().empty() ? SourceError(path, x.what()) : x);
        throw SourceErrors(std::move(all));
    }
}

Source load_source_file(const std::string &path) { return load_source_file(path, kAsWritten, nullptr); }

} // namespace tazc
