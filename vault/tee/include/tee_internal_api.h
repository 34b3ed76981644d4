/*
 * GlobalPlatform TEE Internal Core API v1.3, the part zel-vaultd provides to the TAs it loads:
 * memory, transient and persistent (data) objects, the cryptographic operations below, and the
 * big-integer functions a TA needs to check an elliptic-curve point. A TA that calls anything
 * else does not compile against this header, rather than failing when it is loaded.
 *
 * The daemon resolves these symbols for the TAs it loads, so they keep default visibility even
 * in a build that hides everything else.
 */
#ifndef TEE_INTERNAL_API_H
#define TEE_INTERNAL_API_H

#include "tee_api_defines.h"
#include "tee_api_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* Panics */
void TEE_Panic(TEE_Result panicCode) __attribute__((noreturn));

/* Memory */
void* TEE_Malloc(size_t size, uint32_t hint);
void TEE_Free(void* buffer);
void TEE_MemMove(void* dest, const void* src, size_t size);
int32_t TEE_MemCompare(const void* buffer1, const void* buffer2, size_t size);
void TEE_MemFill(void* buffer, uint32_t x, size_t size);

/* Objects */
TEE_Result TEE_GetObjectInfo1(TEE_ObjectHandle object, TEE_ObjectInfo* objectInfo);
TEE_Result TEE_GetObjectBufferAttribute(TEE_ObjectHandle object, uint32_t attributeID, void* buffer,
                                        size_t* size);
void TEE_CloseObject(TEE_ObjectHandle object);

/* Transient objects */
TEE_Result TEE_AllocateTransientObject(TEE_ObjectType objectType, uint32_t maxObjectSize,
                                       TEE_ObjectHandle* object);
void TEE_FreeTransientObject(TEE_ObjectHandle object);
void TEE_ResetTransientObject(TEE_ObjectHandle object);
TEE_Result TEE_PopulateTransientObject(TEE_ObjectHandle object, const TEE_Attribute* attrs,
                                       uint32_t attrCount);
void TEE_InitRefAttribute(TEE_Attribute* attr, uint32_t attributeID, const void* buffer,
                          size_t length);
void TEE_InitValueAttribute(TEE_Attribute* attr, uint32_t attributeID, uint32_t a, uint32_t b);
TEE_Result TEE_GenerateKey(TEE_ObjectHandle object, uint32_t keySize, const TEE_Attribute* params,
                           uint32_t paramCount);

/* Persistent objects (data objects only) */
TEE_Result TEE_OpenPersistentObject(uint32_t storageID, const void* objectID, size_t objectIDLen,
                                    uint32_t flags, TEE_ObjectHandle* object);
TEE_Result TEE_CreatePersistentObject(uint32_t storageID, const void* objectID, size_t objectIDLen,
                                      uint32_t flags, TEE_ObjectHandle attributes,
                                      const void* initialData, size_t initialDataLen,
                                      TEE_ObjectHandle* object);
TEE_Result TEE_CloseAndDeletePersistentObject1(TEE_ObjectHandle object);
TEE_Result TEE_ReadObjectData(TEE_ObjectHandle object, void* buffer, size_t size, size_t* count);

/* Operations */
TEE_Result TEE_AllocateOperation(TEE_OperationHandle* operation, uint32_t algorithm, uint32_t mode,
                                 uint32_t maxKeySize);
void TEE_FreeOperation(TEE_OperationHandle operation);
void TEE_ResetOperation(TEE_OperationHandle operation);
TEE_Result TEE_SetOperationKey(TEE_OperationHandle operation, TEE_ObjectHandle key);

void TEE_DigestUpdate(TEE_OperationHandle operation, const void* chunk, size_t chunkSize);
TEE_Result TEE_DigestDoFinal(TEE_OperationHandle operation, const void* chunk, size_t chunkLen,
                             void* hash, size_t* hashLen);

void TEE_CipherInit(TEE_OperationHandle operation, const void* IV, size_t IVLen);
TEE_Result TEE_CipherUpdate(TEE_OperationHandle operation, const void* srcData, size_t srcLen,
                            void* destData, size_t* destLen);
TEE_Result TEE_CipherDoFinal(TEE_OperationHandle operation, const void* srcData, size_t srcLen,
                             void* destData, size_t* destLen);

void TEE_MACInit(TEE_OperationHandle operation, const void* IV, size_t IVLen);
void TEE_MACUpdate(TEE_OperationHandle operation, const void* chunk, size_t chunkSize);
TEE_Result TEE_MACComputeFinal(TEE_OperationHandle operation, const void* message,
                               size_t messageLen, void* mac, size_t* macLen);

TEE_Result TEE_AEInit(TEE_OperationHandle operation, const void* nonce, size_t nonceLen,
                      uint32_t tagLen, size_t AADLen, size_t payloadLen);
void TEE_AEUpdateAAD(TEE_OperationHandle operation, const void* AADdata, size_t AADdataLen);
TEE_Result TEE_AEUpdate(TEE_OperationHandle operation, const void* srcData, size_t srcLen,
                        void* destData, size_t* destLen);
TEE_Result TEE_AEEncryptFinal(TEE_OperationHandle operation, const void* srcData, size_t srcLen,
                              void* destData, size_t* destLen, void* tag, size_t* tagLen);
TEE_Result TEE_AEDecryptFinal(TEE_OperationHandle operation, const void* srcData, size_t srcLen,
                              void* destData, size_t* destLen, void* tag, size_t tagLen);

TEE_Result TEE_AsymmetricSignDigest(TEE_OperationHandle operation, const TEE_Attribute* params,
                                    uint32_t paramCount, const void* digest, size_t digestLen,
                                    void* signature, size_t* signatureLen);
void TEE_DeriveKey(TEE_OperationHandle operation, const TEE_Attribute* params, uint32_t paramCount,
                   TEE_ObjectHandle derivedKey);
void TEE_GenerateRandom(void* randomBuffer, size_t randomBufferLen);

/* Big integers */
void TEE_BigIntInit(TEE_BigInt* bigInt, size_t len);
TEE_Result TEE_BigIntConvertFromOctetString(TEE_BigInt* dest, const uint8_t* buffer,
                                            size_t bufferLen, int32_t sign);
TEE_Result TEE_BigIntConvertToOctetString(uint8_t* buffer, size_t* bufferLen,
                                          const TEE_BigInt* bigInt);
void TEE_BigIntConvertFromS32(TEE_BigInt* dest, int32_t shortVal);
int32_t TEE_BigIntCmp(const TEE_BigInt* op1, const TEE_BigInt* op2);
void TEE_BigIntAddMod(TEE_BigInt* dest, const TEE_BigInt* op1, const TEE_BigInt* op2,
                      const TEE_BigInt* n);
void TEE_BigIntSubMod(TEE_BigInt* dest, const TEE_BigInt* op1, const TEE_BigInt* op2,
                      const TEE_BigInt* n);
void TEE_BigIntMulMod(TEE_BigInt* dest, const TEE_BigInt* op1, const TEE_BigInt* op2,
                      const TEE_BigInt* n);

/* What a TA provides */
TEE_Result TA_CreateEntryPoint(void);
void TA_DestroyEntryPoint(void);
TEE_Result TA_OpenSessionEntryPoint(uint32_t paramTypes, TEE_Param params[TEE_NUM_PARAMS],
                                    void** sessionContext);
void TA_CloseSessionEntryPoint(void* sessionContext);
TEE_Result TA_InvokeCommandEntryPoint(void* sessionContext, uint32_t commandID, uint32_t paramTypes,
                                      TEE_Param params[TEE_NUM_PARAMS]);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif /* TEE_INTERNAL_API_H */
