// The simulated TAs' request decoding: an arbitrary block, as a message, for every command of
// the vault and the secure-processor TAs, against a store that holds an EC key, an AES key and a
// hub token, so that the key-parsing and cryptographic paths are reached.
//
// Input: one byte choosing the TA and command, then the block.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "interface/zel_ta_ids.h"
#include "secure_processor_ta.h"
#include "vault_crypto.h"
#include "vault_storage.h"
#include "vault_ta.h"

using namespace zel;
using namespace zel::vault;

namespace {

struct Tas {
    std::unique_ptr<VaultStorage> storage;
    std::unique_ptr<VaultTa> vault;
    std::unique_ptr<SecureProcessorTa> secureProcessor;
    std::vector<uint32_t> commands;  // vault ids, then secure-processor ids + 0x100
};

Tas& tas() {
    static Tas* made = [] {
        auto* t = new Tas;
        std::string error;
        t->storage = VaultStorage::open(":memory:", error);
        if (!t->storage) abort();
        t->vault = std::make_unique<VaultTa>(*t->storage);
        t->secureProcessor = std::make_unique<SecureProcessorTa>(*t->storage);
        for (const CommandId& command : kGeneralCommands) t->commands.push_back(command.id);
        for (const CommandId& command : kSecureProcessorCommands)
            t->commands.push_back(command.id | 0x100);
        return t;
    }();
    return *made;
}

// The state every input starts from: keys at 0 (EC) and 1 (AES), a hub token at 2, a slot at 3.
void resetState(Tas& t) {
    static Bytes ecKey, aesKey;
    if (ecKey.empty() &&
        (generateEcKey(ecKey) != TEEC_SUCCESS || randomBytes(32, aesKey) != TEEC_SUCCESS))
        abort();
    t.storage->clear();
    t.storage->writeKey(0, {VaultTa::kKeyTypeEc, ecKey});
    t.storage->writeKey(1, {VaultTa::kKeyTypeAes, aesKey});
    t.storage->writeHubToken(2, Bytes(64, 0x42));
    t.storage->writeSlot(3, Bytes(100, 0x17));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    Tas& t = tas();
    resetState(t);
    const uint32_t chosen = t.commands[data[0] % t.commands.size()];
    // The block as the client would hand it over: the message, then room for the reply.
    std::vector<uint8_t> block(data + 1, data + size);
    block.resize(std::max<size_t>(block.size(), 64) + 1024, 0);
    TaOperation operation;
    operation.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_INOUT, 0, 0, 0);
    operation.params[0].type = TEEC_MEMREF_PARTIAL_INOUT;
    operation.params[0].buffer = block.data();
    operation.params[0].size = static_cast<uint32_t>(block.size());
    const TaResult result = chosen & 0x100 ? t.secureProcessor->invoke(chosen & 0xFF, operation)
                                           : t.vault->invoke(chosen, operation);
    if (result.origin != TEEC_ORIGIN_TRUSTED_APP) abort();
    return 0;
}
