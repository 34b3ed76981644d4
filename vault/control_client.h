// Drives the control TA of a zel-vaultd started with --control. Each call opens its own context
// and session and returns the TEE result (TEEC_SUCCESS when the fault is armed).
#pragma once

#include <tee_client_api.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zel::vault {

class VaultControl {
  public:
    // An empty path is the default TEE.
    explicit VaultControl(std::string socketPath = {}) : socketPath_(std::move(socketPath)) {}

    TEEC_Result reset() const;
    // count 0: until reset.
    TEEC_Result failInvocations(const TEEC_UUID& ta, uint32_t command, uint32_t count,
                                TEEC_Result result, uint32_t origin) const;
    TEEC_Result failOpenSession(const TEEC_UUID& ta, uint32_t count, TEEC_Result result,
                                uint32_t origin) const;
    TEEC_Result failAllocations(uint32_t count, TEEC_Result result, uint32_t origin) const;
    TEEC_Result stallInvocations(const TEEC_UUID& ta, uint32_t command, uint32_t count,
                                 uint32_t milliseconds) const;
    // The next invocations answer success with this message (in the codec's encoding) in the
    // client's block instead of running the TA.
    TEEC_Result scriptReply(const TEEC_UUID& ta, uint32_t command, uint32_t count,
                            const std::vector<uint8_t>& message) const;

    // Replaces one of the secure processor's answers: an item of sp_items.h (firmware
    // words, hack status, update result record, system or app version text).
    TEEC_Result setSecureProcessor(uint32_t item, const std::vector<uint8_t>& value) const;

  private:
    TEEC_Result send(uint32_t command, uint32_t target, uint32_t count, uint32_t what,
                     uint32_t origin, const TEEC_UUID& ta,
                     const std::vector<uint8_t>* message = nullptr) const;
    std::string socketPath_;
};

}  // namespace zel::vault
