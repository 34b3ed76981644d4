// The test data for every TA command: fixed vectors compiled in as hex text (test_vectors.h,
// generated) or random bytes, selected by the harness's data type.
//
// Data types: 0 random bytes, each buffer filled to exactly its given size; 1 the first set of
// fixed vectors (slot data, the device's EC private key, hub and signing inputs, the RSA public-key
// text); 2 the second set (AES IV, plaintext, ciphertext, the 256-bit key, the five AES test
// cases). Each function accepts only the types listed beside it; anything else prints "Unknown
// data type". The caller owns every buffer and passes its capacity; a fixed vector is written
// whole when it fits and not at all otherwise (no line, TEEC_ERROR_GENERIC). With several buffers
// they are filled in parameter order and the first failure leaves the later ones untouched; nothing
// is rolled back. Results are TEEC_SUCCESS or TEEC_ERROR_GENERIC; create_zel_data returns 0 / -1.
// Vectors are converted on every call and nothing is kept between calls.
#pragma once

#include <tee_client_api.h>

#include <cstdint>

#include "zel_export.h"

class ZEL_TC_API DataPlaceHolder {
  public:
    // The key types fill_zel_storeKey reports, as the TA's store-key command expects them.
    static constexpr int kEcPrivateKeyType = 5;
    static constexpr int kAes256KeyType = 6;

    DataPlaceHolder() = delete;

    // 0, 1: 241 bytes of slot data.
    static TEEC_Result fill_zel_put(int32_t dataType, unsigned char* data, unsigned int size);
    // 1: the device's P-256 private key (RFC 5915 DER, 121 bytes), *keyType = 5; 2: the AES-256
    // key (32 bytes), *keyType = 6; for both *size is the capacity in and the key's length out.
    // 0: *size random bytes, *keyType and *size left alone.
    static TEEC_Result fill_zel_storeKey(int32_t dataType, int* keyType, unsigned char* key,
                                         unsigned int* size);
    // 2: the same 32 bytes as the type-2 key of fill_zel_storeKey.
    static TEEC_Result fill_zel_compareData(int32_t dataType, unsigned char* data,
                                            unsigned int size);
    // 0, 2: IV (16) and plaintext (32).
    static TEEC_Result fill_zel_aesEncrypt(int32_t dataType, unsigned char* iv, unsigned int ivSize,
                                           unsigned char* data, unsigned int dataSize);
    // 0, 2: the same IV and the ciphertext of fill_zel_aesEncrypt's plaintext (48).
    static TEEC_Result fill_zel_aesDecrypt(int32_t dataType, unsigned char* iv, unsigned int ivSize,
                                           unsigned char* encData, unsigned int encDataSize);
    // 0, 1: message to authenticate (32).
    static TEEC_Result fill_zel_getCMACwithHubToken(int32_t dataType, unsigned char* message,
                                                    unsigned int size);
    // 0, 1: the cloud's P-256 public key, DER SubjectPublicKeyInfo (91).
    static TEEC_Result fill_zel_genAuthKey(int32_t dataType, unsigned char* publicKey,
                                           unsigned int size);
    // 0, 1: encrypted hub token (241), its IV (16) and the cloud public key of
    // fill_zel_genAuthKey (91).
    static TEEC_Result fill_zel_decryptHubToken(int32_t dataType, unsigned char* encToken,
                                                unsigned int encTokenSize, unsigned char* iv,
                                                unsigned int ivSize, unsigned char* cloudPublicKey,
                                                unsigned int cloudPublicKeySize);
    // 0, 1: digest to sign (32).
    static TEEC_Result fill_zel_ecdsaCreateSignature(int32_t dataType, unsigned char* message,
                                                     unsigned int size);
    // 0, 1: input for decryption with a stored key (146).
    static TEEC_Result fill_zel_decryptByKey(int32_t dataType, unsigned char* encData,
                                             unsigned int size);
    // 1 only: the RSA-2048 public key as 540 characters of hex text, copied like strncpy: cut
    // without a terminator below 540, NUL-padded above. Always TEEC_SUCCESS for type 1.
    static TEEC_Result fill_zel_publicKey(int32_t dataType, unsigned char* text, unsigned int size);
    // 2 only, tcIndex 1 to 5 ("Wrong TC index" otherwise): the shared plaintext (32), the case's
    // ciphertext (48), the shared IV (16) and the case's key (32). A buffer too small prints
    // "hex_str_2_bin data error", "... encData error", "... iv error" or "... key error".
    static TEEC_Result fill_zel_enc_dec_tc_scenario(int32_t dataType, int tcIndex,
                                                    unsigned char* data, unsigned int dataSize,
                                                    unsigned char* encData,
                                                    unsigned int encDataSize, unsigned char* iv,
                                                    unsigned int ivSize, unsigned char* key,
                                                    unsigned int keySize);
};

// Converts hexLength characters of hex into exactly outSize bytes of out, which is written only on
// success (0). Fails with -1 and one line: "out_size too small" followed by outSize when outSize is
// below hexLength / 2, "hex_str_2_bin error" for text that does not convert, "temp_buffer_size
// error" when the text is shorter than outSize bytes.
ZEL_TC_API int create_zel_data(unsigned char* out, unsigned int outSize, const char* hex,
                               unsigned int hexLength);
