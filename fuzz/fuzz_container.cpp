/* Fuzz target: a container file as it comes, through the streaming reader.
 *
 * The input is fed in 32-byte pieces (as the library's loader reads a file)
 * and again in one piece; both readings must end alike. Loaded images go
 * through the query battery. The version peek reads the same bytes from a
 * file in memory, and must agree with a successful load. */
#include <cstdint>
#include <cstdlib>

#include "battery.h"
#include "harness.h"

#include "../tests/counting_alloc.h"

TAZF_QUIET_INITIALIZER

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const auto use = [data, size](const _TAZPattern *rec) { tazf::exercise_record(rec, data, size); };
    tazf::Outcome pieces;
    /* No load holds more than the bound of any input at any moment. */
    if (peak_of([&] { pieces = tazf::read_container(data, size, [] { return 32; }, use); }) > load_bound(size, true))
        std::abort();
    const tazf::Outcome whole =
        tazf::read_container(data, size, [size] { return int(std::min<std::size_t>(size, 1u << 30)); },
                             [](const _TAZPattern *) {});
    if (!(pieces == whole)) std::abort();

    tazf::MemFile file(data, size);
    unsigned int version = 0;
    const int peek = peekTAZPatternVer(file.path(), &version);
    if (pieces.feed == 0 && pieces.end == 0 && pieces.taz && (peek != 0 || version != pieces.version)) std::abort();
    return 0;
}
