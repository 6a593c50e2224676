/* The pattern inspector taze: what a pattern file holds, as the library's
 * own reader and loaders see it.
 *
 * This header is the inspector's core: the container layout, a file loaded
 * through the library's streaming reader, the section stream of a loaded
 * payload, and typed access to the list and map families of an image. The
 * commands (info, dump, verify, query, pick) are declared in
 * examine_commands.h. */
#ifndef TAZE_INSPECT_H
#define TAZE_INSPECT_H

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "readptn.h"
#include "source_model.h"
#include "taze_ptn.h"

namespace tazi {

/* ---- texts ------------------------------------------------------------------ */

/* "%d.%05d.%02d" of product, version and build. */
std::string version_text(std::uint32_t v);
/* A section or list magic as its four stored bytes, e.g. "STR\0". */
std::string magic_text(std::uint32_t magic);
/* "any", "inbound", "outbound" for the directions 1, 2, 3, else null. */
const char *direction_name(std::uint32_t direction);
/* The direction a name stands for; false for other texts. */
bool direction_of(const std::string &name, std::uint32_t *direction);
/* The source name of a threat type ("exploit"), or null. */
const char *threat_type_name(std::uint32_t threat_type);
/* Name of a result code of the library, e.g. "PARA_ERR", or "". */
const char *error_name(int code);
/* "-99 (PARA_ERR)". */
std::string code_text(int code);
std::string hex_bytes(const unsigned char *p, std::size_t n, const char *sep = "");
std::string ipv4_text(std::uint32_t host_order);
std::string ipv6_text(const unsigned char bytes[16]);
/* The bytes of a counted string, all of them (also past an inner NUL). */
inline std::string_view text_of(const counted_string_t &s)
{
    return s.ptr ? std::string_view(reinterpret_cast<const char *>(s.ptr), s.len) : std::string_view();
}

/* ---- the container ---------------------------------------------------------- */

/* One sub-pattern as the reader meets it walking front to back. */
struct SubHeader {
    std::uint64_t header_pos = 0; /* file position of its 16-byte header */
    KORMSUB sub{};
    std::uint64_t enc_pos = 0; /* file position of its encryption header */
    ENCHEAD enc{};
    bool complete = false; /* headers and body lie inside the file */
    /* The reader keeps kinds 7, 8 and 9 with both engine versions 0 and a
     * body; "" when used, else why it is skipped. */
    std::string skipped;
};

struct Layout {
    std::uint64_t file_size = 0;
    bool has_head = false;
    KORMHEAD head{};
    std::vector<SubHeader> subs;
    std::uint64_t end_pos = 0; /* after the last complete body */
    std::string problem;       /* where the walk stopped early, or "" */
};

Layout read_layout(const std::vector<unsigned char> &file);
const char *subtype_name(std::uint16_t subtype);
const char *enctype_name(std::uint16_t enctype);

/* A pattern file read through the library's streaming reader, in 32-byte
 * pieces as TAZE_LoadPattern feeds it. The images stay owned by the reader. */
class LoadedFile {
public:
    std::vector<unsigned char> bytes;
    Layout layout;
    int status = 0;                /* the reader's result; 0 when it finished */
    std::uint32_t stop_offset = 0; /* file bytes the reader had consumed */

    /* Reads and parses the file; false (and *error) when it cannot be read. */
    bool load(const std::string &path, std::string *error);
    const taz_pattern_st *image(bool second_kind) const;
    std::uint32_t pattern_version() const;
    /* The raw (kind 9) bytes, empty when there are none. */
    std::string_view raw() const;
    /* What TAZE_LoadPattern would say: "" when it loads, else why not. */
    std::string refusal() const;
    /* The file ends inside a header or body it announces. */
    bool truncated() const;

private:
    struct ReaderDeleter {
        void operator()(QDPatternBuf *r) const { delPatternBuffer(r); }
    };
    std::unique_ptr<QDPatternBuf, ReaderDeleter> reader_;
};

/* ---- the section stream of a payload ----------------------------------------- */

struct ListHeader {
    std::uint64_t offset = 0; /* in the payload */
    std::uint32_t number = 0, size = 0, count = 0;
};

struct Section {
    std::uint64_t offset = 0; /* of its 16-byte header, in the payload */
    taz_section_hdr_st hdr{};
    std::vector<ListHeader> lists; /* walked as the loaders walk them */
    bool lists_complete = true;    /* false when a list ran past the section */
};

struct Payload {
    std::vector<Section> sections;
    std::uint64_t trailing = 0; /* bytes after the last section (fewer than 16) */
    bool overrun = false;       /* a section ran past the payload */
};

Payload walk_payload(const taz_pattern_st &image);
/* The last section of a kind: the one whose data the image holds. */
const Section *last_section(const Payload &payload, std::uint32_t magic);
/* "STR\0 (lists.exact)", "RULE (rules)", ... */
std::string section_name(std::uint32_t magic);
/* Whether the kind's loader takes the section (others are skipped). */
bool section_accepted(std::uint32_t magic, bool second_kind);
/* Rule and clean sections hold one list; the other kinds `count` lists. */
bool single_list_section(std::uint32_t magic);

/* Stored length of a string that an info record points at (the u32 before
 * its first byte); false when the pointer is not inside the payload. */
bool stored_string(const taz_pattern_st &image, const unsigned char *p, counted_string_t *out);

/* ---- typed families ----------------------------------------------------------- */

template <typename T>
struct Span {
    const T *data = nullptr;
    std::uint32_t size = 0;
    Span() = default;
    Span(const T *d, std::uint32_t n) : data(d), size(d ? n : 0) {}
    const T *begin() const { return data; }
    const T *end() const { return data + size; }
    const T &operator[](std::size_t i) const { return data[i]; }
};

/* A family's lists as the image holds them: `size` is the list count;
 * lists[n] is list number n (an empty record where a sparse array holds
 * none); the stored records, from which only empty lists are missing, are
 * stored() and their numbers number_at(k). */
template <typename L>
struct ListView {
    const L *data = nullptr;
    std::uint32_t records = 0;
    taz_list_numbers_st where{};
    std::uint32_t size = taze::list_count(records, where);
    const L &operator[](std::uint32_t n) const { return *taze::list_at(data, records, where, n); }
    Span<L> stored() const { return Span<L>(data, records); }
    std::uint32_t number_at(std::uint32_t k) const { return where.numbers ? where.numbers[k] : k; }
    const L *begin() const { return stored().begin(); }
    const L *end() const { return stored().end(); }
};

template <typename L>
struct ListArray {
    using List = L;
    ListView<L> lists;
};

/* The numbers below the list count of a family's stored records and of
 * `listed`, ascending and each once. */
template <typename L, typename Listed>
std::vector<std::uint32_t> list_numbers(const ListView<L> &v, const Listed &listed)
{
    std::vector<std::uint32_t> out;
    for (std::uint32_t n : listed)
        if (n < v.size) out.push_back(n);
    for (std::uint32_t k = 0; k < v.stored().size; ++k) out.push_back(v.number_at(k));
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

using AnyLists =
    std::variant<ListArray<str_list_st>, ListArray<str_prefix_list_st>, ListArray<str_suffix_list_st>,
                 ListArray<str_substring_list_st>, ListArray<str_case_list_st>, ListArray<str_prefix_case_list_st>,
                 ListArray<str_suffix_case_list_st>, ListArray<str_substr_case_list_st>, ListArray<ip_rng_list_st>,
                 ListArray<ipv6_rng_list_st>, ListArray<port_rng_list_st>, ListArray<simap_list_st>,
                 ListArray<sipv6map_list_st>, ListArray<iimap_list_st>, ListArray<ipv6imap_list_st>,
                 ListArray<ismap_list_st>, ListArray<ssmap_list_st>>;

struct ImageFamily {
    const tazc::Family *family;
    AnyLists lists;
};

/* All 41 list and map families of an image, in the compiler's family order. */
std::vector<ImageFamily> image_families(const taz_pattern_st &image);

/* Every list record of the image is (count, array) and every map entry
 * (key, count, values), whatever their field names: structured bindings
 * read them all alike. */
template <typename T>
using Pointee = std::remove_cv_t<std::remove_pointer_t<std::remove_cv_t<std::remove_reference_t<T>>>>;

/* The entries of one list. */
template <typename L>
auto elements(const L &l)
{
    const auto &[count, array] = l;
    return Span<Pointee<decltype(array)>>(array, count);
}

/* The values of one map entry. */
template <typename E>
auto values_of(const E &e)
{
    const auto &[key, count, array] = e;
    (void)key;
    return Span<Pointee<decltype(array)>>(array, count);
}

/* The key of one map entry: a counted string, an integer or an address. */
template <typename E>
const auto &key_of(const E &e)
{
    const auto &[key, count, array] = e;
    (void)count;
    (void)array;
    return key;
}

template <typename E>
constexpr bool is_map_entry_v = !std::is_same_v<E, counted_string_t> && !std::is_same_v<E, ip_rng_st> &&
                                !std::is_same_v<E, ipv6_rng_st> && !std::is_same_v<E, port_rng_st>;

/* Bytes an element takes in the file (the loaders read them back to back). */
inline std::uint64_t stored_size(const counted_string_t &s) { return 4u + std::uint64_t(s.len) + 1u; }
inline std::uint64_t stored_size(UINT32) { return 4; }
inline std::uint64_t stored_size(const ipv6_st &) { return 16; }
inline std::uint64_t stored_size(const ip_rng_st &) { return 8; }
inline std::uint64_t stored_size(const ipv6_rng_st &) { return 32; }
inline std::uint64_t stored_size(const port_rng_st &) { return 4; }
template <typename E, typename = std::enable_if_t<is_map_entry_v<E>>>
std::uint64_t stored_size(const E &e)
{
    std::uint64_t n = stored_size(key_of(e)) + 4u; /* key, value count */
    for (const auto &v : values_of(e)) n += stored_size(v);
    return n;
}

/* ---- comparisons (the library's comparators) ------------------------------------ */

/* Order of two stored strings under a matching rule (0 exact, 1 prefix,
 * 2 suffix; substring lists have no order): negative, 0 (equal) or
 * positive. Exact and prefix use strcasecmp/strcmp order, suffix the
 * backward comparison, in which a proper suffix sorts first. */
int compare_stored(const counted_string_t &a, const counted_string_t &b, unsigned rule, bool case_sensitive);

} // namespace tazi

#endif /* TAZE_INSPECT_H */
