/* Body encryption and decryption: the primitives against published vectors,
 * the writer against an independent bit-by-bit encryption, and decBuf on
 * good, damaged and short bodies. */
#include <gcrypt.h>

#include <climits>
#include <cstring>
#include <random>
#include <thread>

#include "test_support.h"
#include "tfsh_md5.h"

namespace {

using Block = std::array<std::uint8_t, 16>;
using tazw::Bytes;

/* The IV of the digest, written out independently of its text constant. */
constexpr Block kIv = {0x7D, 0x41, 0xE0, 0x9A, 0x3B, 0x6C, 0x52, 0xF8, 0xA0, 0xE9, 0x16, 0x4C, 0xD2, 0xB3, 0x85, 0x7F};

Block twofish(const Block &key, const Block &in)
{
    gcry_cipher_hd_t h = nullptr;
    Block out{};
    EXPECT_EQ(gcry_cipher_open(&h, GCRY_CIPHER_TWOFISH128, GCRY_CIPHER_MODE_ECB, 0), 0u);
    EXPECT_EQ(gcry_cipher_setkey(h, key.data(), key.size()), 0u);
    EXPECT_EQ(gcry_cipher_encrypt(h, out.data(), out.size(), in.data(), in.size()), 0u);
    gcry_cipher_close(h);
    return out;
}

Block md5(const void *data, std::size_t len)
{
    Block out{};
    gcry_buffer_t iov{};
    iov.size = iov.len = len;
    iov.data = const_cast<void *>(data);
    EXPECT_EQ(gcry_md_hash_buffers(GCRY_MD_MD5, 0, out.data(), &iov, 1), 0u);
    return out;
}

bool bit(const Block &b, std::size_t i) { return (b[i / 8] >> (7 - i % 8)) & 1; }

struct Encrypted {
    Bytes body;
    Block digest;
};

/* The body encryption step by step: zero padding, block-wise ECB under the
 * payload's MD5 (taken over digest_len bytes), and the digest in CFB-1 one
 * bit at a time, with the register kept as a string of 128 bits. */
Encrypted reference_encrypt(Bytes plain, std::size_t digest_len)
{
    const Block digest = md5(plain.data(), digest_len);
    while (plain.size() % 16 != 0 || plain.size() < 32) plain.push_back(0);
    Encrypted e{plain, {}};
    for (std::size_t off = 0; off < plain.size(); off += 16) {
        Block in{};
        std::copy_n(plain.begin() + long(off), 16, in.begin());
        const Block out = twofish(digest, in);
        std::copy(out.begin(), out.end(), e.body.begin() + long(off));
    }
    Block key{};
    for (std::size_t i = 0; i < 16; ++i) key[i] = e.body[std::size_t(taze::kKeyPositions[i])];
    std::string reg;
    for (std::size_t i = 0; i < 128; ++i) reg += bit(kIv, i) ? '1' : '0';
    for (std::size_t i = 0; i < 128; ++i) {
        Block r{};
        for (std::size_t j = 0; j < 128; ++j) r[j / 8] = std::uint8_t(r[j / 8] | (reg[j] == '1') << (7 - j % 8));
        const bool c = bit(digest, i) != bit(twofish(key, r), 0);
        e.digest[i / 8] = std::uint8_t(e.digest[i / 8] | c << (7 - i % 8));
        reg = reg.substr(1) + (c ? '1' : '0');
    }
    return e;
}

Encrypted writer_encrypt(const Bytes &payload)
{
    Encrypted e;
    tazw::encrypt_body(payload, e.body, e.digest.data());
    return e;
}

/* decBuf on a buffer of exactly max(enclen, declen) bytes, as the reader
 * allocates it, so that the sanitizers see any access past it. */
long run_decbuf(const Encrypted &e, std::uint32_t enclen, std::uint32_t declen, Bytes *out = nullptr)
{
    std::vector<unsigned char> buf(std::max(enclen, declen), 0xCC);
    std::copy_n(e.body.begin(), std::min(e.body.size(), buf.size()), buf.begin());
    ENCHEAD head{enclen, declen, {}};
    std::memcpy(head.digest, e.digest.data(), 16);
    const long rc = decBuf(&head, buf.data());
    if (out) *out = Bytes(buf.begin(), buf.begin() + std::min<long>(declen, long(buf.size())));
    return rc;
}

/* Two threads from the start, so that they also race for the one-time
 * libgcrypt set-up; sizes around the 8192-byte decryption chunks too. */
TEST(Crypto, WriterMatchesReferenceAndRoundTrips)
{
    std::vector<std::size_t> sizes;
    std::mt19937 rng(3);
    for (std::size_t n = 0; n <= 70; ++n) sizes.push_back(n);
    for (int i = 0; i < 30; ++i) sizes.push_back(rng() % 4097);
    for (std::size_t n : {4095u, 4096u, 4097u, 4112u, 8192u, 8208u, 12300u}) sizes.push_back(n);
    std::vector<std::string> failures[2];
    auto work = [&sizes](std::size_t first, std::vector<std::string> &fail) {
        std::mt19937 bytes(unsigned(first + 1));
        for (std::size_t i = first; i < sizes.size(); i += 2) {
            Bytes payload(sizes[i]);
            for (auto &c : payload) c = std::uint8_t(bytes());
            const Encrypted e = writer_encrypt(payload);
            const Encrypted want = reference_encrypt(payload, payload.size());
            Bytes plain;
            const long rc = run_decbuf(e, std::uint32_t(e.body.size()), std::uint32_t(payload.size()), &plain);
            if (e.body != want.body || e.digest != want.digest || rc != 0 || plain != payload)
                fail.push_back(std::to_string(sizes[i]) + " rc " + std::to_string(rc));
        }
    };
    std::thread other(work, 1, std::ref(failures[1]));
    work(0, failures[0]);
    other.join();
    EXPECT_TRUE(failures[0].empty() && failures[1].empty()) << ::testing::PrintToString(failures[0])
                                                            << ::testing::PrintToString(failures[1]);
}

TEST(Crypto, DamagedAndShortBodies)
{
    Bytes payload(100);
    for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = std::uint8_t(i * 7 + 1);
    const Encrypted good = writer_encrypt(payload); /* 112-byte body */
    Bytes odd_pad = payload;
    odd_pad.resize(112, 0xAB);
    const struct Case {
        const char *name;
        int body_byte, digest_bit; /* -1: unchanged */
        std::uint32_t enclen, declen;
        long want;
        bool odd_padding = false;
    } cases[] = {
        {"intact", -1, -1, 112, 100, KORM_TFSH_MD5_SUCCESS},
        {"padding past declen is not checked", -1, -1, 112, 100, KORM_TFSH_MD5_SUCCESS, true},
        {"payload byte", 40, -1, 112, 100, KORM_TFSH_MD5_ERROR_CHECKSUM},
        {"digest top bit", -1, 0, 112, 100, KORM_TFSH_MD5_ERROR_CHECKSUM},
        {"digest last bit", -1, 127, 112, 100, KORM_TFSH_MD5_ERROR_CHECKSUM},
        {"declen one less", -1, -1, 112, 99, KORM_TFSH_MD5_ERROR_CHECKSUM},
        {"declen past enclen", -1, -1, 112, 128, KORM_TFSH_MD5_ERROR_CHECKSUM},
        {"body cut inside the payload", -1, -1, 100, 100, KORM_TFSH_MD5_ERROR_CHECKSUM},
        {"partial trailing block left alone", -1, -1, 120, 100, KORM_TFSH_MD5_SUCCESS},
        {"empty body", -1, -1, 0, 0, KORM_TFSH_MD5_ERROR_BLOCK_DEC},
        {"one block", -1, -1, 16, 10, KORM_TFSH_MD5_ERROR_BLOCK_DEC},
        {"31 bytes", -1, -1, 31, 0, KORM_TFSH_MD5_ERROR_BLOCK_DEC},
    };
    auto check = [&](const Case &c) {
        Encrypted e = c.odd_padding ? reference_encrypt(odd_pad, payload.size()) : good;
        if (c.body_byte >= 0) e.body[std::size_t(c.body_byte)] ^= 0x01;
        if (c.digest_bit >= 0) e.digest[std::size_t(c.digest_bit / 8)] ^= std::uint8_t(0x80 >> c.digest_bit % 8);
        Bytes plain;
        EXPECT_EQ(run_decbuf(e, c.enclen, c.declen, &plain), c.want) << c.name;
        if (c.want == KORM_TFSH_MD5_SUCCESS) {
            EXPECT_EQ(plain, payload) << c.name;
        }
    };
    for (const Case &c : cases) check(c);
    for (int p : taze::kKeyPositions) check({"key position", p, -1, 112, 100, KORM_TFSH_MD5_ERROR_CHECKSUM});

    ENCHEAD head{};
    unsigned char byte = 0;
    EXPECT_EQ(decBuf(nullptr, &byte), KORM_TFSH_MD5_ERROR_BLOCK_DEC);
    EXPECT_EQ(decBuf(&head, nullptr), KORM_TFSH_MD5_ERROR_BLOCK_DEC);
}

TEST(Crypto, GetMultiple)
{
    const int cases[][3] = {{33, 16, 48},  {32, 16, 32},   {0, 16, 0},    {1, 16, 16},
                            {17, 1, 17},   {5, 0, 5},      {-5, 16, 0},   {-16, 16, -16},
                            {33, -16, 48}, {INT_MAX, 16, INT_MAX},        {INT_MAX - 20, 16, INT_MAX - 15},
                            {INT_MIN, 16, INT_MIN}};
    for (const auto &c : cases) EXPECT_EQ(getMultiple(c[0], c[1]), c[2]) << c[0] << "," << c[1];
}

} // namespace
