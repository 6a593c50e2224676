/* Pattern directory scan: candidate files sorted by version. */
#ifndef TAZE_FILE_H
#define TAZE_FILE_H

#include "linux_x64.h"
#include "vklist.h"

#define TAZE_PATH_MAX 512

typedef struct PatternVersion_st {
    UINT32 version;
    char *path;
    LIST_HEAD pattern_list;
} PatternVersion_st;

#ifdef __cplusplus
extern "C" {
#endif

/* 0 with at least one entry, or -1..-7 (the list is left empty). */
int getTAZPatternList(const char *pathName, const char *prefix, LIST_HEAD *pvh);
void delPatternVersionList(LIST_HEAD *pvlist);
void delPatternVersion(PatternVersion_st *pv);

#ifdef __cplusplus
}
#endif

#endif /* TAZE_FILE_H */
