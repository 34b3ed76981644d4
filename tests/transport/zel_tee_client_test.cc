// ZELTEEClient's state machine and call order, against the recording TEE Client API.
#include <gtest/gtest.h>

#include <cstring>

#include "interface/zel_ta_ids.h"
#include "output_capture.h"
#include "teec_recorder.h"
#include "transport/zel_tee_client.h"

using Calls = std::vector<std::string>;

class ZelTeeClientTest : public testing::Test {
  protected:
    void SetUp() override { recorder::reset(); }
};

TEST_F(ZelTeeClientTest, ConnectedClientInvokesOverTheWholeBlockAndReleasesInReverseOrder) {
    OutputCapture output;
    {
        ZELTEEClient client;
        ASSERT_TRUE(client.Open(zel_test));
        auto* record = static_cast<TEEC_SharedMemory*>(client.getSHMPtr());
        EXPECT_EQ(client.InvokeCommand(0x2d), TEEC_SUCCESS);

        ASSERT_EQ(recorder::invocations.size(), 1u);
        const TEEC_Operation& op = recorder::invocations[0].operation;
        EXPECT_EQ(recorder::invocations[0].command, 0x2du);
        EXPECT_EQ(op.paramTypes, 0x0000000Fu);
        EXPECT_EQ(op.params[0].memref.parent, record);
        EXPECT_EQ(op.params[0].memref.size, 8192u);
        EXPECT_EQ(op.params[0].memref.offset, 0u);
        EXPECT_EQ(recorder::lastLogin, TEEC_LOGIN_PUBLIC);
        EXPECT_EQ(recorder::lastAllocationRequest.size, 8192u);
        EXPECT_EQ(recorder::lastAllocationRequest.flags, TEEC_MEM_INPUT | TEEC_MEM_OUTPUT);

        client.Close();
        client.Close();  // the second does nothing
    }
    EXPECT_EQ(recorder::calls,
              (Calls{"InitializeContext", "OpenSession", "AllocateSharedMemory", "InvokeCommand",
                     "ReleaseSharedMemory", "CloseSession", "FinalizeContext"}));
    EXPECT_EQ(output.lines(), Lines{"TEE connection has been set"});
}

// Each failed step of Open says one line; the steps before it, and only those, are undone when
// the client is destroyed.
TEST_F(ZelTeeClientTest, OpenFailuresUndoOnlyWhatWasDoneAndSayOneLine) {
    const struct {
        void (*arrange)();
        Calls afterOpen, calls;
        const char* line;
    } kCases[] = {
        {[] { recorder::script.initialize = TEEC_ERROR_ITEM_NOT_FOUND; },
         {"InitializeContext"},
         {"InitializeContext"},
         "Failed to initialize TEE context, result = 4294901768"},
        {[] {
             recorder::script.openSession = {TEEC_ERROR_ACCESS_DENIED, TEEC_ORIGIN_TEE};
         },
         {"InitializeContext", "OpenSession"},
         {"InitializeContext", "OpenSession", "FinalizeContext"},
         "Failed to open TEE session, result and retOrigin = 4294901761, 3"},
        {[] { recorder::script.allocate = TEEC_ERROR_OUT_OF_MEMORY; },
         {"InitializeContext", "OpenSession", "AllocateSharedMemory"},
         {"InitializeContext", "OpenSession", "AllocateSharedMemory", "CloseSession",
          "FinalizeContext"},
         "Failed to allocate shared memory, result = 4294901772"},
    };
    for (const auto& c : kCases) {
        recorder::reset();
        c.arrange();
        OutputCapture output;
        {
            ZELTEEClient client;
            EXPECT_FALSE(client.Open(zel_test));
            EXPECT_EQ(recorder::calls, c.afterOpen);
            EXPECT_NE(client.InvokeCommand(0), TEEC_SUCCESS);
        }
        EXPECT_EQ(recorder::calls, c.calls);
        EXPECT_EQ(output.lines(), Lines{c.line});
    }
}

TEST_F(ZelTeeClientTest, SecondOpenKeepsTheFirstSessionUntilClosedThenOpensAgain) {
    OutputCapture output;
    ZELTEEClient client;
    ASSERT_TRUE(client.Open(zel_test));
    const size_t callsAfterFirstOpen = recorder::calls.size();
    EXPECT_TRUE(client.Open(zel_test_a));
    EXPECT_EQ(recorder::calls.size(), callsAfterFirstOpen);
    EXPECT_EQ(std::memcmp(&recorder::lastDestination, &zel_test, sizeof zel_test), 0);
    client.Close();
    ASSERT_TRUE(client.Open(zel_test_a));
    EXPECT_EQ(std::memcmp(&recorder::lastDestination, &zel_test_a, sizeof zel_test_a), 0);
    EXPECT_EQ(client.InvokeCommand(1), TEEC_SUCCESS);
    EXPECT_EQ(std::count(recorder::calls.begin(), recorder::calls.end(), "InitializeContext"), 2);
    EXPECT_EQ(output.lines(), Lines(3, "TEE connection has been set"));
}

TEST_F(ZelTeeClientTest, InvocationFailureLinesInUnsignedDecimal) {
    const recorder::Answer answers[] = {
        {TEEC_ERROR_GENERIC, TEEC_ORIGIN_COMMS},
        {TEEC_ERROR_GENERIC, TEEC_ORIGIN_TEE},
        {TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_TRUSTED_APP},
    };
    recorder::script.invoke = [&](uint32_t, size_t index) { return answers[index]; };
    OutputCapture output;
    ZELTEEClient client;
    ASSERT_TRUE(client.Open(zel_test));
    EXPECT_EQ(client.InvokeCommand(0), TEEC_ERROR_GENERIC);
    EXPECT_EQ(client.InvokeCommand(7), TEEC_ERROR_GENERIC);
    EXPECT_EQ(client.InvokeCommand(0x2d), TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(
        output.lines(),
        (Lines{"TEE connection has been set",
               "TEEC_InvokeCommand() failed for cmd = 0, result = 4294901760, retOrigin = 2",
               "TZ reported recoverable error, session should be restarted",
               "TEEC_InvokeCommand() failed for cmd = 7, result = 4294901760, retOrigin = 3",
               "TEEC_InvokeCommand() failed for cmd = 45, result = 4294901766, retOrigin = 4"}));
}
