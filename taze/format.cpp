/* The pattern file's format, decoded in one place for the library and the
 * tools. */
#include "format.h"

#include <cstring>

#include "tazeptn.h"

namespace taze {

/* ---- Container ---- */

static_assert(KORMHEAD_SIZE == 32 && KORMSUB_SIZE == 16 && ENCHEAD_SIZE == 24, "container header sizes");

void decode_main_header(const unsigned char *b, KORMHEAD &h)
{
    std::memcpy(h.magic, b, 4);
    h.fmtVer = bigEndianToU16(b + 4);
    h.mbz = bigEndianToU16(b + 6);
    h.ptnVer = bigEndianToU32(b + 8);
    h.cntSub = bigEndianToU32(b + 12);
    for (int i = 0; i < 4; ++i) h.reserved[i] = bigEndianToU32(b + 16 + 4 * i);
}

void decode_sub_header(const unsigned char *b, KORMSUB &s)
{
    s.subtype = bigEndianToU16(b);
    s.enctype = bigEndianToU16(b + 2);
    s.minver = bigEndianToU32(b + 4);
    s.maxver = bigEndianToU32(b + 8);
    s.offset = bigEndianToU32(b + 12);
}

void decode_enc_header(const unsigned char *b, ENCHEAD &e)
{
    e.enclen = bigEndianToU32(b);
    e.declen = bigEndianToU32(b + 4);
    std::memcpy(e.digest, b + 8, KORM_KEY_LEN);
}

bool has_file_magic(const KORMHEAD &h) { return std::memcmp(h.magic, TAZP_FILE_MAGIC_STR, 4) == 0; }

BodyUse body_use(const KORMSUB &s, const ENCHEAD &e)
{
    if (s.subtype != KORM_SUB_TAZE_RULE && s.subtype != KORM_SUB_ULM_RULE && s.subtype != KORM_SUB_YUB_RULE)
        return BodyUse::kKindNotRead;
    if (s.minver != 0 || s.maxver != 0) return BodyUse::kVersionsSet;
    if (e.enclen == 0) return BodyUse::kEmpty;
    return BodyUse::kRead;
}

bool body_lengths_valid(const ENCHEAD &e, std::uint16_t enctype)
{
    if (e.declen > e.enclen) return false;
    if (enctype == KORM_ENC_TFSH_MD5 && (e.enclen < 32u || e.enclen % 16u != 0u)) return false;
    return true;
}

} // namespace taze
