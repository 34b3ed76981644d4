/*
 * GlobalPlatform TEE Client API, written from the public standard: its constant values, types and
 * public fields. The implementation-defined parts of TEEC_Context, TEEC_Session,
 * TEEC_SharedMemory and TEEC_Operation belong to this host implementation, which talks to the
 * host TEE daemon zel-vaultd.
 */
#ifndef TEE_CLIENT_API_H
#define TEE_CLIENT_API_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Standard allows any limit of at least 512 KiB. */
#define TEEC_CONFIG_SHAREDMEM_MAX_SIZE 0x800000u

typedef uint32_t TEEC_Result;

#define TEEC_SUCCESS 0x00000000u
#define TEEC_ERROR_GENERIC 0xFFFF0000u
#define TEEC_ERROR_ACCESS_DENIED 0xFFFF0001u
#define TEEC_ERROR_CANCEL 0xFFFF0002u
#define TEEC_ERROR_ACCESS_CONFLICT 0xFFFF0003u
#define TEEC_ERROR_EXCESS_DATA 0xFFFF0004u
#define TEEC_ERROR_BAD_FORMAT 0xFFFF0005u
#define TEEC_ERROR_BAD_PARAMETERS 0xFFFF0006u
#define TEEC_ERROR_BAD_STATE 0xFFFF0007u
#define TEEC_ERROR_ITEM_NOT_FOUND 0xFFFF0008u
#define TEEC_ERROR_NOT_IMPLEMENTED 0xFFFF0009u
#define TEEC_ERROR_NOT_SUPPORTED 0xFFFF000Au
#define TEEC_ERROR_NO_DATA 0xFFFF000Bu
#define TEEC_ERROR_OUT_OF_MEMORY 0xFFFF000Cu
#define TEEC_ERROR_BUSY 0xFFFF000Du
#define TEEC_ERROR_COMMUNICATION 0xFFFF000Eu
#define TEEC_ERROR_SECURITY 0xFFFF000Fu
#define TEEC_ERROR_SHORT_BUFFER 0xFFFF0010u
#define TEEC_ERROR_TARGET_DEAD 0xFFFF3024u

#define TEEC_ORIGIN_API 0x00000001u
#define TEEC_ORIGIN_COMMS 0x00000002u
#define TEEC_ORIGIN_TEE 0x00000003u
#define TEEC_ORIGIN_TRUSTED_APP 0x00000004u

#define TEEC_LOGIN_PUBLIC 0x00000000u
#define TEEC_LOGIN_USER 0x00000001u
#define TEEC_LOGIN_GROUP 0x00000002u
#define TEEC_LOGIN_APPLICATION 0x00000004u
#define TEEC_LOGIN_USER_APPLICATION 0x00000005u
#define TEEC_LOGIN_GROUP_APPLICATION 0x00000006u

#define TEEC_MEM_INPUT 0x00000001u
#define TEEC_MEM_OUTPUT 0x00000002u

#define TEEC_NONE 0x0u
#define TEEC_VALUE_INPUT 0x1u
#define TEEC_VALUE_OUTPUT 0x2u
#define TEEC_VALUE_INOUT 0x3u
#define TEEC_MEMREF_TEMP_INPUT 0x5u
#define TEEC_MEMREF_TEMP_OUTPUT 0x6u
#define TEEC_MEMREF_TEMP_INOUT 0x7u
#define TEEC_MEMREF_WHOLE 0xCu
#define TEEC_MEMREF_PARTIAL_INPUT 0xDu
#define TEEC_MEMREF_PARTIAL_OUTPUT 0xEu
#define TEEC_MEMREF_PARTIAL_INOUT 0xFu

#define TEEC_PARAM_TYPES(p0, p1, p2, p3) \
    ((uint32_t)(p0) | ((uint32_t)(p1) << 4) | ((uint32_t)(p2) << 8) | ((uint32_t)(p3) << 12))
#define TEEC_PARAM_TYPE_GET(types, i) (((types) >> ((i)*4)) & 0xFu)

typedef struct {
    uint32_t timeLow;
    uint16_t timeMid;
    uint16_t timeHiAndVersion;
    uint8_t clockSeqAndNode[8];
} TEEC_UUID;

typedef struct {
    /* Implementation: the connection to the TEE daemon. */
    struct TeecConnection* imp;
} TEEC_Context;

typedef struct {
    /* Implementation. */
    TEEC_Context* context;
    uint32_t id;
} TEEC_Session;

typedef struct {
    void* buffer;
    size_t size;
    uint32_t flags;
    /* Implementation. */
    TEEC_Context* context;
    uint32_t id;
    size_t mappedSize;
} TEEC_SharedMemory;

typedef struct {
    void* buffer;
    size_t size;
} TEEC_TempMemoryReference;

typedef struct {
    TEEC_SharedMemory* parent;
    size_t size;
    size_t offset;
} TEEC_RegisteredMemoryReference;

typedef struct {
    uint32_t a;
    uint32_t b;
} TEEC_Value;

typedef union {
    TEEC_TempMemoryReference tmpref;
    TEEC_RegisteredMemoryReference memref;
    TEEC_Value value;
} TEEC_Parameter;

typedef struct {
    uint32_t started;
    uint32_t paramTypes;
    TEEC_Parameter params[4];
} TEEC_Operation;

/* A NULL name selects the default TEE; any other name is the path of a zel-vaultd socket. */
TEEC_Result TEEC_InitializeContext(const char* name, TEEC_Context* context);
void TEEC_FinalizeContext(TEEC_Context* context);

/* Registration of caller-owned memory is not available on this host: TEEC_ERROR_NOT_SUPPORTED. */
TEEC_Result TEEC_RegisterSharedMemory(TEEC_Context* context, TEEC_SharedMemory* sharedMem);
TEEC_Result TEEC_AllocateSharedMemory(TEEC_Context* context, TEEC_SharedMemory* sharedMem);
void TEEC_ReleaseSharedMemory(TEEC_SharedMemory* sharedMem);

TEEC_Result TEEC_OpenSession(TEEC_Context* context, TEEC_Session* session,
                             const TEEC_UUID* destination, uint32_t connectionMethod,
                             const void* connectionData, TEEC_Operation* operation,
                             uint32_t* returnOrigin);
void TEEC_CloseSession(TEEC_Session* session);

TEEC_Result TEEC_InvokeCommand(TEEC_Session* session, uint32_t commandID, TEEC_Operation* operation,
                               uint32_t* returnOrigin);

/* Operations here are never cancellable; the call does nothing. */
void TEEC_RequestCancellation(TEEC_Operation* operation);

#ifdef __cplusplus
}
#endif

#endif /* TEE_CLIENT_API_H */
