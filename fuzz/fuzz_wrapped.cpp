/* Fuzz target: a payload wrapped by the writer into a valid, encrypted
 * container, so that every input gets past the digest check.
 *
 * The input's trailer (see tazf::wrap_input) chooses the sub-patterns that
 * carry the payload and the seed of the chunk sizes it is fed in. The
 * container is read once in those chunks and once in one piece; both
 * readings must end alike, and a successful reading holds exactly the
 * images and raw bytes that were wrapped. */
#include <cstdint>
#include <cstdlib>

#include "battery.h"
#include "harness.h"
#include "samples.h"

TAZF_QUIET_INITIALIZER

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::uint8_t flags = 0;
    std::uint32_t seed = 0;
    std::size_t len = size;
    if (size >= tazf::kWrapTrailer) {
        len = size - tazf::kWrapTrailer;
        for (int i = 0; i < 4; ++i) seed |= std::uint32_t(data[len + std::size_t(i)]) << (8 * i);
        flags = data[size - 1];
    }
    const tazw::Bytes payload(data, data + len);
    const tazw::Bytes empty;
    const bool as_second = flags & tazf::kWrapAsSecond;
    const bool second = as_second || (flags & tazf::kWrapSecond);
    const bool raw = flags & tazf::kWrapRaw;
    const bool plain_body = flags & tazf::kWrapPlain;
    const tazw::Bytes file =
        tazf::container_of(as_second ? empty : payload, second ? &payload : nullptr, raw ? &payload : nullptr,
                           !plain_body, (flags & tazf::kWrapGap) ? 100 : 0);

    tazf::ChunkSizes sizes(seed);
    const tazf::Outcome chunked = tazf::read_container(
        file.data(), file.size(), [&sizes] { return sizes.next(); },
        [data, size](const _TAZPattern *rec) { tazf::exercise_record(rec, data, size); });
    const tazf::Outcome whole = tazf::read_container(
        file.data(), file.size(), [&file] { return int(file.size()); }, [](const _TAZPattern *) {});
    if (!(chunked == whole)) std::abort();
    /* An empty body is stored with enclen 0 and skipped (an encrypted one
     * is padded to 32 bytes). */
    const bool want_taz = !(plain_body && (as_second || payload.empty()));
    const bool want_ulm = second && !(plain_body && payload.empty());
    if (chunked.feed == 0 && chunked.end == 0 &&
        (chunked.taz != want_taz || chunked.ulm != want_ulm || chunked.raw != (raw ? payload.size() : 0)))
        std::abort();
    return 0;
}
