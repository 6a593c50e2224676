/* Body decryption (Twofish) and integrity check (MD5). */
#ifndef TFSH_MD5_H
#define TFSH_MD5_H

#include "readptn.h"

#define KORM_TFSH_MD5_SUCCESS          0
#define KORM_TFSH_MD5_ERROR_BLOCK_ENC  1
#define KORM_TFSH_MD5_ERROR_BLOCK_DEC  2
#define KORM_TFSH_MD5_ERROR_CHECKSUM   3

#ifdef __cplusplus
extern "C" {
#endif

/* Decrypt the enclen-byte body in place and verify its digest.
 * 0 success, 2 decryption failure, 3 digest mismatch, -98 out of memory. */
long decBuf(PENCHEAD encHead, unsigned char *buf);

/* The same in steps, for a body that arrives piece by piece: start once
 * its first 32 bytes are there (the digest in encHead is decrypted in
 * place), decrypt and digest the whole blocks below `upto` as they arrive
 * (each step while it is still in cache), finish when the body is complete
 * (decBuf's result), release in every case. A failure inside a step is
 * kept and returned by the finish. */
void decStart(BODYDECRYPT *d, PENCHEAD encHead, const unsigned char *buf);
void decStep(BODYDECRYPT *d, const ENCHEAD *encHead, unsigned char *buf, UINT32 upto);
long decFinish(BODYDECRYPT *d, const ENCHEAD *encHead);
void decRelease(BODYDECRYPT *d);

/* One-time libgcrypt set-up shared with the pattern writer; 1 when usable. */
int tfsh_gcrypt_init(void);
/* CFB-1 over 128 bits of data, in place (encrypt 1) or inverse (encrypt 0). */
long tfsh_cfb1(const unsigned char key[KORM_KEY_LEN], const unsigned char iv[KORM_KEY_LEN],
               unsigned char data[KORM_KEY_LEN], int encrypt);

#ifdef __cplusplus
}
#endif

/* Constants shared with the pattern writer, which encrypts inversely. */
#ifdef __cplusplus
namespace taze {
/* Positions of the body bytes that form the key of the digest. */
inline constexpr int kKeyPositions[16] = {21, 9, 30, 14, 26, 8, 19, 27, 11, 23, 17, 29, 12, 24, 31, 18};
/* Initialisation vector of the digest's CFB-1 mode. */
inline constexpr char kDigestIvHex[] = "7D41E09A3B6C52F8A0E9164CD2B3857F";
}
#endif

#endif /* TFSH_MD5_H */
