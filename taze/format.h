/* The pattern file's format, decoded in one place for the library and the
 * tools. */
#ifndef TAZE_FORMAT_H
#define TAZE_FORMAT_H

#include <cstdint>

#include "readptn.h"

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

} // namespace taze

#endif /* TAZE_FORMAT_H */
