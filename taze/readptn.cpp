/* Streaming container reader.
 *
 * The caller pushes the file in chunks of any size; the reader stages them
 * in a fixed 3000-byte buffer and hands them to the handler of the current
 * piece of the container (main header, sub-pattern header, filler,
 * encryption header, body, end trap). Wanted bodies are collected, decrypted
 * and checked, and given to the image loaders or kept as raw bytes.
 *
 * Two handler chains walk the same container: the loading chain and the
 * lighter version peek, which only skips bodies. Both share one set of
 * header and body routines, parameterised by a table of their next states. */
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "format.h"
#include "readptn.h"
#include "taze_impl.h"
#include "tazeptn.h"
#include "tfsh_md5.h"
#include "vk_platform.h"
#include "vkerror.h"

namespace {

/* Creation sequence numbers come from a counter that is never advanced:
 * every record carries this value plus one. */
const UINT32 kSequenceCounter = 0;

constexpr INT32 kReadFailed = -1;
constexpr int kPeekChunk = 32;

/* Bodies are decrypted and digested in steps of this many bytes as they
 * arrive, each while it is still in cache; the file reader reads them in
 * pieces of the same size. */
constexpr INT32 kStep = 64 * 1024;
/* Pieces the file reader hands to the push reader (headers, fillers,
 * skipped bodies, bodies whose claimed length the file does not hold). */
constexpr INT32 kPiece = 8 * 1024;

/* ---- handlers of both chains (defined below) ------------------------------ */
INT32 getMainHeader(QDPatternBuf *p);
INT32 getSubHeader(QDPatternBuf *p);
INT32 getSpecificOffset(QDPatternBuf *p);
INT32 getEncHead(QDPatternBuf *p);
INT32 getTAZEData(QDPatternBuf *p);
INT32 getULMData(QDPatternBuf *p);
INT32 getRawPatternData(QDPatternBuf *p);
INT32 getSkipData(QDPatternBuf *p);
INT32 trapFun(QDPatternBuf *p);
int adoptTAZPattern(struct _TAZPattern *rec, unsigned char *buf, UINT32 len, size_t capacity);
int adoptULMPattern(struct _TAZPattern *rec, unsigned char *buf, UINT32 len, size_t capacity);

INT32 getMainHeaderPeek(QDPatternBuf *p);
INT32 getSubHeaderPeek(QDPatternBuf *p);
INT32 getSpecificOffsetPeek(QDPatternBuf *p);
INT32 getEncHeadPeek(QDPatternBuf *p);
INT32 getSkipDataPeek(QDPatternBuf *p);
INT32 skipTAZEData(QDPatternBuf *p);
INT32 skipULMData(QDPatternBuf *p);

/* The next states of one chain. A null body state means "skip the body". */
struct Chain {
    QDGetDataFun subHeader;
    QDGetDataFun specificOffset;
    QDGetDataFun encHead;
    QDGetDataFun skip;
    QDGetDataFun tazBody;  /* KORM_SUB_TAZE_RULE */
    QDGetDataFun ulmBody;  /* KORM_SUB_ULM_RULE */
    QDGetDataFun rawBody;  /* KORM_SUB_YUB_RULE */
    bool collects;         /* bodies are collected into tmp (else only skipped) */

    constexpr QDGetDataFun bodyFor(UINT16 subtype) const
    {
        switch (subtype) {
        case KORM_SUB_TAZE_RULE: return tazBody;
        case KORM_SUB_ULM_RULE: return ulmBody;
        case KORM_SUB_YUB_RULE: return rawBody;
        default: return nullptr;
        }
    }
};

constexpr Chain kLoadChain{getSubHeader, getSpecificOffset, getEncHead, getSkipData,
                           getTAZEData, getULMData, getRawPatternData, true};
constexpr Chain kPeekChain{getSubHeaderPeek, getSpecificOffsetPeek, getEncHeadPeek, getSkipDataPeek,
                           skipTAZEData, skipULMData, nullptr, false};

/* ---- staging buffer ------------------------------------------------------- */

/* Append as much of data as fits; the number of bytes copied. */
int putData(QDPatternBuf *p, const char *data, int n)
{
    if (n < 1) return 0;
    int room = PATTERN_BUF_SIZE - p->bufIndex;
    int k = n < room ? n : room;
    if (k <= 0) return 0;
    std::memcpy(p->buf + p->bufIndex, data, static_cast<size_t>(k));
    p->bufIndex += k;
    return k;
}

/* Consume n bytes from the front of the buffer. */
int flushData(QDPatternBuf *p, INT32 n)
{
    if (n < 0 || n > p->bufIndex) return -1;
    std::memmove(p->buf, p->buf + n, static_cast<size_t>(p->bufIndex - n));
    p->bufIndex -= n;
    p->fileOffset += static_cast<UINT32>(n);
    p->expectLen -= n;
    return 0;
}

/* What the current handler may take now: min(expectLen, bufIndex). */
INT32 available(const QDPatternBuf *p)
{
    return p->expectLen < p->bufIndex ? p->expectLen : p->bufIndex;
}

/* Body buffers grow with the bytes that arrive, so that a claimed body
 * length costs memory only as the file delivers it (a 60-byte file may
 * claim 2 GiB). The capacity for `collected` bytes of a body of `size`
 * bytes: 64 KiB, doubled until it holds them and the padding an image
 * puts after its payload, never beyond the body and that padding. A
 * complete body leaves exactly the padding free, so that the image can
 * take the buffer over as its payload copy. */
constexpr std::uint64_t kBodyFirstCapacity = 64 * 1024;

size_t bodyCapacity(INT32 collected, INT32 size)
{
    std::uint64_t cap = kBodyFirstCapacity;
    while (cap < static_cast<std::uint64_t>(collected) + TAZ_PTN_PAD) cap *= 2;
    const std::uint64_t full = static_cast<std::uint64_t>(size) + TAZ_PTN_PAD;
    return static_cast<size_t>(cap < full ? cap : full);
}

/* Bodies from this size up ask for transparent huge pages before their
 * pages are made present: on a 64 MiB file that took the load from 346-366
 * to 270-276 ms (one fault per 2 MiB instead of per 4 KiB); at 16 MiB it
 * changed nothing. A hint: a kernel that refuses it changes nothing. */
constexpr size_t kHugeBody = size_t(8) << 20;

void adviseHugePages(void *p, size_t n)
{
    if (n < kHugeBody) return;
    const uintptr_t page = uintptr_t(sysconf(_SC_PAGESIZE));
    const uintptr_t first = (uintptr_t(p) + page - 1) & ~(page - 1);
    const uintptr_t last = (uintptr_t(p) + n) & ~(page - 1);
    if (last > first) (void)madvise(reinterpret_cast<void *>(first), last - first, MADV_HUGEPAGE);
}

/* Free the body buffer and forget it. */
void dropBody(QDPatternBuf *p)
{
    decRelease(&p->crypt);
    std::free(p->tmp);
    p->tmp = nullptr;
    p->tmpIndex = 0;
    p->tmpSize = 0;
    p->tmpCapacity = 0;
}

/* ---- handlers shared by both chains ----------------------------------------- */

/* After a body: the next sub-pattern header, or the end trap. secNum counts
 * down modulo 2^32 (a cntSub beyond INT32_MAX reads as negative). */
template <const Chain &C>
INT32 nextSubPattern(QDPatternBuf *p)
{
    p->secNum = static_cast<INT32>(static_cast<UINT32>(p->secNum) - 1u);
    if (p->secNum < 1) return setHandleFun(p, 1, trapFun);
    return setHandleFun(p, KORMSUB_SIZE, C.subHeader);
}

/* Decode and take one whole header; false when the buffer does not hold it. */
template <typename Header, INT32 Size, void (*Decode)(const unsigned char *, Header &)>
bool takeHeader(QDPatternBuf *p, Header &out)
{
    if (p->bufIndex < Size) return false;
    Decode(p->buf, out);
    flushData(p, Size);
    return true;
}

template <const Chain &C>
INT32 mainHeaderStep(QDPatternBuf *p)
{
    if (p->bufIndex < KORMHEAD_SIZE || std::memcmp(p->buf, TAZP_FILE_MAGIC_STR, 4) != 0) return kReadFailed;
    takeHeader<KORMHEAD, KORMHEAD_SIZE, taze::decode_main_header>(p, p->kormHead);
    p->secNum = static_cast<INT32>(p->kormHead.cntSub);
    return setHandleFun(p, KORMSUB_SIZE, C.subHeader);
}

template <const Chain &C>
INT32 subHeaderStep(QDPatternBuf *p)
{
    if (!takeHeader<KORMSUB, KORMSUB_SIZE, taze::decode_sub_header>(p, p->kormSub)) return kReadFailed;
    const UINT32 offset = p->kormSub.offset;
    if (offset <= p->fileOffset) return setHandleFun(p, ENCHEAD_SIZE, C.encHead);
    UINT32 gap = offset - p->fileOffset;
    /* A gap never spans more than one staging buffer; one that does not even
     * fit the expected length fails at once. */
    if (gap > static_cast<UINT32>(INT32_MAX)) return kReadFailed;
    return setHandleFun(p, static_cast<INT32>(gap), C.specificOffset);
}

/* The filler is taken from one buffer: what is left of it fails. */
template <const Chain &C>
INT32 specificOffsetStep(QDPatternBuf *p)
{
    if (flushData(p, available(p)) != 0 || p->expectLen != 0) return kReadFailed;
    return setHandleFun(p, ENCHEAD_SIZE, C.encHead);
}

template <const Chain &C>
INT32 encHeadStep(QDPatternBuf *p)
{
    if (!takeHeader<ENCHEAD, ENCHEAD_SIZE, taze::decode_enc_header>(p, p->encHead)) return kReadFailed;
    const ENCHEAD &e = p->encHead;
    /* Body lengths are expected lengths (32-bit signed). */
    if (e.enclen > static_cast<UINT32>(INT32_MAX)) return kReadFailed;
    const KORMSUB &s = p->kormSub;
    QDGetDataFun body = nullptr;
    if (taze::body_use(s, e) == taze::BodyUse::kRead) body = C.bodyFor(s.subtype);
    if (!body) return setHandleFun(p, static_cast<INT32>(e.enclen), C.skip);
    if (C.collects) {
        if (!taze::body_lengths_valid(e, s.enctype)) return kReadFailed;
        dropBody(p);
        /* Room for max(enclen, declen) bytes once complete (declen never
         * exceeds enclen here). When the feeder knows that the input holds
         * the whole body, the buffer is sized once; otherwise it grows as
         * the body arrives, so that a claim costs memory only as the input
         * delivers it. */
        p->tmpSize = static_cast<INT32>(e.enclen);
        const bool held = p->inputSize != 0 && std::uint64_t(p->fileOffset) + e.enclen <= p->inputSize;
        const size_t capacity = held ? size_t(e.enclen) + TAZ_PTN_PAD : bodyCapacity(0, p->tmpSize);
        p->tmp = static_cast<unsigned char *>(std::malloc(capacity));
        if (!p->tmp) {
            p->tmpSize = 0;
            return NO_MEM_ERR;
        }
        if (held) adviseHugePages(p->tmp, capacity);
        taz_prefault(p->tmp, capacity);
        p->tmpCapacity = capacity;
        p->tmpIndex = 0;
    }
    return setHandleFun(p, static_cast<INT32>(e.enclen), body);
}

/* Skip a body; MarksUsable records that the file holds a usable rule
 * pattern (the peek's TAZ and ULM bodies). */
template <const Chain &C, bool MarksUsable>
INT32 skipStep(QDPatternBuf *p)
{
    if (flushData(p, available(p)) != 0) return kReadFailed;
    if (p->expectLen != 0) return 0;
    if (MarksUsable) {
        if (p->pTAZPattern) p->pTAZPattern->num = 1;
        dropBody(p);
    }
    return nextSubPattern<C>(p);
}

/* ---- bodies of the loading chain ------------------------------------------ */

/* Decrypt and check the collected body when it is encrypted. */
bool decryptBody(QDPatternBuf *p)
{
    if (p->kormSub.enctype != KORM_ENC_TFSH_MD5) return true;
    if (!p->crypt.started) decStart(&p->crypt, &p->encHead, p->tmp);
    decStep(&p->crypt, &p->encHead, p->tmp, static_cast<UINT32>(p->tmpIndex));
    const long rc = decFinish(&p->crypt, &p->encHead);
    decRelease(&p->crypt);
    return rc == KORM_TFSH_MD5_SUCCESS;
}

/* Decrypt what arrived of an encrypted body, a step at a time: the key
 * needs the first 32 bytes; the last step is left to decryptBody. */
void decryptArrived(QDPatternBuf *p)
{
    if (p->kormSub.enctype != KORM_ENC_TFSH_MD5 || p->expectLen == 0) return;
    if (!p->crypt.started) {
        if (p->tmpIndex < 32) return;
        decStart(&p->crypt, &p->encHead, p->tmp);
    }
    if (static_cast<UINT32>(p->tmpIndex) - p->crypt.done >= static_cast<UINT32>(kStep))
        decStep(&p->crypt, &p->encHead, p->tmp, static_cast<UINT32>(p->tmpIndex));
}

/* A complete TAZ or ULM body: decrypt it and hand it over to the image
 * loader, which keeps it as the image's payload copy or frees it. */
template <int (*Adopt)(struct _TAZPattern *, unsigned char *, UINT32, size_t)>
INT32 useImageBody(QDPatternBuf *p)
{
    if (!decryptBody(p)) {
        dropBody(p);
        return kReadFailed;
    }
    unsigned char *body = p->tmp;
    const size_t capacity = p->tmpCapacity;
    p->tmp = nullptr;
    dropBody(p);
    return Adopt(p->pTAZPattern, body, p->encHead.declen, capacity) == 0 ? 0 : kReadFailed;
}

/* A complete raw body becomes the raw record's data (a second raw body
 * replaces the first, which is freed). */
INT32 useRawBody(QDPatternBuf *p)
{
    struct _RawPattern *raw = p->pRawPattern[TAZE_YUB];
    if (!raw || !decryptBody(p)) {
        dropBody(p);
        return kReadFailed;
    }
    std::free(raw->data);
    raw->data = p->tmp;
    raw->len = p->encHead.declen;
    p->tmp = nullptr;
    dropBody(p);
    return 0;
}

/* Copy n body bytes from src to the end of tmp, growing tmp when needed;
 * 0, or the failure code. */
INT32 appendBody(QDPatternBuf *p, const unsigned char *src, INT32 n)
{
    if (!p->tmp || n < 0 || static_cast<int64_t>(p->tmpIndex) + n > p->tmpSize) return kReadFailed;
    const size_t capacity = bodyCapacity(p->tmpIndex + n, p->tmpSize);
    if (capacity > p->tmpCapacity) {
        /* A new buffer made present before the bytes move into it, rather
         * than realloc, whose copy would fault its pages in one by one. */
        auto *grown = static_cast<unsigned char *>(std::malloc(capacity));
        if (!grown) return NO_MEM_ERR;
        taz_prefault(grown, capacity);
        std::memcpy(grown, p->tmp, static_cast<size_t>(p->tmpIndex));
        std::free(p->tmp);
        p->tmp = grown;
        p->tmpCapacity = capacity;
    }
    if (n > 0) std::memcpy(p->tmp + p->tmpIndex, src, static_cast<size_t>(n));
    return 0;
}

/* n more body bytes lie at tmp[tmpIndex]: account for them, decrypt what
 * a step holds, and hand the complete body to Use. */
template <INT32 (*Use)(QDPatternBuf *)>
INT32 bodyArrived(QDPatternBuf *p, INT32 n)
{
    p->tmpIndex += n;
    p->fileOffset += static_cast<UINT32>(n);
    p->expectLen -= n;
    decryptArrived(p);
    if (p->expectLen != 0) return 0;
    INT32 rc = Use(p);
    if (rc != 0) return rc;
    return nextSubPattern<kLoadChain>(p);
}

/* Collect body bytes from the staging buffer into tmp. */
template <INT32 (*Use)(QDPatternBuf *)>
INT32 collectStep(QDPatternBuf *p)
{
    const INT32 n = available(p);
    const INT32 rc = appendBody(p, p->buf, n);
    if (rc != 0) return rc;
    std::memmove(p->buf, p->buf + n, static_cast<size_t>(p->bufIndex - n));
    p->bufIndex -= n;
    return bodyArrived<Use>(p, n);
}

/* ---- the named handlers -------------------------------------------------------- */
INT32 getMainHeader(QDPatternBuf *p) { return mainHeaderStep<kLoadChain>(p); }
INT32 getSubHeader(QDPatternBuf *p) { return subHeaderStep<kLoadChain>(p); }
INT32 getSpecificOffset(QDPatternBuf *p) { return specificOffsetStep<kLoadChain>(p); }
INT32 getEncHead(QDPatternBuf *p) { return encHeadStep<kLoadChain>(p); }
INT32 getTAZEData(QDPatternBuf *p) { return collectStep<useImageBody<adoptTAZPattern>>(p); }
INT32 getULMData(QDPatternBuf *p) { return collectStep<useImageBody<adoptULMPattern>>(p); }
INT32 getRawPatternData(QDPatternBuf *p) { return collectStep<useRawBody>(p); }
INT32 getSkipData(QDPatternBuf *p) { return skipStep<kLoadChain, false>(p); }

INT32 getMainHeaderPeek(QDPatternBuf *p) { return mainHeaderStep<kPeekChain>(p); }
INT32 getSubHeaderPeek(QDPatternBuf *p) { return subHeaderStep<kPeekChain>(p); }
INT32 getSpecificOffsetPeek(QDPatternBuf *p) { return specificOffsetStep<kPeekChain>(p); }
INT32 getEncHeadPeek(QDPatternBuf *p) { return encHeadStep<kPeekChain>(p); }
INT32 getSkipDataPeek(QDPatternBuf *p) { return skipStep<kPeekChain, false>(p); }
INT32 skipTAZEData(QDPatternBuf *p) { return skipStep<kPeekChain, true>(p); }
INT32 skipULMData(QDPatternBuf *p) { return skipStep<kPeekChain, true>(p); }

/* The body states and what completes their bodies, for the paths that put
 * body bytes into tmp without the staging buffer. */
struct BodyState {
    QDGetDataFun handler;
    INT32 (*arrived)(QDPatternBuf *, INT32);
};
constexpr BodyState kBodyStates[] = {
    {getTAZEData, bodyArrived<useImageBody<adoptTAZPattern>>},
    {getULMData, bodyArrived<useImageBody<adoptULMPattern>>},
    {getRawPatternData, bodyArrived<useRawBody>},
};

/* The body state the reader is in with nothing staged, or null. */
const BodyState *directBody(const QDPatternBuf *p)
{
    if (p->bufIndex != 0 || p->expectLen <= 0) return nullptr;
    for (const BodyState &b : kBodyStates)
        if (p->getData == b.handler) return &b;
    return nullptr;
}

/* End trap: swallows whatever follows the last sub-pattern. */
INT32 trapFun(QDPatternBuf *p)
{
    flushData(p, available(p));
    return setHandleFun(p, 1, trapFun);
}

/* ---- records -------------------------------------------------------------------- */

template <typename Record>
Record *newRecord()
{
    Record *r = static_cast<Record *>(std::calloc(1, sizeof(Record)));
    if (r) {
        r->aRefCount.counter = 1;
        r->nSequenceNumber = kSequenceCounter + 1;
    }
    return r;
}

/* Release one reference (plain read-modify-write); true when it was the
 * last one and the caller must free the record. */
template <typename Record>
bool releaseReference(Record *r)
{
    int before = r->aRefCount.counter;
    r->aRefCount.counter = before - 1;
    return before == 1;
}

/* A reader with its record (and, for loading, its raw record), waiting for
 * the main header. Null when any allocation fails. */
QDPatternBuf *newReader(bool withRaw, QDGetDataFun first)
{
    QDPatternBuf *p = static_cast<QDPatternBuf *>(std::calloc(1, sizeof(QDPatternBuf)));
    struct _TAZPattern *rec = newRecord<struct _TAZPattern>();
    struct _RawPattern *raw = withRaw ? newRecord<struct _RawPattern>() : nullptr;
    if (!p || !rec || (withRaw && !raw)) {
        std::free(p);
        std::free(rec);
        std::free(raw);
        return nullptr;
    }
    p->pTAZPattern = rec;
    p->pRawPattern[TAZE_YUB] = raw;
    setHandleFun(p, KORMHEAD_SIZE, first);
    return p;
}

/* The peek reader owns a record without images and no raw record. */
void delPatternBufferPeek(QDPatternBuf *p)
{
    if (!p) return;
    if (p->pTAZPattern && releaseReference(p->pTAZPattern)) std::free(p->pTAZPattern);
    p->pTAZPattern = nullptr;
    dropBody(p);
    std::free(p);
}

/* Put a new image into one image slot of the record. A second body of the
 * same kind replaces the first image, which is released. */
template <void (*Unload)(taz_pattern_st *), taz_pattern_st *_TAZPattern::*Slot>
int storeImage(struct _TAZPattern *rec, taz_pattern_st *img)
{
    if (!img) return -1;
    taz_pattern_st *old = rec->*Slot;
    if (old) {
        if (rec->cur_ptn == old) rec->cur_ptn = img;
        Unload(old);
    }
    rec->*Slot = img;
    return 0;
}

/* Load a copy of a payload into one image slot of the record. */
template <taz_pattern_st *(*Load)(const unsigned char *, UINT32), void (*Unload)(taz_pattern_st *),
          taz_pattern_st *_TAZPattern::*Slot>
int parseImage(struct _TAZPattern *rec, unsigned char *buf, int len)
{
    if (!rec || !buf || len < 0) return -1;
    return storeImage<Unload, Slot>(rec, Load(buf, static_cast<UINT32>(len)));
}

/* The same with the payload buffer itself, which the image takes over (or
 * which is freed when no image results). */
template <taz_pattern_st *(*Adopt)(unsigned char *, UINT32, size_t), void (*Unload)(taz_pattern_st *),
          taz_pattern_st *_TAZPattern::*Slot>
int adoptImage(struct _TAZPattern *rec, unsigned char *buf, UINT32 len, size_t capacity)
{
    if (!rec) {
        std::free(buf);
        return -1;
    }
    return storeImage<Unload, Slot>(rec, Adopt(buf, len, capacity));
}

int adoptTAZPattern(struct _TAZPattern *rec, unsigned char *buf, UINT32 len, size_t capacity)
{
    return adoptImage<taz_adopt_pattern, taz_unload_pattern, &_TAZPattern::taz_ptn>(rec, buf, len, capacity);
}
int adoptULMPattern(struct _TAZPattern *rec, unsigned char *buf, UINT32 len, size_t capacity)
{
    return adoptImage<ulm_adopt_pattern, ulm_unload_pattern, &_TAZPattern::ulm_ptn>(rec, buf, len, capacity);
}

} // namespace

extern "C" {

int setHandleFun(QDPatternBuf *pPatternBuf, INT32 expectLen, QDGetDataFun fun)
{
    if (!pPatternBuf) return PARA_ERR;
    pPatternBuf->expectLen = expectLen;
    pPatternBuf->getData = fun;
    return 0;
}

QDPatternBuf *newPatternBuffer(void) { return newReader(true, getMainHeader); }

int delPatternBuffer(QDPatternBuf *pPatternBuf)
{
    if (!pPatternBuf) return 0;
    delTAZPattern(pPatternBuf->pTAZPattern);
    pPatternBuf->pTAZPattern = nullptr;
    dropBody(pPatternBuf);
    delRawPattern(pPatternBuf->pRawPattern[TAZE_YUB]);
    pPatternBuf->pRawPattern[TAZE_YUB] = nullptr;
    std::free(pPatternBuf);
    return 0;
}

int putPatternBuffer(QDPatternBuf *pPatternBuf, char *buf, int len)
{
    QDPatternBuf *p = pPatternBuf;
    if (!p || (len != 0 && !buf)) return -1;
    if (p->status != 0) return p->status;
    if (!p->getData) return p->status = kReadFailed;

    if (len == 0) {
        if (p->getData == trapFun) {
            if (p->pTAZPattern) p->pTAZPattern->patternVer = p->kormHead.ptnVer;
            p->expectLen = 0;
            return 0;
        }
        /* A handler that lacks bytes fails here. */
        return p->status = p->getData(p);
    }
    if (p->expectLen == 0) return -1; /* input after the end */

    int used = 0;
    /* Progress guard: a stream that keeps calling handlers without consuming
     * its input is cut off. */
    const int64_t maxIterations = 2 * static_cast<int64_t>(len);
    for (int64_t iteration = 1;; ++iteration) {
        INT32 rc;
        const BodyState *body = directBody(p);
        if (body && used < len) {
            /* Body bytes go from the chunk straight into the body buffer. */
            const INT32 n = p->expectLen < len - used ? p->expectLen : len - used;
            rc = appendBody(p, reinterpret_cast<const unsigned char *>(buf) + used, n);
            if (rc == 0) rc = body->arrived(p, n);
            used += n;
            if (rc != 0) return p->status = rc;
            continue;
        }
        used += putData(p, buf + used, len - used);
        if (p->expectLen > p->bufIndex && p->bufIndex < PATTERN_BUF_SIZE) return 0;
        rc = p->getData(p);
        if (rc != 0) return p->status = rc;
        if (iteration > maxIterations) return p->status = kReadFailed;
    }
}

int parseTAZPattern(struct _TAZPattern *pTAZPattern, unsigned char *buf, int len)
{
    return parseImage<taz_load_pattern, taz_unload_pattern, &_TAZPattern::taz_ptn>(pTAZPattern, buf, len);
}

int parseULMPattern(struct _TAZPattern *pTAZPattern, unsigned char *buf, int len)
{
    return parseImage<ulm_load_pattern, ulm_unload_pattern, &_TAZPattern::ulm_ptn>(pTAZPattern, buf, len);
}

int delTAZPattern(struct _TAZPattern *pTAZPattern)
{
    if (!pTAZPattern || !releaseReference(pTAZPattern)) return 0;
    if (pTAZPattern->taz_ptn) {
        taz_unload_pattern(pTAZPattern->taz_ptn);
        pTAZPattern->taz_ptn = nullptr;
    }
    if (pTAZPattern->ulm_ptn) {
        ulm_unload_pattern(pTAZPattern->ulm_ptn);
        pTAZPattern->ulm_ptn = nullptr;
    }
    std::free(pTAZPattern);
    return 0;
}

int delRawPattern(struct _RawPattern *pRawPattern)
{
    if (!pRawPattern || !releaseReference(pRawPattern)) return 0;
    if (pRawPattern->data) {
        std::free(pRawPattern->data);
        pRawPattern->data = nullptr;
        pRawPattern->len = 0;
    }
    std::free(pRawPattern);
    return 0;
}

int readPatternFile(QDPatternBuf *pPatternBuf, FILE *file)
{
    QDPatternBuf *p = pPatternBuf;
    if (!p || !file) return READ_ERR;
    struct stat st;
    if (fstat(fileno(file), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0)
        p->inputSize = static_cast<UINT64>(st.st_size);
    char piece[kPiece];
    for (;;) {
        const BodyState *body = p->status == 0 ? directBody(p) : nullptr;
        if (body && p->tmpCapacity >= static_cast<size_t>(p->tmpSize)) {
            /* A body the buffer already holds room for: read it straight
             * into place, a step at a time. */
            const INT32 want = p->expectLen < kStep ? p->expectLen : kStep;
            const size_t n = std::fread(p->tmp + p->tmpIndex, 1, static_cast<size_t>(want), file);
            if (n == 0) break;
            const INT32 rc = body->arrived(p, static_cast<INT32>(n));
            if (rc != 0) {
                p->status = rc;
                return READ_ERR;
            }
            continue;
        }
        /* Otherwise what the current piece of the container still lacks
         * (so that a body starts with nothing staged), or a large piece
         * after the end or inside a body. */
        const INT32 lack = p->expectLen - p->bufIndex;
        const INT32 want = p->getData == trapFun || lack <= 0 || lack > kPiece ? kPiece : lack;
        const size_t n = std::fread(piece, 1, static_cast<size_t>(want), file);
        if (n == 0) break;
        if (putPatternBuffer(p, piece, static_cast<int>(n)) < 0) return READ_ERR;
    }
    return putPatternBuffer(p, piece, 0) == 0 ? 0 : READ_ERR;
}

int peekTAZPatternVer(const char *path, unsigned int *ver)
{
    if (!path || !ver) return -1;
    FILE *f = std::fopen(path, "rb");
    if (!f) {
        VK_DEBUG_PRINTF(VKDEBUG_ERR, ">>fopen(%s)\n", path);
        return -1;
    }
    QDPatternBuf *p = newReader(false, getMainHeaderPeek);
    if (!p) {
        /* Success without a version: intended, callers rely on it. */
        VK_DEBUG_PUTS(VKDEBUG_ERR, "newPatternBufferPeek() failed");
        std::fclose(f);
        return 0;
    }
    char chunk[kPeekChunk];
    int rc = 0;
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) {
        rc = putPatternBuffer(p, chunk, static_cast<int>(n));
        if (rc != 0) {
            VK_DEBUG_PRINTF(VKDEBUG_ERR, "putPatternBufferPeek(%p, %p, %d) failed\n", static_cast<void *>(p),
                            static_cast<void *>(chunk), static_cast<int>(n));
            break;
        }
    }
    if (rc == 0) {
        rc = putPatternBuffer(p, chunk, 0);
        if (rc != 0)
            VK_DEBUG_PRINTF(VKDEBUG_ERR, "putPatternBufferPeek(%p, %p, 0) failed\n", static_cast<void *>(p),
                            static_cast<void *>(chunk));
    }
    if (rc == 0) {
        if (p->pTAZPattern->num != 0)
            *ver = p->pTAZPattern->patternVer;
        else
            rc = -1;
    }
    delPatternBufferPeek(p);
    std::fclose(f);
    return rc;
}

} // extern "C"
