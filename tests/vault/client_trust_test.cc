// The TEE client library does not trust whoever listens on the socket: it connects only through a
// directory of its user's own, closed to others, to a peer running as its user (or root), and it
// rejects replies that break the protocol (a memory id of 0, a size larger than the window).
// The daemons here are the test's own sockets, playing an impostor or a liar.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "teec_wire.h"
#include "unique_fd.h"

namespace {

using zel::vault::UniqueFd;
namespace wire = zel::wire;

class ClientTrustTest : public testing::Test {
  protected:
    void SetUp() override {
        directory_ = testing::TempDir() + "zel_trust_XXXXXX";
        ASSERT_NE(mkdtemp(directory_.data()), nullptr);
        path_ = directory_ + "/socket";
    }
    void TearDown() override {
        unlink(path_.c_str());
        rmdir(directory_.c_str());
    }
    // Binds and listens on the socket; with a uid, listens as that user (its credentials are
    // what the client sees).
    UniqueFd listen(uid_t as = static_cast<uid_t>(-1)) {
        UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        const bool asOther = as != static_cast<uid_t>(-1);
        EXPECT_TRUE(!asOther || seteuid(as) == 0);
        EXPECT_EQ(::listen(fd.get(), 4), 0);
        EXPECT_TRUE(!asOther || seteuid(0) == 0);
        return fd;
    }
    std::string directory_, path_;
};

TEST_F(ClientTrustTest, ASocketDirectoryOpenToOthersOrOfAnotherUserIsRefused) {
    const UniqueFd listener = listen();
    TEEC_Context context{};
    ASSERT_EQ(chmod(directory_.c_str(), 0755), 0);
    EXPECT_EQ(TEEC_InitializeContext(path_.c_str(), &context), TEEC_ERROR_ACCESS_DENIED);
    UniqueFd peer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_FALSE(peer) << "the client connected";

    ASSERT_EQ(chmod(directory_.c_str(), 0700), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(directory_.c_str(), 54013, 54013), 0);
        EXPECT_EQ(TEEC_InitializeContext(path_.c_str(), &context), TEEC_ERROR_ACCESS_DENIED);
        ASSERT_EQ(chown(directory_.c_str(), 0, 0), 0);
    }
    ASSERT_EQ(TEEC_InitializeContext(path_.c_str(), &context), TEEC_SUCCESS);
    TEEC_FinalizeContext(&context);
    if (geteuid() != 0) GTEST_SKIP() << "NOT TESTED: a directory of another user needs root";
}

TEST_F(ClientTrustTest, APeerOfAnotherUserIsRefusedBeforeAnythingIsSent) {
    if (geteuid() != 0) GTEST_SKIP() << "NOT TESTED: listening as another user needs root";
    const UniqueFd listener = listen(54014);
    TEEC_Context context{};
    EXPECT_EQ(TEEC_InitializeContext(path_.c_str(), &context), TEEC_ERROR_ACCESS_DENIED);
    UniqueFd peer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    char byte;
    EXPECT_FALSE(peer && recv(peer.get(), &byte, 1, MSG_DONTWAIT) > 0) << "sent before refusing";
}

// Plays a daemon that answers registrations with id 0 first, then 7, and every invocation with
// success and a size far past the window.
void lyingDaemon(int listener) {
    pollfd waiting{listener, POLLIN, 0};
    if (poll(&waiting, 1, 20000) != 1) return;
    UniqueFd peer(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    int registrations = 0;
    for (;;) {
        wire::Request request{};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        iovec iov{&request, sizeof request};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        if (recvmsg(peer.get(), &msg, MSG_CMSG_CLOEXEC) <= 0) return;
        if (cmsghdr* header = CMSG_FIRSTHDR(&msg)) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
            close(fd);
        }
        wire::Reply reply{};
        reply.origin = TEEC_ORIGIN_TRUSTED_APP;
        if (request.op == wire::kOpenSession) reply.id = 1;
        if (request.op == wire::kRegisterMemory) reply.id = registrations++ == 0 ? 0 : 7;
        if (request.op == wire::kInvoke) reply.params[0].size = 0xFFFFFFFF;
        wire::sendMessage(peer.get(), &reply, sizeof reply, -1);
    }
}

size_t sharedMappings() {
    std::ifstream maps("/proc/self/maps");
    size_t count = 0;
    for (std::string line; std::getline(maps, line);)
        if (line.find("zel-teec-shm") != std::string::npos) ++count;
    return count;
}

TEST_F(ClientTrustTest, ALyingDaemonsIdZeroAndOversizedReplyAreRejected) {
    const UniqueFd listener = listen();
    std::thread liar(lyingDaemon, listener.get());
    TEEC_Context context{};
    ASSERT_EQ(TEEC_InitializeContext(path_.c_str(), &context), TEEC_SUCCESS);
    TEEC_Session session{};
    const TEEC_UUID anyTa = {1, 2, 3, {4}};
    uint32_t origin = 0;
    ASSERT_EQ(
        TEEC_OpenSession(&context, &session, &anyTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
        TEEC_SUCCESS);

    const size_t mappings = sharedMappings();
    TEEC_SharedMemory memory{};
    memory.size = 100;
    memory.flags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
    EXPECT_EQ(TEEC_AllocateSharedMemory(&context, &memory), TEEC_ERROR_GENERIC);
    EXPECT_EQ(memory.buffer, nullptr);
    EXPECT_EQ(sharedMappings(), mappings) << "a mapping was left behind";

    ASSERT_EQ(TEEC_AllocateSharedMemory(&context, &memory), TEEC_SUCCESS);
    TEEC_Operation operation{};
    operation.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_INOUT, 0, 0, 0);
    operation.params[0].memref = {&memory, 100, 0};
    EXPECT_EQ(TEEC_InvokeCommand(&session, 0, &operation, &origin), TEEC_ERROR_GENERIC);
    EXPECT_EQ(origin, TEEC_ORIGIN_COMMS);
    EXPECT_EQ(operation.params[0].memref.size, 100u);

    TEEC_ReleaseSharedMemory(&memory);
    EXPECT_EQ(sharedMappings(), mappings);
    TEEC_CloseSession(&session);
    TEEC_FinalizeContext(&context);
    liar.join();
}

}  // namespace
