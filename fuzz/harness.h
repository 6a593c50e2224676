/* Helpers shared by the fuzz targets: quiet diagnostics, files in memory,
 * and feeding a container to the streaming reader. */
#ifndef TAZE_FUZZ_HARNESS_H
#define TAZE_FUZZ_HARNESS_H

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "readptn.h"
#include "taze_impl.h"
#include "vk_platform.h"
#include "vkc.h"

namespace tazf {

/* Every diagnostic is on (so that its formatting is exercised) and goes
 * to /dev/null. */
inline void quiet_diagnostics()
{
    if (!std::freopen("/dev/null", "w", stdout)) std::abort();
    debugLevel = VKDEBUG_ERR | VKDEBUG_WARN | VKDEBUG_INFO | VKDEBUG_DEBUG;
}

/* The libFuzzer initializer of a target that needs no set-up of its own. */
#define TAZF_QUIET_INITIALIZER                                   \
    extern "C" int LLVMFuzzerInitialize(int *, char ***)         \
    {                                                            \
        tazf::quiet_diagnostics();                               \
        return 0;                                                \
    }

/* A file held in memory, reachable by path. */
class MemFile {
public:
    MemFile(const std::uint8_t *data, std::size_t size) : fd_(memfd_create("taze-fuzz", 0))
    {
        if (fd_ < 0) std::abort();
        std::size_t done = 0;
        while (done < size) {
            const ssize_t n = write(fd_, data + done, size - done);
            if (n <= 0) std::abort();
            done += std::size_t(n);
        }
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    ~MemFile() { close(fd_); }
    MemFile(const MemFile &) = delete;
    MemFile &operator=(const MemFile &) = delete;
    const char *path() const { return path_.c_str(); }

private:
    int fd_;
    std::string path_;
};

/* What one reading of a container produced. */
struct Outcome {
    int feed = 0; /* first non-zero result while feeding, else 0 */
    int end = 0;  /* result of the end of input (not signalled after a failure) */
    bool taz = false, ulm = false;
    std::size_t raw = 0;
    UINT32 version = 0;

    bool operator==(const Outcome &o) const
    {
        return feed == o.feed && end == o.end && taz == o.taz && ulm == o.ulm && raw == o.raw &&
               version == o.version;
    }
};

/* Feeds the container through a new reader in pieces whose sizes next()
 * draws, signals the end, and hands the loaded record to use() before the
 * reader is released with everything it holds. */
template <typename NextSize, typename Use>
Outcome read_container(const std::uint8_t *data, std::size_t size, NextSize next, Use use)
{
    Outcome o;
    QDPatternBuf *r = newPatternBuffer();
    if (!r) std::abort();
    std::size_t at = 0;
    while (at < size && o.feed == 0) {
        const std::size_t n = std::min<std::size_t>(std::size_t(next()), size - at);
        /* The reader takes a mutable buffer; it never writes to it. */
        o.feed = putPatternBuffer(r, reinterpret_cast<char *>(const_cast<std::uint8_t *>(data + at)), int(n));
        at += n;
    }
    if (o.feed == 0) {
        char none = 0;
        o.end = putPatternBuffer(r, &none, 0);
    }
    const _TAZPattern *rec = r->pTAZPattern;
    o.taz = rec && rec->taz_ptn;
    o.ulm = rec && rec->ulm_ptn;
    o.version = rec ? rec->patternVer : 0;
    const _RawPattern *raw = r->pRawPattern[TAZE_YUB];
    o.raw = raw && raw->data ? raw->len : 0;
    use(rec);
    delPatternBuffer(r);
    return o;
}

} // namespace tazf

#endif /* TAZE_FUZZ_HARNESS_H */
