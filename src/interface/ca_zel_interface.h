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

private:
    TEEC_UUID uuid;
};
