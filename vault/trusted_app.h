// What the daemon knows of a trusted application: its UUID, its entry points and the lock that
// makes it single-instance (one command at a time, as on the device). The vault's TAs are
// GlobalPlatform TAs loaded from shared objects (loaded_ta.h); the control TA is the daemon's own.
#pragma once

#include <tee_client_api.h>

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "teec_wire.h"

namespace zel::vault {

// One parameter as a TA sees it: a value pair, or a window into a client's shared memory that the
// daemon has already checked to lie within the block.
struct TaParam {
    uint32_t type = TEEC_NONE;
    uint32_t a = 0;
    uint32_t b = 0;
    uint8_t* buffer = nullptr;
    uint32_t size = 0;
    uint32_t flags = 0;  // a memory reference's block: TEEC_MEM_INPUT, TEEC_MEM_OUTPUT
};

struct TaOperation {
    uint32_t paramTypes = 0;
    std::array<TaParam, 4> params{};
};

// A TA failure: the GP result and where it came from (normally the TA itself).
struct TaResult {
    TEEC_Result result = TEEC_SUCCESS;
    uint32_t origin = TEEC_ORIGIN_TRUSTED_APP;
};

// A session as its TA knows it: the TA's own session context, and the instance it was opened on.
struct TaSession {
    void* context = nullptr;
    uint64_t instance = 0;
};

// The entry points; a TA without open or close accepts every session and keeps nothing for it.
// Every call is made with the TA's lock held.
struct TrustedApp {
    std::string name;
    std::function<TaResult(TaOperation& operation, TaSession& session)> open;
    std::function<TaResult(TaSession& session, uint32_t command, TaOperation& operation)> invoke;
    std::function<void(TaSession& session)> close;
    std::mutex lock;
};

// The TAs by UUID: the daemon's own, added at start, and those a loader finds when a client first
// asks for their UUID (as a TEE loads a TA file). Thread-safe; a TA, once there, stays.
class TaRegistry {
  public:
    // Fills in the entry points of the TA of that UUID; false when there is no such TA.
    using Loader = std::function<bool(const wire::UuidBytes& uuid, TrustedApp& app)>;

    explicit TaRegistry(Loader loader = {}) : loader_(std::move(loader)) {}

    TrustedApp& add(const TEEC_UUID& uuid, std::string name) {
        std::lock_guard<std::mutex> lock(lock_);
        auto& app = apps_[wire::uuidBytes(uuid)];
        app = std::make_unique<TrustedApp>();
        app->name = std::move(name);
        return *app;
    }
    TrustedApp* find(const wire::UuidBytes& uuid) const {
        std::lock_guard<std::mutex> lock(lock_);
        const auto it = apps_.find(uuid);
        if (it != apps_.end()) return it->second.get();
        auto app = std::make_unique<TrustedApp>();
        app->name = wire::uuidText(uuid);
        if (!loader_ || !loader_(uuid, *app)) return nullptr;
        return (apps_[uuid] = std::move(app)).get();
    }

  private:
    Loader loader_;
    mutable std::mutex lock_;
    mutable std::map<wire::UuidBytes, std::unique_ptr<TrustedApp>> apps_;
};

}  // namespace zel::vault
