// The control TA: arms the daemon's faults. See control_ids.h for its commands.
#pragma once

#include <functional>

#include "fault_plan.h"
#include "trusted_app.h"

namespace zel::vault {

// resetState clears what the other TAs keep; it runs after the faults are disarmed.
void addControlTa(TaRegistry& registry, FaultPlan& faults, std::function<void()> resetState);

}  // namespace zel::vault
