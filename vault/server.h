// Listens on the daemon's socket and serves each client connection on a pooled thread. Idle
// threads wait in accept() itself: the kernel wakes exactly one per connection, and that thread
// serves it, start to end, so a command costs no thread start and no handoff between threads.
// The thread that takes the last idle one's place starts another first. A connection keeps its
// thread while it lasts: a client that stalls, or stops reading, holds up only itself.
//
// A connection that ends is reaped at once (its descriptor closed, its blocks unmapped); past
// kIdleThreads idle threads, a thread ends with its connection. A connection that would leave no
// thread waiting (none can be started) or is past the limit is closed alone; at the descriptor
// limit a thread waits for a connection to end (or a moment) instead of spinning.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>
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
    // Idle threads kept for the connections to come.
    static constexpr size_t kIdleThreads = 8;

    Server(std::string socketPath, const TaRegistry& registry, FaultPlan& faults);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Creates the socket in a directory only its owner can enter (made if missing). False with a
    // message when that cannot be done safely.
    bool listen(std::string& error);
    // Accepts and serves until stopFd becomes readable (it is never read); then ends every
    // connection and waits for every thread.
    void run(int stopFd);

  private:
    struct Worker {
        std::thread thread;
        int socket = -1;  // the connection being served, for the shutdown
        bool finished = false;
    };
    void work(Worker& self);
    // After a failed accept, with mutex_ held through lock: pauses when retrying at once would
    // spin (at the descriptor limit, until a connection ends).
    void waitAfter(int error, std::unique_lock<std::mutex>& lock);
    // With mutex_ held. False when no thread could be started.
    bool startWorker();
    // Joins the threads that ended; with mutex_ not held.
    void reapFinished();
    // kMaxConnections, or fewer when the descriptor limit would not allow that many.
    static size_t connectionLimit();

    std::string socketPath_;
    const TaRegistry& registry_;
    FaultPlan& faults_;
    UniqueFd listener_;
    size_t limit_ = kMaxConnections;

    std::mutex mutex_;               // guards everything below
    std::condition_variable ended_;  // a connection ended (threads wait at the fd limit)
    bool stopping_ = false;
    bool atDescriptorLimit_ = false;  // logged once per episode
    size_t waitingForDescriptors_ = 0;
    size_t accepting_ = 0;  // threads in accept(), or on their way there
    size_t live_ = 0;
    std::list<Worker> workers_;
};

}  // namespace zel::vault
