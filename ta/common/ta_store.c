#include "ta_store.h"

#include <string.h>

#define READ_FLAGS TEE_DATA_FLAG_ACCESS_READ
#define WRITE_FLAGS \
    (TEE_DATA_FLAG_ACCESS_READ | TEE_DATA_FLAG_ACCESS_WRITE | TEE_DATA_FLAG_ACCESS_WRITE_META)

/* The one place where the storage's answer becomes the vault's. */
static TEE_Result answer(TEE_Result storage) {
    switch (storage) {
        case TEE_SUCCESS:
        case TEE_ERROR_ITEM_NOT_FOUND:
        case TEE_ERROR_STORAGE_NO_SPACE:
        case TEE_ERROR_OUT_OF_MEMORY:
        case TEE_ERROR_BUSY:
            return storage;
        case TEE_ERROR_CORRUPT_OBJECT:
        case TEE_ERROR_CORRUPT_OBJECT_2:
            return TEE_ERROR_BAD_STATE;
        case TEE_ERROR_ACCESS_CONFLICT:
            return TEE_ERROR_BUSY;
        default:
            return TEE_ERROR_GENERIC;
    }
}

void ta_store_id(char id[TA_STORE_ID_SIZE], const char* kind, uint32_t index) {
    size_t length = strlen(kind);
    if (length > TA_STORE_ID_SIZE - 12) length = TA_STORE_ID_SIZE - 12;
    memcpy(id, kind, length);
    id[length++] = '.';
    char digits[10];
    size_t count = 0;
    do digits[count++] = (char)('0' + index % 10);
    while ((index /= 10) != 0);
    while (count) id[length++] = digits[--count];
    id[length] = '\0';
}

TEE_Result ta_store_read(const char* id, uint8_t** data, uint32_t* length) {
    TEE_ObjectHandle object = TEE_HANDLE_NULL;
    TEE_ObjectInfo info;
    uint8_t* buffer = NULL;
    size_t read = 0;
    *data = NULL;
    *length = 0;
    TEE_Result result =
        TEE_OpenPersistentObject(TEE_STORAGE_PRIVATE, id, strlen(id), READ_FLAGS, &object);
    if (result == TEE_SUCCESS) result = TEE_GetObjectInfo1(object, &info);
    if (result == TEE_SUCCESS && info.dataSize > 0) {
        buffer = TEE_Malloc(info.dataSize, 0);
        result = buffer ? TEE_ReadObjectData(object, buffer, info.dataSize, &read)
                        : TEE_ERROR_OUT_OF_MEMORY;
        if (result == TEE_SUCCESS && read != info.dataSize) result = TEE_ERROR_CORRUPT_OBJECT;
    }
    if (result == TEE_SUCCESS) {
        *data = buffer;
        *length = (uint32_t)read;
        buffer = NULL;
    }
    TEE_Free(buffer);
    if (object != TEE_HANDLE_NULL) TEE_CloseObject(object);
    return answer(result);
}

TEE_Result ta_store_write(const char* id, const void* data, uint32_t length) {
    TEE_ObjectHandle object = TEE_HANDLE_NULL;
    const TEE_Result result = TEE_CreatePersistentObject(TEE_STORAGE_PRIVATE, id, strlen(id),
                                                         WRITE_FLAGS | TEE_DATA_FLAG_OVERWRITE,
                                                         TEE_HANDLE_NULL, data, length, &object);
    if (object != TEE_HANDLE_NULL) TEE_CloseObject(object);
    return answer(result);
}

TEE_Result ta_store_erase(const char* id) {
    TEE_ObjectHandle object = TEE_HANDLE_NULL;
    TEE_Result result =
        TEE_OpenPersistentObject(TEE_STORAGE_PRIVATE, id, strlen(id), WRITE_FLAGS, &object);
    if (result == TEE_SUCCESS) result = TEE_CloseAndDeletePersistentObject1(object);
    return answer(result);
}
