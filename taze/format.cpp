/* Knowledge of the pattern file format shared by the library and the tools. */
#include "format.h"

#include <cstdio>

#include "tazeptn.h"

namespace taze {

/* ---- Payload ---- */

int version_text(std::uint32_t v, char *buf, int size)
{
    std::snprintf(buf, static_cast<std::size_t>(size), KORM_VERSION_FORMAT, static_cast<int>(KORM_GET_PATTERN_PRO(v)),
                  static_cast<int>(KORM_GET_PATTERN_VER(v)), static_cast<int>(KORM_GET_PATTERN_BLD(v)));
    buf[size - 1] = '\0';
    return 0;
}

std::string version_text(std::uint32_t v)
{
    char buf[32];
    version_text(v, buf, sizeof buf);
    return buf;
}

} // namespace taze
