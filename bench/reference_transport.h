// The floor of the host TEE's transport: the least work one command can cost on this machine. A
// reference server and client exchange the very messages the TEE client library and zel-vaultd
// exchange (same sizes, same number of round trips, one memfd created, passed with SCM_RIGHTS and
// mapped on both sides), and do nothing else: no checks, no tables, no TA.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include <string>

namespace zel::bench {

// A reference server in a child process of its own, serving each connection on the thread that
// accepted it, from a fixed set of threads all waiting in accept: one for a lone client's floor,
// as many as the clients for concurrent ones. Stops (SIGKILL, reaped) and removes its socket on
// destruction.
class ReferenceServer {
  public:
    ReferenceServer() = default;
    ~ReferenceServer();
    ReferenceServer(const ReferenceServer&) = delete;
    ReferenceServer& operator=(const ReferenceServer&) = delete;

    // False with a message when the socket or the child cannot be had.
    bool start(int threads, std::string& error);
    const std::string& socketPath() const { return socketPath_; }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
    std::string directory_;
    std::string socketPath_;
};

// One connection of the reference client. Each call makes exactly the round trips its
// counterpart in the TEE client library makes; false when the server is gone.
class ReferenceClient {
  public:
    ReferenceClient() = default;
    ~ReferenceClient();
    ReferenceClient(const ReferenceClient&) = delete;
    ReferenceClient& operator=(const ReferenceClient&) = delete;

    // Context, session and an 8 KiB block, as a whole command opens them.
    bool open(const std::string& socketPath);
    // One invocation over the open session.
    bool invoke();
    // Block, session and context released, in the library's order.
    void close();

  private:
    bool roundTrip(uint32_t op, int passFd);
    int socket_ = -1;
    void* block_ = nullptr;
};

// Open, one invocation, close: what one whole command costs at the floor.
bool referenceWholeCommand(const std::string& socketPath);

}  // namespace zel::bench
