// Listens on the daemon's socket and serves each client connection on a thread of its own.
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

    std::string socketPath_;
    const TaRegistry& registry_;
    FaultPlan& faults_;
    UniqueFd listener_;
    std::list<Client> clients_;
};

}  // namespace zel::vault
