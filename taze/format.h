/* The pattern format shared by the library and the tools. */
#ifndef TAZE_FORMAT_H
#define TAZE_FORMAT_H

#include <cstdint>

/* ---- Directory candidates ---- */

/* The candidate rules themselves are the installed header-only
 * taze_candidates.hpp (taze.hpp's reload report needs them too); this is
 * the library's side: its peek and its messages. */
#include "taze_candidates.hpp"

namespace taze {

/* Receives every candidate of a library scan. accept returns false when it
 * runs out of memory; clear empties what it accepted. */
struct CandidateSink {
    bool (*accept)(void *ctx, const candidates::entry &e);
    void (*clear)(void *ctx);
    void *ctx;
};

/* The library's directory scan (dir and prefix not null): the candidate
 * rules with the library's peek, a message (error bit) for every skipped
 * entry and every failure; a result code of candidates::scan. */
int scan_candidates(const char *dir, const char *prefix, const CandidateSink &sink);

} // namespace taze

#endif /* TAZE_FORMAT_H */
