#include "managers/ca_manager.h"

#include <cstdlib>

#include "interface/ca_zel_interface.h"
#include "interface/general_command.h"
#include "interface/zel_ta_ids.h"
#include "support/byte_helpers.h"
#include "support/data_place_holder.h"
#include "transport/log_line.h"

using zel::logLine;
namespace cmd = zel::cmd;

namespace {

constexpr unsigned int kPutDataSize = 241;
constexpr unsigned int kKeyBufferSize = 121;
constexpr int kHashType = 0;
constexpr int kExistenceType = 0;
constexpr int kKeyOption = 2;
constexpr int kPresetKeyType = 5;
constexpr int32_t kGeneric = static_cast<int32_t>(TEEC_ERROR_GENERIC);

// The dispatch of SendDataToZel: one row per scenario, keyed by the command's id.
struct Scenario {
    uint32_t command;
    int32_t (CaManager::*run)();
};

constexpr Scenario kScenarios[] = {
    {cmd::zel_put, &CaManager::zel_put},
    {cmd::zel_get, &CaManager::zel_get},
    {cmd::zel_delete, &CaManager::zel_delete},
    {cmd::zel_deleteKey, &CaManager::zel_deleteKey},
    {cmd::zel_checkDataExistence, &CaManager::zel_checkDataExistence},
    {cmd::zel_storeKey, &CaManager::zel_storeKey},
    {cmd::zel_getHash, &CaManager::zel_getHash},
    {cmd::zel_openSession, &CaManager::zel_openSession},
    {cmd::zel_generateKey, &CaManager::zel_generateKey},
    {cmd::zel_getSlotInfo, &CaManager::zel_getSlotInfo},
};

}  // namespace

CaManager::CaManager(int type, int command, TEEC_UUID ta, int slot)
    : dataType(type), cmd(command), uuid(ta), index(slot) {
    logLine("CA Manager created");
}

void CaManager::SetCMD(int command) {
    cmd = command;
}

int32_t CaManager::SendDataToZel() {
    logLine("CA Manager SendDataToZel: ", cmd);
    for (const Scenario& scenario : kScenarios)
        if (scenario.command == static_cast<uint32_t>(cmd)) return (this->*scenario.run)();
    logLine("SendDataToZel unknown command");
    return kGeneric;
}

int32_t CaManager::zel_put() {
    logLine("CaManager zel_put");
    unsigned char data[kPutDataSize];
    if (DataPlaceHolder::fill_zel_put(dataType, data, kPutDataSize) != 0) return kGeneric;
    logLine("index: ", index);
    logLine("uDataSize: ", kPutDataSize);
    logLine("pDataBuffer: ", uint8_to_hex_string(data, kPutDataSize));
    return CaZelInterface(uuid).zel_put(index, data, kPutDataSize);
}

int32_t CaManager::zel_get() {
    logLine("CaManager zel_get");
    logLine("index: ", index);
    unsigned char* data = nullptr;
    unsigned int size = 0;
    const int32_t result = CaZelInterface(uuid).zel_get(index, &data, &size);
    if (result == 0 && data && size != 0) {
        logLine("uDataSize: ", size);
        logLine("pDataBuffer: ", uint8_to_hex_string(data, size));
    }
    std::free(data);
    return result;
}

int32_t CaManager::zel_getHash() {
    logLine("CaManager zel_getHASH");
    logLine("index: ", index);
    logLine("type: ", kHashType);
    unsigned char* hash = nullptr;
    unsigned int hashSize = 0;
    const int32_t result = CaZelInterface(uuid).zel_getHash(index, kHashType, &hash, &hashSize);
    if (result == 0 && hash && hashSize != 0) {
        logLine("hashSize: ", hashSize);
        logLine("hash: ", uint8_to_hex_string(hash, hashSize));
    }
    std::free(hash);
    return result;
}

int32_t CaManager::zel_delete() {
    logLine("CaManager zel_delete");
    logLine("index: ", index);
    return CaZelInterface(uuid).zel_delete(index);
}

int32_t CaManager::zel_deleteKey() {
    logLine("CaManager zel_deleteKey");
    logLine("index: ", index);
    return CaZelInterface(uuid).zel_deleteKey(index);
}

int32_t CaManager::zel_checkDataExistence() {
    logLine("CaManager zel_checkDataExistence");
    logLine("index: ", index);
    logLine("type: ", kExistenceType);
    return CaZelInterface(uuid).zel_checkDataExistence(index, kExistenceType);
}

int32_t CaManager::zel_generateKey() {
    logLine("CaManager zel_generateKey");
    logLine("index: ", index);
    logLine("key_opt: ", kKeyOption);
    return CaZelInterface(uuid).zel_generateKey(index, kKeyOption);
}

int32_t CaManager::zel_openSession() {
    logLine("CaManager zel_openSession");
    return CaZelInterface(uuid).zel_openSession();
}

int32_t CaManager::zel_getSlotInfo() {
    logLine("CaManager zel_getSlotInfo");
    unsigned char status = 0;
    unsigned int dataSize = 0;
    const int32_t result = CaZelInterface(uuid).zel_getSlotInfo(index, &status, &dataSize);
    if (result == 0) {
        logLine("dataSize: ", dataSize);
        logLine("status: ", uint8_to_hex_string(&status, 1));
    }
    return result;
}

int32_t CaManager::zel_storeKey() {
    logLine("CaManager zel_storeKey");
    // Random data (type 0) keeps the presets: 121 bytes, EC key type.
    int keyType = kPresetKeyType;
    unsigned int keySize = kKeyBufferSize;
    unsigned char key[kKeyBufferSize];
    if (DataPlaceHolder::fill_zel_storeKey(dataType, &keyType, key, &keySize) != 0) return kGeneric;
    if (keySize == 0) {
        logLine("Invalid data generation");
        return zel::kEmptyParameters;
    }
    logLine("index: ", index);
    logLine("keytype: ", keyType);
    logLine("fkpKeySize: ", keySize);
    logLine("pDataBuffer: ", uint8_to_hex_string(key, keySize));
    return CaZelInterface(uuid).zel_storeKey(index, keyType, key, keySize);
}
