#include "vault_ta.h"

#include <algorithm>
#include <set>

#include "interface/zel_ta_ids.h"
#include "vault_crypto.h"

namespace zel::vault {

// Reads a request field by field. The first field that is missing or of the wrong type makes the
// request malformed, and every later read yields nothing.
class RequestFields {
public:
    explicit RequestFields(wsm::Reader reader) : reader_(reader) {}

    int32_t integer() {
        int32_t value = 0;
        ok_ = ok_ && reader_.getInt(value);
        return value;
    }
    // A length field and the blob of that length that follows it.
    Bytes sizedBlob() {
        uint32_t length = 0;
        ok_ = ok_ && reader_.getUint(length);
        const uint8_t* bytes = ok_ ? reader_.get(wsm::kBlob, length) : nullptr;
        ok_ = ok_ && bytes;
        return ok_ ? Bytes(bytes, bytes + length) : Bytes();
    }
    // Every field was there and nothing follows them.
    bool complete() const { return ok_ && reader_.peek() == wsm::kEnd; }

private:
    wsm::Reader reader_;
    bool ok_ = true;
};

namespace {

using Handler = TEEC_Result (VaultTa::*)(RequestFields&, wsm::Writer&);

struct CommandHandler {
    uint32_t id;
    Handler run;
};

const CommandHandler kHandlers[] = {
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
};

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

bool validIndex(int32_t index) { return index >= 0 && index <= VaultTa::kMaxIndex; }

// A reply of one length-prefixed buffer.
TEEC_Result replyBuffer(wsm::Writer& out, const Bytes& data) {
    if (!out.putUint(static_cast<uint32_t>(data.size())) ||
        !out.put(wsm::kBlob, data.data(), static_cast<uint32_t>(data.size())))
        return TEEC_ERROR_SHORT_BUFFER;
    return TEEC_SUCCESS;
}

}  // namespace

TaResult VaultTa::invoke(uint32_t command, TaOperation& operation) {
    const TaParam& block = operation.params[0];
    const bool oneBlock =
        TEEC_PARAM_TYPE_GET(operation.paramTypes, 0) == TEEC_MEMREF_PARTIAL_INOUT &&
        (operation.paramTypes >> 4) == 0 && block.size >= sizeof(uint32_t);
    if (!oneBlock) return {TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_TRUSTED_APP};
    if (!selfTestIds().count(command)) return {TEEC_ERROR_NOT_SUPPORTED, TEEC_ORIGIN_TRUSTED_APP};

    wsm::Reader reader(block.buffer, block.size);
    if (reader.peek() == wsm::kEnd) return {};  // the built-in self-test
    const auto handler = std::find_if(std::begin(kHandlers), std::end(kHandlers),
                                      [&](const CommandHandler& h) { return h.id == command; });
    if (handler == std::end(kHandlers))
        return {TEEC_ERROR_NOT_IMPLEMENTED, TEEC_ORIGIN_TRUSTED_APP};
    RequestFields in(reader);
    wsm::Writer out(block.buffer, block.size);
    return {(this->*handler->run)(in, out), TEEC_ORIGIN_TRUSTED_APP};
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
    const TEEC_Result result = storage_.readSlot(index, data);
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
    return type == 0 ? storage_.readSlot(index, data) : storage_.readKey(index, key);
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
    TEEC_Result result = storage_.readSlot(index, data);
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
    const TEEC_Result slot = storage_.readSlot(index, data);
    const TEEC_Result stored = storage_.readKey(index, key);
    for (const TEEC_Result result : {slot, stored})
        if (result != TEEC_SUCCESS && result != TEEC_ERROR_ITEM_NOT_FOUND) return result;
    // Bit 0: the slot holds data; bit 1: a key is stored at the index.
    const int32_t status = (slot == TEEC_SUCCESS ? 1 : 0) | (stored == TEEC_SUCCESS ? 2 : 0);
    if (!out.putInt(status) || !out.putUint(static_cast<uint32_t>(data.size())))
        return TEEC_ERROR_SHORT_BUFFER;
    return TEEC_SUCCESS;
}

void addVaultTa(TaRegistry& registry, VaultTa& vault) {
    registry.add(zel_test, "vault",
                 [&vault](uint32_t command, TaOperation& operation) {
                     return vault.invoke(command, operation);
                 });
}

}  // namespace zel::vault
