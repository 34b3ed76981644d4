#include "fault_plan.h"

namespace zel::vault {

void FaultPlan::arm(Kind kind, const wire::UuidBytes& uuid, uint32_t command, uint32_t count,
                    Injected what) {
    std::lock_guard<std::mutex> guard(lock_);
    rules_.push_back({kind, uuid, command, count, what});
}

std::optional<FaultPlan::Injected> FaultPlan::take(Kind kind, const wire::UuidBytes& uuid,
                                                   uint32_t command) {
    const bool hasUuid = kind != Kind::kAllocation;
    const bool hasCommand = kind != Kind::kAllocation && kind != Kind::kOpenSession;
    std::lock_guard<std::mutex> guard(lock_);
    for (auto it = rules_.begin(); it != rules_.end(); ++it) {
        if (it->kind != kind || (hasUuid && it->uuid != uuid) ||
            (hasCommand && it->command != command))
            continue;
        const Injected what = it->what;
        if (it->remaining == 1)
            rules_.erase(it);
        else if (it->remaining > 1)
            --it->remaining;
        return what;
    }
    return std::nullopt;
}

void FaultPlan::reset() {
    std::lock_guard<std::mutex> guard(lock_);
    rules_.clear();
}

}  // namespace zel::vault
