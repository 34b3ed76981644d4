#include "control_ta.h"

#include <map>

#include "control_ids.h"

namespace zel::vault {

namespace {

constexpr uint32_t kValueTypes =
    TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, TEEC_VALUE_INPUT, TEEC_VALUE_INPUT, TEEC_VALUE_INPUT);
constexpr uint32_t kScriptTypes = TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, TEEC_MEMREF_PARTIAL_INPUT,
                                                   TEEC_VALUE_INPUT, TEEC_VALUE_INPUT);

const std::map<uint32_t, FaultPlan::Kind> kArmingCommands = {
    {kControlFailInvoke, FaultPlan::Kind::kInvoke},
    {kControlFailOpenSession, FaultPlan::Kind::kOpenSession},
    {kControlFailAllocation, FaultPlan::Kind::kAllocation},
    {kControlStallInvoke, FaultPlan::Kind::kStall},
    {kControlScriptReply, FaultPlan::Kind::kScriptedReply},
};

TaResult invalid() {
    return {TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_TRUSTED_APP};
}

}  // namespace

void addControlTa(TaRegistry& registry, FaultPlan& faults, ControlHooks hooks) {
    registry.add(kControlUuid, "control").invoke = [&faults, hooks](TaSession&, uint32_t command,
                                                                    TaOperation& op) -> TaResult {
        if (command == kControlReset) {
            faults.reset();
            if (hooks.resetState) hooks.resetState();
            return {};
        }
        const auto& p = op.params;
        if (command == kControlSetSecureProcessor) {
            if (op.paramTypes != kScriptTypes || !hooks.setAnswer) return invalid();
            return {hooks.setAnswer(p[0].a, {p[1].buffer, p[1].buffer + p[1].size}),
                    TEEC_ORIGIN_TRUSTED_APP};
        }
        const auto kind = kArmingCommands.find(command);
        if (kind == kArmingCommands.end())
            return {TEEC_ERROR_NOT_SUPPORTED, TEEC_ORIGIN_TRUSTED_APP};
        const bool stall = kind->second == FaultPlan::Kind::kStall;
        const bool script = kind->second == FaultPlan::Kind::kScriptedReply;
        if (op.paramTypes != (script ? kScriptTypes : kValueTypes)) return invalid();
        FaultPlan::Injected what;
        if (script) {
            what.reply.assign(p[1].buffer, p[1].buffer + p[1].size);
        } else if (stall) {
            if (p[1].a > kControlMaxStallMs) return invalid();
            what.stallMs = p[1].a;
        } else {
            if (p[1].a == TEEC_SUCCESS) return invalid();  // a failure must fail
            what.result = p[1].a;
            what.origin = p[1].b;
        }
        const TEEC_UUID target = uuidFromWords({p[2].a, p[2].b, p[3].a, p[3].b});
        faults.arm(kind->second, wire::uuidBytes(target), p[0].a, p[0].b, what);
        return {};
    };
}

}  // namespace zel::vault
