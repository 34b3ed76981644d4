/* The DER this project's TAs read and write: a small bounded reader of their own (no TEE offers
 * one) for the few structures the vault takes from clients, and the two it produces. Every reader
 * takes strict DER (definite, minimal lengths; minimal positive INTEGERs) and wants the whole
 * input to be the structure, with nothing after it. */
#ifndef ZEL_DER_H
#define ZEL_DER_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DER_P256_SIZE 32
/* An ECPrivateKey as der_write_ec_private_key writes it: version 1, a 32-byte private key, the
 * curve and the public key. */
#define DER_EC_PRIVATE_KEY_SIZE 121
/* The longest DER ECDSA-Sig-Value on P-256. */
#define DER_ECDSA_SIGNATURE_MAX 72

/* A P-256 key: the private scalar and the public point, each 32 bytes big-endian. */
struct der_ec_key {
    uint8_t d[DER_P256_SIZE];
    uint8_t x[DER_P256_SIZE];
    uint8_t y[DER_P256_SIZE];
};

/* An RFC 5915 ECPrivateKey on P-256 (prime256v1 named in [0]) with its public key in [1] as an
 * uncompressed point. Whether the point is on the curve is the caller's to check. */
bool der_read_ec_private_key(const uint8_t* der, uint32_t length, struct der_ec_key* key);
/* An RFC 5480 SubjectPublicKeyInfo of id-ecPublicKey on prime256v1 with an uncompressed point. */
bool der_read_ec_public_key(const uint8_t* der, uint32_t length, uint8_t x[DER_P256_SIZE],
                            uint8_t y[DER_P256_SIZE]);
/* A PKCS #1 RSAPublicKey: a SEQUENCE of two positive INTEGERs, modulus and public exponent. */
bool der_is_rsa_public_key(const uint8_t* der, uint32_t length);

void der_write_ec_private_key(const struct der_ec_key* key, uint8_t out[DER_EC_PRIVATE_KEY_SIZE]);
/* An ECDSA-Sig-Value of r and s (each 32 bytes big-endian, one after the other): its length. */
uint32_t der_write_ecdsa_signature(const uint8_t rs[2 * DER_P256_SIZE],
                                   uint8_t out[DER_ECDSA_SIGNATURE_MAX]);

#ifdef __cplusplus
}
#endif

#endif
