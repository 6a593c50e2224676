// bench_load_peak FILE [MAX_RATIO]: loads one pattern file and prints the
// peak of the bytes held by live heap allocations during the load, above
// what was held before it (malloc's usable sizes, counted by replacing the
// allocator). Fails (exit 3) when the peak exceeds the bound of any load
// (load_bound: 4x the file plus 1 MiB), or MAX_RATIO times the file when
// given (2.5 for files shaped like what users ship).
// Only what the load allocates counts: not the pages of code it runs for
// the first time, which a growth of the resident set would include.
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>

#include "../tests/counting_alloc.h"
#include "tazapi.h"

int main(int argc, char **argv)
{
#ifndef TAZT_COUNTING
    (void)argv;
    std::fprintf(stderr, "bench_load_peak: built with a sanitizer, nothing counted\n");
    return 2;
#else
    if (argc != 2 && argc != 3) {
        std::fprintf(stderr, "usage: bench_load_peak FILE [MAX_RATIO]\n");
        return 2;
    }
    TAZE *h = nullptr;
    if (TAZE_Init(&h) != 0) return 1;
    const long long before = g_live.load();
    g_peak = before;
    const int rc = TAZE_LoadPattern(h, argv[1]);
    const long long peak = g_peak.load() - before;
    TAZE_Fini(h);
    if (rc != 0) return 1;
    std::printf("%lld\n", peak);
    struct stat st {};
    if (stat(argv[1], &st) != 0) return 1;
    const auto size = static_cast<std::size_t>(st.st_size);
    const double bound = argc == 3 ? std::atof(argv[2]) * double(size) : double(load_bound(size));
    if (double(peak) > bound) {
        std::fprintf(stderr, "bench_load_peak: %lld bytes for a file of %zu bytes, above %.0f\n", peak, size, bound);
        return 3;
    }
    return 0;
#endif
}
