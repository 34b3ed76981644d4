// The secure-processor TA at zel_test_a: the vault's management commands.
//
// Its state lives in the vault's storage beside the slots and keys, so it survives restarts with
// --storage and is emptied by the control TA's reset, after which every item reads as its default.
// What each command does is written down in docs/vault.md.
#pragma once

#include <cstdint>

#include "control_ids.h"
#include "request_fields.h"
#include "trusted_app.h"
#include "vault_storage.h"

namespace zel::vault {

class SecureProcessorTa {
  public:
    // What the TA keeps; the control TA sets the last five to drive the library's every branch.
    enum Item : int32_t {
        kAkKey = 1,            // the provisioned AK public key, as the 540 characters received
        kRpmbProvisioned = 2,  // present once the AK key was bound to RPMB
        kFirmwareWords = 3,    // the firmware information, 32-bit little-endian words
        kHackStatus = 4,       // hack status bytes; any non-zero byte reports a hack
        kUpdateResult = 5,     // the 8-byte result record a firmware update reports
        kSystemVersion = 6,    // version texts a firmware update reports
        kAppVersion = 7,
    };
    static constexpr uint32_t kAkKeyTextSize = 540;

    explicit SecureProcessorTa(VaultStorage& storage) : storage_(storage) {}

    TaResult invoke(uint32_t command, TaOperation& operation);
    // Replaces one of the items the control TA may set; TEEC_ERROR_BAD_PARAMETERS for any other
    // item or a value of the wrong shape.
    TEEC_Result setAnswer(uint32_t item, const Bytes& value);

    // One per command; each reads its request (if any) and writes its reply (if any).
    TEEC_Result checkZelAk(RequestFields& in, wsm::Writer& out);
    TEEC_Result akProvision(RequestFields& in, wsm::Writer& out);
    TEEC_Result akProvisionRPMB(RequestFields& in, wsm::Writer& out);
    TEEC_Result getPublicKeyStatus(RequestFields& in, wsm::Writer& out);
    TEEC_Result getInfo(RequestFields& in, wsm::Writer& out);
    TEEC_Result getAppInfo(RequestFields& in, wsm::Writer& out);
    TEEC_Result updateFW(RequestFields& in, wsm::Writer& out);
    TEEC_Result updateFWWithReport(RequestFields& in, wsm::Writer& out);
    TEEC_Result selfTestAll(RequestFields& in, wsm::Writer& out);
    TEEC_Result getHackInfo(RequestFields& in, wsm::Writer& out);
    TEEC_Result getFWInfo(RequestFields& in, wsm::Writer& out);
    TEEC_Result forceRecovery(RequestFields& in, wsm::Writer& out);
    TEEC_Result forceRecoverySP(RequestFields& in, wsm::Writer& out);
    TEEC_Result removeAkKeys(RequestFields& in, wsm::Writer& out);

  private:
    // The stored value of an item, or its default when nothing is stored.
    TEEC_Result read(Item item, Bytes& value);
    // The firmware update itself: its result record, and whether it reports success.
    TEEC_Result applyUpdate(RequestFields& in, Bytes& record);

    VaultStorage& storage_;
};

// Registers the TA; it must outlive the registry's use of it.
TrustedApp& addSecureProcessorTa(TaRegistry& registry, SecureProcessorTa& secureProcessor);

}  // namespace zel::vault
