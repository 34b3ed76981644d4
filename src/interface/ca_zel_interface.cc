#include "interface/ca_zel_interface.h"

#include "interface/general_command.h"
#include "interface/zel_ta_ids.h"

using zel::BufferOut;
using zel::runGeneralCommand;
using zel::WsmField;
namespace cmd = zel::cmd;

CaZelInterface::CaZelInterface(TEEC_UUID ta) : uuid(ta) {}

int32_t CaZelInterface::zel_put(int index, const unsigned char* data, unsigned int dataSize) {
    return runGeneralCommand(
        uuid, cmd::zel_put, !data || dataSize == 0,
        {WsmField::Int(index), WsmField::Uint(dataSize), WsmField::Blob(data, dataSize)});
}

int32_t CaZelInterface::zel_get(int index, unsigned char** data, unsigned int* dataSize) {
    return runGeneralCommand(uuid, cmd::zel_get, false, {WsmField::Int(index)},
                             {BufferOut{data, dataSize}});
}

int32_t CaZelInterface::zel_delete(int index) {
    return runGeneralCommand(uuid, cmd::zel_delete, false, {WsmField::Int(index)});
}

int32_t CaZelInterface::zel_deleteKey(int index) {
    return runGeneralCommand(uuid, cmd::zel_deleteKey, false, {WsmField::Int(index)});
}

int32_t CaZelInterface::zel_checkDataExistence(int index, int type) {
    return runGeneralCommand(uuid, cmd::zel_checkDataExistence, false,
                             {WsmField::Int(index), WsmField::Int(type)});
}

int32_t CaZelInterface::zel_storeKey(int index, int keytype, unsigned char* pDataBuffer,
                                     unsigned int fkpKeySize) {
    return runGeneralCommand(uuid, cmd::zel_storeKey, !pDataBuffer || fkpKeySize == 0,
                             {WsmField::Int(index), WsmField::Int(keytype),
                              WsmField::Uint(fkpKeySize), WsmField::Blob(pDataBuffer, fkpKeySize)});
}

int32_t CaZelInterface::zel_getHash(int index, int type, unsigned char** hash,
                                    unsigned int* hashSize) {
    return runGeneralCommand(uuid, cmd::zel_getHash, false,
                             {WsmField::Int(index), WsmField::Int(type)},
                             {BufferOut{hash, hashSize}});
}

int32_t CaZelInterface::zel_openSession() {
    return runGeneralCommand(uuid, cmd::zel_openSession, false, {});
}

int32_t CaZelInterface::zel_compareData(int index, unsigned char* data, unsigned int dataSize) {
    return runGeneralCommand(
        uuid, cmd::zel_compareData, false,
        {WsmField::Int(index), WsmField::Uint(dataSize), WsmField::Blob(data, dataSize)});
}

int32_t CaZelInterface::zel_generateKey(int index, int key_opt) {
    return runGeneralCommand(uuid, cmd::zel_generateKey, false,
                             {WsmField::Int(index), WsmField::Int(key_opt)});
}

int32_t CaZelInterface::zel_getSlotInfo(int index, unsigned char* status, unsigned int* dataSize) {
    zel::CommandCall call =
        zel::generalCall(uuid, cmd::zel_getSlotInfo, false, {WsmField::Int(index)}, true);
    if (call.status() != 0) return call.status();
    // The reads are not checked: whatever the TA wrote, the command has succeeded.
    int reported = 0;
    unsigned int size = 0;
    CQeruWsm& reply = call.reply();
    reply.GetInt(&reported);
    reply.GetUint(&size);
    *status = static_cast<unsigned char>(reported & 0xFF);
    *dataSize = size;
    return 0;
}

int32_t CaZelInterface::zel_getCMACwithHubToken(int index, int type, unsigned char* message,
                                                unsigned int messageSize, unsigned char** cmac,
                                                unsigned int* cmacSize) {
    return runGeneralCommand(uuid, cmd::zel_getCMACwithHubToken, false,
                             {WsmField::Int(index), WsmField::Int(type),
                              WsmField::Uint(messageSize), WsmField::Blob(message, messageSize)},
                             {BufferOut{cmac, cmacSize}});
}

int32_t CaZelInterface::zel_ecdsaCreateSignature(int index, int type, unsigned char* message,
                                                 unsigned int messageSize,
                                                 unsigned char** signature,
                                                 unsigned int* signatureSize) {
    return runGeneralCommand(uuid, cmd::zel_ecdsaCreateSignature, !message || messageSize == 0,
                             {WsmField::Int(index), WsmField::Int(type),
                              WsmField::Uint(messageSize), WsmField::Blob(message, messageSize)},
                             {BufferOut{signature, signatureSize}});
}

int32_t CaZelInterface::zel_decryptByKey(int index, int skIndex, int padding, int key_size,
                                         int aesmode, unsigned char* encData,
                                         unsigned int encDataSize) {
    return runGeneralCommand(uuid, cmd::zel_decryptByKey, !encData || encDataSize == 0,
                             {WsmField::Int(index), WsmField::Int(skIndex), WsmField::Int(padding),
                              WsmField::Int(key_size), WsmField::Int(aesmode),
                              WsmField::Uint(encDataSize), WsmField::Blob(encData, encDataSize)});
}

int32_t CaZelInterface::zel_decryptHubToken(int c_index, int storeIndex, unsigned char* encHubToken,
                                            unsigned int encHubTokenSize, unsigned char* iv,
                                            unsigned int ivSize, unsigned char* cloudPubkey,
                                            unsigned int cloudPubkeySize) {
    const bool empty = !encHubToken || encHubTokenSize == 0 || !iv || ivSize == 0 || !cloudPubkey ||
                       cloudPubkeySize == 0;
    return runGeneralCommand(
        uuid, cmd::zel_decryptHubToken, empty,
        {WsmField::Int(c_index), WsmField::Int(storeIndex), WsmField::Uint(encHubTokenSize),
         WsmField::Blob(encHubToken, encHubTokenSize), WsmField::Uint(ivSize),
         WsmField::Blob(iv, ivSize), WsmField::Uint(cloudPubkeySize),
         WsmField::Blob(cloudPubkey, cloudPubkeySize)});
}

int32_t CaZelInterface::zel_genAuthKey(int c_index, unsigned char* pubkey, unsigned int pubkeySize,
                                       unsigned char** sharedKey, unsigned int* sharedKeySize) {
    return runGeneralCommand(
        uuid, cmd::zel_genAuthKey, !pubkey || pubkeySize == 0,
        {WsmField::Int(c_index), WsmField::Uint(pubkeySize), WsmField::Blob(pubkey, pubkeySize)},
        {BufferOut{sharedKey, sharedKeySize}});
}

int32_t CaZelInterface::zel_getHubID(int c_index, unsigned char** hubID, unsigned int* hubIDSize) {
    return runGeneralCommand(uuid, cmd::zel_getHubID, false, {WsmField::Int(c_index)},
                             {BufferOut{hubID, hubIDSize}});
}

int32_t CaZelInterface::zel_getCmacKey(int index, unsigned char** rxKey, unsigned int* rxKeySize,
                                       unsigned char** txKey, unsigned int* txKeySize) {
    return runGeneralCommand(uuid, cmd::zel_getCmacKey, false, {WsmField::Int(index)},
                             {BufferOut{rxKey, rxKeySize}, BufferOut{txKey, txKeySize}},
                             "Data null from zelTA");
}

int32_t CaZelInterface::zel_aesEncrypt(int index, int padding, int keySize, int aesMode,
                                       unsigned char* iv, unsigned int ivSize, unsigned char* data,
                                       unsigned int dataSize, unsigned char** encData,
                                       unsigned int* encDataSize) {
    return runGeneralCommand(
        uuid, cmd::zel_aesEncrypt, false,
        {WsmField::Int(index), WsmField::Int(padding), WsmField::Int(keySize),
         WsmField::Int(aesMode), WsmField::Uint(ivSize), WsmField::Blob(iv, ivSize),
         WsmField::Uint(dataSize), WsmField::Blob(data, dataSize)},
        {BufferOut{encData, encDataSize}});
}

int32_t CaZelInterface::zel_aesDecrypt(int index, int padding, int keySize, int aesMode,
                                       unsigned char* iv, unsigned int ivSize, unsigned char* data,
                                       unsigned int dataSize, unsigned char** decData,
                                       unsigned int* decDataSize) {
    return runGeneralCommand(
        uuid, cmd::zel_aesDecrypt, false,
        {WsmField::Int(index), WsmField::Int(padding), WsmField::Int(keySize),
         WsmField::Int(aesMode), WsmField::Uint(ivSize), WsmField::Blob(iv, ivSize),
         WsmField::Uint(dataSize), WsmField::Blob(data, dataSize)},
        {BufferOut{decData, decDataSize}});
}
