/* Byte-order helpers of the container: reading and writing 16- and 32-bit
 * fields in either order, byte swaps, and the in-place converters of the
 * three container headers (used by writers of containers). */
#include <cstddef>
#include <cstdint>

#include "tazeptn.h"
#include "vkendian.h"

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

/* Writes sizeof(T) bytes, most significant first when BigEndian is set. */
template <typename T, bool BigEndian>
void store(T v, unsigned char *p)
{
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        std::size_t at = BigEndian ? sizeof(T) - 1 - i : i;
        p[at] = static_cast<unsigned char>(v >> (8 * i));
    }
}

} // namespace

extern "C" {

UINT16 bigEndianToU16(const unsigned char *p) { return load<UINT16, true>(p); }
UINT32 bigEndianToU32(const unsigned char *p) { return load<UINT32, true>(p); }
UINT16 littleEndianToU16(const unsigned char *p) { return load<UINT16, false>(p); }
UINT32 littleEndianToU32(const unsigned char *p) { return load<UINT32, false>(p); }

void u16ToBigEndian(UINT16 v, unsigned char *p) { store<UINT16, true>(v, p); }
void u32ToBigEndian(UINT32 v, unsigned char *p) { store<UINT32, true>(v, p); }
void u16ToLittleEndian(UINT16 v, unsigned char *p) { store<UINT16, false>(v, p); }
void u32ToLittleEndian(UINT32 v, unsigned char *p) { store<UINT32, false>(v, p); }

/* The host is little-endian: network order is a byte swap, both ways. */
UINT32 h2nl(UINT32 v) { return vk_swap32(v); }
UINT16 h2ns(UINT16 v) { return vk_swap16(v); }
UINT32 n2hl(UINT32 v) { return h2nl(v); }
UINT16 n2hs(UINT16 v) { return h2ns(v); }

/* The magic, mbz and the reserved words stay as they are. */
void h2n_korm(KORMHEAD *h)
{
    if (!h) return;
    h->fmtVer = h2ns(h->fmtVer);
    h->ptnVer = h2nl(h->ptnVer);
    h->cntSub = h2nl(h->cntSub);
}
void n2h_korm(KORMHEAD *h) { h2n_korm(h); }

void h2n_sub(KORMSUB *s)
{
    if (!s) return;
    s->subtype = h2ns(s->subtype);
    s->enctype = h2ns(s->enctype);
    s->minver = h2nl(s->minver);
    s->maxver = h2nl(s->maxver);
    s->offset = h2nl(s->offset);
}
void n2h_sub(KORMSUB *s) { h2n_sub(s); }

/* The digest is raw bytes and keeps its order. */
void h2n_enc(PENCHEAD e)
{
    if (!e) return;
    e->enclen = h2nl(e->enclen);
    e->declen = h2nl(e->declen);
}
void n2h_enc(PENCHEAD e) { h2n_enc(e); }

} // extern "C"
