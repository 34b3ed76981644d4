// Listens on the daemon's socket and serves each client connection on a pooled thread. Threads
// take turns leading: the leader waits for the next connection, hands the lead to an idle thread
// (starting one only when none is idle) and serves the connection itself, so a command costs no
// thread start and no handoff before its first request is read. A connection is served on its
// thread alone, start to end: a client that stalls, or stops reading, holds up only itself.
//
// A connection that ends is reaped at once (its descriptor closed, its tables unmapped); past
// kIdleThreads idle threads, a thread that stays idle for kLinger ends. A connection that cannot
// be given a leader to follow it (no thread) or is past the limit is closed alone; at the
// descriptor limit the leader waits for a connection to end (or a moment) instead of spinning.
#pragma once

#include <chrono>
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
    // How long a thread past that reserve waits for another connection before it ends.
    static constexpr std::chrono::milliseconds kLinger{1000};

    Server(std::string socketPath, const TaRegistry& registry, FaultPlan& faults);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Creates the socket in a directory only its owner can enter (made if missing). False with a
    // message when that cannot be done safely.
    bool listen(std::string& error);
    // Accepts and serves, on the calling thread too, until stopFd becomes readable (it is never
    // read); then ends every connection and waits for every thread.
    void run(int stopFd);

  private:
    struct Worker {
        std::thread thread;
        int socket = -1;  // the connection being served, for the shutdown
        bool finished = false;
        bool resident = false;  // the thread that called run(): it stays until the stop
    };
    void work(Worker& self);
    // The leader's wait: the next connection, or empty once stopFd is readable.
    UniqueFd acceptNext();
    // With mutex_ held: ends every connection and wakes every thread to leave.
    void stopAll();
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
    int stopFd_ = -1;
    size_t limit_ = kMaxConnections;
    bool atDescriptorLimit_ = false;  // logged once per episode; touched by the leader only

    std::mutex mutex_;                   // guards everything below
    std::condition_variable followers_;  // idle threads, waiting to lead
    std::condition_variable ended_;      // a connection ended (the leader waits at the fd limit)
    bool leading_ = false;
    bool stopping_ = false;
    bool waitingForDescriptors_ = false;
    size_t idle_ = 0;
    size_t live_ = 0;
    std::list<Worker> workers_;
};

}  // namespace zel::vault
