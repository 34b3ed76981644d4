#include "vault_crypto.h"

#include <string.h>

#define P256_BITS 256
#define P256_BIGINT_LEN TEE_BigIntSizeInU32(P256_BITS)
#define AES_256_BITS 256
#define HMAC_SHA256_KEY_BITS 256

/* P-256 (FIPS 186-4): the field prime, the curve's b and the group order, big-endian. */
static const uint8_t p256_p[DER_P256_SIZE] = {
    0xff, 0xff, 0xff, 0xff, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
static const uint8_t p256_b[DER_P256_SIZE] = {
    0x5a, 0xc6, 0x35, 0xd8, 0xaa, 0x3a, 0x93, 0xe7, 0xb3, 0xeb, 0xbd, 0x55, 0x76, 0x98, 0x86, 0xbc,
    0x65, 0x1d, 0x06, 0xb0, 0xcc, 0x53, 0xb0, 0xf6, 0x3b, 0xce, 0x3c, 0x3e, 0x27, 0xd2, 0x60, 0x4b};
static const uint8_t p256_n[DER_P256_SIZE] = {
    0xff, 0xff, 0xff, 0xff, 0x00, 0x00, 0x00, 0x00, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
    0xbc, 0xe6, 0xfa, 0xad, 0xa7, 0x17, 0x9e, 0x84, 0xf3, 0xb9, 0xca, 0xc2, 0xfc, 0x63, 0x25, 0x51};

/* The one place where a failure of the TEE becomes the vault's answer. */
static TEE_Result failed(TEE_Result tee) {
    return tee == TEE_ERROR_OUT_OF_MEMORY ? TEE_ERROR_OUT_OF_MEMORY : TEE_ERROR_GENERIC;
}

void vault_free_secret(void* buffer, uint32_t length) {
    if (buffer) TEE_MemFill(buffer, 0, length);
    TEE_Free(buffer);
}

/* An operation with its key set from these attributes. The key object is only needed until the
 * operation has its own copy of the key. */
static TEE_Result keyed_operation(uint32_t algorithm, uint32_t mode, uint32_t key_type,
                                  uint32_t key_bits, const TEE_Attribute* attributes,
                                  uint32_t count, TEE_OperationHandle* operation) {
    TEE_ObjectHandle key = TEE_HANDLE_NULL;
    TEE_Result result = TEE_AllocateOperation(operation, algorithm, mode, key_bits);

    if (result == TEE_SUCCESS) result = TEE_AllocateTransientObject(key_type, key_bits, &key);
    if (result == TEE_SUCCESS) result = TEE_PopulateTransientObject(key, attributes, count);
    if (result == TEE_SUCCESS) result = TEE_SetOperationKey(*operation, key);
    if (key != TEE_HANDLE_NULL) TEE_FreeTransientObject(key);
    if (result != TEE_SUCCESS && *operation != TEE_HANDLE_NULL) {
        TEE_FreeOperation(*operation);
        *operation = TEE_HANDLE_NULL;
    }
    return result == TEE_SUCCESS ? TEE_SUCCESS : failed(result);
}

static TEE_Result secret_operation(uint32_t algorithm, uint32_t mode, uint32_t key_type,
                                   const uint8_t* secret, uint32_t length,
                                   TEE_OperationHandle* operation) {
    TEE_Attribute attribute;

    TEE_InitRefAttribute(&attribute, TEE_ATTR_SECRET_VALUE, secret, length);
    return keyed_operation(algorithm, mode, key_type, length * 8, &attribute, 1, operation);
}

TEE_Result vault_sha256(const void* data, uint32_t length, uint8_t digest[VAULT_SHA256_SIZE]) {
    TEE_OperationHandle operation = TEE_HANDLE_NULL;
    size_t size = VAULT_SHA256_SIZE;
    TEE_Result result = TEE_AllocateOperation(&operation, TEE_ALG_SHA256, TEE_MODE_DIGEST, 0);

    if (result == TEE_SUCCESS) result = TEE_DigestDoFinal(operation, data, length, digest, &size);
    if (result == TEE_SUCCESS && size != VAULT_SHA256_SIZE) result = TEE_ERROR_GENERIC;
    if (operation != TEE_HANDLE_NULL) TEE_FreeOperation(operation);
    return result == TEE_SUCCESS ? TEE_SUCCESS : failed(result);
}

/* y^2 = x^3 - 3x + b (mod p) with x and y below p. A TEE does not answer a point off the curve
 * with an error (key derivation panics), so the vault looks first. */
static bool on_p256(const uint8_t x[DER_P256_SIZE], const uint8_t y[DER_P256_SIZE]) {
    TEE_BigInt p[P256_BIGINT_LEN], b[P256_BIGINT_LEN], bx[P256_BIGINT_LEN], by[P256_BIGINT_LEN];
    TEE_BigInt y2[P256_BIGINT_LEN], x2[P256_BIGINT_LEN], x3[P256_BIGINT_LEN];
    TEE_BigInt twice[P256_BIGINT_LEN], thrice[P256_BIGINT_LEN], less[P256_BIGINT_LEN];
    TEE_BigInt right[P256_BIGINT_LEN];
    TEE_BigInt* const all[] = {p, b, bx, by, y2, x2, x3, twice, thrice, less, right};
    size_t i;

    for (i = 0; i < sizeof(all) / sizeof(all[0]); i++) TEE_BigIntInit(all[i], P256_BIGINT_LEN);
    if (TEE_BigIntConvertFromOctetString(p, p256_p, DER_P256_SIZE, 0) != TEE_SUCCESS ||
        TEE_BigIntConvertFromOctetString(b, p256_b, DER_P256_SIZE, 0) != TEE_SUCCESS ||
        TEE_BigIntConvertFromOctetString(bx, x, DER_P256_SIZE, 0) != TEE_SUCCESS ||
        TEE_BigIntConvertFromOctetString(by, y, DER_P256_SIZE, 0) != TEE_SUCCESS)
        return false;
    /* The modular operations want their operands already reduced. */
    if (TEE_BigIntCmp(bx, p) >= 0 || TEE_BigIntCmp(by, p) >= 0) return false;
    TEE_BigIntMulMod(y2, by, by, p);
    TEE_BigIntMulMod(x2, bx, bx, p);
    TEE_BigIntMulMod(x3, x2, bx, p);
    TEE_BigIntAddMod(twice, bx, bx, p);
    TEE_BigIntAddMod(thrice, twice, bx, p);
    TEE_BigIntSubMod(less, x3, thrice, p);
    TEE_BigIntAddMod(right, less, b, p);
    return TEE_BigIntCmp(y2, right) == 0;
}

/* A stored private key, its point checked. */
static TEE_Result read_ec_key(const uint8_t* der, uint32_t length, struct der_ec_key* key) {
    if (!der_read_ec_private_key(der, length, key) || !on_p256(key->x, key->y))
        return TEE_ERROR_BAD_FORMAT;
    return TEE_SUCCESS;
}

TEE_Result vault_check_ec_private_key(const uint8_t* der, uint32_t length) {
    struct der_ec_key key;
    TEE_Result result = read_ec_key(der, length, &key);

    TEE_MemFill(&key, 0, sizeof(key));
    return result;
}

/* The scalar reduced modulo the group order. A stored key may hold any scalar below 2^256, and
 * every multiple of a point by d or by d mod n is the same, but a TEE takes only 1 to n - 1.
 * False when it reduces to zero: no key at all. */
static bool reduce_scalar(uint8_t d[DER_P256_SIZE]) {
    uint8_t any = 0;
    int i;

    /* Below 2^256 < 2n, so one subtraction is enough. */
    if (memcmp(d, p256_n, DER_P256_SIZE) >= 0) {
        unsigned int borrow = 0;

        for (i = DER_P256_SIZE - 1; i >= 0; i--) {
            unsigned int difference = (unsigned int)d[i] - p256_n[i] - borrow;

            d[i] = (uint8_t)difference;
            borrow = (difference >> 8) & 1;
        }
    }
    for (i = 0; i < DER_P256_SIZE; i++) any |= d[i];
    return any != 0;
}

/* An operation keyed with a stored P-256 key pair. */
static TEE_Result ec_operation(uint32_t algorithm, uint32_t mode, uint32_t key_type,
                               const uint8_t* der, uint32_t length,
                               TEE_OperationHandle* operation) {
    struct der_ec_key key;
    TEE_Attribute attributes[4];
    TEE_Result result = read_ec_key(der, length, &key);

    if (result == TEE_SUCCESS && !reduce_scalar(key.d)) result = TEE_ERROR_GENERIC;
    if (result == TEE_SUCCESS) {
        TEE_InitRefAttribute(&attributes[0], TEE_ATTR_ECC_PRIVATE_VALUE, key.d, DER_P256_SIZE);
        TEE_InitRefAttribute(&attributes[1], TEE_ATTR_ECC_PUBLIC_VALUE_X, key.x, DER_P256_SIZE);
        TEE_InitRefAttribute(&attributes[2], TEE_ATTR_ECC_PUBLIC_VALUE_Y, key.y, DER_P256_SIZE);
        TEE_InitValueAttribute(&attributes[3], TEE_ATTR_ECC_CURVE, TEE_ECC_CURVE_NIST_P256, 0);
        result = keyed_operation(algorithm, mode, key_type, P256_BITS, attributes, 4, operation);
    }
    TEE_MemFill(&key, 0, sizeof(key));
    return result;
}

void vault_generate_aes_key(uint8_t key[VAULT_AES_KEY_SIZE]) {
    TEE_GenerateRandom(key, VAULT_AES_KEY_SIZE);
}

/* A key attribute as 32 bytes: a TEE may leave out leading zero bytes. */
static TEE_Result read_p256_value(TEE_ObjectHandle key, uint32_t attribute,
                                  uint8_t value[DER_P256_SIZE]) {
    uint8_t read[DER_P256_SIZE];
    size_t size = sizeof(read);
    TEE_Result result = TEE_GetObjectBufferAttribute(key, attribute, read, &size);

    if (result == TEE_SUCCESS && (size == 0 || size > DER_P256_SIZE)) result = TEE_ERROR_GENERIC;
    if (result == TEE_SUCCESS) {
        TEE_MemFill(value, 0, DER_P256_SIZE - size);
        TEE_MemMove(value + DER_P256_SIZE - size, read, size);
    }
    TEE_MemFill(read, 0, sizeof(read));
    return result;
}

TEE_Result vault_generate_ec_key(uint8_t der[DER_EC_PRIVATE_KEY_SIZE]) {
    TEE_ObjectHandle key = TEE_HANDLE_NULL;
    TEE_Attribute curve;
    struct der_ec_key made;
    TEE_Result result = TEE_AllocateTransientObject(TEE_TYPE_ECDSA_KEYPAIR, P256_BITS, &key);

    TEE_InitValueAttribute(&curve, TEE_ATTR_ECC_CURVE, TEE_ECC_CURVE_NIST_P256, 0);
    if (result == TEE_SUCCESS) result = TEE_GenerateKey(key, P256_BITS, &curve, 1);
    if (result == TEE_SUCCESS) result = read_p256_value(key, TEE_ATTR_ECC_PRIVATE_VALUE, made.d);
    if (result == TEE_SUCCESS) result = read_p256_value(key, TEE_ATTR_ECC_PUBLIC_VALUE_X, made.x);
    if (result == TEE_SUCCESS) result = read_p256_value(key, TEE_ATTR_ECC_PUBLIC_VALUE_Y, made.y);
    if (result == TEE_SUCCESS) der_write_ec_private_key(&made, der);
    if (key != TEE_HANDLE_NULL) TEE_FreeTransientObject(key);
    TEE_MemFill(&made, 0, sizeof(made));
    return result == TEE_SUCCESS ? TEE_SUCCESS : failed(result);
}

/* PKCS#7: the pad length, 1 to 16, in each of the last that many bytes. */
static bool unpadded_length(const uint8_t* plain, uint32_t length, uint32_t* unpadded) {
    uint32_t pad;
    uint32_t i;

    if (length == 0) return false;
    pad = plain[length - 1];
    if (pad == 0 || pad > VAULT_AES_BLOCK_SIZE || pad > length) return false;
    for (i = length - pad; i < length; i++)
        if (plain[i] != pad) return false;
    *unpadded = length - pad;
    return true;
}

TEE_Result vault_aes_cbc(bool encrypt, const uint8_t key[VAULT_AES_KEY_SIZE],
                         const uint8_t iv[VAULT_AES_BLOCK_SIZE], const uint8_t* in, uint32_t length,
                         uint8_t** out, uint32_t* out_length) {
    TEE_OperationHandle operation = TEE_HANDLE_NULL;
    uint8_t* padded = NULL;
    uint8_t* result_buffer = NULL;
    uint32_t total = length;
    uint32_t pad = 0;
    size_t written = 0;
    TEE_Result result = TEE_SUCCESS;

    *out = NULL;
    *out_length = 0;
    if (encrypt) {
        pad = VAULT_AES_BLOCK_SIZE - length % VAULT_AES_BLOCK_SIZE;
        if (length > UINT32_MAX - pad) return TEE_ERROR_OUT_OF_MEMORY;
        total = length + pad;
    } else if (length == 0 || length % VAULT_AES_BLOCK_SIZE != 0) {
        return TEE_ERROR_BAD_FORMAT;
    }

    if (encrypt) {
        padded = TEE_Malloc(total, TEE_MALLOC_FILL_ZERO);
        if (!padded)
            result = TEE_ERROR_OUT_OF_MEMORY;
        else {
            TEE_MemMove(padded, in, length);
            TEE_MemFill(padded + length, (uint32_t)pad, pad);
            in = padded;
        }
    }
    if (result == TEE_SUCCESS) {
        result_buffer = TEE_Malloc(total, TEE_MALLOC_FILL_ZERO);
        if (!result_buffer) result = TEE_ERROR_OUT_OF_MEMORY;
    }
    if (result == TEE_SUCCESS)
        result =
            secret_operation(TEE_ALG_AES_CBC_NOPAD, encrypt ? TEE_MODE_ENCRYPT : TEE_MODE_DECRYPT,
                             TEE_TYPE_AES, key, VAULT_AES_KEY_SIZE, &operation);
    if (result == TEE_SUCCESS) {
        TEE_CipherInit(operation, iv, VAULT_AES_BLOCK_SIZE);
        written = total;
        result = TEE_CipherDoFinal(operation, in, total, result_buffer, &written);
        if (result != TEE_SUCCESS)
            result = failed(result);
        else if (written != total)
            result = TEE_ERROR_GENERIC;
    }
    if (result == TEE_SUCCESS) {
        if (encrypt)
            *out_length = total;
        else if (!unpadded_length(result_buffer, total, out_length))
            result = TEE_ERROR_BAD_FORMAT;
    }
    if (result == TEE_SUCCESS) {
        *out = result_buffer;
        result_buffer = NULL;
    }
    if (operation != TEE_HANDLE_NULL) TEE_FreeOperation(operation);
    vault_free_secret(padded, total);
    vault_free_secret(result_buffer, total);
    return result;
}

TEE_Result vault_aes_cmac(const uint8_t key[VAULT_AES_KEY_SIZE], const void* message,
                          uint32_t length, uint8_t mac[VAULT_CMAC_SIZE]) {
    TEE_OperationHandle operation = TEE_HANDLE_NULL;
    size_t size = VAULT_CMAC_SIZE;
    TEE_Result result = secret_operation(TEE_ALG_AES_CMAC, TEE_MODE_MAC, TEE_TYPE_AES, key,
                                         VAULT_AES_KEY_SIZE, &operation);

    if (result == TEE_SUCCESS) {
        TEE_MACInit(operation, NULL, 0);
        result = TEE_MACComputeFinal(operation, message, length, mac, &size);
        if (result != TEE_SUCCESS)
            result = failed(result);
        else if (size != VAULT_CMAC_SIZE)
            result = TEE_ERROR_GENERIC;
    }
    if (operation != TEE_HANDLE_NULL) TEE_FreeOperation(operation);
    return result;
}

TEE_Result vault_ecdsa_sign_digest(const uint8_t* key_der, uint32_t key_length,
                                   const uint8_t* digest, uint32_t digest_length,
                                   uint8_t signature[DER_ECDSA_SIGNATURE_MAX],
                                   uint32_t* signature_length) {
    TEE_OperationHandle operation = TEE_HANDLE_NULL;
    uint8_t rs[2 * DER_P256_SIZE];
    size_t size = sizeof(rs);
    struct der_ec_key key;
    TEE_Result result = read_ec_key(key_der, key_length, &key);

    TEE_MemFill(&key, 0, sizeof(key));
    if (result == TEE_SUCCESS && digest_length != VAULT_SHA256_SIZE)
        result = TEE_ERROR_BAD_PARAMETERS;
    if (result == TEE_SUCCESS)
        result = ec_operation(TEE_ALG_ECDSA_SHA256, TEE_MODE_SIGN, TEE_TYPE_ECDSA_KEYPAIR, key_der,
                              key_length, &operation);
    if (result == TEE_SUCCESS) {
        result = TEE_AsymmetricSignDigest(operation, NULL, 0, digest, digest_length, rs, &size);
        if (result != TEE_SUCCESS)
            result = failed(result);
        else if (size != sizeof(rs))
            result = TEE_ERROR_GENERIC;
    }
    if (result == TEE_SUCCESS) *signature_length = der_write_ecdsa_signature(rs, signature);
    if (operation != TEE_HANDLE_NULL) TEE_FreeOperation(operation);
    return result;
}

TEE_Result vault_ecdh(const uint8_t* key_der, uint32_t key_length, const uint8_t* peer_spki,
                      uint32_t peer_length, uint8_t secret[VAULT_ECDH_SECRET_SIZE]) {
    TEE_OperationHandle operation = TEE_HANDLE_NULL;
    TEE_ObjectHandle derived = TEE_HANDLE_NULL;
    TEE_Attribute peer[2];
    uint8_t x[DER_P256_SIZE];
    uint8_t y[DER_P256_SIZE];
    struct der_ec_key key;
    TEE_Result result = read_ec_key(key_der, key_length, &key);

    TEE_MemFill(&key, 0, sizeof(key));
    if (result == TEE_SUCCESS &&
        (!der_read_ec_public_key(peer_spki, peer_length, x, y) || !on_p256(x, y)))
        result = TEE_ERROR_BAD_FORMAT;
    if (result == TEE_SUCCESS)
        result = ec_operation(TEE_ALG_ECDH_DERIVE_SHARED_SECRET, TEE_MODE_DERIVE,
                              TEE_TYPE_ECDH_KEYPAIR, key_der, key_length, &operation);
    if (result == TEE_SUCCESS) {
        result = TEE_AllocateTransientObject(TEE_TYPE_GENERIC_SECRET, P256_BITS, &derived);
        if (result != TEE_SUCCESS) result = failed(result);
    }
    if (result == TEE_SUCCESS) {
        TEE_InitRefAttribute(&peer[0], TEE_ATTR_ECC_PUBLIC_VALUE_X, x, sizeof(x));
        TEE_InitRefAttribute(&peer[1], TEE_ATTR_ECC_PUBLIC_VALUE_Y, y, sizeof(y));
        TEE_DeriveKey(operation, peer, 2, derived);
        result = read_p256_value(derived, TEE_ATTR_SECRET_VALUE, secret);
        if (result != TEE_SUCCESS) result = failed(result);
    }
    if (derived != TEE_HANDLE_NULL) TEE_FreeTransientObject(derived);
    if (operation != TEE_HANDLE_NULL) TEE_FreeOperation(operation);
    return result;
}

/* HMAC-SHA-256 of the concatenation of two pieces. */
static TEE_Result hmac_sha256(const uint8_t key[VAULT_SHA256_SIZE], const void* first,
                              uint32_t first_length, const void* second, uint32_t second_length,
                              uint8_t mac[VAULT_SHA256_SIZE]) {
    TEE_OperationHandle operation = TEE_HANDLE_NULL;
    size_t size = VAULT_SHA256_SIZE;
    TEE_Result result = secret_operation(TEE_ALG_HMAC_SHA256, TEE_MODE_MAC, TEE_TYPE_HMAC_SHA256,
                                         key, VAULT_SHA256_SIZE, &operation);

    if (result == TEE_SUCCESS) {
        TEE_MACInit(operation, NULL, 0);
        TEE_MACUpdate(operation, first, first_length);
        result = TEE_MACComputeFinal(operation, second, second_length, mac, &size);
        if (result != TEE_SUCCESS)
            result = failed(result);
        else if (size != VAULT_SHA256_SIZE)
            result = TEE_ERROR_GENERIC;
    }
    if (operation != TEE_HANDLE_NULL) TEE_FreeOperation(operation);
    return result;
}

TEE_Result vault_hkdf_sha256(const uint8_t* secret, uint32_t secret_length, const char* info,
                             uint8_t key[VAULT_SHA256_SIZE]) {
    /* RFC 5869: no salt is a salt of one hash length of zeros; one block of output is T(1). */
    static const uint8_t no_salt[VAULT_SHA256_SIZE];
    static const uint8_t first_block = 1;
    uint8_t pseudorandom_key[VAULT_SHA256_SIZE];
    TEE_Result result = hmac_sha256(no_salt, secret, secret_length, NULL, 0, pseudorandom_key);

    if (result == TEE_SUCCESS)
        result = hmac_sha256(pseudorandom_key, info, (uint32_t)strlen(info), &first_block, 1, key);
    TEE_MemFill(pseudorandom_key, 0, sizeof(pseudorandom_key));
    return result;
}

TEE_Result vault_aes_gcm_open(const uint8_t key[VAULT_AES_KEY_SIZE], const uint8_t* nonce,
                              uint32_t nonce_length, const uint8_t* sealed, uint32_t sealed_length,
                              uint8_t** plain, uint32_t* plain_length) {
    TEE_OperationHandle operation = TEE_HANDLE_NULL;
    uint8_t tag[VAULT_GCM_TAG_SIZE];
    uint8_t* opened = NULL;
    uint32_t length;
    uint32_t capacity;
    size_t written = 0;
    TEE_Result result;

    *plain = NULL;
    *plain_length = 0;
    if (nonce_length == 0 || sealed_length < VAULT_GCM_TAG_SIZE) return TEE_ERROR_BAD_PARAMETERS;
    length = sealed_length - VAULT_GCM_TAG_SIZE;
    /* Room for a block more than the plaintext, and never an empty buffer. */
    capacity = sealed_length;
    TEE_MemMove(tag, sealed + length, VAULT_GCM_TAG_SIZE);

    opened = TEE_Malloc(capacity, TEE_MALLOC_FILL_ZERO);
    result = opened ? TEE_SUCCESS : TEE_ERROR_OUT_OF_MEMORY;
    if (result == TEE_SUCCESS)
        result = secret_operation(TEE_ALG_AES_GCM, TEE_MODE_DECRYPT, TEE_TYPE_AES, key,
                                  VAULT_AES_KEY_SIZE, &operation);
    if (result == TEE_SUCCESS) {
        result = TEE_AEInit(operation, nonce, nonce_length, VAULT_GCM_TAG_SIZE * 8, 0, length);
        if (result != TEE_SUCCESS) result = failed(result);
    }
    if (result == TEE_SUCCESS) {
        written = capacity;
        result = TEE_AEDecryptFinal(operation, sealed, length, opened, &written, tag,
                                    VAULT_GCM_TAG_SIZE);
        if (result == TEE_ERROR_MAC_INVALID)
            result = TEE_ERROR_SECURITY;
        else if (result != TEE_SUCCESS)
            result = failed(result);
        else if (written != length)
            result = TEE_ERROR_GENERIC;
    }
    if (result == TEE_SUCCESS) {
        *plain = opened;
        *plain_length = length;
        opened = NULL;
    }
    if (operation != TEE_HANDLE_NULL) TEE_FreeOperation(operation);
    vault_free_secret(opened, capacity);
    return result;
}
