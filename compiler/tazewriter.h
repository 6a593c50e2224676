/* The pattern writer: builds little-endian section streams and big-endian,
 * optionally encrypted containers. Used by the compiler tool, the tests,
 * the benchmarks and the fuzz seed generators. It can also write files that
 * are deliberately malformed. */
#ifndef TAZEWRITER_H
#define TAZEWRITER_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tazw {

using Bytes = std::vector<std::uint8_t>;
using IPv6 = std::array<std::uint8_t, 16>;

/* Appends little-endian fields to a byte vector. */
class LeBuf {
public:
    LeBuf &u8(std::uint8_t v) { b_.push_back(v); return *this; }
    LeBuf &u16(std::uint16_t v) { return u8(std::uint8_t(v)).u8(std::uint8_t(v >> 8)); }
    LeBuf &u32(std::uint32_t v) { return u16(std::uint16_t(v)).u16(std::uint16_t(v >> 16)); }
    LeBuf &raw(const void *p, std::size_t n)
    {
        const auto *c = static_cast<const std::uint8_t *>(p);
        b_.insert(b_.end(), c, c + n);
        return *this;
    }
    LeBuf &raw(const Bytes &v) { return raw(v.data(), v.size()); }
    LeBuf &ipv6(const IPv6 &a) { return raw(a.data(), a.size()); }
    /* A stored string: u32 length, the bytes, one NUL. */
    LeBuf &str(std::string_view s) { return u32(std::uint32_t(s.size())).raw(s.data(), s.size()).u8(0); }
    const Bytes &bytes() const { return b_; }
    Bytes take() { return std::move(b_); }
    std::size_t size() const { return b_.size(); }

private:
    Bytes b_;
};

/* Appends big-endian fields (container headers). */
class BeBuf {
public:
    BeBuf &u8(std::uint8_t v) { b_.push_back(v); return *this; }
    BeBuf &u16(std::uint16_t v) { return u8(std::uint8_t(v >> 8)).u8(std::uint8_t(v)); }
    BeBuf &u32(std::uint32_t v) { return u16(std::uint16_t(v >> 16)).u16(std::uint16_t(v)); }
    BeBuf &raw(const void *p, std::size_t n)
    {
        const auto *c = static_cast<const std::uint8_t *>(p);
        b_.insert(b_.end(), c, c + n);
        return *this;
    }
    BeBuf &raw(const Bytes &v) { return raw(v.data(), v.size()); }
    const Bytes &bytes() const { return b_; }
    Bytes take() { return std::move(b_); }

private:
    Bytes b_;
};

/* A section: 16-byte header (magic, crc, size = body bytes, count) + body.
 * size_override writes a different size field (for malformed files). */
Bytes section(std::uint32_t magic, std::uint32_t count, const Bytes &body, std::uint32_t crc = 0,
              std::optional<std::uint32_t> size_override = std::nullopt);
/* A list: 12-byte header (number, size = entry bytes, count) + entries. */
Bytes list(std::uint32_t number, std::uint32_t count, const Bytes &entries,
           std::optional<std::uint32_t> size_override = std::nullopt);
/* Concatenation helper. */
Bytes concat(std::initializer_list<Bytes> parts);

/* The order a searched array must be stored in, by comparator. */
enum class Order {
    Any,          /* substring lists and keys: scanned in stored order */
    Fold,         /* exact and prefix, case-insensitive (strcasecmp order) */
    FoldReversed, /* suffix, case-insensitive: folded text read backwards */
    Bytewise,     /* exact and prefix, case-sensitive (strcmp order) */
    BytewiseReversed /* suffix, case-sensitive: raw bytes read backwards */
};
/* The order each string list section kind needs (Any for unknown kinds). */
Order order_for_list_section(std::uint32_t section_magic);
/* Key order (high byte of the map type) and value order (low byte). */
Order order_for_rule(unsigned rule); /* 0 exact, 1 prefix, 2 suffix, 3 substring */
bool less_in(Order o, std::string_view a, std::string_view b);
void sort_in(Order o, std::vector<std::string> &v);

/* ---- typed list and map bodies (entries only; wrap them with list()) ---- */
Bytes string_entries(const std::vector<std::string> &strings);
Bytes ip_entries(const std::vector<std::pair<std::uint32_t, std::uint32_t>> &ranges);
Bytes ipv6_entries(const std::vector<std::pair<IPv6, IPv6>> &ranges);
Bytes port_entries(const std::vector<std::pair<std::uint16_t, std::uint16_t>> &ranges);

struct StrIntEntry { std::string key; std::vector<std::uint32_t> values; };
struct StrIPv6Entry { std::string key; std::vector<IPv6> values; };
struct IntIntEntry { std::uint32_t key; std::vector<std::uint32_t> values; };
struct IPv6IntEntry { IPv6 key; std::vector<std::uint32_t> values; };
struct IntStrEntry { std::uint32_t key; std::vector<std::string> values; };
struct StrStrEntry { std::string key; std::vector<std::string> values; };

Bytes map_entries(const std::vector<StrIntEntry> &e);
Bytes map_entries(const std::vector<StrIPv6Entry> &e);
Bytes map_entries(const std::vector<IntIntEntry> &e);
Bytes map_entries(const std::vector<IPv6IntEntry> &e);
Bytes map_entries(const std::vector<IntStrEntry> &e);
Bytes map_entries(const std::vector<StrStrEntry> &e);

/* ---- containers ------------------------------------------------------------ */
struct SubPattern {
    std::uint16_t subtype = 7;   /* 7 main, 8 second kind, 9 raw */
    std::uint16_t enctype = 1;   /* 1 Twofish + MD5, 0 none */
    std::uint32_t minver = 0;
    std::uint32_t maxver = 0;
    std::uint32_t offset = 0;    /* absolute offset of the encryption header; 0 = right after */
    Bytes payload;
    /* Overrides for malformed files. */
    std::optional<std::uint32_t> enclen, declen;
    bool flip_digest_bit = false;          /* change one bit of the stored digest */
    std::optional<std::size_t> flip_body_byte; /* change one byte of the stored body */
};

struct Container {
    std::uint32_t ptnVer = 0;
    std::vector<SubPattern> subs;
    std::string magic = "TAZP";
    std::uint16_t fmtVer = 1;
    std::uint16_t mbz = 0;
    std::optional<std::uint32_t> cntSub; /* default: subs.size() */
};

/* Encrypt a payload the way the library decrypts it: pad to 16 bytes,
 * digest = MD5(payload), ECB-encrypt with the digest as key, then encrypt
 * the digest in CFB-1 mode with the key taken from the encrypted body. */
void encrypt_body(const Bytes &payload, Bytes &body, std::uint8_t digest[16]);
/* A whole container file. */
Bytes build_container(const Container &c);
/* File name the directory scan expects: prefix + decimal version field + ".ptn". */
std::string pattern_file_name(const std::string &prefix, std::uint32_t ptnVer);
/* Write bytes to a file; false on failure. */
bool write_file(const std::string &path, const Bytes &data);

} // namespace tazw

#endif /* TAZEWRITER_H */
