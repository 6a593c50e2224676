/* Container records and the streaming reader that parses a pattern file. */
#ifndef READPTN_H
#define READPTN_H

#include <stddef.h>
#include <stdio.h>

#include "linux_x64.h"
#include "vkc.h"

#define KORM_KEY_LEN     16
#define KORMHEAD_SIZE    (4 + 2 + 2 + 4 + 4 + 4 * 4)
#define KORMSUB_SIZE     (2 + 2 + 4 + 4 + 4)
#define ENCHEAD_SIZE     (4 + 4 + KORM_KEY_LEN)
#define PATTERN_BUF_SIZE 3000

/* Main header (32 bytes on disk, big-endian). */
typedef struct _kormHead {
    unsigned char magic[4];
    UINT16 fmtVer;
    UINT16 mbz;
    UINT32 ptnVer;
    UINT32 cntSub;
    UINT32 reserved[4];
} KORMHEAD;

/* Sub-pattern header (16 bytes on disk, big-endian). */
typedef struct _kormSub {
    UINT16 subtype;
    UINT16 enctype;
    UINT32 minver;
    UINT32 maxver;
    UINT32 offset;
} KORMSUB;

/* Encryption header (24 bytes on disk; the digest is raw bytes). */
typedef struct _encHead {
    UINT32 enclen;
    UINT32 declen;
    unsigned char digest[KORM_KEY_LEN];
} ENCHEAD, *PENCHEAD;

/* A body being decrypted and digested in steps as it arrives (tfsh_md5).
 * A failure is kept in rc and reported once the whole body is there. */
typedef struct _BodyDecrypt {
    void *cipher;       /* libgcrypt handle of the body key, once started */
    void *md;           /* libgcrypt MD5 of the payload so far */
    UINT32 done;        /* bytes decrypted (and digested up to declen) */
    long rc;            /* first failure, else 0 */
    unsigned char digest[KORM_KEY_LEN]; /* the decrypted digest */
    INT32 started;
} BODYDECRYPT;

typedef struct _QDPatternStream QDPatternBuf;
typedef INT32 (*QDGetDataFun)(QDPatternBuf *pPatternBuf);

struct _QDPatternStream {
    struct _TAZPattern *pTAZPattern;
    struct _RawPattern *pRawPattern[TAZE_RAW_PATTERN_COUNT];
    INT32 flag;
    unsigned char buf[PATTERN_BUF_SIZE];
    INT32 bufIndex;
    UINT32 fileOffset;
    INT32 expectLen;
    QDGetDataFun getData;
    unsigned char *data;
    KORMHEAD kormHead;
    KORMSUB kormSub;
    ENCHEAD encHead;
    INT32 secNum;
    unsigned char *tmp;
    INT32 tmpIndex;
    INT32 tmpSize;
    INT32 status;
    /* Behind the contract's fields: the one-copy load path. */
    UINT64 inputSize;   /* bytes of the whole input when the feeder knows them, else 0 */
    size_t tmpCapacity; /* bytes allocated at tmp */
    BODYDECRYPT crypt;  /* the current body's decryption */
};

#ifdef __cplusplus
extern "C" {
#endif

QDPatternBuf *newPatternBuffer(void);
int putPatternBuffer(QDPatternBuf *pPatternBuf, char *buf, int len);
int delPatternBuffer(QDPatternBuf *pPatternBuf);
int setHandleFun(QDPatternBuf *pPatternBuf, INT32 expectLen, QDGetDataFun fun);
int peekTAZPatternVer(const char *path, unsigned int *ver);
/* Feed a whole open file to a new reader and signal its end: 0, or
 * READ_ERR when the reader fails. Bodies are read straight into the
 * buffer that becomes the payload. */
int readPatternFile(QDPatternBuf *pPatternBuf, FILE *file);
int parseTAZPattern(struct _TAZPattern *pTAZPattern, unsigned char *buf, int len);
int parseULMPattern(struct _TAZPattern *pTAZPattern, unsigned char *buf, int len);

#ifdef __cplusplus
}
#endif

#endif /* READPTN_H */
