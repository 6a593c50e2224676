/* Fuzz target: a decrypted payload given straight to the image loader of
 * the main kind (fuzz_payload) or of the second kind (fuzz_ulm, built with
 * TAZE_FUZZ_SECOND_KIND), then the query battery over every list, map and
 * table of the image it built. */
#include <cstdint>

#include "battery.h"
#include "harness.h"

#include "../tests/counting_alloc.h"

#ifndef TAZE_FUZZ_SECOND_KIND
#define TAZE_FUZZ_SECOND_KIND 0
#endif

TAZF_QUIET_INITIALIZER

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    /* The loader never reads its argument beyond len; an empty input still
     * passes a valid pointer. */
    static const unsigned char none = 0;
    const unsigned char *buf = size ? data : &none;
    const auto len = UINT32(size);
    /* No load holds more than the bound of any input at any moment. */
    const long long peak = peak_of([&] {
        if (TAZE_FUZZ_SECOND_KIND) {
            taz_pattern_st *img = ulm_load_pattern(buf, len);
            tazf::exercise(img, data, size);
            ulm_unload_pattern(img);
        } else {
            taz_pattern_st *img = taz_load_pattern(buf, len);
            tazf::exercise(img, data, size);
            taz_unload_pattern(img);
        }
    });
    if (peak > load_bound(size, true)) std::abort();
    return 0;
}
