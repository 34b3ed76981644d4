/* The vault TA's cryptography, over the TEE's own operations. Every function answers the result
 * the vault gives its client: TEE_ERROR_OUT_OF_MEMORY when the TEE lacks memory, the function's
 * documented result for bad input, TEE_ERROR_GENERIC for any other failure of the TEE. Nothing is
 * held on return, whatever the result. */
#ifndef VAULT_CRYPTO_H
#define VAULT_CRYPTO_H

#include <stdbool.h>
#include <stdint.h>
#include <tee_internal_api.h>

#include "der.h"

#define VAULT_AES_KEY_SIZE 32
#define VAULT_AES_BLOCK_SIZE 16
#define VAULT_SHA256_SIZE 32
#define VAULT_CMAC_SIZE 16
#define VAULT_GCM_TAG_SIZE 16
#define VAULT_ECDH_SECRET_SIZE DER_P256_SIZE

TEE_Result vault_sha256(const void* data, uint32_t length, uint8_t digest[VAULT_SHA256_SIZE]);

/* TEE_SUCCESS when der is an ECPrivateKey on P-256 whose public point is on the curve;
 * TEE_ERROR_BAD_FORMAT otherwise. */
TEE_Result vault_check_ec_private_key(const uint8_t* der, uint32_t length);

void vault_generate_aes_key(uint8_t key[VAULT_AES_KEY_SIZE]);
/* A new P-256 key as an ECPrivateKey. */
TEE_Result vault_generate_ec_key(uint8_t der[DER_EC_PRIVATE_KEY_SIZE]);

/* AES-256-CBC with PKCS#7 padding. On success *out is the TA's buffer (TEE_Free it) of
 * *out_length bytes; decrypting a length that is not whole blocks, or bad padding, is
 * TEE_ERROR_BAD_FORMAT. */
TEE_Result vault_aes_cbc(bool encrypt, const uint8_t key[VAULT_AES_KEY_SIZE],
                         const uint8_t iv[VAULT_AES_BLOCK_SIZE], const uint8_t* in, uint32_t length,
                         uint8_t** out, uint32_t* out_length);

TEE_Result vault_aes_cmac(const uint8_t key[VAULT_AES_KEY_SIZE], const void* message,
                          uint32_t length, uint8_t mac[VAULT_CMAC_SIZE]);

/* ECDSA on P-256 of a digest signed as given, the signature in DER. TEE_ERROR_BAD_FORMAT for a key
 * that does not check out, TEE_ERROR_BAD_PARAMETERS for a digest of another size than 32. */
TEE_Result vault_ecdsa_sign_digest(const uint8_t* key_der, uint32_t key_length,
                                   const uint8_t* digest, uint32_t digest_length,
                                   uint8_t signature[DER_ECDSA_SIGNATURE_MAX],
                                   uint32_t* signature_length);

/* The ECDH shared x-coordinate between a stored private key and a P-256 SubjectPublicKeyInfo;
 * TEE_ERROR_BAD_FORMAT when either does not check out. */
TEE_Result vault_ecdh(const uint8_t* key_der, uint32_t key_length, const uint8_t* peer_spki,
                      uint32_t peer_length, uint8_t secret[VAULT_ECDH_SECRET_SIZE]);

/* HKDF-SHA-256 with no salt, of one hash length of output. */
TEE_Result vault_hkdf_sha256(const uint8_t* secret, uint32_t secret_length, const char* info,
                             uint8_t key[VAULT_SHA256_SIZE]);

/* AES-256-GCM of a ciphertext followed by its 16-byte tag, no additional data. A tag that does not
 * match is TEE_ERROR_SECURITY and yields nothing; on success *plain is the TA's buffer (TEE_Free
 * it) of *plain_length bytes. */
TEE_Result vault_aes_gcm_open(const uint8_t key[VAULT_AES_KEY_SIZE], const uint8_t* nonce,
                              uint32_t nonce_length, const uint8_t* sealed, uint32_t sealed_length,
                              uint8_t** plain, uint32_t* plain_length);

/* Overwrites a secret before its buffer goes back to the heap; NULL is fine. */
void vault_free_secret(void* buffer, uint32_t length);

#endif
