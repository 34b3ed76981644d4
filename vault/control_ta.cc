#include "control_ta.h"

#include <map>

#include "control_ids.h"

namespace zel::vault {

namespace {

constexpr uint32_t kValueTypes =
    TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, TEEC_VALUE_INPUT, TEEC_VALUE_INPUT, TEEC_VALUE_INPUT);

const std::map<uint32_t, FaultPlan::Kind> kArmingCommands = {
    {kControlFailInvoke, FaultPlan::Kind::kInvoke},
    {kControlFailOpenSession, FaultPlan::Kind::kOpenSession},
    {kControlFailAllocation, FaultPlan::Kind::kAllocation},
    {kControlStallInvoke, FaultPlan::Kind::kStall},
};

TaResult invalid() {
    return {TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_TRUSTED_APP};
}

}  // namespace

void addControlTa(TaRegistry& registry, FaultPlan& faults, std::function<void()> resetState) {
    registry.add(kControlUuid, "control",
                 [&faults, resetState](uint32_t command, TaOperation& op) -> TaResult {
                     if (command == kControlReset) {
                         faults.reset();
                         if (resetState) resetState();
                         return {};
                     }
                     const auto kind = kArmingCommands.find(command);
                     if (kind == kArmingCommands.end())
                         return {TEEC_ERROR_NOT_SUPPORTED, TEEC_ORIGIN_TRUSTED_APP};
                     if (op.paramTypes != kValueTypes) return invalid();
                     const auto& p = op.params;
                     const bool stall = kind->second == FaultPlan::Kind::kStall;
                     if (stall ? p[1].a > kControlMaxStallMs : p[1].a == TEEC_SUCCESS)
                         return invalid();
                     const TEEC_UUID target = uuidFromWords({p[2].a, p[2].b, p[3].a, p[3].b});
                     FaultPlan::Injected what{p[1].a, p[1].b, stall ? p[1].a : 0};
                     faults.arm(kind->second, wire::uuidBytes(target), p[0].a, p[0].b, what);
                     return {};
                 });
}

}  // namespace zel::vault
