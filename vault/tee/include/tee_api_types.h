/*
 * GlobalPlatform TEE Internal Core API v1.3: types, written from the public standard (sizes as
 * size_t, as in v1.2 and later). The handle types point to structures each implementation keeps
 * to itself; a TA only ever holds and passes them.
 */
#ifndef TEE_API_TYPES_H
#define TEE_API_TYPES_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "tee_api_defines.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t TEE_Result;

typedef struct {
    uint32_t timeLow;
    uint16_t timeMid;
    uint16_t timeHiAndVersion;
    uint8_t clockSeqAndNode[8];
} TEE_UUID;

typedef struct {
    uint32_t login;
    TEE_UUID uuid;
} TEE_Identity;

typedef union {
    struct {
        void* buffer;
        size_t size;
    } memref;
    struct {
        uint32_t a;
        uint32_t b;
    } value;
} TEE_Param;

typedef struct zel_tee_object* TEE_ObjectHandle;
typedef struct zel_tee_operation* TEE_OperationHandle;
typedef struct zel_tee_object_enum* TEE_ObjectEnumHandle;
typedef struct zel_tee_property_set* TEE_PropSetHandle;
typedef struct zel_tee_ta_session* TEE_TASessionHandle;

typedef uint32_t TEE_ObjectType;
typedef uint32_t TEE_OperationMode;
typedef uint32_t TEE_Whence;
typedef uint32_t TEE_ErrorOrigin;

typedef struct {
    uint32_t objectType;
    uint32_t objectSize;
    uint32_t maxObjectSize;
    uint32_t objectUsage;
    size_t dataSize;
    size_t dataPosition;
    uint32_t handleFlags;
} TEE_ObjectInfo;

typedef struct {
    uint32_t attributeID;
    union {
        struct {
            void* buffer;
            size_t length;
        } ref;
        struct {
            uint32_t a;
            uint32_t b;
        } value;
    } content;
} TEE_Attribute;

typedef struct {
    uint32_t algorithm;
    uint32_t operationClass;
    uint32_t mode;
    uint32_t digestLength;
    uint32_t maxKeySize;
    uint32_t keySize;
    uint32_t requiredKeyUsage;
    uint32_t handleState;
} TEE_OperationInfo;

typedef struct {
    uint32_t seconds;
    uint32_t millis;
} TEE_Time;

typedef uint32_t TEE_BigInt;

#ifdef __cplusplus
}
#endif

#endif /* TEE_API_TYPES_H */
