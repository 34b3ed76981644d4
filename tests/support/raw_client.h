// A test's own client of zel-vaultd: speaks the wire protocol directly, so that a test can send
// what no TEE client library would.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "descriptor_message.h"
#include "interface/zel_ta_ids.h"
#include "teec_wire.h"
#include "unique_fd.h"

namespace zel::test {

using vault::UniqueFd;

class RawClient {
  public:
    explicit RawClient(const std::string& path)
        : fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        connected_ = connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        // A daemon that does not answer fails the test instead of hanging it.
        const timeval limit{20, 0};
        setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    bool connected() const { return connected_; }

    wire::Reply sendBytes(const void* bytes, size_t size, int passFd = -1) {
        wire::Reply reply{};
        reply.result = 0xDEADBEEF;
        if (wire::sendMessage(fd_.get(), bytes, size, passFd)) {
            EXPECT_EQ(recv(fd_.get(), &reply, sizeof reply, 0), static_cast<ssize_t>(sizeof reply));
        }
        return reply;
    }
    // A message of any size (0 too) carrying every descriptor given.
    wire::Reply sendWithDescriptors(const void* bytes, size_t size, const std::vector<int>& fds) {
        wire::Reply reply{};
        reply.result = 0xDEADBEEF;
        if (zel::test::sendWithDescriptors(fd_.get(), bytes, size, fds) ==
            static_cast<ssize_t>(size))
            received_ = recv(fd_.get(), &reply, sizeof reply, 0);
        return reply;
    }
    // What the last sendWithDescriptors received: the reply's size, 0 when the daemon closed.
    ssize_t lastReceived() const { return received_; }

    wire::Reply call(const wire::Request& request, int passFd = -1) {
        return sendBytes(&request, sizeof request, passFd);
    }

    uint32_t openSession(const TEEC_UUID& uuid) {
        const wire::Reply reply = call(openRequest(uuid));
        EXPECT_EQ(reply.result, TEEC_SUCCESS);
        return reply.id;
    }

    // How a request for a session was met: served, or turned away (the connection closed, which
    // the client library reports as TEEC_ERROR_GENERIC from TEEC_ORIGIN_COMMS).
    enum class Met { kServed, kTurnedAway, kOther };
    // Asks for a session to the vault TA without waiting for the answer.
    bool requestSession() {
        const wire::Request open = openRequest(zel_test);
        return wire::sendMessage(fd_.get(), &open, sizeof open, -1);
    }
    // Waits for requestSession's answer; session receives its id when served.
    Met awaitSession(uint32_t* session = nullptr) {
        wire::Reply reply{};
        const ssize_t got = recv(fd_.get(), &reply, sizeof reply, 0);
        if (got == static_cast<ssize_t>(sizeof reply) && reply.result == TEEC_SUCCESS) {
            if (session) *session = reply.id;
            return Met::kServed;
        }
        return got == 0 || (got < 0 && errno == ECONNRESET) ? Met::kTurnedAway : Met::kOther;
    }
    static wire::Request openRequest(const TEEC_UUID& uuid) {
        wire::Request request{};
        request.op = wire::kOpenSession;
        request.uuid = wire::uuidBytes(uuid);
        return request;
    }
    // A sealed 8192-byte memfd, mapped here too; returns the daemon's id for it.
    uint32_t registerBlock(uint8_t** mapping = nullptr, bool seal = true) {
        UniqueFd memory(memfd_create("test-block", MFD_ALLOW_SEALING));
        EXPECT_EQ(ftruncate(memory.get(), 8192), 0);
        if (seal) {
            EXPECT_EQ(fcntl(memory.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW), 0);
        }
        if (mapping) {
            void* data = mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(), 0);
            *mapping = static_cast<uint8_t*>(data);
        }
        wire::Request request{};
        request.op = wire::kRegisterMemory;
        request.size = 8192;
        request.flags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
        const wire::Reply reply = call(request, memory.get());
        lastResult = reply.result;
        return reply.id;
    }
    wire::Reply invoke(uint32_t session, uint32_t command, uint32_t block, uint32_t offset,
                       uint32_t size) {
        wire::Request request{};
        request.op = wire::kInvoke;
        request.session_id = session;
        request.command = command;
        request.param_types = TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_INOUT, 0, 0, 0);
        request.params[0] = {0, 0, block, offset, size};
        return call(request);
    }

    int fd() const { return fd_.get(); }
    void close() { fd_.reset(); }

    TEEC_Result lastResult = 0;

  private:
    UniqueFd fd_;
    bool connected_ = false;
    ssize_t received_ = -1;
};

// Whether a client connecting now is given a session.
inline bool servesANewClient(const std::string& socketPath) {
    RawClient client(socketPath);
    return client.requestSession() && client.awaitSession() == RawClient::Met::kServed;
}

// One exchange on a connection of its own, then a moment for the daemon to reap it: whatever a
// runtime starts lazily with the first connection (ThreadSanitizer's thread) is then running, so
// counts taken afterwards are the daemon's steady ones.
inline void warmUp(const std::string& socketPath) {
    {
        RawClient client(socketPath);
        wire::Request open{};
        open.op = wire::kOpenSession;
        client.call(open);
    }
    usleep(200 * 1000);
}

}  // namespace zel::test
