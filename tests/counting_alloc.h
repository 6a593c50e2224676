/* A counting allocator for test and benchmark programs: replaces malloc and
 * friends of the whole program with the C library's own, and keeps the bytes
 * held by live allocations (usable sizes) and the highest value seen.
 *
 * Include it in exactly one source file of a program. Sanitizer builds bring
 * their own allocator: there nothing is replaced and TAZT_COUNTING stays
 * undefined. */
#ifndef TAZE_COUNTING_ALLOC_H
#define TAZE_COUNTING_ALLOC_H

#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TAZT_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define TAZT_SANITIZED 1
#endif
#endif

namespace {

/* Bytes held by live allocations (usable sizes) and the highest value seen. */
std::atomic<long long> g_live{0};
std::atomic<long long> g_peak{0};

[[maybe_unused]] void note_alloc(void *p)
{
    if (!p) return;
    const long long now = g_live += static_cast<long long>(malloc_usable_size(p));
    long long peak = g_peak.load();
    while (now > peak && !g_peak.compare_exchange_weak(peak, now)) {
    }
}

[[maybe_unused]] void note_free(void *p)
{
    if (p) g_live -= static_cast<long long>(malloc_usable_size(p));
}

/* Calls an allocation function of the C library and counts what it gave. */
template <typename... A>
[[maybe_unused]] void *counted(void *(*allocate)(A...), A... a)
{
    void *p = allocate(a...);
    note_alloc(p);
    return p;
}

} // namespace

#ifndef TAZT_SANITIZED
#define TAZT_COUNTING 1
extern "C" {
void *__libc_malloc(size_t n);
void *__libc_calloc(size_t n, size_t size);
void *__libc_realloc(void *p, size_t n);
void *__libc_memalign(size_t align, size_t n);
void __libc_free(void *p);

void *malloc(size_t n) { return counted(__libc_malloc, n); }
void *calloc(size_t n, size_t size) { return counted(__libc_calloc, n, size); }
void *memalign(size_t align, size_t n) { return counted(__libc_memalign, align, n); }
void *aligned_alloc(size_t align, size_t n) { return memalign(align, n); }
void *realloc(void *p, size_t n)
{
    const long long old = p ? static_cast<long long>(malloc_usable_size(p)) : 0;
    void *q = __libc_realloc(p, n);
    if (q || n == 0) g_live -= old;
    note_alloc(q);
    return q;
}
int posix_memalign(void **out, size_t align, size_t n)
{
    void *p = memalign(align, n);
    if (!p) return ENOMEM;
    *out = p;
    return 0;
}
void free(void *p)
{
    note_free(p);
    __libc_free(p);
}
} // extern "C"
#endif

#endif /* TAZE_COUNTING_ALLOC_H */
