// The general commands of the vault TA, one method each. The object holds only the TA's UUID;
// every call opens its own connection, sends one command and closes it again.
//
// Results: 0 on success; -13 when a required input buffer is null or empty (nothing is sent);
// 0xFFFF000B when the request could not be written or a reply buffer is missing or empty;
// 0xFFFF0000 when a command that reads a reply failed to invoke or a copy could not be
// allocated; otherwise the TEE's own result of a command without reply. Buffers handed out
// through unsigned char** are malloc'ed at the reported length and belong to the caller, who
// frees them.
#pragma once

#include <tee_client_api.h>

#include <cstdint>

#include "zel_export.h"

class ZEL_TC_API CaZelInterface {
  public:
    explicit CaZelInterface(TEEC_UUID uuid);
    ~CaZelInterface() = default;

    int32_t zel_put(int index, const unsigned char* data, unsigned int dataSize);
    int32_t zel_get(int index, unsigned char** data, unsigned int* dataSize);
    int32_t zel_delete(int index);
    int32_t zel_deleteKey(int index);
    int32_t zel_checkDataExistence(int index, int type);
    int32_t zel_storeKey(int index, int keytype, unsigned char* pDataBuffer,
                         unsigned int fkpKeySize);
    int32_t zel_getHash(int index, int type, unsigned char** hash, unsigned int* hashSize);
    int32_t zel_openSession();
    int32_t zel_compareData(int index, unsigned char* data, unsigned int dataSize);
    int32_t zel_generateKey(int index, int key_opt);
    // *status receives the low 8 bits of the status the TA reports.
    int32_t zel_getSlotInfo(int index, unsigned char* status, unsigned int* dataSize);

    int32_t zel_getCMACwithHubToken(int index, int type, unsigned char* message,
                                    unsigned int messageSize, unsigned char** cmac,
                                    unsigned int* cmacSize);
    int32_t zel_ecdsaCreateSignature(int index, int type, unsigned char* message,
                                     unsigned int messageSize, unsigned char** signature,
                                     unsigned int* signatureSize);
    int32_t zel_decryptByKey(int index, int skIndex, int padding, int key_size, int aesmode,
                             unsigned char* encData, unsigned int encDataSize);
    int32_t zel_decryptHubToken(int c_index, int storeIndex, unsigned char* encHubToken,
                                unsigned int encHubTokenSize, unsigned char* iv,
                                unsigned int ivSize, unsigned char* cloudPubkey,
                                unsigned int cloudPubkeySize);
    int32_t zel_genAuthKey(int c_index, unsigned char* pubkey, unsigned int pubkeySize,
                           unsigned char** sharedKey, unsigned int* sharedKeySize);
    int32_t zel_getHubID(int c_index, unsigned char** hubID, unsigned int* hubIDSize);
    // Both keys or neither: an empty one hands out nothing. If only one copy could be allocated
    // it is handed out all the same and the caller frees it.
    int32_t zel_getCmacKey(int index, unsigned char** rxKey, unsigned int* rxKeySize,
                           unsigned char** txKey, unsigned int* txKeySize);
    int32_t zel_aesEncrypt(int index, int padding, int keySize, int aesMode, unsigned char* iv,
                           unsigned int ivSize, unsigned char* data, unsigned int dataSize,
                           unsigned char** encData, unsigned int* encDataSize);
    int32_t zel_aesDecrypt(int index, int padding, int keySize, int aesMode, unsigned char* iv,
                           unsigned int ivSize, unsigned char* data, unsigned int dataSize,
                           unsigned char** decData, unsigned int* decDataSize);

  private:
    TEEC_UUID uuid;
};
