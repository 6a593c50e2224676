/* Helpers of the end-to-end tests of the query API: section kinds by their
 * stored magic, list and map sections stored in the order their searches
 * need (the writer sorts them), and readers of borrowed results. */
#ifndef TAZE_API_FIXTURES_H
#define TAZE_API_FIXTURES_H

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tazewriter_info.h"
#include "test_support.h"

namespace apif {

using tazw::Bytes;
using tazw::magic4;

/* ---- section kinds --------------------------------------------------------- */
namespace kind {
inline constexpr std::uint32_t STR = magic4("STR"), PRE = magic4("PRE"), SUF = magic4("SUF"), SUB = magic4("SUB");
inline constexpr std::uint32_t CASE = magic4("CASE"), PRCA = magic4("PRCA"), SFCA = magic4("SFCA"),
                               SUCA = magic4("SUCA");
inline constexpr std::uint32_t IP = magic4("IP"), IPV6 = magic4("IPV6"), PORT = magic4("PORT");
inline constexpr std::uint32_t IIM = magic4("IIM"), I6IM = magic4("I6IM");
} // namespace kind

/* Map families whose section kind depends on the map type. */
enum class Family { StrInt, StrIPv6, IntStr, StrStr };

/* The section kind holding a family's lists for one map type (key rule in
 * the high byte, value rule in the low byte; 0 exact, 1 prefix, 2 suffix,
 * 3 substring). Letters: S exact, P prefix, X suffix, U substring. */
inline std::uint32_t map_kind(Family f, int map_type)
{
    static constexpr char letter[4] = {'S', 'P', 'X', 'U'};
    const auto k = std::uint32_t(std::uint8_t(letter[(map_type >> 8) & 3]));
    const auto v = std::uint32_t(std::uint8_t(letter[map_type & 3]));
    constexpr std::uint32_t I = 'I', M = 'M', six = '6';
    switch (f) {
    case Family::StrInt: return k | I << 8 | M << 16;
    case Family::StrIPv6: return k | I << 8 | six << 16 | M << 24;
    case Family::IntStr: return I | v << 8 | M << 16;
    case Family::StrStr: return k | v << 8 | M << 16;
    }
    return 0;
}
static_assert(magic4("XI6M") == (std::uint32_t('X') | 'I' << 8 | '6' << 16 | std::uint32_t('M') << 24));

/* ---- string lists ---------------------------------------------------------- */
struct Numbered {
    std::uint32_t number;
    std::vector<std::string> strings;
};

/* A string list section; each list stored in the order its kind is searched in. */
inline Bytes string_section(std::uint32_t kind, const std::vector<Numbered> &lists)
{
    Bytes body;
    for (Numbered l : lists) {
        tazw::sort_in(tazw::order_for_list_section(kind), l.strings);
        const Bytes one = tazw::list(l.number, std::uint32_t(l.strings.size()), tazw::string_entries(l.strings));
        body.insert(body.end(), one.begin(), one.end());
    }
    return tazw::section(kind, std::uint32_t(lists.size()), body);
}

/* The strings of a list in the order the writer stores them. */
inline std::vector<std::string> stored_order(std::uint32_t kind, std::vector<std::string> v)
{
    tazw::sort_in(tazw::order_for_list_section(kind), v);
    return v;
}

/* ---- maps -------------------------------------------------------------------- */
inline void sort_strings(std::vector<std::string> &v, unsigned rule) { tazw::sort_in(tazw::order_for_rule(rule), v); }
inline void sort_values(std::vector<std::uint32_t> &, unsigned) {}
inline void sort_values(std::vector<tazw::IPv6> &, unsigned) {}
inline void sort_values(std::vector<std::string> &v, unsigned rule) { sort_strings(v, rule); }

template <typename Key>
bool key_less(const Key &a, const Key &b, unsigned) { return a < b; } /* integers, IPv6 bytes */
inline bool key_less(const std::string &a, const std::string &b, unsigned rule)
{
    return tazw::less_in(tazw::order_for_rule(rule), a, b);
}

/* Entries stored as the searches need them: by key under the key rule, each
 * entry's string values under the value rule. */
template <typename Entry>
std::vector<Entry> stored_map(std::vector<Entry> e, int map_type)
{
    const unsigned key_rule = unsigned(map_type >> 8) & 0xFFu, value_rule = unsigned(map_type) & 0xFFu;
    for (Entry &x : e) sort_values(x.values, value_rule);
    std::stable_sort(e.begin(), e.end(),
                     [key_rule](const Entry &a, const Entry &b) { return key_less(a.key, b.key, key_rule); });
    return e;
}

template <typename Entry>
Bytes map_list(std::uint32_t number, const std::vector<Entry> &e, int map_type)
{
    return tazw::list(number, std::uint32_t(e.size()), tazw::map_entries(stored_map(e, map_type)));
}

/* A map section of one list (number 0). */
template <typename Entry>
Bytes map_section(std::uint32_t kind, const std::vector<Entry> &e, int map_type)
{
    return tazw::section(kind, 1, map_list(0, e, map_type));
}

/* ---- borrowed results ---------------------------------------------------------- */
/* The text of a borrowed string; records a failure unless it is NUL-terminated. */
inline std::string text(const TAZE_CountedString &s)
{
    if (!s.ptr) return "<null>";
    EXPECT_EQ(s.ptr[s.len], 0) << "not NUL-terminated";
    return std::string(reinterpret_cast<const char *>(s.ptr), s.len);
}

inline std::vector<std::string> texts(const TAZE_CountedString *s, std::uint32_t n)
{
    std::vector<std::string> v;
    for (std::uint32_t i = 0; i < n; ++i) v.push_back(text(s[i]));
    return v;
}

/* Takes a copied string result and frees it. */
inline std::string take(char *&s)
{
    std::string t = s ? std::string(s) : std::string("<null>");
    std::free(s);
    s = nullptr;
    return t;
}

/* ---- queries answered as text ------------------------------------------------------ */
/* A query of the C interface; its answer is the result code, a space and
 * what the outputs hold (copies the library made are freed). */
struct Query {
    std::string name;
    std::function<std::string(TAZE *)> ask;
};

/* The outputs of one kind of getter: pointers handed to it, and their text. */
struct Number {
    unsigned v = 0;
    auto outputs() { return std::make_tuple(&v); }
    std::string text() const { return std::to_string(v); }
};
struct Text {
    char *s = nullptr;
    auto outputs() { return std::make_tuple(&s); }
    std::string text() { return take(s); }
};
struct Clean {
    unsigned priority = 0;
    char *src = nullptr, *dst = nullptr;
    auto outputs() { return std::make_tuple(&priority, &src, &dst); }
    std::string text() { return std::to_string(priority) + " " + take(src) + " " + take(dst); }
};
struct Risk {
    unsigned policy = 0, severity = 0;
    auto outputs() { return std::make_tuple(&policy, &severity); }
    std::string text() const { return std::to_string(policy) + "/" + std::to_string(severity); }
};

/* A borrowed map record: its key, value count and first value. */
inline std::string describe(const TAZE_CountedString &s) { return text(s); }
inline std::string describe(std::uint32_t v) { return std::to_string(v); }
inline std::string describe(const TAZE_IPv6 &a)
{
    return std::to_string(a.bytes[0]) + "." + std::to_string(a.bytes[15]);
}
template <typename R>
struct Record {
    R r{};
    auto outputs() { return std::make_tuple(&r); }
    std::string text() const
    {
        const auto &[key, n, values] = r;
        return describe(key) + " #" + std::to_string(n) + (n && values ? " " + describe(values[0]) : "");
    }
};

/* A getter called with the arguments a, then a pointer to each output. */
template <typename Out, typename Fn, typename... A>
Query query(std::string name, Fn fn, A... a)
{
    return {std::move(name), [=](TAZE *h) {
                Out out;
                const int rc = std::apply([&](auto... o) { return fn(h, a..., o...); }, out.outputs());
                return std::to_string(rc) + " " + out.text();
            }};
}

/* A call whose result is the whole answer. */
template <typename Fn, typename... A>
Query plain(std::string name, Fn fn, A... a)
{
    return {std::move(name), [=](TAZE *h) { return std::to_string(fn(h, a...)); }};
}

inline tazw::IPv6 v6(std::initializer_list<std::uint8_t> head, std::uint8_t last = 0)
{
    tazw::IPv6 a{};
    std::copy(head.begin(), head.end(), a.begin());
    a[15] = std::uint8_t(a[15] | last);
    return a;
}

/* A container holding only the given sub-patterns (7 main, 8 second kind). */
inline Bytes file_of(const std::vector<std::pair<std::uint16_t, Bytes>> &subs)
{
    tazw::Container c;
    c.ptnVer = 0x1230004D;
    for (const auto &s : subs) {
        tazw::SubPattern p;
        p.subtype = s.first;
        p.payload = s.second;
        c.subs.push_back(p);
    }
    return tazw::build_container(c);
}

/* Loads a file built from sub-patterns; returns the handle and the load result. */
inline std::pair<tazt::Handle, int> load_file(const Bytes &file)
{
    tazt::Handle h = tazt::new_handle();
    const std::string path = tazt::write_temp(file);
    const int rc = TAZE_LoadPattern(h.get(), path.c_str());
    return {std::move(h), rc};
}

} // namespace apif

#endif /* TAZE_API_FIXTURES_H */
