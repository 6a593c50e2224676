/* Pattern directory scan: the candidate files of a directory (the rules
 * are taze_candidates.hpp, the scan and its messages format.cpp) in a list
 * sorted by product and version. */
#include <cstdlib>
#include <cstring>

#include "format.h"
#include "taze_file.h"
#include "vk_platform.h"

namespace {

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

/* Before the first entry that sorts after it: equal keys keep their order. */
bool insertByVersion(void *ctx, const taze::candidates::entry &e)
{
    LIST_HEAD *head = static_cast<LIST_HEAD *>(ctx);
    PatternVersion_st *pv = newPatternVersion(e.version, e.path);
    if (!pv) return false;
    LIST_HEAD *pos = head->next;
    while (pos != head && !taze::candidates::sorts_before(pv->version, entryOf(pos)->version)) pos = pos->next;
    vk_list_insert_before(&pv->pattern_list, pos);
    return true;
}

void clearList(void *ctx) { delPatternVersionList(static_cast<LIST_HEAD *>(ctx)); }

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
        return taze::candidates::scan_bad_argument;
    }
    return taze::scan_candidates(pathName, prefix, taze::CandidateSink{insertByVersion, clearList, pvh});
}

} // extern "C"
