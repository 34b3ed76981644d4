// Listens on the daemon's socket and serves each client connection on a thread of its own. A
// connection that ends is reaped at once (its thread joined, its descriptor closed); one that
// cannot be served (no thread, no memory) is closed alone; at the descriptor limit the listener
// backs off instead of spinning.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "fault_plan.h"
#include "trusted_app.h"
#include "unique_fd.h"

namespace zel::vault {

class Server {
  public:
    static constexpr size_t kMaxConnections = 256;
    // Descriptors kept back from the connection limit for the store, the listener and the
    // blocks being registered.
    static constexpr size_t kReservedDescriptors = 32;

    Server(std::string socketPath, const TaRegistry& registry, FaultPlan& faults);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Creates the socket in a directory only its owner can enter (made if missing). False with a
    // message when that cannot be done safely.
    bool listen(std::string& error);
    // Accepts and serves until stopFd becomes readable; then ends every connection, waits for
    // their threads and removes the socket.
    void run(int stopFd);

  private:
    struct Client {
        UniqueFd socket;
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };
    void reapFinished();
    void serveNext();
    // kMaxConnections, or fewer when the descriptor limit would not allow that many.
    static size_t connectionLimit();

    std::string socketPath_;
    const TaRegistry& registry_;
    FaultPlan& faults_;
    UniqueFd listener_;
    UniqueFd finished_;  // an eventfd each connection signals as it ends
    size_t limit_ = kMaxConnections;
    bool atDescriptorLimit_ = false;  // logged once per episode
    std::list<Client> clients_;
};

}  // namespace zel::vault
