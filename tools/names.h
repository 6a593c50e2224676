/* Names the tools give to direction and threat-type codes: the pattern
 * source accepts them, the inspector prints them. */
#ifndef TAZE_TOOLS_NAMES_H
#define TAZE_TOOLS_NAMES_H

#include <cstdint>
#include <string_view>

#include "taze_ptn.h"

namespace taze::names {

struct Name {
    std::uint32_t value;
    const char *name;
};

inline constexpr Name kDirections[] = {
    {TAZ_DIR_ANY, "any"}, {TAZ_DIR_INBOUND, "inbound"}, {TAZ_DIR_OUTBOUND, "outbound"}};
inline constexpr Name kThreatTypes[] = {
    {0, "file_pattern"}, {1, "malicious_behavior"}, {2, "suspicious_behavior"}, {3, "exploit"},
    {4, "grayware"},     {5, "qim"},                {6, "zul"},                 {99, "hidden"}};

/* The name of a value, or null. */
template <std::size_t N>
const char *name_of(const Name (&table)[N], std::uint32_t value)
{
    for (const Name &n : table)
        if (n.value == value) return n.name;
    return nullptr;
}

/* The value of a name, or null. */
template <std::size_t N>
const Name *find_name(const Name (&table)[N], const char *name)
{
    for (const Name &n : table)
        if (std::string_view(n.name) == name) return &n;
    return nullptr;
}

} // namespace taze::names

#endif
