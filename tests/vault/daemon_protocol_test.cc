// zel-vaultd against clients that misbehave: each gets an error for what is not its own or not
// well formed, and the daemon goes on serving everyone.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <cstring>

#include "interface/zel_ta_ids.h"
#include "raw_client.h"
#include "teec_wire.h"
#include "unique_fd.h"
#include "vault_fixture.h"

namespace {

using zel::test::RawClient;
using zel::vault::UniqueFd;
namespace wire = zel::wire;

using DaemonProtocolTest = VaultFixture;

TEST_F(DaemonProtocolTest, MalformedRequestsAndUnsealedMemoryAreAnsweredAndTheConnectionLives) {
    RawClient client(daemon->socketPath());
    const char garbage[] = "definitely not a request";
    const wire::Reply short_ = client.sendBytes(garbage, sizeof garbage);
    EXPECT_EQ(short_.result, TEEC_ERROR_BAD_FORMAT);
    EXPECT_EQ(short_.origin, TEEC_ORIGIN_COMMS);

    std::vector<uint8_t> tooLong(sizeof(wire::Request) + 1, 0);
    EXPECT_EQ(client.sendBytes(tooLong.data(), tooLong.size()).result, TEEC_ERROR_BAD_FORMAT);

    wire::Request unknown{};
    unknown.op = 99;
    EXPECT_EQ(client.call(unknown).result, TEEC_ERROR_NOT_SUPPORTED);

    wire::Request badLogin{};
    badLogin.op = wire::kOpenSession;
    badLogin.uuid = wire::uuidBytes(zel_test);
    badLogin.login = TEEC_LOGIN_USER;
    EXPECT_EQ(client.call(badLogin).result, TEEC_ERROR_BAD_PARAMETERS);

    wire::Request nobody{};
    nobody.op = wire::kOpenSession;
    const wire::Reply missing = client.call(nobody);  // the nil UUID names no TA
    EXPECT_EQ(missing.result, TEEC_ERROR_ITEM_NOT_FOUND);
    EXPECT_EQ(missing.origin, TEEC_ORIGIN_TEE);

    // Memory must be a sealed block of the size it claims.
    wire::Request noDescriptor{};
    noDescriptor.op = wire::kRegisterMemory;
    noDescriptor.size = 8192;
    noDescriptor.flags = TEEC_MEM_INPUT;
    EXPECT_EQ(client.call(noDescriptor).result, TEEC_ERROR_BAD_PARAMETERS);

    client.registerBlock(nullptr, /*seal=*/false);
    EXPECT_EQ(client.lastResult, TEEC_ERROR_BAD_PARAMETERS);

    UniqueFd small(memfd_create("small", MFD_ALLOW_SEALING));
    ASSERT_EQ(ftruncate(small.get(), 100), 0);
    ASSERT_EQ(fcntl(small.get(), F_ADD_SEALS, F_SEAL_SHRINK), 0);
    EXPECT_EQ(client.call(noDescriptor, small.get()).result, TEEC_ERROR_BAD_PARAMETERS);

    wire::Request releaseUnknown{};
    releaseUnknown.op = wire::kReleaseMemory;
    releaseUnknown.memory_id = 12345;
    EXPECT_EQ(client.call(releaseUnknown).result, TEEC_ERROR_BAD_PARAMETERS);
}

TEST_F(DaemonProtocolTest, OffsetsSizesAndIdsAreCheckedAgainstTheClientsOwnTables) {
    RawClient owner(daemon->socketPath());
    RawClient intruder(daemon->socketPath());
    owner.openSession(zel_test);
    const uint32_t session = owner.openSession(zel_test);
    uint8_t* block = nullptr;
    const uint32_t memory = owner.registerBlock(&block);
    ASSERT_EQ(owner.lastResult, TEEC_SUCCESS);
    const uint32_t intruderSession = intruder.openSession(zel_test);
    ASSERT_NE(session, intruderSession);  // ids the intruder's own tables do not hold

    EXPECT_EQ(owner.invoke(session, 0, memory, 0xFFFFFFFF, 2).result, TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(owner.invoke(session, 0, memory, 0, 8193).result, TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(owner.invoke(session, 0, memory + 100, 0, 16).result, TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(owner.invoke(session + 100, 0, memory, 0, 16).result, TEEC_ERROR_BAD_PARAMETERS);

    // The owner's session ids mean nothing on the intruder's connection.
    wire::Request closeOthers{};
    closeOthers.op = wire::kCloseSession;
    closeOthers.session_id = session;
    EXPECT_EQ(intruder.call(closeOthers).result, TEEC_ERROR_BAD_PARAMETERS);

    wire::Request badTypes{};
    badTypes.op = wire::kInvoke;
    badTypes.session_id = session;
    badTypes.param_types = TEEC_PARAM_TYPES(4, 0, 0, 0);  // 4 is no parameter type
    EXPECT_EQ(owner.call(badTypes).result, TEEC_ERROR_BAD_PARAMETERS);

    // The owner's own exchanges still reach the TA.
    EXPECT_EQ(owner.invoke(session, 0, memory, 0, 8192).result, TEEC_SUCCESS);
    EXPECT_EQ(owner.invoke(session, 0x30, memory, 0, 8192).result, TEEC_ERROR_NOT_SUPPORTED);
    // A field tag with a length that does not fit its type is no self-test but a bad message.
    block[0] = 1;
    const wire::Reply withRequest = owner.invoke(session, 0x00, memory, 0, 8192);
    EXPECT_EQ(withRequest.result, TEEC_ERROR_BAD_FORMAT);
    EXPECT_EQ(withRequest.origin, TEEC_ORIGIN_TRUSTED_APP);
    munmap(block, 8192);
}

TEST_F(DaemonProtocolTest, TeeClientApiChecksItsArgumentsBeforeSending) {
    TEEC_Context context{};
    ASSERT_EQ(TEEC_InitializeContext(nullptr, &context), TEEC_SUCCESS);
    TEEC_Session session{};
    uint32_t origin = 0;
    ASSERT_EQ(TEEC_OpenSession(&context, &session, &zel_test, TEEC_LOGIN_PUBLIC, nullptr, nullptr,
                               &origin),
              TEEC_SUCCESS);
    TEEC_SharedMemory memory{};
    memory.size = 64;
    memory.flags = TEEC_MEM_INPUT;
    ASSERT_EQ(TEEC_AllocateSharedMemory(&context, &memory), TEEC_SUCCESS);

    TEEC_Operation operation{};
    operation.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_INPUT, 0, 0, 0);
    operation.params[0].memref = {&memory, 65, 0};
    EXPECT_EQ(TEEC_InvokeCommand(&session, 0, &operation, &origin), TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(origin, TEEC_ORIGIN_API);
    operation.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_OUTPUT, 0, 0, 0);  // input-only
    operation.params[0].memref = {&memory, 8, 0};
    EXPECT_EQ(TEEC_InvokeCommand(&session, 0, &operation, &origin), TEEC_ERROR_BAD_PARAMETERS);
    char temp[8] = {};
    operation.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_INPUT, 0, 0, 0);
    operation.params[0].tmpref = {temp, sizeof temp};
    EXPECT_EQ(TEEC_InvokeCommand(&session, 0, &operation, &origin), TEEC_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(origin, TEEC_ORIGIN_API);
    EXPECT_EQ(TEEC_InvokeCommand(&session, 0, nullptr, &origin), TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(origin, TEEC_ORIGIN_TRUSTED_APP);  // the vault wants its block

    TEEC_ReleaseSharedMemory(&memory);
    TEEC_ReleaseSharedMemory(&memory);  // released twice: nothing happens
    TEEC_CloseSession(&session);
    TEEC_FinalizeContext(&context);
}

TEST_F(DaemonProtocolTest, StopsCleanlyAndRemovesItsSocket) {
    const std::string socket = daemon->socketPath();
    EXPECT_TRUE(daemon->stop());
    struct stat info {};
    EXPECT_NE(stat(socket.c_str(), &info), 0);

    TEEC_Context context{};
    EXPECT_EQ(TEEC_InitializeContext(socket.c_str(), &context), TEEC_ERROR_ITEM_NOT_FOUND);
}

}  // namespace
