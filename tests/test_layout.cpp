/* Record layouts: the public result records equal the image's records. */
#include <cstddef>
#include <type_traits>

#include "test_support.h"
#include "taze_ptn.h"
#include "vkc.h"
#include "readptn.h"

namespace {

template <typename Public, typename Internal>
constexpr bool same_size_and_layout()
{
    return sizeof(Public) == sizeof(Internal) && alignof(Public) == alignof(Internal) &&
           std::is_standard_layout_v<Public> && std::is_standard_layout_v<Internal>;
}

static_assert(same_size_and_layout<TAZE_CountedString, counted_string_t>());
static_assert(same_size_and_layout<TAZE_StringList, str_list_st>());
static_assert(same_size_and_layout<TAZE_StringIntMap, simap_st>());
static_assert(same_size_and_layout<TAZE_IPv6, ipv6_st>());
static_assert(same_size_and_layout<TAZE_StringIPv6Map, sipv6map_st>());
static_assert(same_size_and_layout<TAZE_IPv6IntMap, ipv6imap_st>());
static_assert(same_size_and_layout<TAZE_IntIntMap, iimap_st>());
static_assert(same_size_and_layout<TAZE_IntStringMap, ismap_st>());
static_assert(same_size_and_layout<TAZE_StringStringMap, ssmap_st>());
static_assert(offsetof(TAZE_StringStringMap, strs) == offsetof(ssmap_st, strs));
static_assert(offsetof(TAZE_IntStringMap, strs) == offsetof(ismap_st, strs));
static_assert(offsetof(TAZE_IPv6IntMap, ints) == offsetof(ipv6imap_st, ints));
static_assert(sizeof(KORMHEAD) == KORMHEAD_SIZE);
static_assert(sizeof(KORMSUB) == KORMSUB_SIZE);
static_assert(sizeof(ENCHEAD) == ENCHEAD_SIZE);
static_assert(sizeof(taz_section_hdr_st) == 16);
static_assert(sizeof(taz_pattern_hdr_st) == 12);
static_assert(std::is_standard_layout_v<taz_pattern_st>);
static_assert(std::is_standard_layout_v<TAZE>);

} // namespace
