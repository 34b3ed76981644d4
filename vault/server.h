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

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <string>

#include "fault_plan.h"
#include "trusted_app.h"
#include "unique_fd.h"

namespace zel::vault {

// A thread with a stack of a chosen size, which std::thread cannot set: its default (8 MiB, from
// RLIMIT_STACK) is address space reserved whole per thread, which a limit such as RLIMIT_AS
// counts. The object owns the thread: it must outlive it, and destruction joins it.
class SizedThread {
  public:
    SizedThread() = default;
    ~SizedThread() { join(); }
    SizedThread(const SizedThread&) = delete;
    SizedThread& operator=(const SizedThread&) = delete;

    // Runs body on a new thread with a stack of stackSize bytes (at least the system's minimum),
    // the thread's static thread-local storage included. 0, or the error (EAGAIN: no memory or
    // no thread left) with nothing started.
    int start(size_t stackSize, std::function<void()> body);
    bool joinable() const { return started_; }
    // Waits for the thread to end; nothing if none is running or it was joined already.
    void join();

  private:
    static void* enter(void* self);
    std::function<void()> body_;
    pthread_t thread_{};
    bool started_ = false;
};

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
    // Each pooled thread's stack. The deepest a served connection went, from the top of the
    // stack (its thread-local storage included), through `zel-tc run --all` (every command of
    // both TAs: ECDSA, ECDH, AES-GCM and SQLite over OpenSSL), the daemon's tests and a fuzzing
    // run: 16.5 KiB on x86-64, 27 KiB under ASan and UBSan. Nine times the deeper of the two,
    // for a TA's paths not yet taken. (ThreadSanitizer adds its own per-thread state to it.)
    static constexpr size_t kThreadStack = 256 * 1024;

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
        SizedThread thread;
        int socket = -1;  // the connection being served, for the shutdown
        bool finished = false;
        bool resident = false;  // the thread that called run(): it stays until the stop
    };
    void work(Worker& self);
    // The leader's wait: the next connection, or empty once stopFd is readable.
    UniqueFd acceptNext();
    // With mutex_ held: ends every connection and wakes every thread to leave.
    void stopAll();
    // With mutex_ held. 0, or why no thread could be started.
    int startWorker();
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
