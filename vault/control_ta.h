// The control TA: arms the daemon's faults. See control_ids.h for its commands.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "fault_plan.h"
#include "trusted_app.h"

namespace zel::vault {

// What the control TA does to the other TAs: resetState clears what they keep (after the faults
// are disarmed); setAnswer replaces one of the secure processor's answers.
struct ControlHooks {
    std::function<void()> resetState;
    std::function<TEEC_Result(uint32_t item, const std::vector<uint8_t>& value)> setAnswer;
};

void addControlTa(TaRegistry& registry, FaultPlan& faults, ControlHooks hooks);

}  // namespace zel::vault
