/* The pattern format, decoded in one place for the library and the tools:
 * the container's headers, the payload's lists and fields, and the rules that
 * make a directory entry a candidate. */
#ifndef TAZE_FORMAT_H
#define TAZE_FORMAT_H

#include <array>
#include <cstdint>
#include <string>

#include "byteorder.h"
#include "readptn.h"
#include "taze_util.h"
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

/* ---- Payload ---- */

/* A list header: list number, bytes of its entries, entry count. */
constexpr std::uint64_t kListHeaderBytes = 12;

/* Walks the `count` list headers of a section body from its start: each
 * header and the list's `size` bytes must lie inside the body (else false).
 * on_list(number, size, entries, cursor) gets each list with the cursor on
 * the byte after its header (bounded by the body, not by the list) and
 * answers whether to go on; the next list is always found through `size`. */
template <typename OnList>
bool walk_list_headers(const unsigned char *body, std::uint32_t len, std::uint32_t count, OnList &&on_list)
{
    LeCursor c(body, len);
    std::uint64_t off = 0;
    for (std::uint32_t k = 0; k < count; ++k) {
        c.seek(off);
        std::uint32_t number = 0, size = 0, n = 0;
        if (!c.list_header(number, size, n)) return false;
        off += kListHeaderBytes + size;
        if (!c.within(off)) return false;
        if (!on_list(number, size, n, c)) return false;
    }
    return true;
}

/* Fields of list entries and info records, little-endian in place. */
inline bool read_field(LeCursor &c, std::uint16_t &v) { return c.u16(v); }
inline bool read_field(LeCursor &c, std::uint32_t &v) { return c.u32(v); }
inline bool read_field(LeCursor &c, ipv6_st &v) { return c.bytes(v.bytes, sizeof v.bytes); }
/* Map keys, string values and info strings: the terminator must lie in the
 * section too (its value is not looked at). */
inline bool read_field(LeCursor &c, counted_string_t &v) { return c.str(v, true); }

/* ASCII-only case folding, independent of the locale; every other byte
 * stays as it is. */
constexpr unsigned char fold_ascii(unsigned char c) { return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + 0x20) : c; }
using ByteMap = std::array<unsigned char, 256>;
constexpr ByteMap make_byte_map(bool fold)
{
    ByteMap m{};
    for (unsigned i = 0; i < 256; ++i) m[i] = fold ? fold_ascii(static_cast<unsigned char>(i)) : static_cast<unsigned char>(i);
    return m;
}
inline constexpr ByteMap kFoldTable = make_byte_map(true);
static_assert(kFoldTable['Q'] == 'q' && kFoldTable['@'] == '@' && kFoldTable['['] == '[' && kFoldTable[0xD6] == 0xD6);

/* A pattern version as "%d.%05d.%02d" (product, version, build), cut to
 * size - 1 bytes (size at least 1): 0. */
int version_text(std::uint32_t v, char *buf, int size);
/* The same as a string, for the tools (inline, so that the library itself
 * instantiates no std::string code that its shared object would export). */
inline std::string version_text(std::uint32_t v)
{
    char buf[32];
    version_text(v, buf, sizeof buf);
    return buf;
}

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
