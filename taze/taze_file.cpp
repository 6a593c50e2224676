/* Pattern directory scan: the files of a directory named prefix + decimal
 * version + ".ptn" whose number matches the version they hold, in a list
 * sorted by product and version. */
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>

#include "readptn.h"
#include "taze_file.h"
#include "tazeptn.h"
#include "vk_platform.h"

namespace {

/* Sort key: product and version fields; the build is left out on purpose,
 * so files that differ only in their build keep their directory order. */
constexpr UINT32 kOrderMask = 0xF00FFFFFu;
constexpr char kSuffix[] = ".ptn";
constexpr size_t kSuffixLen = sizeof kSuffix - 1;

PatternVersion_st *entryOf(LIST_HEAD *link) { return VK_LIST_ENTRY(link, PatternVersion_st, pattern_list); }

PatternVersion_st *newPatternVersion(UINT32 version, const char *path)
{
    PatternVersion_st *pv = static_cast<PatternVersion_st *>(std::malloc(sizeof(PatternVersion_st)));
    char *copy = strdup(path);
    if (!pv || !copy) {
        std::free(pv);
        std::free(copy);
        return nullptr;
    }
    pv->version = version;
    pv->path = copy;
    VK_LIST_INIT(&pv->pattern_list);
    return pv;
}

/* Before the first entry with a greater key: equal keys keep their order. */
void insertByVersion(LIST_HEAD *head, PatternVersion_st *pv)
{
    UINT32 key = pv->version & kOrderMask;
    LIST_HEAD *pos = head->next;
    while (pos != head && (entryOf(pos)->version & kOrderMask) <= key) pos = pos->next;
    vk_list_insert_before(&pv->pattern_list, pos);
}

/* Does the entry at path (file name name) qualify? Its peeked version goes
 * to *version. Every reason to skip it is printed. */
bool qualifies(const char *path, const char *name, const char *prefix, UINT32 *version)
{
    struct stat st;
    if (stat(path, &st) < 0 || !S_ISREG(st.st_mode)) {
        VK_DEBUG_PRINTF(VKDEBUG_ERR, "stat(%s)< 0, or 0 == S_ISREG()\n", path);
        return false;
    }
    size_t plen = std::strlen(prefix);
    if (std::strncmp(name, prefix, plen) != 0) {
        VK_DEBUG_PRINTF(VKDEBUG_ERR, "prefix not match(%s, %s)\n", name, prefix);
        return false;
    }
    char *end = nullptr;
    long long number = std::strtoll(name + plen, &end, 10);
    if (std::strncmp(end, kSuffix, kSuffixLen) != 0) {
        VK_DEBUG_PRINTF(VKDEBUG_ERR, "suffix not match(%s, %s)\n", end, kSuffix);
        return false;
    }
    unsigned int peeked = 0;
    if (peekTAZPatternVer(path, &peeked) != 0) {
        VK_DEBUG_PRINTF(VKDEBUG_ERR, "peekTAZPatternVer(%s)\n", path);
        return false;
    }
    UINT32 real = KORM_GET_PATTERN_VER(peeked);
    UINT32 fileVer = static_cast<UINT32>(number);
    if (real != fileVer) {
        VK_DEBUG_PRINTF(VKDEBUG_ERR, "RealVer:0x%08x, FileVer:0x%08x\n", real, fileVer);
        return false;
    }
    *version = peeked;
    return true;
}

} // namespace

extern "C" {

void delPatternVersion(PatternVersion_st *pv)
{
    if (!pv) return;
    std::free(pv->path);
    std::free(pv);
}

void delPatternVersionList(LIST_HEAD *pvlist)
{
    if (!pvlist) return;
    while (!VK_LIST_EMPTY(pvlist)) {
        LIST_HEAD *link = pvlist->next;
        vk_list_del(link);
        delPatternVersion(entryOf(link));
    }
    VK_LIST_INIT(pvlist);
}

int getTAZPatternList(const char *pathName, const char *prefix, LIST_HEAD *pvh)
{
    if (!pathName || !prefix || !pvh) {
        VK_DEBUG_PRINTF(VKDEBUG_ERR, "path:%p, prefix:%p, pvh:%p\n", static_cast<const void *>(pathName),
                        static_cast<const void *>(prefix), static_cast<const void *>(pvh));
        return -1;
    }
    struct stat st;
    if (stat(pathName, &st) < 0) {
        VK_DEBUG_PRINTF(VKDEBUG_ERR, "stat(%s)\n", pathName);
        return -2;
    }
    if (!S_ISDIR(st.st_mode)) {
        VK_DEBUG_PRINTF(VKDEBUG_ERR, "S_ISDIR(%s)==0\n", pathName);
        return -3;
    }

    /* The directory path with its '/' and a terminator must fit the path
     * buffer; a longer one is refused like a directory that cannot be opened. */
    char path[TAZE_PATH_MAX];
    size_t dlen = std::strlen(pathName);
    bool slash = dlen > 0 && pathName[dlen - 1] == '/';
    size_t built = dlen + (slash ? 0 : 1);
    if (built >= sizeof path) {
        VK_DEBUG_PRINTF(VKDEBUG_ERR, "opendir(%s)==0\n", pathName);
        return -4;
    }
    std::memcpy(path, pathName, dlen);
    if (!slash) path[dlen] = '/';
    path[built] = '\0';
    DIR *dir = opendir(path);
    if (!dir) {
        VK_DEBUG_PRINTF(VKDEBUG_ERR, "opendir(%s)==0\n", path);
        return -4;
    }

    while (struct dirent *de = readdir(dir)) {
        const char *name = de->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
        /* A full path that does not fit is cut and skipped, never looked up. */
        size_t nlen = std::strlen(name);
        size_t room = sizeof path - 1 - built;
        size_t copied = nlen < room ? nlen : room;
        std::memcpy(path + built, name, copied);
        path[built + copied] = '\0';
        if (nlen > room) {
            VK_DEBUG_PRINTF(VKDEBUG_ERR, "stat(%s)< 0, or 0 == S_ISREG()\n", path);
            continue;
        }
        UINT32 version = 0;
        if (!qualifies(path, name, prefix, &version)) continue;
        PatternVersion_st *pv = newPatternVersion(version, path);
        if (!pv) {
            VK_DEBUG_PUTS(VKDEBUG_ERR, "newPatternVersion() failed");
            delPatternVersionList(pvh);
            if (closedir(dir) != 0) {
                VK_DEBUG_PUTS(VKDEBUG_ERR, "closedir() failed");
                return -5;
            }
            return -6;
        }
        insertByVersion(pvh, pv);
    }

    if (closedir(dir) != 0) {
        delPatternVersionList(pvh);
        VK_DEBUG_PUTS(VKDEBUG_ERR, "closedir() failed");
        return -1;
    }
    if (VK_LIST_EMPTY(pvh)) {
        VK_DEBUG_PUTS(VKDEBUG_ERR, "No pattern file found");
        return -7;
    }
    return 0;
}

} // extern "C"
