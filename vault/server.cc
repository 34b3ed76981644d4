#include "server.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <thread>

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "connection.h"

namespace zel::vault {

namespace {

std::string directoryOf(const std::string& path) {
    const auto slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// The socket's directory must be ours and closed to everyone else: the socket is the TEE.
bool privateDirectory(const std::string& directory, std::string& error) {
    if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
        error = "cannot create " + directory + ": " + std::strerror(errno);
        return false;
    }
    struct stat info {};
    if (lstat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        error = directory + " is not a directory";
        return false;
    }
    if (info.st_uid != geteuid() || (info.st_mode & 077) != 0) {
        error = directory + " must belong to this user and be closed to others (mode 0700)";
        return false;
    }
    return true;
}

}  // namespace

int SizedThread::start(size_t stackSize, std::function<void()> body) {
    if (started_) return EINVAL;
    pthread_attr_t attributes;
    if (const int error = pthread_attr_init(&attributes)) return error;
    const long least = sysconf(_SC_THREAD_STACK_MIN);  // no constant from glibc 2.34 on
    if (least > 0) stackSize = std::max(stackSize, static_cast<size_t>(least));
    int error = pthread_attr_setstacksize(&attributes, stackSize);
    if (!error) {
        body_ = std::move(body);
        error = pthread_create(&thread_, &attributes, &SizedThread::enter, this);
        started_ = error == 0;
        if (!started_) body_ = nullptr;
    }
    pthread_attr_destroy(&attributes);
    return error;
}

void SizedThread::join() {
    if (!started_) return;
    pthread_join(thread_, nullptr);
    started_ = false;
    body_ = nullptr;
}

void* SizedThread::enter(void* self) {
    static_cast<SizedThread*>(self)->body_();
    return nullptr;
}

Server::Server(std::string socketPath, const TaRegistry& registry, FaultPlan& faults)
    : socketPath_(std::move(socketPath)), registry_(registry), faults_(faults) {}

Server::~Server() {
    if (listener_) unlink(socketPath_.c_str());
}

bool Server::listen(std::string& error) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath_.empty() || socketPath_.size() >= sizeof address.sun_path) {
        error = "socket path is empty or longer than " +
                std::to_string(sizeof address.sun_path - 1) + " bytes";
        return false;
    }
    if (!privateDirectory(directoryOf(socketPath_), error)) return false;
    std::memcpy(address.sun_path, socketPath_.c_str(), socketPath_.size() + 1);

    UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!fd) {
        error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    // A socket file left by a daemon that died is replaced; a live daemon is not.
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        error = "another daemon is listening on " + socketPath_;
        return false;
    }
    unlink(socketPath_.c_str());
    // Non-blocking: a connection that goes between the leader's poll and its accept must not
    // leave the leader blocked where it cannot see the stop.
    fd.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd || bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd.get(), 64) != 0) {
        error = "cannot listen on " + socketPath_ + ": " + std::strerror(errno);
        return false;
    }
    listener_ = std::move(fd);
    limit_ = connectionLimit();
    return true;
}

void Server::run(int stopFd) {
    stopFd_ = stopFd;
    Worker* self = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        workers_.emplace_back();
        self = &workers_.back();
        self->resident = true;
    }
    work(*self);
    std::list<Worker> all;
    {
        // No thread starts once stopping_ is set: the list is complete.
        std::lock_guard<std::mutex> lock(mutex_);
        all.splice(all.end(), workers_);
    }
    for (Worker& worker : all)
        if (worker.thread.joinable()) worker.thread.join();
}

void Server::work(Worker& self) {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        // Past the idle reserve a thread lingers a moment, so that a burst of connections reuses
        // it instead of ending and starting threads by the hundred, then ends. The lead is taken
        // by whichever idle thread wakes first, reserve or lingering.
        const bool surplus = idle_ >= kIdleThreads && !self.resident;
        const auto mayLead = [this] { return stopping_ || !leading_; };
        ++idle_;
        const bool leads = surplus ? followers_.wait_for(lock, kLinger, mayLead)
                                   : (followers_.wait(lock, mayLead), true);
        --idle_;
        if (stopping_ || !leads) break;
        leading_ = true;
        lock.unlock();
        UniqueFd connection = acceptNext();
        reapFinished();
        lock.lock();
        leading_ = false;
        if (!connection) stopAll();
        if (stopping_) break;
        // The lead passes on before the connection is served; a connection that would leave
        // nobody to lead, or is past the limit, is closed (which tells its client).
        if (live_ >= limit_) {
            connection.reset();
            continue;
        }
        if (idle_ > 0) {
            followers_.notify_one();
        } else if (const int error = startWorker()) {
            std::cerr << "zel-vaultd: no thread to serve a connection (" << std::strerror(error)
                      << "); it is closed" << std::endl;
            connection.reset();
            continue;
        }
        ++live_;
        self.socket = connection.get();
        lock.unlock();
        try {
            Connection(self.socket, registry_, faults_).serve();
        } catch (const std::exception& failure) {
            // Only this connection is lost; closing it (below) tells its client.
            std::cerr << "zel-vaultd: a connection failed: " << failure.what() << std::endl;
        }
        lock.lock();
        // Closed with the lock held, so that a stop never shuts down a reused descriptor.
        connection.reset();
        self.socket = -1;
        --live_;
        if (waitingForDescriptors_) ended_.notify_one();
    }
    self.finished = true;
}

void Server::stopAll() {
    stopping_ = true;
    for (Worker& worker : workers_)
        if (worker.socket >= 0) shutdown(worker.socket, SHUT_RDWR);
    followers_.notify_all();
    ended_.notify_all();
}

UniqueFd Server::acceptNext() {
    pollfd fds[2] = {{listener_.get(), POLLIN, 0}, {stopFd_, POLLIN, 0}};
    for (;;) {
        // Only the stop ends the lead: a failing poll (no memory) is tried again in a moment.
        if (poll(fds, 2, -1) < 0) {
            if (errno != EINTR) std::this_thread::sleep_for(std::chrono::milliseconds(10));
            continue;
        }
        if (fds[1].revents) return {};
        if (!(fds[0].revents & POLLIN)) continue;
        UniqueFd connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (connection) {
            atDescriptorLimit_ = false;
            return connection;
        }
        if (errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM) continue;
        // The pending connection stays in the backlog; wait for a connection to end (or a
        // moment) before trying again, instead of polling a listener that stays readable.
        if (!atDescriptorLimit_)
            std::cerr << "zel-vaultd: out of descriptors (" << std::strerror(errno)
                      << "); new connections wait until others end" << std::endl;
        atDescriptorLimit_ = true;
        std::unique_lock<std::mutex> lock(mutex_);
        if (stopping_) return {};
        waitingForDescriptors_ = true;
        ended_.wait_for(lock, std::chrono::milliseconds(100));
        waitingForDescriptors_ = false;
    }
}

int Server::startWorker() {
    try {
        workers_.emplace_back();
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    Worker& worker = workers_.back();
    const int error = worker.thread.start(kThreadStack, [this, &worker] { work(worker); });
    if (error) workers_.pop_back();
    return error;
}

void Server::reapFinished() {
    std::list<Worker> finished;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = workers_.begin(); it != workers_.end();) {
            const auto next = std::next(it);
            if (it->finished && !it->resident) finished.splice(finished.end(), workers_, it);
            it = next;
        }
    }
    for (Worker& worker : finished) worker.thread.join();
}

size_t Server::connectionLimit() {
    rlimit descriptors{};
    if (getrlimit(RLIMIT_NOFILE, &descriptors) != 0 || descriptors.rlim_cur == RLIM_INFINITY)
        return kMaxConnections;
    if (descriptors.rlim_cur <= 2 * kReservedDescriptors) return 1 + descriptors.rlim_cur / 4;
    return std::min<size_t>(kMaxConnections, descriptors.rlim_cur - kReservedDescriptors);
}

}  // namespace zel::vault
