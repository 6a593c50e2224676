/* Fuzz target: the pattern directory scan.
 *
 * The input describes a directory in text lines (see tazf::dir_input):
 *   "P <prefix>"              the prefix to scan for
 *   "F <kind> <hex> <name>"   a file: kind c = loadable container of version
 *                             <hex>, b = the bytes of <hex> as written, e = empty
 *   "D <name>"                a subdirectory
 *   "S"                       the directory path is given with a final '/'
 * Names lose '/' and NUL; "." and ".." are skipped. The scan runs on a
 * fresh directory; its list must hold only qualifying files, in version
 * order, and must be empty on failure. */
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "dir_layout.h"
#include "harness.h"
#include "taze_file.h"
#include "tazeptn.h"

namespace {

std::string g_root;

/* The file number after the prefix, as the scan reads it. */
UINT32 file_number(const char *name, std::size_t prefix_len)
{
    return UINT32(std::strtoll(name + prefix_len, nullptr, 10));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    tazf::quiet_diagnostics();
    char tmpl[] = "/tmp/taze-fuzz-dir-XXXXXX";
    const char *d = mkdtemp(tmpl);
    if (!d) std::abort();
    g_root = d;
    std::atexit([] {
        tazf::clear_dir(g_root);
        rmdir(g_root.c_str());
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    tazf::clear_dir(g_root);
    std::string prefix;
    bool slash = false;
    tazf::build_dir(g_root, std::string(reinterpret_cast<const char *>(data), size), prefix, slash);
    const std::string dir = slash ? g_root + "/" : g_root;

    LIST_HEAD head;
    VK_LIST_INIT(&head);
    const int rc = getTAZPatternList(dir.c_str(), prefix.c_str(), &head);
    if (rc < -7 || rc > 0 || (rc != 0) != VK_LIST_EMPTY(&head)) std::abort();
    UINT32 last_key = 0;
    for (LIST_HEAD *l = head.next; l != &head; l = l->next) {
        const PatternVersion_st *pv = VK_LIST_ENTRY(l, PatternVersion_st, pattern_list);
        const std::string path = pv->path;
        const std::string want = g_root + "/";
        if (path.compare(0, want.size(), want) != 0) std::abort();
        const char *name = pv->path + want.size();
        if (std::strncmp(name, prefix.c_str(), prefix.size()) != 0) std::abort();
        if (file_number(name, prefix.size()) != KORM_GET_PATTERN_VER(pv->version)) std::abort();
        const UINT32 key = pv->version & 0xF00FFFFFu;
        if (key < last_key) std::abort();
        last_key = key;
    }
    delPatternVersionList(&head);
    return 0;
}
