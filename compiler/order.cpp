/* The orders in which searched arrays must be stored: the library bisects
 * them with its comparators, so a file sorted otherwise gives wrong answers. */
#include <algorithm>

#include "tazewriter.h"
#include "families.h"
#include "format.h"

namespace tazw {

namespace {

/* ASCII-only folding; every other byte stays as it is. */
constexpr std::uint8_t fold(std::uint8_t c) { return taze::fold_ascii(c); }
constexpr std::uint8_t same(std::uint8_t c) { return c; }

/* Forward order of the C string functions: the text ends at its first NUL. */
std::string_view c_text(std::string_view s) { return s.substr(0, std::min(s.find('\0'), s.size())); }

/* Lexicographic order of the (mapped) unsigned bytes; a proper prefix first.
 * Reversed, this is the backward order of suffix lists: a proper suffix
 * before the longer string. */
template <std::uint8_t (*Map)(std::uint8_t), typename It>
bool lex_less(It a, It a_end, It b, It b_end)
{
    return std::lexicographical_compare(a, a_end, b, b_end, [](char x, char y) {
        return Map(std::uint8_t(x)) < Map(std::uint8_t(y));
    });
}

template <std::uint8_t (*Map)(std::uint8_t)>
bool forward_less(std::string_view a, std::string_view b)
{
    a = c_text(a);
    b = c_text(b);
    return lex_less<Map>(a.begin(), a.end(), b.begin(), b.end());
}

/* Suffix comparisons walk the whole counted string from its last byte. */
template <std::uint8_t (*Map)(std::uint8_t)>
bool backward_less(std::string_view a, std::string_view b)
{
    return lex_less<Map>(a.rbegin(), a.rend(), b.rbegin(), b.rend());
}

} // namespace

Order order_for_list_section(std::uint32_t section_magic)
{
    /* String lists only: their key rule and case rule (families.h). */
    const taze::FamilyRow *f = taze::family_row(section_magic);
    if (f == nullptr || f->layout != taze::Layout::Strings || f->key_rule == taze::Rule::Substr)
        return Order::Any; /* substring lists are scanned */
    const bool backward = f->key_rule == taze::Rule::Suffix;
    if (f->case_rule == taze::Case::Sensitive) return backward ? Order::BytewiseReversed : Order::Bytewise;
    return backward ? Order::FoldReversed : Order::Fold;
}

Order order_for_rule(unsigned rule)
{
    /* Map keys and values always match case-insensitively. */
    switch (rule) {
    case 0:
    case 1:
        return Order::Fold;
    case 2:
        return Order::FoldReversed;
    default: /* substring, or no rule at all: scanned */
        return Order::Any;
    }
}

bool less_in(Order o, std::string_view a, std::string_view b)
{
    switch (o) {
    case Order::Fold:
        return forward_less<fold>(a, b);
    case Order::FoldReversed:
        return backward_less<fold>(a, b);
    case Order::Bytewise:
        return forward_less<same>(a, b);
    case Order::BytewiseReversed:
        return backward_less<same>(a, b);
    case Order::Any:
        break;
    }
    return false;
}

void sort_in(Order o, std::vector<std::string> &v)
{
    if (o == Order::Any) return;
    std::stable_sort(v.begin(), v.end(),
                     [o](const std::string &a, const std::string &b) { return less_in(o, a, b); });
}

} // namespace tazw
