#include "reference_transport.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "teec_wire.h"

namespace zel::bench {

namespace {

constexpr size_t kBlockSize = 8192;  // the library's block

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

// Serves one connection: a reply per request, the block mapped when it arrives and unmapped when
// released. An invocation reads the request's first word, as any TA must.
void serveOne(int connection) {
    uint8_t* block = nullptr;
    for (;;) {
        wire::Request request{};
        iovec iov{&request, sizeof request};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        if (recvmsg(connection, &msg, MSG_CMSG_CLOEXEC) <= 0) break;
        if (cmsghdr* header = CMSG_FIRSTHDR(&msg); header && header->cmsg_type == SCM_RIGHTS) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
            void* mapped = mmap(nullptr, kBlockSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            ::close(fd);
            if (mapped != MAP_FAILED) block = static_cast<uint8_t*>(mapped);
        }
        wire::Reply reply{};
        reply.id = 1;
        if (request.op == wire::kInvoke && block) {
            reply.result = *reinterpret_cast<volatile uint32_t*>(block);
        } else if (request.op == wire::kReleaseMemory && block) {
            munmap(block, kBlockSize);
            block = nullptr;
        }
        if (send(connection, &reply, sizeof reply, MSG_NOSIGNAL) != sizeof reply) break;
    }
    if (block) munmap(block, kBlockSize);
}

[[noreturn]] void acceptForever(int listener) {
    for (;;) {
        const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            _exit(1);
        }
        serveOne(connection);
        ::close(connection);
    }
}

// Every thread waits in accept itself: the kernel hands each connection to exactly one of them,
// with nothing handed between threads and no thread started per connection.
[[noreturn]] void serveForever(int listener, int threads) {
    for (int i = 1; i < threads; ++i) std::thread(acceptForever, listener).detach();
    acceptForever(listener);
}

}  // namespace

ReferenceServer::~ReferenceServer() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (!socketPath_.empty()) unlink(socketPath_.c_str());
    if (!directory_.empty()) rmdir(directory_.c_str());
}

bool ReferenceServer::start(int threads, std::string& error) {
    const char* tmp = std::getenv("TMPDIR");
    directory_ = std::string(tmp && *tmp ? tmp : "/tmp") + "/zel-floor-XXXXXX";
    if (!mkdtemp(directory_.data())) {
        error = std::string("mkdtemp: ") + std::strerror(errno);
        directory_.clear();
        return false;
    }
    socketPath_ = directory_ + "/socket";
    const sockaddr_un address = addressOf(socketPath_);
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (listener < 0 ||
        bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 64) != 0) {
        error = "reference server: " + std::string(std::strerror(errno));
        if (listener >= 0) ::close(listener);
        return false;
    }
    pid_ = fork();
    if (pid_ == 0) serveForever(listener, threads);
    ::close(listener);
    if (pid_ < 0) {
        error = std::string("fork: ") + std::strerror(errno);
        return false;
    }
    return true;
}

ReferenceClient::~ReferenceClient() {
    close();
}

bool ReferenceClient::roundTrip(uint32_t op, int passFd) {
    wire::Request request{};
    request.op = op;
    wire::Reply reply{};
    return wire::sendMessage(socket_, &request, sizeof request, passFd) &&
           recv(socket_, &reply, sizeof reply, 0) == sizeof reply;
}

bool ReferenceClient::open(const std::string& socketPath) {
    const sockaddr_un address = addressOf(socketPath);
    socket_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (socket_ < 0 ||
        connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        !roundTrip(wire::kOpenSession, -1))
        return false;
    const int memory = memfd_create("zel-floor", MFD_CLOEXEC);
    if (memory < 0) return false;
    void* mapped = MAP_FAILED;
    if (ftruncate(memory, kBlockSize) == 0)
        mapped = mmap(nullptr, kBlockSize, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
    const bool passed = mapped != MAP_FAILED && roundTrip(wire::kRegisterMemory, memory);
    ::close(memory);
    if (mapped != MAP_FAILED) block_ = mapped;
    return passed;
}

bool ReferenceClient::invoke() {
    return roundTrip(wire::kInvoke, -1);
}

void ReferenceClient::close() {
    if (block_) {
        roundTrip(wire::kReleaseMemory, -1);
        munmap(block_, kBlockSize);
        block_ = nullptr;
    }
    if (socket_ >= 0) {
        roundTrip(wire::kCloseSession, -1);
        ::close(socket_);
        socket_ = -1;
    }
}

bool referenceWholeCommand(const std::string& socketPath) {
    ReferenceClient client;
    return client.open(socketPath) && client.invoke();
}

}  // namespace zel::bench
