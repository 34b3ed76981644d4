// The vault TA at zel_test.
//
// Every command arrives as one partial in/out memory reference over the client's block, holding a
// message in the codec's encoding; the reply is written over it. An empty message (the block as
// allocated: a zero end tag at offset 0) asks for the TA's built-in self-test of that command id:
// TEEC_SUCCESS for the vault's general commands and for every number the raw suites send. What
// each command does with a request is written down in docs/vault.md.
#pragma once

#include <cstdint>

#include "request_fields.h"
#include "trusted_app.h"
#include "vault_storage.h"
#include "wsm_encoding.h"

namespace zel::vault {

class VaultTa {
  public:
    static constexpr int32_t kMaxIndex = 31;  // slots and keys 0 to 31
    static constexpr uint32_t kMaxSlotSize = 4096;
    static constexpr int32_t kKeyTypeEc = 5;   // RFC 5915 ECPrivateKey on P-256
    static constexpr int32_t kKeyTypeAes = 6;  // 256-bit AES key

    explicit VaultTa(VaultStorage& storage) : storage_(storage) {}

    TaResult invoke(uint32_t command, TaOperation& operation);
    TEEC_Result reset() { return storage_.clear(); }

    // One per command with a request; each reads its fields and writes its reply, if any.
    TEEC_Result put(RequestFields& in, wsm::Writer& out);
    TEEC_Result get(RequestFields& in, wsm::Writer& out);
    TEEC_Result erase(RequestFields& in, wsm::Writer& out);
    TEEC_Result eraseKey(RequestFields& in, wsm::Writer& out);
    TEEC_Result checkDataExistence(RequestFields& in, wsm::Writer& out);
    TEEC_Result storeKey(RequestFields& in, wsm::Writer& out);
    TEEC_Result getHash(RequestFields& in, wsm::Writer& out);
    TEEC_Result compareData(RequestFields& in, wsm::Writer& out);
    TEEC_Result generateKey(RequestFields& in, wsm::Writer& out);
    TEEC_Result getSlotInfo(RequestFields& in, wsm::Writer& out);
    TEEC_Result aesEncrypt(RequestFields& in, wsm::Writer& out);
    TEEC_Result aesDecrypt(RequestFields& in, wsm::Writer& out);
    TEEC_Result ecdsaCreateSignature(RequestFields& in, wsm::Writer& out);
    TEEC_Result decryptByKey(RequestFields& in, wsm::Writer& out);
    TEEC_Result genAuthKey(RequestFields& in, wsm::Writer& out);
    TEEC_Result decryptHubToken(RequestFields& in, wsm::Writer& out);
    TEEC_Result getHubID(RequestFields& in, wsm::Writer& out);
    TEEC_Result getCmacKey(RequestFields& in, wsm::Writer& out);
    TEEC_Result getCMACwithHubToken(RequestFields& in, wsm::Writer& out);

  private:
    // What is read back from storage is checked against the rules it was stored under;
    // TEEC_ERROR_BAD_STATE when it breaks them.
    TEEC_Result readSlot(int32_t index, Bytes& data);
    // The key material at index when the key there is of this type.
    TEEC_Result keyOfType(int32_t index, int32_t type, Bytes& material);
    // The hub token stored at index: its identity and its key.
    TEEC_Result hubToken(int32_t index, Bytes& id, Bytes& key);
    TEEC_Result aes(bool encrypt, RequestFields& in, wsm::Writer& out);

    VaultStorage& storage_;
};

// Registers the TA; vault must outlive the registry's use of it.
TrustedApp& addVaultTa(TaRegistry& registry, VaultTa& vault);

}  // namespace zel::vault
