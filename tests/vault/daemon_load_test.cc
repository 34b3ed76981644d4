// zel-vaultd under load and against clients that die, hoard or never read: every reply right and
// none lost, limits refused cleanly, descriptors back to their count afterwards and threads
// within the daemon's idle reserve.
// Bounded in count and time; loopback only.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "interface/zel_ta_ids.h"
#include "output_capture.h"
#include "process_probe.h"
#include "raw_client.h"
#include "server.h"
#include "vault_fixture.h"
#include "zel_tc_lib.h"

namespace {

using zel::test::RawClient;
namespace wire = zel::wire;

using DaemonLoadTest = VaultFixture;

// A child process's own work, through the library: slot index, rounds of put and get.
int clientWork(int index, int rounds) {
    if (!std::freopen("/dev/null", "w", stdout)) return 2;  // the library's log
    CaZelInterface vault(zel_test);
    for (int round = 0; round < rounds; ++round) {
        std::vector<unsigned char> data(1 + (index * 37 + round * 11) % 4000);
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = static_cast<unsigned char>(index * 7 + round + i);
        if (vault.zel_put(index, data.data(), static_cast<unsigned int>(data.size())) != 0)
            return 3;
        unsigned char* read = nullptr;
        unsigned int size = 0;
        if (vault.zel_get(index, &read, &size) != 0) return 4;
        const bool same = size == data.size() && std::equal(data.begin(), data.end(), read);
        std::free(read);
        if (!same) return 5;
    }
    return 0;
}

// One child process per slot from 0, each doing its clientWork.
std::vector<pid_t> forkClients(int count, int rounds) {
    std::vector<pid_t> children;
    for (int index = 0; index < count; ++index) {
        const pid_t child = fork();
        if (child == 0) _exit(clientWork(index, rounds));
        EXPECT_GE(child, 0);
        children.push_back(child);
    }
    return children;
}

// Every connection's descriptors closed, and no more threads left than the idle reserve.
constexpr int kReserve = static_cast<int>(zel::vault::Server::kIdleThreads);

TEST_F(DaemonLoadTest, ThirtyTwoClientProcessesGetEveryReplyRight) {
    const std::vector<pid_t> children = forkClients(32, 10);
    for (size_t i = 0; i < children.size(); ++i) {
        int status = 0;
        ASSERT_EQ(waitpid(children[i], &status, 0), children[i]);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "client " << i << " status " << status;
    }
}

TEST_F(DaemonLoadTest, ClientsKilledInsideAStalledInvocationLeaveTheTaUsable) {
    const pid_t pid = daemon->pid();
    zel::test::warmUp(daemon->socketPath());
    const int threads = zel::test::threadCount(pid);
    const int descriptors = zel::test::openDescriptors(pid);
    // The first three puts stall; the others wait for the TA behind them, or run.
    ASSERT_EQ(control.stallInvocations(zel_test, zel::cmd::zel_put, 3, 300), TEEC_SUCCESS);
    const std::vector<pid_t> children = forkClients(6, 1);
    // Killed at different moments: inside the stall, queued behind it, or already done.
    for (size_t i = 0; i < children.size(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(40 * static_cast<int>(i)));
        kill(children[i], SIGKILL);
        waitpid(children[i], nullptr, 0);
    }
    OutputCapture output;
    CaZelInterface vault(zel_test);
    const unsigned char data[] = {1, 2, 3};
    EXPECT_EQ(vault.zel_put(9, data, 3), 0);
    EXPECT_TRUE(zel::test::settlesTo(pid, threads + kReserve, descriptors));
}

TEST_F(DaemonLoadTest, SeventySessionsAndSeventyLargeBlocksOnOneConnection) {
    TEEC_Context context{};
    ASSERT_EQ(TEEC_InitializeContext(nullptr, &context), TEEC_SUCCESS);
    std::vector<TEEC_Session> sessions(70);
    std::vector<TEEC_SharedMemory> blocks(70);
    int opened = 0, busy = 0, allocated = 0, outOfMemory = 0;
    for (int i = 0; i < 70; ++i) {
        uint32_t origin = 0;
        const TEEC_Result result = TEEC_OpenSession(&context, &sessions[i], &zel_test,
                                                    TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin);
        opened += result == TEEC_SUCCESS;
        busy += result == TEEC_ERROR_BUSY;
        blocks[i].size = 1 << 20;
        blocks[i].flags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
        const TEEC_Result memory = TEEC_AllocateSharedMemory(&context, &blocks[i]);
        allocated += memory == TEEC_SUCCESS;
        outOfMemory += memory == TEEC_ERROR_OUT_OF_MEMORY;
    }
    EXPECT_EQ(opened, 64);
    EXPECT_EQ(busy, 6);
    EXPECT_EQ(allocated, 64);
    EXPECT_EQ(outOfMemory, 6);
    for (int i = 0; i < 70; ++i) {
        TEEC_ReleaseSharedMemory(&blocks[i]);
        TEEC_CloseSession(&sessions[i]);
    }
    TEEC_FinalizeContext(&context);
}

// Each served connection has a thread of its own while it lasts; once the burst is over, with no
// connection to prompt it, the daemon is back to its descriptors and its idle reserve of threads.
TEST_F(DaemonLoadTest, ThreeHundredConnectionsAtOnceArePastTheLimitClosedAndTheRestServed) {
    const pid_t pid = daemon->pid();
    zel::test::warmUp(daemon->socketPath());
    const int threads = zel::test::threadCount(pid);
    const int descriptors = zel::test::openDescriptors(pid);
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 300; ++i) {
        clients.push_back(std::make_unique<RawClient>(daemon->socketPath()));
        ASSERT_TRUE(clients.back()->connected());
        clients.back()->requestSession();
    }
    int served = 0, closed = 0;
    for (auto& client : clients) {
        const RawClient::Met met = client->awaitSession();
        served += met == RawClient::Met::kServed;
        closed += met == RawClient::Met::kTurnedAway;
    }
    EXPECT_EQ(served, 256);
    EXPECT_EQ(closed, 44);
    clients.clear();
    EXPECT_TRUE(zel::test::settlesTo(pid, threads + kReserve, descriptors));
    // The closed ones take a moment to end; meanwhile a new client may still be turned away.
    EXPECT_TRUE(
        zel::test::eventually([&] { return zel::test::servesANewClient(daemon->socketPath()); }));
}

TEST_F(DaemonLoadTest, AClientThatNeverReadsItsRepliesHoldsUpNobody) {
    RawClient hoarder(daemon->socketPath());
    const uint32_t session = hoarder.openSession(zel_test);
    const uint32_t memory = hoarder.registerBlock();
    wire::Request invoke{};
    invoke.op = wire::kInvoke;
    invoke.session_id = session;
    invoke.command = zel::cmd::zel_getSlotInfo;
    invoke.param_types = TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_INOUT, 0, 0, 0);
    invoke.params[0] = {0, 0, memory, 0, 8192};
    int sent = 0;
    while (sent < 100000 &&
           send(hoarder.fd(), &invoke, sizeof invoke, MSG_DONTWAIT | MSG_NOSIGNAL) > 0)
        ++sent;
    EXPECT_LT(sent, 100000) << "the daemon kept reading though nobody read its replies";

    OutputCapture output;
    CaZelInterface vault(zel_test);
    const unsigned char data[] = {7};
    EXPECT_EQ(vault.zel_put(1, data, 1), 0);
    EXPECT_TRUE(daemon->stop()) << "SIGTERM did not end the daemon cleanly";
}

}  // namespace
