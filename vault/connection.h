// One client connection (one TEEC_Context): its own tables of sessions and shared memory. Every
// id, offset and size a client sends is checked against these tables only, so a client can never
// reach another client's sessions or memory.
#pragma once

#include <cstdint>

#include "fault_plan.h"
#include "id_table.h"
#include "shared_block.h"
#include "teec_wire.h"
#include "trusted_app.h"
#include "unique_fd.h"

namespace zel::vault {

class Connection {
  public:
    static constexpr uint32_t kMaxSessions = 64;
    static constexpr uint32_t kMaxBlocks = 64;

    Connection(int socket, const TaRegistry& registry, FaultPlan& faults);
    // The sessions the client left open are closed, as when a client dies on a device.
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    // Serves requests until the client hangs up or the socket is shut down.
    void serve();

  private:
    struct Session {
        TrustedApp* app = nullptr;
        wire::UuidBytes uuid{};
        TaSession ta;
    };
    static void endSession(Session& session);

    enum class Received { kRequest, kMalformed, kClosed };
    Received receive(wire::Request& request, UniqueFd& passed);
    wire::Reply handle(const wire::Request& request, UniqueFd passed);

    wire::Reply openSession(const wire::Request& request, UniqueFd passed);
    wire::Reply closeSession(const wire::Request& request, UniqueFd passed);
    wire::Reply registerMemory(const wire::Request& request, UniqueFd passed);
    wire::Reply releaseMemory(const wire::Request& request, UniqueFd passed);
    wire::Reply invoke(const wire::Request& request, UniqueFd passed);

    // Turns the request's parameters into windows of this client's blocks; BAD_PARAMETERS for
    // anything that does not lie within them.
    TEEC_Result buildOperation(const wire::Request& request, TaOperation& operation) const;

    int socket_;
    const TaRegistry& registry_;
    FaultPlan& faults_;
    IdTable<Session, kMaxSessions> sessions_;
    IdTable<SharedBlock, kMaxBlocks> blocks_;
    uint32_t nextId_ = 1;
};

}  // namespace zel::vault
