#include "server.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iostream>

#include <poll.h>
#include <sys/eventfd.h>
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

Server::Server(std::string socketPath, const TaRegistry& registry, FaultPlan& faults)
    : socketPath_(std::move(socketPath)), registry_(registry), faults_(faults) {}

Server::~Server() {
    for (Client& client : clients_) {
        shutdown(client.socket.get(), SHUT_RDWR);
        client.thread.join();
    }
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
    fd.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!fd || bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd.get(), 64) != 0) {
        error = "cannot listen on " + socketPath_ + ": " + std::strerror(errno);
        return false;
    }
    listener_ = std::move(fd);
    finished_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    limit_ = connectionLimit();
    return true;
}

void Server::run(int stopFd) {
    pollfd fds[3] = {{listener_.get(), POLLIN, 0}, {stopFd, POLLIN, 0}, {finished_.get(), POLLIN, 0}};
    for (;;) {
        if (poll(fds, finished_ ? 3 : 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[1].revents) break;
        if (fds[2].revents) {
            uint64_t count;
            while (read(finished_.get(), &count, sizeof count) > 0) {
            }
            reapFinished();
        }
        if (fds[0].revents & POLLIN) serveNext();
    }
}

void Server::serveNext() {
    UniqueFd socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket) {
        if (errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM) return;
        // The pending connection stays in the backlog; wait for a connection to end (or a
        // moment) before trying again, instead of polling a listener that stays readable.
        if (!atDescriptorLimit_)
            std::cerr << "zel-vaultd: out of descriptors (" << std::strerror(errno)
                      << "); new connections wait until others end" << std::endl;
        atDescriptorLimit_ = true;
        pollfd wait{finished_.get(), POLLIN, 0};
        poll(&wait, finished_ ? 1 : 0, 100);
        return;
    }
    atDescriptorLimit_ = false;
    reapFinished();
    if (clients_.size() >= limit_) return;  // closing it tells the client
    auto done = std::make_shared<std::atomic<bool>>(false);
    const int raw = socket.get();
    const int finished = finished_.get();
    try {
        clients_.push_back({std::move(socket), std::thread(), done});
        clients_.back().thread = std::thread([this, raw, done, finished] {
            try {
                Connection(raw, registry_, faults_).serve();
            } catch (const std::exception& failure) {
                // Only this connection is lost; closing it (below) tells its client.
                std::cerr << "zel-vaultd: a connection failed: " << failure.what() << std::endl;
                shutdown(raw, SHUT_RDWR);
            }
            done->store(true);
            const uint64_t one = 1;
            if (finished >= 0 && write(finished, &one, sizeof one) < 0) {
            }
        });
    } catch (const std::exception& failure) {
        std::cerr << "zel-vaultd: cannot serve a connection: " << failure.what() << std::endl;
        if (!clients_.empty() && !clients_.back().thread.joinable() && clients_.back().socket.get() == raw)
            clients_.pop_back();
    }
}

size_t Server::connectionLimit() {
    rlimit descriptors{};
    if (getrlimit(RLIMIT_NOFILE, &descriptors) != 0 || descriptors.rlim_cur == RLIM_INFINITY)
        return kMaxConnections;
    if (descriptors.rlim_cur <= 2 * kReservedDescriptors) return 1 + descriptors.rlim_cur / 4;
    return std::min<size_t>(kMaxConnections, descriptors.rlim_cur - kReservedDescriptors);
}

void Server::reapFinished() {
    for (auto it = clients_.begin(); it != clients_.end();) {
        if (it->done->load()) {
            it->thread.join();
            it = clients_.erase(it);
        } else {
            ++it;
        }
    }
}

}  // namespace zel::vault
