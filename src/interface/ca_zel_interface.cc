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
    zel::GeneralCall call(uuid, cmd::zel_getSlotInfo, false, {WsmField::Int(index)}, true);
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
