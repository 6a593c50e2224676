/* The library handle and the records it owns. */
#ifndef VKC_H
#define VKC_H

#include "linux_x64.h"

#define MAGIC_TAZ 0x5A454154

/* Raw sub-pattern kinds kept as bytes by the handle. */
enum {
    TAZE_YUB = 0,
    TAZE_RAW_PATTERN_COUNT = 1
};

typedef struct {
    volatile int counter;
} atomic_t;

#ifndef TAZE_PATTERN_ST_DECLARED
#define TAZE_PATTERN_ST_DECLARED
typedef struct taz_pattern_st taz_pattern_st;
#endif

/* Reserved configuration record; never allocated or read. */
struct _TAZConfig;

struct _TAZPattern {
    INT32 magic;
    taz_pattern_st *cur_ptn;
    taz_pattern_st *taz_ptn;
    taz_pattern_st *ulm_ptn;
    INT32 fQorvCacheStatus0;
    INT32 num;
    UINT32 patternVer;
    UINT32 nSequenceNumber;
    atomic_t aRefCount;
};

struct _RawPattern {
    size_t len;
    unsigned char *data;
    UINT32 nSequenceNumber;
    atomic_t aRefCount;
};

#ifndef TAZE_HANDLE_DECLARED
#define TAZE_HANDLE_DECLARED
typedef struct _TAZE TAZE;
#endif

struct _TAZE {
    INT32 magic;
    struct _TAZPattern *pTAZPattern;
    struct _TAZConfig *pTAZConfig;
    struct _RawPattern *pRawPattern[TAZE_RAW_PATTERN_COUNT];
};

#ifdef __cplusplus
extern "C" {
#endif

/* Release one reference; the record is freed when it was the last. Always 0. */
int delTAZPattern(struct _TAZPattern *pTAZPattern);
int delRawPattern(struct _RawPattern *pRawPattern);

#ifdef __cplusplus
}
#endif

#endif /* VKC_H */
