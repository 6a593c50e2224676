/* The pattern format, decoded in one place for the library and the tools. */
#include "format.h"

#include <cstdio>
#include <cstring>

#include "readptn.h"
#include "taze_file.h"
#include "tazeptn.h"
#include "vk_platform.h"

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

/* ---- Payload ---- */

int version_text(std::uint32_t v, char *buf, int size)
{
    std::snprintf(buf, static_cast<std::size_t>(size), KORM_VERSION_FORMAT, static_cast<int>(KORM_GET_PATTERN_PRO(v)),
                  static_cast<int>(KORM_GET_PATTERN_VER(v)), static_cast<int>(KORM_GET_PATTERN_BLD(v)));
    buf[size - 1] = '\0';
    return 0;
}

/* ---- Directory candidates ---- */

namespace {

static_assert(TAZE_PATH_MAX == candidates::path_max, "one path buffer size");

/* The host of candidates::scan for the library. */
struct LibraryScan {
    const CandidateSink &sink;

    static int peek(const char *path, std::uint32_t *version)
    {
        unsigned int v = 0;
        const int rc = peekTAZPatternVer(path, &v);
        *version = v;
        return rc;
    }

    bool take(const candidates::entry &e)
    {
        using candidates::reason;
        switch (e.why) {
        case reason::candidate:
            if (sink.accept(sink.ctx, e)) return true;
            VK_DEBUG_PUTS(VKDEBUG_ERR, "newPatternVersion() failed");
            sink.clear(sink.ctx);
            return false;
        case reason::path_too_long:
        case reason::not_regular_file:
            VK_DEBUG_PRINTF(VKDEBUG_ERR, "stat(%s)< 0, or 0 == S_ISREG()\n", e.path);
            break;
        case reason::prefix_mismatch: VK_DEBUG_PRINTF(VKDEBUG_ERR, "prefix not match(%s, %s)\n", e.name, prefix); break;
        case reason::suffix_mismatch:
            VK_DEBUG_PRINTF(VKDEBUG_ERR, "suffix not match(%s, %s)\n", e.after_number, candidates::suffix);
            break;
        case reason::peek_failed: VK_DEBUG_PRINTF(VKDEBUG_ERR, "peekTAZPatternVer(%s)\n", e.path); break;
        case reason::version_mismatch:
            VK_DEBUG_PRINTF(VKDEBUG_ERR, "RealVer:0x%08x, FileVer:0x%08x\n", candidates::version_field(e.version),
                            e.number);
            break;
        default: break; /* the load outcomes are not the scan's */
        }
        return true;
    }

    void failed(int code, const char *path)
    {
        switch (code) {
        case candidates::scan_stat_failed: VK_DEBUG_PRINTF(VKDEBUG_ERR, "stat(%s)\n", path); break;
        case candidates::scan_not_directory: VK_DEBUG_PRINTF(VKDEBUG_ERR, "S_ISDIR(%s)==0\n", path); break;
        case candidates::scan_open_failed: VK_DEBUG_PRINTF(VKDEBUG_ERR, "opendir(%s)==0\n", path); break;
        case candidates::scan_close_failed:
            sink.clear(sink.ctx);
            VK_DEBUG_PUTS(VKDEBUG_ERR, "closedir() failed");
            break;
        case candidates::scan_alloc_close_failed: VK_DEBUG_PUTS(VKDEBUG_ERR, "closedir() failed"); break;
        case candidates::scan_none_found: VK_DEBUG_PUTS(VKDEBUG_ERR, "No pattern file found"); break;
        default: break;
        }
    }

    const char *prefix;
};

} // namespace

int scan_candidates(const char *dir, const char *prefix, const CandidateSink &sink)
{
    LibraryScan host{sink, prefix};
    return candidates::scan(dir, prefix, host);
}

} // namespace taze
