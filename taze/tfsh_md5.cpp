/* Body decryption (Twofish-128) and integrity check (MD5), on libgcrypt.
 *
 * The digest in the encryption header is CFB-1-encrypted with a key made of
 * sixteen bytes of the still encrypted body; the decrypted digest is the ECB
 * key of the body. libgcrypt has no CFB-1 mode, so it is built here from
 * single Twofish block encryptions. */
#include <gcrypt.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <mutex>

#include "tazapi.h"
#include "tfsh_md5.h"
#include "vkerror.h"

namespace {

constexpr std::size_t kBlock = 16;
constexpr std::size_t kKeyBytes = KORM_KEY_LEN;
constexpr std::size_t kDigestBits = kKeyBytes * 8;
/* The body must hold every key position. */
constexpr std::size_t kMinBody = 32;
/* Ciphertext kept per step of the ECB decryption (see ecb_decrypt). */
constexpr std::size_t kChunk = 8192;

static_assert(sizeof(taze::kDigestIvHex) == 2 * kKeyBytes + 1, "the IV spells 16 bytes");
static_assert(kChunk % kBlock == 0, "chunks hold whole blocks");
static_assert(
    [] {
        for (int p : taze::kKeyPositions)
            if (p < 0 || std::size_t(p) >= kMinBody) return false;
        return true;
    }(),
    "key positions lie in the first 32 bytes");

/* Owns one libgcrypt cipher handle. */
struct Cipher {
    gcry_cipher_hd_t h = nullptr;
    Cipher() = default;
    Cipher(const Cipher &) = delete;
    Cipher &operator=(const Cipher &) = delete;
    ~Cipher() { gcry_cipher_close(h); }
};

/* Result code of a failed libgcrypt call: memory exhaustion is -98, any
 * other failure the block error of the direction. */
long crypt_result(gcry_error_t err, long failure)
{
    if (!err) return KORM_TFSH_MD5_SUCCESS;
    return gcry_err_code(err) == GPG_ERR_ENOMEM ? long(NO_MEM_ERR) : failure;
}

/* A Twofish-128 handle in the given mode, keyed with 16 bytes. */
long open_cipher(Cipher &c, int mode, const unsigned char key[kKeyBytes], long failure)
{
    long rc = crypt_result(gcry_cipher_open(&c.h, GCRY_CIPHER_TWOFISH128, mode, 0), failure);
    if (rc == KORM_TFSH_MD5_SUCCESS) rc = crypt_result(gcry_cipher_setkey(c.h, key, kKeyBytes), failure);
    return rc;
}

/* Writes the 32-character upper-case hexadecimal form of 16 bytes, without
 * a terminator. Keys and the IV travel as such text. */
void hexcpy(char *dst, const unsigned char *src)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    for (std::size_t i = 0; i < kKeyBytes; ++i) {
        dst[2 * i] = digits[src[i] >> 4];
        dst[2 * i + 1] = digits[src[i] & 0x0F];
    }
}

constexpr unsigned char hex_value(char c)
{
    return (c >= '0' && c <= '9')   ? static_cast<unsigned char>(c - '0')
           : (c >= 'A' && c <= 'F') ? static_cast<unsigned char>(c - 'A' + 10)
           : (c >= 'a' && c <= 'f') ? static_cast<unsigned char>(c - 'a' + 10)
                                    : 0;
}

/* The 16 bytes that 32 hexadecimal characters spell, first pair first. */
void key_from_hex(const char *hex, unsigned char out[kKeyBytes])
{
    for (std::size_t i = 0; i < kKeyBytes; ++i)
        out[i] = static_cast<unsigned char>(hex_value(hex[2 * i]) << 4 | hex_value(hex[2 * i + 1]));
}

/* A decryption key made from 16 key bytes by way of their text form. */
void make_key(const unsigned char material[kKeyBytes], unsigned char key[kKeyBytes])
{
    char text[2 * kKeyBytes];
    hexcpy(text, material);
    key_from_hex(text, key);
}

/* ECB decryption of the whole blocks [from, to) of buf, in place. libgcrypt
 * 1.10 decrypts ECB one block at a time but CBC in bulk, and CBC decryption
 * with a zero IV gives D(C[k]) ^ C[k-1]. So each chunk is CBC-decrypted out
 * of place into a scratch buffer, and one forward pass writes the scratch
 * block XORed with the ciphertext block before it back over the body (each
 * ciphertext block is read before its place is written). */
long ecb_decrypt(gcry_cipher_hd_t h, unsigned char *buf, std::size_t from, std::size_t to)
{
    static constexpr unsigned char zero_iv[kBlock] = {};
    alignas(64) unsigned char plain[kChunk];
    for (std::size_t off = from; off < to; off += kChunk) {
        const std::size_t n = std::min(kChunk, to - off);
        unsigned char *body = buf + off;
        long rc = crypt_result(gcry_cipher_setiv(h, zero_iv, kBlock), KORM_TFSH_MD5_ERROR_BLOCK_DEC);
        if (rc == KORM_TFSH_MD5_SUCCESS)
            rc = crypt_result(gcry_cipher_decrypt(h, plain, n, body, n), KORM_TFSH_MD5_ERROR_BLOCK_DEC);
        if (rc != KORM_TFSH_MD5_SUCCESS) return rc;
        std::uint64_t prev[2] = {0, 0};
        for (std::size_t i = 0; i < n; i += kBlock) {
            std::uint64_t c[2], p[2];
            std::memcpy(c, body + i, kBlock);
            std::memcpy(p, plain + i, kBlock);
            p[0] ^= prev[0];
            p[1] ^= prev[1];
            std::memcpy(body + i, p, kBlock);
            prev[0] = c[0];
            prev[1] = c[1];
        }
    }
    return KORM_TFSH_MD5_SUCCESS;
}

gcry_cipher_hd_t cipher_of(const BODYDECRYPT *d) { return static_cast<gcry_cipher_hd_t>(d->cipher); }
gcry_md_hd_t md_of(const BODYDECRYPT *d) { return static_cast<gcry_md_hd_t>(d->md); }

/* Process-wide libgcrypt set-up, done once whichever thread gets here first.
 * A host that initialised libgcrypt itself keeps its own settings. */
bool gcrypt_ready()
{
    static std::once_flag once;
    static bool ready = false;
    std::call_once(once, [] {
        if (!gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P)) {
            if (!gcry_check_version(GCRYPT_VERSION)) return;
            gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
            gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
        }
        ready = true;
    });
    return ready;
}

} // namespace

extern "C" {

int tfsh_gcrypt_init(void) { return gcrypt_ready() ? 1 : 0; }

/* CFB-1 over 128 bits in place. The shift register starts as the IV; per
 * bit, counting from the top bit of byte 0: encrypt the register, XOR the
 * bit with the top bit of the result, shift the register left by one and
 * feed the ciphertext bit in at the bottom of byte 15. */
long tfsh_cfb1(const unsigned char key[KORM_KEY_LEN], const unsigned char iv[KORM_KEY_LEN],
               unsigned char data[KORM_KEY_LEN], int encrypt)
{
    const long failure = encrypt ? KORM_TFSH_MD5_ERROR_BLOCK_ENC : KORM_TFSH_MD5_ERROR_BLOCK_DEC;
    if (!gcrypt_ready()) return failure;
    Cipher c;
    long rc = open_cipher(c, GCRY_CIPHER_MODE_ECB, key, failure);
    unsigned char reg[kBlock];
    unsigned char x[kBlock];
    std::memcpy(reg, iv, kBlock);
    for (std::size_t k = 0; rc == KORM_TFSH_MD5_SUCCESS && k < kDigestBits; ++k) {
        rc = crypt_result(gcry_cipher_encrypt(c.h, x, kBlock, reg, kBlock), failure);
        if (rc != KORM_TFSH_MD5_SUCCESS) break;
        const unsigned shift = 7u - unsigned(k % 8);
        unsigned char &byte = data[k / 8];
        const unsigned in = (byte >> shift) & 1u;
        const unsigned out = in ^ (x[0] >> 7);
        const unsigned cipher_bit = encrypt ? out : in;
        byte = static_cast<unsigned char>((byte & ~(1u << shift)) | (out << shift));
        for (std::size_t i = 0; i + 1 < kBlock; ++i)
            reg[i] = static_cast<unsigned char>(reg[i] << 1 | reg[i + 1] >> 7);
        reg[kBlock - 1] = static_cast<unsigned char>(reg[kBlock - 1] << 1 | cipher_bit);
    }
    return rc;
}

void decStart(BODYDECRYPT *d, PENCHEAD encHead, const unsigned char *buf)
{
    *d = BODYDECRYPT{};
    d->started = 1;
    d->rc = KORM_TFSH_MD5_ERROR_BLOCK_DEC;
    if (!encHead || !buf || !gcrypt_ready()) return;
    /* Key one comes from bytes up to position 31: a shorter body cannot
     * supply it, and reading it would leave the body. */
    if (encHead->enclen < kMinBody) return;

    unsigned char material[kKeyBytes];
    for (std::size_t i = 0; i < kKeyBytes; ++i) material[i] = buf[taze::kKeyPositions[i]];
    unsigned char key[kKeyBytes];
    unsigned char iv[kKeyBytes];
    make_key(material, key);
    key_from_hex(taze::kDigestIvHex, iv);
    d->rc = tfsh_cfb1(key, iv, encHead->digest, 0);
    if (d->rc != KORM_TFSH_MD5_SUCCESS) return;
    std::memcpy(d->digest, encHead->digest, kKeyBytes);

    make_key(encHead->digest, key);
    Cipher c;
    d->rc = open_cipher(c, GCRY_CIPHER_MODE_CBC, key, KORM_TFSH_MD5_ERROR_BLOCK_DEC);
    if (d->rc != KORM_TFSH_MD5_SUCCESS) return;
    gcry_md_hd_t md = nullptr;
    d->rc = crypt_result(gcry_md_open(&md, GCRY_MD_MD5, 0), KORM_TFSH_MD5_ERROR_BLOCK_DEC);
    if (d->rc != KORM_TFSH_MD5_SUCCESS) return;
    d->cipher = c.h;
    c.h = nullptr;
    d->md = md;
}

void decStep(BODYDECRYPT *d, const ENCHEAD *encHead, unsigned char *buf, UINT32 upto)
{
    if (!d->started || d->rc != KORM_TFSH_MD5_SUCCESS) return;
    /* Only whole blocks inside the body are decrypted: a trailing partial
     * block would need bytes past enclen. */
    const std::size_t end = std::min<std::size_t>(upto, encHead->enclen) / kBlock * kBlock;
    if (end <= d->done) return;
    d->rc = ecb_decrypt(cipher_of(d), buf, d->done, end);
    if (d->rc != KORM_TFSH_MD5_SUCCESS) return;
    const std::size_t hashed = std::min<std::size_t>(end, encHead->declen);
    if (hashed > d->done) gcry_md_write(md_of(d), buf + d->done, hashed - d->done);
    d->done = static_cast<UINT32>(end);
}

long decFinish(BODYDECRYPT *d, const ENCHEAD *encHead)
{
    if (!d->started) return KORM_TFSH_MD5_ERROR_BLOCK_DEC;
    if (d->rc != KORM_TFSH_MD5_SUCCESS) return d->rc;
    /* A payload reaching past the decrypted blocks cannot match its digest. */
    if (encHead->declen > d->done) return KORM_TFSH_MD5_ERROR_CHECKSUM;
    const unsigned char *md5 = gcry_md_read(md_of(d), GCRY_MD_MD5);
    if (!md5) return KORM_TFSH_MD5_ERROR_BLOCK_DEC;
    return std::memcmp(md5, d->digest, kKeyBytes) == 0 ? KORM_TFSH_MD5_SUCCESS : KORM_TFSH_MD5_ERROR_CHECKSUM;
}

void decRelease(BODYDECRYPT *d)
{
    gcry_cipher_close(cipher_of(d));
    gcry_md_close(md_of(d));
    *d = BODYDECRYPT{};
}

long decBuf(PENCHEAD encHead, unsigned char *buf)
{
    BODYDECRYPT d{};
    decStart(&d, encHead, buf);
    if (encHead) decStep(&d, encHead, buf, encHead->enclen);
    const long rc = encHead ? decFinish(&d, encHead) : long(KORM_TFSH_MD5_ERROR_BLOCK_DEC);
    decRelease(&d);
    return rc;
}

TAZE_API int getMultiple(int num, int mlt)
{
    if (mlt == 0) return num;
    const long long m = mlt < 0 ? -static_cast<long long>(mlt) : mlt;
    const long long r = num % m;
    const long long up = r == 0 ? num : r > 0 ? num - r + m : num - r;
    return up > INT_MAX ? num : static_cast<int>(up);
}

} // extern "C"
