// What the daemon knows of a simulated trusted application: its UUID, its entry points and the
// lock that makes it single-instance (one command at a time, as on the device).
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

struct TrustedApp {
    std::string name;
    std::function<TaResult(uint32_t command, TaOperation& operation)> invoke;
    std::mutex lock;
};

class TaRegistry {
  public:
    TrustedApp& add(const TEEC_UUID& uuid, std::string name,
                    std::function<TaResult(uint32_t, TaOperation&)> invoke) {
        auto& app = apps_[wire::uuidBytes(uuid)];
        app = std::make_unique<TrustedApp>();
        app->name = std::move(name);
        app->invoke = std::move(invoke);
        return *app;
    }
    TrustedApp* find(const wire::UuidBytes& uuid) const {
        const auto it = apps_.find(uuid);
        return it == apps_.end() ? nullptr : it->second.get();
    }

  private:
    std::map<wire::UuidBytes, std::unique_ptr<TrustedApp>> apps_;
};

}  // namespace zel::vault
