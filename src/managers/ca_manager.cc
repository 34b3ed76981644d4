#include "managers/ca_manager.h"

#include <cstdlib>

#include "interface/ca_zel_interface.h"
#include "interface/command_call.h"
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

// The fixed request values of the crypto and hub scenarios; their meaning is the TA's.
constexpr int kPadding = 1;
constexpr int kAesKeySize = 32;
constexpr int kAesMode = 1;
constexpr int kCmacType = 1;
constexpr int kSignatureType = 2;
constexpr int kHubTokenStoreIndex = 1;
constexpr int kSecretKeyIndex = 2;
constexpr int kSecretKeySize = 2;
constexpr unsigned int kIvSize = 16;
constexpr unsigned int kMessageSize = 32;
constexpr unsigned int kCompareDataSize = 32;
constexpr unsigned int kPlaintextSize = 32;
constexpr unsigned int kCiphertextSize = 48;
constexpr unsigned int kPublicKeySize = 91;
constexpr unsigned int kHubTokenSize = 241;
constexpr unsigned int kDecryptByKeySize = 146;

// A buffer a command hands out: the scenario owns it and frees it on every path.
struct HandedOut {
    unsigned char* data = nullptr;
    unsigned int size = 0;
    HandedOut() = default;
    HandedOut(const HandedOut&) = delete;
    HandedOut& operator=(const HandedOut&) = delete;
    ~HandedOut() { std::free(data); }
    bool present() const { return data && size != 0; }
};

void logBuffer(const char* sizeLabel, const char* dataLabel, const unsigned char* data,
               unsigned int size) {
    logLine(sizeLabel, size);
    logLine(dataLabel, uint8_to_hex_string(data, size));
}

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
    {cmd::zel_getCMACwithHubToken, &CaManager::zel_getCMACwithHubToken},
    {cmd::zel_ecdsaCreateSignature, &CaManager::zel_ecdsaCreateSignature},
    {cmd::zel_decryptByKey, &CaManager::zel_decryptByKey},
    {cmd::zel_decryptHubToken, &CaManager::zel_decryptHubToken},
    {cmd::zel_genAuthKey, &CaManager::zel_genAuthKey},
    {cmd::zel_getHubID, &CaManager::zel_getHubID},
    {cmd::zel_getCmacKey, &CaManager::zel_getCmacKey},
    {cmd::zel_aesEncrypt, &CaManager::zel_aesEncrypt},
    {cmd::zel_aesDecrypt, &CaManager::zel_aesDecrypt},
    {cmd::zel_compareData, &CaManager::zel_compareData},
};

// The AES encrypt and decrypt scenarios: the same steps over their own fill, size and command.
struct AesScenario {
    const char* name;
    const char* fillError;
    TEEC_Result (*fill)(int32_t, unsigned char*, unsigned int, unsigned char*, unsigned int);
    unsigned int dataSize;
    int32_t (CaZelInterface::*command)(int, int, int, int, unsigned char*, unsigned int,
                                       unsigned char*, unsigned int, unsigned char**,
                                       unsigned int*);
    const char* outSizeLabel;
    const char* outDataLabel;
};

constexpr AesScenario kAesEncrypt = {"CaManager zel_aesEncrypt",
                                     "fill_zel_aesEncrypt return error",
                                     DataPlaceHolder::fill_zel_aesEncrypt,
                                     kPlaintextSize,
                                     &CaZelInterface::zel_aesEncrypt,
                                     "encDataSize: ",
                                     "encData: "};
constexpr AesScenario kAesDecrypt = {"CaManager zel_aesDecrypt",
                                     "fill_zel_aesDecrypt return error",
                                     DataPlaceHolder::fill_zel_aesDecrypt,
                                     kCiphertextSize,
                                     &CaZelInterface::zel_aesDecrypt,
                                     "decDataSize: ",
                                     "decData: "};

int32_t runAesScenario(const AesScenario& scenario, int32_t dataType, int32_t index,
                       const TEEC_UUID& uuid) {
    logLine(scenario.name);
    HandedOut out;
    unsigned char iv[kIvSize];
    unsigned char data[kCiphertextSize];
    if (scenario.fill(dataType, iv, kIvSize, data, scenario.dataSize) != 0) {
        logLine(scenario.fillError);
        return kGeneric;
    }
    logLine("index: ", index);
    logLine("padding: ", kPadding);
    logLine("keySize: ", kAesKeySize);
    logLine("aesMode: ", kAesMode);
    logBuffer("ivSize: ", "iv: ", iv, kIvSize);
    logBuffer("dataSize: ", "data: ", data, scenario.dataSize);
    CaZelInterface vault(uuid);
    const int32_t result =
        (vault.*scenario.command)(index, kPadding, kAesKeySize, kAesMode, iv, kIvSize, data,
                                  scenario.dataSize, &out.data, &out.size);
    if (result == 0 && out.present())
        logBuffer(scenario.outSizeLabel, scenario.outDataLabel, out.data, out.size);
    return result;
}

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
    logBuffer("uDataSize: ", "pDataBuffer: ", data, kPutDataSize);
    return CaZelInterface(uuid).zel_put(index, data, kPutDataSize);
}

int32_t CaManager::zel_get() {
    logLine("CaManager zel_get");
    logLine("index: ", index);
    HandedOut data;
    const int32_t result = CaZelInterface(uuid).zel_get(index, &data.data, &data.size);
    if (result == 0 && data.present())
        logBuffer("uDataSize: ", "pDataBuffer: ", data.data, data.size);
    return result;
}

int32_t CaManager::zel_getHash() {
    logLine("CaManager zel_getHASH");
    logLine("index: ", index);
    logLine("type: ", kHashType);
    HandedOut hash;
    const int32_t result =
        CaZelInterface(uuid).zel_getHash(index, kHashType, &hash.data, &hash.size);
    if (result == 0 && hash.present()) logBuffer("hashSize: ", "hash: ", hash.data, hash.size);
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

int32_t CaManager::zel_compareData() {
    logLine("CaManager zel_compareData");
    unsigned char data[kCompareDataSize];
    if (DataPlaceHolder::fill_zel_compareData(dataType, data, kCompareDataSize) != 0)
        return kGeneric;
    logLine("index: ", index);
    logBuffer("dataSize: ", "data: ", data, kCompareDataSize);
    return CaZelInterface(uuid).zel_compareData(index, data, kCompareDataSize);
}

int32_t CaManager::zel_aesEncrypt() {
    return runAesScenario(kAesEncrypt, dataType, index, uuid);
}

int32_t CaManager::zel_aesDecrypt() {
    return runAesScenario(kAesDecrypt, dataType, index, uuid);
}

int32_t CaManager::zel_getCMACwithHubToken() {
    logLine("CaManager zel_getCMACwithHubToken");
    HandedOut cmac;
    unsigned char message[kMessageSize];
    if (DataPlaceHolder::fill_zel_getCMACwithHubToken(dataType, message, kMessageSize) != 0)
        return kGeneric;
    logLine("index: ", index);
    logLine("type: ", kCmacType);
    logBuffer("messageSize: ", "message: ", message, kMessageSize);
    const int32_t result = CaZelInterface(uuid).zel_getCMACwithHubToken(
        index, kCmacType, message, kMessageSize, &cmac.data, &cmac.size);
    if (result == 0 && cmac.present()) logBuffer("cmacSize: ", "cmac: ", cmac.data, cmac.size);
    return result;
}

int32_t CaManager::zel_getCmacKey() {
    logLine("CaManager zel_getCmacKey");
    HandedOut rx, tx;
    const int32_t result =
        CaZelInterface(uuid).zel_getCmacKey(index, &rx.data, &rx.size, &tx.data, &tx.size);
    if (result == 0 && rx.present() && tx.present()) {
        logBuffer("rxKeySize: ", "rxKey: ", rx.data, rx.size);
        logBuffer("txKeySize: ", "txKey: ", tx.data, tx.size);
    }
    return result;
}

int32_t CaManager::zel_getHubID() {
    logLine("CaManager zel_getHubID");
    HandedOut hubId;
    logLine("c_index: ", index);
    const int32_t result = CaZelInterface(uuid).zel_getHubID(index, &hubId.data, &hubId.size);
    if (result == 0 && hubId.present()) logBuffer("hubIDSize: ", "hubID: ", hubId.data, hubId.size);
    return result;
}

int32_t CaManager::zel_genAuthKey() {
    logLine("CaManager zel_genAuthKey");
    HandedOut shared;
    unsigned char publicKey[kPublicKeySize];
    if (DataPlaceHolder::fill_zel_genAuthKey(dataType, publicKey, kPublicKeySize) != 0)
        return kGeneric;
    logLine("c_index: ", index);
    logBuffer("pubkeySize: ", "pubkey: ", publicKey, kPublicKeySize);
    const int32_t result = CaZelInterface(uuid).zel_genAuthKey(index, publicKey, kPublicKeySize,
                                                               &shared.data, &shared.size);
    if (result == 0 && shared.present())
        logBuffer("sharedKeySize: ", "sharedKey: ", shared.data, shared.size);
    return result;
}

int32_t CaManager::zel_decryptHubToken() {
    logLine("CaManager zel_decryptHubToken");
    unsigned char token[kHubTokenSize];
    unsigned char iv[kIvSize];
    unsigned char cloudKey[kPublicKeySize];
    if (DataPlaceHolder::fill_zel_decryptHubToken(dataType, token, kHubTokenSize, iv, kIvSize,
                                                  cloudKey, kPublicKeySize) != 0)
        return kGeneric;
    logLine("c_index: ", index);
    logLine("storeIndex: ", kHubTokenStoreIndex);
    logBuffer("encHubTokenSize: ", "encHubToken: ", token, kHubTokenSize);
    logBuffer("ivSize: ", "iv: ", iv, kIvSize);
    logBuffer("cloudPubkeySize: ", "cloudPubkey: ", cloudKey, kPublicKeySize);
    return CaZelInterface(uuid).zel_decryptHubToken(
        index, kHubTokenStoreIndex, token, kHubTokenSize, iv, kIvSize, cloudKey, kPublicKeySize);
}

int32_t CaManager::zel_ecdsaCreateSignature() {
    logLine("CaManager zel_ecdsaCreateSignature");
    HandedOut signature;
    unsigned char message[kMessageSize];
    if (DataPlaceHolder::fill_zel_ecdsaCreateSignature(dataType, message, kMessageSize) != 0)
        return kGeneric;
    logLine("index: ", index);
    logLine("type: ", kSignatureType);
    logBuffer("messageSize: ", "message: ", message, kMessageSize);
    const int32_t result = CaZelInterface(uuid).zel_ecdsaCreateSignature(
        index, kSignatureType, message, kMessageSize, &signature.data, &signature.size);
    if (result == 0 && signature.present())
        logBuffer("signatureSize: ", "signature: ", signature.data, signature.size);
    return result;
}

int32_t CaManager::zel_decryptByKey() {
    logLine("CaManager zel_decryptByKey");
    unsigned char encrypted[kDecryptByKeySize];
    if (DataPlaceHolder::fill_zel_decryptByKey(dataType, encrypted, kDecryptByKeySize) != 0)
        return kGeneric;
    logLine("index: ", index);
    logLine("skIndex: ", kSecretKeyIndex);
    logLine("padding: ", kPadding);
    logLine("key_size: ", kSecretKeySize);
    logLine("aesmode: ", kAesMode);
    logBuffer("encDataSize: ", "encData: ", encrypted, kDecryptByKeySize);
    return CaZelInterface(uuid).zel_decryptByKey(index, kSecretKeyIndex, kPadding, kSecretKeySize,
                                                 kAesMode, encrypted, kDecryptByKeySize);
}
