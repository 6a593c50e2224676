/* Containers: big-endian headers, optional filler, encrypted or plain
 * bodies; and the inverse of the library's body decryption. */
#include <gcrypt.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "tazewriter.h"
#include "tazeptn.h"
#include "tfsh_md5.h"

namespace tazw {

namespace {

constexpr std::size_t kBlock = 16;
constexpr std::size_t kMinBody = 32; /* the key positions must lie in the body */

void check(bool ok, const char *what)
{
    if (!ok) throw std::runtime_error(std::string("tazewriter: ") + what);
}

/* The 16 bytes that the library's IV text spells. */
std::array<std::uint8_t, 16> digest_iv()
{
    std::array<std::uint8_t, 16> iv{};
    for (std::size_t i = 0; i < iv.size(); ++i) {
        unsigned v = 0;
        check(std::sscanf(taze::kDigestIvHex + 2 * i, "%2X", &v) == 1, "IV text");
        iv[i] = std::uint8_t(v);
    }
    return iv;
}

void ecb_encrypt(const std::uint8_t key[16], Bytes &body)
{
    gcry_cipher_hd_t h = nullptr;
    bool ok = gcry_cipher_open(&h, GCRY_CIPHER_TWOFISH128, GCRY_CIPHER_MODE_ECB, 0) == 0 &&
              gcry_cipher_setkey(h, key, 16) == 0 &&
              gcry_cipher_encrypt(h, body.data(), body.size(), nullptr, 0) == 0;
    gcry_cipher_close(h);
    check(ok, "Twofish ECB encryption failed");
}

void put_sub_header(BeBuf &b, const SubPattern &s)
{
    b.u16(s.subtype).u16(s.enctype).u32(s.minver).u32(s.maxver).u32(s.offset);
}

} // namespace

void encrypt_body(const Bytes &payload, Bytes &body, std::uint8_t digest[16])
{
    check(tfsh_gcrypt_init() == 1, "libgcrypt is not usable");
    gcry_md_hash_buffer(GCRY_MD_MD5, digest, payload.data(), payload.size());

    /* Zero padding to whole blocks, and to at least 32 bytes so that the
     * body can supply the key of the digest. */
    const std::size_t padded = std::max(kMinBody, (payload.size() + kBlock - 1) / kBlock * kBlock);
    body = payload;
    body.resize(padded, 0);
    ecb_encrypt(digest, body);

    std::uint8_t key[16];
    for (std::size_t i = 0; i < 16; ++i) key[i] = body[std::size_t(taze::kKeyPositions[i])];
    const auto iv = digest_iv();
    check(tfsh_cfb1(key, iv.data(), digest, 1) == KORM_TFSH_MD5_SUCCESS, "CFB-1 encryption failed");
}

Bytes build_container(const Container &c)
{
    BeBuf b;
    for (std::size_t i = 0; i < 4; ++i) b.u8(i < c.magic.size() ? std::uint8_t(c.magic[i]) : 0);
    b.u16(c.fmtVer).u16(c.mbz).u32(c.ptnVer).u32(c.cntSub.value_or(std::uint32_t(c.subs.size())));
    for (int i = 0; i < 4; ++i) b.u32(0); /* reserved */

    for (const SubPattern &s : c.subs) {
        put_sub_header(b, s);
        /* Filler up to the offset of the encryption header, if it lies ahead. */
        if (s.offset > b.bytes().size()) {
            const std::size_t fill = s.offset - b.bytes().size();
            for (std::size_t i = 0; i < fill; ++i) b.u8(0);
        }

        Bytes body;
        std::uint8_t digest[16] = {};
        if (s.enctype == KORM_ENC_TFSH_MD5)
            encrypt_body(s.payload, body, digest);
        else
            body = s.payload;
        if (s.flip_digest_bit) digest[0] ^= 0x01;
        if (s.flip_body_byte && *s.flip_body_byte < body.size()) body[*s.flip_body_byte] ^= 0xFF;

        const std::uint32_t enclen = s.enclen.value_or(std::uint32_t(body.size()));
        const std::uint32_t declen = s.declen.value_or(std::uint32_t(s.payload.size()));
        b.u32(enclen).u32(declen).raw(digest, sizeof digest).raw(body);
    }
    return b.take();
}

std::string pattern_file_name(const std::string &prefix, std::uint32_t ptnVer)
{
    return prefix + std::to_string(KORM_GET_PATTERN_VER(ptnVer)) + ".ptn";
}

bool write_file(const std::string &path, const Bytes &data)
{
    std::FILE *f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool wrote = data.empty() || std::fwrite(data.data(), 1, data.size(), f) == data.size();
    return std::fclose(f) == 0 && wrote;
}

} // namespace tazw
