/* The pattern format, decoded in one place for the library and the tools:
 * the container's headers, the payload's lists and fields, and the rules that
 * make a directory entry a candidate. */
#ifndef TAZE_FORMAT_H
#define TAZE_FORMAT_H

#include <cstdint>

#include "readptn.h"
#include "taze_candidates.hpp"

namespace taze {

/* ---- Container ---- */

/* Big-endian header records, decoded from their first byte (the caller
 * makes sure that the whole header lies inside its buffer). */
void decode_main_header(const unsigned char *b, KORMHEAD &h);
void decode_sub_header(const unsigned char *b, KORMSUB &s);
void decode_enc_header(const unsigned char *b, ENCHEAD &e);

/* True when the main header starts with the file magic. */
bool has_file_magic(const KORMHEAD &h);

/* The longest filler between a sub-pattern header and its encryption
 * header: the reader takes it from one staging buffer. */
inline constexpr std::uint32_t kMaxFiller = PATTERN_BUF_SIZE;

/* What the reader does with a sub-pattern once it knows its encryption
 * header: read its body, or skip it and why. */
enum class BodyUse {
    kRead,          /* a main, second or raw pattern with a body */
    kKindNotRead,   /* a kind the library does not read */
    kVersionsSet,   /* engine versions set: the reader needs both 0 */
    kEmpty,         /* enclen 0 */
};
BodyUse body_use(const KORMSUB &s, const ENCHEAD &e);

/* Lengths that a read body must satisfy before anything is allocated: the
 * payload lies inside the stored body, and an encrypted body is made of
 * whole cipher blocks and holds the 32 bytes its digest key comes from. */
bool body_lengths_valid(const ENCHEAD &e, std::uint16_t enctype);

/* ---- Directory candidates ---- */

/* The candidate rules themselves are the installed header-only
 * taze_candidates.hpp (taze.hpp's reload report needs them too); this is
 * the library's side: its peek and its messages. */

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
