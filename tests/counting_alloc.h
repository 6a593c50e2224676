/* A counting allocator for test, benchmark and fuzz programs: replaces
 * malloc and friends of the whole program with the C library's own, and
 * keeps the bytes held by live allocations (usable sizes) and the highest
 * value seen. Sanitizer builds bring their own allocator: under the address
 * sanitizer its malloc and free hooks count the requested sizes instead;
 * under the thread sanitizer, whose hooks do not pair up around realloc,
 * nothing is counted (the other builds hold the bounds).
 *
 * Include it in exactly one source file of a program. It also holds the
 * bound that one load may allocate. */
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
#if defined(__SANITIZE_THREAD__)
#define TAZT_THREAD_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TAZT_THREAD_SANITIZED 1
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

/* What loading a file of file_size bytes may allocate at its peak: four
 * times the file plus 1 MiB. Files made mostly of the cheapest entries
 * (lists of empty strings, map entries with empty keys) need more, within
 * kCornerBytesPerByte times the file plus 1 MiB (docs/design.md, "Hostile
 * pattern files"). */
constexpr long long kLoadBytesPerByte = 4;
constexpr long long kCornerBytesPerByte = 5;
constexpr long long kLoadConstantBytes = 1ll << 20;
[[maybe_unused]] constexpr long long load_bound(std::size_t file_size, bool corner = false)
{
    return (corner ? kCornerBytesPerByte : kLoadBytesPerByte) * static_cast<long long>(file_size) +
           kLoadConstantBytes;
}

/* The peak of the bytes that f() held at any moment above those held before. */
template <typename F>
long long peak_of(F &&f)
{
    const long long before = g_live.load();
    g_peak = before;
    f();
    return g_peak.load() - before;
}

#if defined(TAZT_THREAD_SANITIZED)
/* no counting */
#elif defined(TAZT_SANITIZED)
#define TAZT_COUNTING 1
extern "C" {
int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void *, size_t),
                                              void (*)(const volatile void *));
size_t __sanitizer_get_allocated_size(const volatile void *p);
}
namespace {
void hook_malloc(const volatile void *p, size_t n)
{
    if (!p) return;
    const long long now = g_live += static_cast<long long>(n);
    long long peak = g_peak.load();
    while (now > peak && !g_peak.compare_exchange_weak(peak, now)) {
    }
}
void hook_free(const volatile void *p)
{
    if (p) g_live -= static_cast<long long>(__sanitizer_get_allocated_size(p));
}
[[maybe_unused]] const int g_hooks = __sanitizer_install_malloc_and_free_hooks(hook_malloc, hook_free);
} // namespace
#else
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
