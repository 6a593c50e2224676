// bench_load_peak FILE: loads one pattern file and prints the peak of the
// bytes held by live heap allocations during the load, above what was held
// before it (malloc's usable sizes, counted by replacing the allocator).
// Only what the load allocates counts: not the pages of code it runs for
// the first time, which a growth of the resident set would include.
#include <cstdio>

#include "../tests/counting_alloc.h"
#include "tazapi.h"

int main(int argc, char **argv)
{
#ifndef TAZT_COUNTING
    (void)argv;
    std::fprintf(stderr, "bench_load_peak: built with a sanitizer, nothing counted\n");
    return 2;
#else
    if (argc != 2) {
        std::fprintf(stderr, "usage: bench_load_peak FILE\n");
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
    return 0;
#endif
}
