#include "vault_ta.h"

#include <algorithm>
#include <set>

#include "interface/zel_ta_ids.h"
#include "planted_faults.h"
#include "vault_crypto.h"

namespace zel::vault {

namespace {

const CommandHandler<VaultTa> kHandlers[] = {
    {cmd::zel_put, &VaultTa::put},
    {cmd::zel_get, &VaultTa::get},
    {cmd::zel_delete, &VaultTa::erase},
    {cmd::zel_deleteKey, &VaultTa::eraseKey},
    {cmd::zel_checkDataExistence, &VaultTa::checkDataExistence},
    {cmd::zel_storeKey, &VaultTa::storeKey},
    {cmd::zel_getHash, &VaultTa::getHash},
    {cmd::zel_compareData, &VaultTa::compareData},
    {cmd::zel_generateKey, &VaultTa::generateKey},
    {cmd::zel_getSlotInfo, &VaultTa::getSlotInfo},
    {cmd::zel_aesEncrypt, &VaultTa::aesEncrypt},
    {cmd::zel_aesDecrypt, &VaultTa::aesDecrypt},
    {cmd::zel_ecdsaCreateSignature, &VaultTa::ecdsaCreateSignature},
    {cmd::zel_decryptByKey, &VaultTa::decryptByKey},
    {cmd::zel_genAuthKey, &VaultTa::genAuthKey},
    {cmd::zel_decryptHubToken, &VaultTa::decryptHubToken},
    {cmd::zel_getHubID, &VaultTa::getHubID},
    {cmd::zel_getCmacKey, &VaultTa::getCmacKey},
    {cmd::zel_getCMACwithHubToken, &VaultTa::getCMACwithHubToken},
};

// The option values the vault implements: PKCS#7 padding, AES-256 (key size 32 bytes in the AES
// commands, code 2 in decrypt-by-key), CBC mode.
constexpr int32_t kPkcs7Padding = 1;
constexpr int32_t kAes256Bytes = 32;
constexpr int32_t kAes256Code = 2;
constexpr int32_t kCbcMode = 1;
constexpr int32_t kCmacWithTokenKey = 1;
constexpr int32_t kSignHashOfMessage = 1;
constexpr int32_t kSignDigest = 2;

// A decrypted hub token: its identity, then its key, then claims the vault does not read.
constexpr size_t kHubIdSize = 16;
constexpr size_t kHubKeySize = 32;
const char kHubTokenInfo[] = "zel hub token";
const Bytes kRxKeyLabel = {'z', 'e', 'l', ' ', 'r', 'x', ' ', 'k', 'e', 'y'};
const Bytes kTxKeyLabel = {'z', 'e', 'l', ' ', 't', 'x', ' ', 'k', 'e', 'y'};

// Decrypt-by-key input: a 2-byte big-endian plaintext length, a 16-byte IV, the CBC body.
constexpr size_t kLengthFieldSize = 2;
constexpr size_t kIvSize = 16;

const std::set<uint32_t>& selfTestIds() {
    static const std::set<uint32_t> ids = [] {
        std::set<uint32_t> all;
        for (const CommandId& command : kGeneralCommands) all.insert(command.id);
        all.insert(kLifecycleCommand);
        all.insert(std::begin(kProcessCommands), std::end(kProcessCommands));
        all.insert(std::begin(kHeavyloadCommands), std::end(kHeavyloadCommands));
        for (int n = kFirstBistCommand; n <= kLastBistCommand; ++n)
            all.insert(static_cast<uint32_t>(n));
        return all;
    }();
    return ids;
}

bool validIndex(int32_t index) {
    return index >= 0 && index <= VaultTa::kMaxIndex;
}

}  // namespace

TaResult VaultTa::invoke(uint32_t command, TaOperation& operation) {
    if (!isOneBlock(operation)) return {TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_TRUSTED_APP};
    const TaParam& block = operation.params[0];
    if (const auto planted = plantedFault(PlantedTa::kVault, command, block)) return *planted;
    if (!selfTestIds().count(command)) return {TEEC_ERROR_NOT_SUPPORTED, TEEC_ORIGIN_TRUSTED_APP};

    wsm::Reader reader(block.buffer, block.size);
    if (reader.peek() == wsm::kEnd) return {};  // the built-in self-test
    // The raw suites' own numbers have a self-test but no request to serve: no row.
    return dispatch(*this, kHandlers, command, block);
}

TEEC_Result VaultTa::put(RequestFields& in, wsm::Writer&) {
    const int32_t index = in.integer();
    const Bytes data = in.sizedBlob();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index) || data.empty() || data.size() > kMaxSlotSize)
        return TEEC_ERROR_BAD_PARAMETERS;
    return storage_.writeSlot(index, data);
}

TEEC_Result VaultTa::get(RequestFields& in, wsm::Writer& out) {
    const int32_t index = in.integer();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index)) return TEEC_ERROR_BAD_PARAMETERS;
    Bytes data;
    const TEEC_Result result = readSlot(index, data);
    return result != TEEC_SUCCESS ? result : replyBuffer(out, data);
}

TEEC_Result VaultTa::erase(RequestFields& in, wsm::Writer&) {
    const int32_t index = in.integer();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    return validIndex(index) ? storage_.eraseSlot(index) : TEEC_ERROR_BAD_PARAMETERS;
}

TEEC_Result VaultTa::eraseKey(RequestFields& in, wsm::Writer&) {
    const int32_t index = in.integer();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    return validIndex(index) ? storage_.eraseKey(index) : TEEC_ERROR_BAD_PARAMETERS;
}

TEEC_Result VaultTa::checkDataExistence(RequestFields& in, wsm::Writer&) {
    const int32_t index = in.integer();
    const int32_t type = in.integer();  // 0: the data slot, 1: the key
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index) || (type != 0 && type != 1)) return TEEC_ERROR_BAD_PARAMETERS;
    Bytes data;
    StoredKey key;
    return type == 0 ? readSlot(index, data) : storage_.readKey(index, key);
}

TEEC_Result VaultTa::storeKey(RequestFields& in, wsm::Writer&) {
    const int32_t index = in.integer();
    StoredKey key;
    key.type = in.integer();
    key.material = in.sizedBlob();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index)) return TEEC_ERROR_BAD_PARAMETERS;
    if (key.type == kKeyTypeAes) {
        if (key.material.size() != 32) return TEEC_ERROR_BAD_PARAMETERS;
    } else if (key.type == kKeyTypeEc) {
        if (const TEEC_Result bad = checkEcPrivateKey(key.material); bad != TEEC_SUCCESS)
            return bad;
    } else {
        return TEEC_ERROR_NOT_SUPPORTED;
    }
    return storage_.writeKey(index, key);
}

TEEC_Result VaultTa::getHash(RequestFields& in, wsm::Writer& out) {
    const int32_t index = in.integer();
    const int32_t type = in.integer();  // 0: SHA-256 of the slot's data
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index) || type != 0) return TEEC_ERROR_BAD_PARAMETERS;
    Bytes data, digest;
    TEEC_Result result = readSlot(index, data);
    if (result == TEEC_SUCCESS) result = sha256(data, digest);
    return result != TEEC_SUCCESS ? result : replyBuffer(out, digest);
}

TEEC_Result VaultTa::compareData(RequestFields& in, wsm::Writer&) {
    const int32_t index = in.integer();
    const Bytes data = in.sizedBlob();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index) || data.empty()) return TEEC_ERROR_BAD_PARAMETERS;
    StoredKey key;
    const TEEC_Result result = storage_.readKey(index, key);
    if (result != TEEC_SUCCESS) return result;
    return key.material == data ? TEEC_SUCCESS : TEEC_ERROR_SECURITY;
}

TEEC_Result VaultTa::generateKey(RequestFields& in, wsm::Writer&) {
    const int32_t index = in.integer();
    const int32_t option = in.integer();  // 1: AES-256, 2: EC P-256
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index) || (option != 1 && option != 2)) return TEEC_ERROR_BAD_PARAMETERS;
    StoredKey key;
    key.type = option == 1 ? kKeyTypeAes : kKeyTypeEc;
    const TEEC_Result made =
        option == 1 ? randomBytes(32, key.material) : generateEcKey(key.material);
    return made != TEEC_SUCCESS ? made : storage_.writeKey(index, key);
}

TEEC_Result VaultTa::getSlotInfo(RequestFields& in, wsm::Writer& out) {
    const int32_t index = in.integer();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index)) return TEEC_ERROR_BAD_PARAMETERS;
    Bytes data;
    StoredKey key;
    const TEEC_Result slot = readSlot(index, data);
    const TEEC_Result stored = storage_.readKey(index, key);
    for (const TEEC_Result result : {slot, stored})
        if (result != TEEC_SUCCESS && result != TEEC_ERROR_ITEM_NOT_FOUND) return result;
    // Bit 0: the slot holds data; bit 1: a key is stored at the index.
    const int32_t status = (slot == TEEC_SUCCESS ? 1 : 0) | (stored == TEEC_SUCCESS ? 2 : 0);
    if (!out.putInt(status) || !out.putUint(static_cast<uint32_t>(data.size())))
        return TEEC_ERROR_SHORT_BUFFER;
    return TEEC_SUCCESS;
}

TEEC_Result VaultTa::readSlot(int32_t index, Bytes& data) {
    const TEEC_Result result = storage_.readSlot(index, data);
    if (result == TEEC_SUCCESS && (data.empty() || data.size() > kMaxSlotSize))
        return TEEC_ERROR_BAD_STATE;
    return result;
}

TEEC_Result VaultTa::keyOfType(int32_t index, int32_t type, Bytes& material) {
    StoredKey key;
    const TEEC_Result result = storage_.readKey(index, key);
    if (result != TEEC_SUCCESS) return result;
    // A stored key is checked like a key arriving in a request: a bad one is bad state.
    const bool wellFormed = key.type == kKeyTypeAes   ? key.material.size() == 32
                            : key.type == kKeyTypeEc ? checkEcPrivateKey(key.material) == TEEC_SUCCESS
                                                     : false;
    if (!wellFormed) return TEEC_ERROR_BAD_STATE;
    if (key.type != type) return TEEC_ERROR_BAD_PARAMETERS;
    material = std::move(key.material);
    return TEEC_SUCCESS;
}

TEEC_Result VaultTa::hubToken(int32_t index, Bytes& id, Bytes& key) {
    Bytes token;
    const TEEC_Result result = storage_.readHubToken(index, token);
    if (result != TEEC_SUCCESS) return result;
    if (token.size() < kHubIdSize + kHubKeySize) return TEEC_ERROR_BAD_STATE;
    id.assign(token.begin(), token.begin() + kHubIdSize);
    key.assign(token.begin() + kHubIdSize, token.begin() + kHubIdSize + kHubKeySize);
    return TEEC_SUCCESS;
}

TEEC_Result VaultTa::aes(bool encrypt, RequestFields& in, wsm::Writer& out) {
    const int32_t index = in.integer();
    const int32_t padding = in.integer();
    const int32_t keySize = in.integer();
    const int32_t mode = in.integer();
    const Bytes iv = in.sizedBlob();
    const Bytes data = in.sizedBlob();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index) || iv.size() != kIvSize) return TEEC_ERROR_BAD_PARAMETERS;
    if (padding != kPkcs7Padding || keySize != kAes256Bytes || mode != kCbcMode)
        return TEEC_ERROR_NOT_SUPPORTED;
    Bytes key, result;
    TEEC_Result status = keyOfType(index, kKeyTypeAes, key);
    if (status == TEEC_SUCCESS) status = aesCbc(encrypt, key, iv, data, result);
    return status != TEEC_SUCCESS ? status : replyBuffer(out, result);
}

TEEC_Result VaultTa::aesEncrypt(RequestFields& in, wsm::Writer& out) {
    return aes(true, in, out);
}

TEEC_Result VaultTa::aesDecrypt(RequestFields& in, wsm::Writer& out) {
    return aes(false, in, out);
}

TEEC_Result VaultTa::ecdsaCreateSignature(RequestFields& in, wsm::Writer& out) {
    const int32_t index = in.integer();
    const int32_t type = in.integer();
    const Bytes message = in.sizedBlob();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index) || message.empty()) return TEEC_ERROR_BAD_PARAMETERS;
    if (type != kSignHashOfMessage && type != kSignDigest) return TEEC_ERROR_NOT_SUPPORTED;
    Bytes key, digest = message, signature;
    TEEC_Result status = keyOfType(index, kKeyTypeEc, key);
    if (status == TEEC_SUCCESS && type == kSignHashOfMessage) status = sha256(message, digest);
    if (status == TEEC_SUCCESS) status = ecdsaSignDigest(key, digest, signature);
    return status != TEEC_SUCCESS ? status : replyBuffer(out, signature);
}

TEEC_Result VaultTa::decryptByKey(RequestFields& in, wsm::Writer&) {
    const int32_t index = in.integer();
    const int32_t keyIndex = in.integer();
    const int32_t padding = in.integer();
    const int32_t keySize = in.integer();
    const int32_t mode = in.integer();
    const Bytes input = in.sizedBlob();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index) || !validIndex(keyIndex)) return TEEC_ERROR_BAD_PARAMETERS;
    if (padding != kPkcs7Padding || keySize != kAes256Code || mode != kCbcMode)
        return TEEC_ERROR_NOT_SUPPORTED;
    if (input.size() < kLengthFieldSize + kIvSize + 16) return TEEC_ERROR_BAD_FORMAT;
    const size_t length = static_cast<size_t>(input[0]) << 8 | input[1];
    const Bytes iv(input.begin() + kLengthFieldSize, input.begin() + kLengthFieldSize + kIvSize);
    const Bytes body(input.begin() + kLengthFieldSize + kIvSize, input.end());
    Bytes key, plain;
    TEEC_Result status = keyOfType(keyIndex, kKeyTypeAes, key);
    if (status == TEEC_SUCCESS) status = aesCbc(false, key, iv, body, plain);
    if (status != TEEC_SUCCESS) return status;
    if (plain.size() != length || plain.empty() || plain.size() > kMaxSlotSize)
        return TEEC_ERROR_BAD_FORMAT;
    return storage_.writeSlot(index, plain);
}

TEEC_Result VaultTa::genAuthKey(RequestFields& in, wsm::Writer& out) {
    const int32_t index = in.integer();
    const Bytes publicKey = in.sizedBlob();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index)) return TEEC_ERROR_BAD_PARAMETERS;
    Bytes key, secret;
    TEEC_Result status = keyOfType(index, kKeyTypeEc, key);
    if (status == TEEC_SUCCESS) status = ecdh(key, publicKey, secret);
    return status != TEEC_SUCCESS ? status : replyBuffer(out, secret);
}

TEEC_Result VaultTa::decryptHubToken(RequestFields& in, wsm::Writer&) {
    const int32_t keyIndex = in.integer();
    const int32_t storeIndex = in.integer();
    const Bytes sealed = in.sizedBlob();
    const Bytes iv = in.sizedBlob();
    const Bytes cloudKey = in.sizedBlob();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(keyIndex) || !validIndex(storeIndex) || iv.empty())
        return TEEC_ERROR_BAD_PARAMETERS;
    Bytes deviceKey, secret, tokenKey, token;
    TEEC_Result status = keyOfType(keyIndex, kKeyTypeEc, deviceKey);
    if (status == TEEC_SUCCESS) status = ecdh(deviceKey, cloudKey, secret);
    if (status == TEEC_SUCCESS) status = hkdfSha256(secret, kHubTokenInfo, 32, tokenKey);
    if (status == TEEC_SUCCESS) status = aesGcmOpen(tokenKey, iv, sealed, token);
    if (status != TEEC_SUCCESS) return status;
    if (token.size() < kHubIdSize + kHubKeySize) return TEEC_ERROR_BAD_FORMAT;
    return storage_.writeHubToken(storeIndex, token);
}

TEEC_Result VaultTa::getHubID(RequestFields& in, wsm::Writer& out) {
    const int32_t index = in.integer();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index)) return TEEC_ERROR_BAD_PARAMETERS;
    Bytes id, key;
    const TEEC_Result status = hubToken(index, id, key);
    return status != TEEC_SUCCESS ? status : replyBuffer(out, id);
}

TEEC_Result VaultTa::getCmacKey(RequestFields& in, wsm::Writer& out) {
    const int32_t index = in.integer();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index)) return TEEC_ERROR_BAD_PARAMETERS;
    Bytes id, key, rx, tx;
    TEEC_Result status = hubToken(index, id, key);
    if (status == TEEC_SUCCESS) status = aesCmac(key, kRxKeyLabel, rx);
    if (status == TEEC_SUCCESS) status = aesCmac(key, kTxKeyLabel, tx);
    if (status == TEEC_SUCCESS) status = replyBuffer(out, rx);
    return status != TEEC_SUCCESS ? status : replyBuffer(out, tx);
}

TEEC_Result VaultTa::getCMACwithHubToken(RequestFields& in, wsm::Writer& out) {
    const int32_t index = in.integer();
    const int32_t type = in.integer();
    const Bytes message = in.sizedBlob();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (!validIndex(index)) return TEEC_ERROR_BAD_PARAMETERS;
    if (type != kCmacWithTokenKey) return TEEC_ERROR_NOT_SUPPORTED;
    Bytes id, key, mac;
    TEEC_Result status = hubToken(index, id, key);
    if (status == TEEC_SUCCESS) status = aesCmac(key, message, mac);
    return status != TEEC_SUCCESS ? status : replyBuffer(out, mac);
}

TrustedApp& addVaultTa(TaRegistry& registry, VaultTa& vault) {
    return registry.add(zel_test, "vault", [&vault](uint32_t command, TaOperation& operation) {
        return vault.invoke(command, operation);
    });
}

}  // namespace zel::vault
