// Faults that the control TA arms and the daemon applies at its own boundaries, before a request
// reaches a TA: failed invocations, refused sessions, refused allocations, stalled invocations.
// Shared by every connection; thread-safe.
#pragma once

#include <tee_client_api.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "teec_wire.h"

namespace zel::vault {

class FaultPlan {
  public:
    enum class Kind : uint32_t { kInvoke, kOpenSession, kAllocation, kStall, kScriptedReply };

    struct Injected {
        TEEC_Result result = TEEC_SUCCESS;
        uint32_t origin = TEEC_ORIGIN_TRUSTED_APP;
        uint32_t stallMs = 0;
        std::vector<uint8_t> reply;  // kScriptedReply: written into the block in the TA's place
    };

    // count 0 arms the fault until the next reset. uuid and command are ignored where the kind
    // has none (allocation has neither, open-session no command).
    void arm(Kind kind, const wire::UuidBytes& uuid, uint32_t command, uint32_t count,
             Injected what);
    // Consumes one use of the first matching fault, if any.
    std::optional<Injected> take(Kind kind, const wire::UuidBytes& uuid = {}, uint32_t command = 0);
    void reset();

  private:
    struct Rule {
        Kind kind;
        wire::UuidBytes uuid;
        uint32_t command;
        uint32_t remaining;  // 0: until reset
        Injected what;
    };
    std::mutex lock_;
    std::vector<Rule> rules_;
};

}  // namespace zel::vault
