/* The pattern format shared by the library and the tools. */
#include "format.h"

#include "readptn.h"
#include "taze_file.h"
#include "vk_platform.h"

/* ---- Directory candidates ---- */

namespace taze {

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
