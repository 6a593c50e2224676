/* Container codes, version encoding and byte-order converters. */
#ifndef TAZEPTN_H
#define TAZEPTN_H

#include "readptn.h"

#define TAZP_FILE_MAGIC_STR "TAZP"
#define KORM_FORMAT_VER     1

#define KORM_SUB_TAZE_RULE  0x0007
#define KORM_SUB_ULM_RULE   0x0008
#define KORM_SUB_YUB_RULE   0x0009

#define KORM_ENC_NONE       0x0000
#define KORM_ENC_TFSH_MD5   0x0001

#define KORM_VER_NONE       0u
#define KORM_GET_PATTERN_PRO(v) (((UINT32)(v) >> 28) & 0xFu)
#define KORM_GET_PATTERN_BLD(v) (((UINT32)(v) >> 20) & 0xFFu)
#define KORM_GET_PATTERN_VER(v) ((UINT32)(v) & 0xFFFFFu)
#define KORM_MAKE_PATTERN_VER(p, b, v) \
    ((((UINT32)(p) & 0xFu) << 28) | (((UINT32)(b) & 0xFFu) << 20) | ((UINT32)(v) & 0xFFFFFu))

#define KORM_MAKE_ENGINE_VER(j, i) ((((UINT32)(j) & 0xFFFFu) << 16) | ((UINT32)(i) & 0xFFFFu))
#define KORM_GET_ENGINE_MAJOR(v)   (((UINT32)(v) >> 16) & 0xFFFFu)
#define KORM_GET_ENGINE_MINOR(v)   ((UINT32)(v) & 0xFFFFu)

/* Text form of a pattern version: product, version, build. */
#define KORM_VERSION_FORMAT "%d.%05d.%02d"

#ifdef __cplusplus
extern "C" {
#endif

UINT16 bigEndianToU16(const unsigned char *p);
UINT32 bigEndianToU32(const unsigned char *p);
UINT32 littleEndianToU32(const unsigned char *p);

#ifdef __cplusplus
}
#endif

#endif /* TAZEPTN_H */
