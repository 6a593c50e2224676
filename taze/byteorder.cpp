/* Byte-order helpers of the container: reading 16- and 32-bit fields in
 * either order. */
#include <cstddef>
#include <cstdint>

#include "tazeptn.h"

namespace {

/* Reads sizeof(T) bytes, most significant first when BigEndian is set. */
template <typename T, bool BigEndian>
T load(const unsigned char *p)
{
    T v = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        std::size_t at = BigEndian ? i : sizeof(T) - 1 - i;
        v = T((v << 8) | T(p[at]));
    }
    return v;
}

} // namespace

extern "C" {

UINT16 bigEndianToU16(const unsigned char *p) { return load<UINT16, true>(p); }
UINT32 bigEndianToU32(const unsigned char *p) { return load<UINT32, true>(p); }
UINT32 littleEndianToU32(const unsigned char *p) { return load<UINT32, false>(p); }

} // extern "C"
