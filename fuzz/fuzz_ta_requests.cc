// The TAs' request decoding: an arbitrary block, as a message, for every command of the vault and
// the secure-processor TAs, loaded as the daemon loads them, against a store that holds an EC key,
// an AES key and a hub token, so that the key-parsing and cryptographic paths are reached. A TA
// must answer every input itself: a panic (a dead TA) is a finding.
//
// Input: one byte choosing the TA and command, then the block.
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "interface/zel_ta_ids.h"
#include "loaded_ta.h"
#include "object_store.h"

using namespace zel;
using namespace zel::vault;
using tee::Bytes;

namespace {

struct Tas {
    std::unique_ptr<tee::ObjectStore> store;
    std::unique_ptr<LoadedTa> vault, secureProcessor;
    TaSession vaultSession, secureProcessorSession;
    std::vector<uint32_t> commands;  // vault ids, then secure-processor ids + 0x100
    Bytes ecKey;
};

std::unique_ptr<LoadedTa> open(const TEEC_UUID& uuid, tee::ObjectStore& store, TaSession& session) {
    std::string error;
    auto ta = LoadedTa::load(ZEL_TA_BUILD_FOLDER, wire::uuidBytes(uuid), store, error);
    TaOperation none;
    if (!ta || ta->openSession(none, session).result != TEEC_SUCCESS) abort();
    return ta;
}

Bytes newEcKey() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    const int length = key ? i2d_PrivateKey(key, nullptr) : -1;
    if (length <= 0) abort();
    Bytes der(static_cast<size_t>(length));
    unsigned char* cursor = der.data();
    i2d_PrivateKey(key, &cursor);
    EVP_PKEY_free(key);
    return der;
}

Tas& tas() {
    static Tas* made = [] {
        auto* t = new Tas;
        std::string error;
        t->store = tee::ObjectStore::open(":memory:", error);
        if (!t->store) abort();
        t->vault = open(zel_test, *t->store, t->vaultSession);
        t->secureProcessor = open(zel_test_a, *t->store, t->secureProcessorSession);
        for (const CommandId& command : kGeneralCommands) t->commands.push_back(command.id);
        for (const CommandId& command : kSecureProcessorCommands)
            t->commands.push_back(command.id | 0x100);
        t->ecKey = newEcKey();
        return t;
    }();
    return *made;
}

Bytes text(const char* id) {
    return Bytes(id, id + std::char_traits<char>::length(id));
}

// The state every input starts from: keys at 0 (EC) and 1 (AES), a hub token at 2, a slot at 3,
// as the vault TA keeps them (a key: its type byte, then its material).
void resetState(Tas& t) {
    const TEE_UUID vault = ZEL_TEST_UUID;
    Bytes ec = {5}, aes = {6};
    ec.insert(ec.end(), t.ecKey.begin(), t.ecKey.end());
    aes.resize(33, 0x5a);
    t.store->clear();
    t.store->write(vault, text("key.0"), ec, true);
    t.store->write(vault, text("key.1"), aes, true);
    t.store->write(vault, text("hub.2"), Bytes(64, 0x42), true);
    t.store->write(vault, text("slot.3"), Bytes(100, 0x17), true);
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
    operation.params[0].flags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
    const TaResult result = chosen & 0x100 ? t.secureProcessor->invoke(t.secureProcessorSession,
                                                                       chosen & 0xFF, operation)
                                           : t.vault->invoke(t.vaultSession, chosen, operation);
    if (result.origin != TEEC_ORIGIN_TRUSTED_APP) abort();
    return 0;
}
