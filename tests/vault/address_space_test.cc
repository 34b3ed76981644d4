// zel-vaultd in a 256 MiB address space (RLIMIT_AS, set by prlimit as a device's service manager
// might): a connection's thread costs only the stack it is sized to, so 64 clients at once are
// all served; a block that no longer fits in the address space is answered as out of memory.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "interface/zel_ta_ids.h"
#include "raw_client.h"
#include "vault_fixture.h"

namespace {

using zel::test::RawClient;
using zel::vault::UniqueFd;
namespace wire = zel::wire;

constexpr unsigned long kAddressSpace = 256ul << 20;

// Why this build cannot run the daemon in a small address space, or empty when it can.
std::string whyNotTestable() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return "ASan and TSan reserve terabytes of address space for their shadow memory";
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    return "ASan and TSan reserve terabytes of address space for their shadow memory";
#endif
#endif
    const std::string emulator = zel::vault::programEmulator();
    if (!emulator.empty())
        return "zel-vaultd runs under " + emulator +
               ", whose own address space the limit would bound (it reserves the guest's whole "
               "address space up front)";
    return {};
}

// The address-space limit that a process runs under, as /proc shows it; 0 when unreadable.
unsigned long addressSpaceLimit(pid_t pid) {
    std::ifstream limits("/proc/" + std::to_string(pid) + "/limits");
    for (std::string line; std::getline(limits, line);)
        if (line.rfind("Max address space", 0) == 0)
            return std::strtoul(line.c_str() + 17, nullptr, 10);
    return 0;
}

// A registration of a sealed block of any size; the memfd is never touched, so it costs the
// daemon address space but no memory.
wire::Reply registerBlock(RawClient& client, size_t size) {
    UniqueFd memory(memfd_create("address-space", MFD_ALLOW_SEALING));
    EXPECT_EQ(ftruncate(memory.get(), static_cast<off_t>(size)), 0);
    EXPECT_EQ(fcntl(memory.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW), 0);
    wire::Request request{};
    request.op = wire::kRegisterMemory;
    request.size = static_cast<uint32_t>(size);
    request.flags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
    return client.call(request, memory.get());
}

class AddressSpaceTest : public VaultFixture {
  protected:
    void SetUp() override {
        const std::string reason = whyNotTestable();
        if (!reason.empty()) GTEST_SKIP() << "NOT TESTED: " << reason;
        zel::vault::VaultDaemon::Options options;
        options.wrapper = {"prlimit", "--as=" + std::to_string(kAddressSpace), "--"};
        ASSERT_NO_FATAL_FAILURE(launch(options));
        ASSERT_EQ(addressSpaceLimit(daemon->pid()), kAddressSpace);
    }
};

TEST_F(AddressSpaceTest, SixtyFourClientsAtOnceAreAllServed) {
    constexpr int kClients = 64;
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<RawClient>(daemon->socketPath()));
        ASSERT_TRUE(clients.back()->connected());
        ASSERT_TRUE(clients.back()->requestSession());
    }
    int served = 0;
    for (auto& client : clients) served += client->awaitSession() == RawClient::Met::kServed;
    EXPECT_EQ(served, kClients) << "only " << served << " of " << kClients << " got a session";
}

TEST_F(AddressSpaceTest, ABlockPastTheAddressSpaceIsAnsweredAsOutOfMemory) {
    // One client maps blocks until the daemon's address space is spent: as many 8 MiB blocks
    // as fit, then ever smaller ones down to 16 KiB (fewer than a connection's 64 blocks).
    RawClient hoarder(daemon->socketPath());
    ASSERT_NE(hoarder.openSession(zel_test), 0u);
    size_t held = 0;
    for (size_t size = TEEC_CONFIG_SHAREDMEM_MAX_SIZE; size >= 16 * 1024; size /= 8) {
        wire::Reply reply{};
        while ((reply = registerBlock(hoarder, size)).result == TEEC_SUCCESS) held += size;
        EXPECT_EQ(reply.result, TEEC_ERROR_OUT_OF_MEMORY) << "a block of " << size << " bytes";
        EXPECT_EQ(reply.origin, TEEC_ORIGIN_TEE);
    }
    // Whatever the daemon's code and heaps took (glibc reserves 64 MiB per malloc arena), the
    // blocks spent the rest.
    EXPECT_GE(held, kAddressSpace / 4) << "the blocks were not what ran out";
}

}  // namespace
