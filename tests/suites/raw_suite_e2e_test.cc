// The raw suites end to end against zel-vaultd, failures injected through the control TA.
#include <gtest/gtest.h>

#include <thread>

#include "output_capture.h"
#include "vault_fixture.h"
#include "zel_tc_lib.h"

namespace {

using RawSuiteTest = VaultFixture;

constexpr int32_t kGeneric = static_cast<int32_t>(TEEC_ERROR_GENERIC);

TEST_F(RawSuiteTest, ProcessMaskCountsOnlyTheFailingCommands) {
    ASSERT_EQ(control.failInvocations(zel_test, 7, 0, TEEC_ERROR_GENERIC, TEEC_ORIGIN_TRUSTED_APP),
              TEEC_SUCCESS);
    ASSERT_EQ(control.failInvocations(zel_test, 17, 0, TEEC_ERROR_BUSY, TEEC_ORIGIN_TRUSTED_APP),
              TEEC_SUCCESS);
    OutputCapture output;
    ZETest test;
    test.SetCMD(2);
    EXPECT_EQ(test.SendCMD(), 260);
    EXPECT_EQ(output.lines(),
              (Lines{"Tessaril Test CA created", "Tessaril Test CA SendCMD: 2",
                     "TEE connection has been set",
                     "TEEC_InvokeCommand() failed for cmd = 7, result = 4294901760, retOrigin = 4",
                     "TEEC_InvokeCommand() failed for cmd = 17, result = 4294901773, retOrigin = 4",
                     "Tessaril PROCESS TEST CA RESULT : 260"}));
}

TEST_F(RawSuiteTest, BistReportsTheTeeResultOfEachCommand) {
    OutputCapture output;
    ZETest test;
    test.SetCMD(17);
    EXPECT_EQ(test.SendCMD(), 0);
    test.SetCMD(1);
    EXPECT_EQ(test.SendCMD(), 0);  // heavy load, all ten commands known to the vault
    // 0x30 is no command of the vault TA.
    EXPECT_EQ(test.bist_test(0x30), static_cast<int32_t>(TEEC_ERROR_NOT_SUPPORTED));
    EXPECT_EQ(output.lines(),
              (Lines{"Tessaril Test CA created", "Tessaril Test CA SendCMD: 17",
                     "TEE connection has been set", "Tessaril BIST : 17 TEST CA RESULT : 0",
                     "Tessaril Test CA SendCMD: 1", "TEE connection has been set",
                     "Tessaril HEAVYLOAD TEST CA RESULT : 0", "TEE connection has been set",
                     "TEEC_InvokeCommand() failed for cmd = 48, result = 4294901770, retOrigin = 4",
                     "Tessaril BIST : 48 TEST CA RESULT : 4294901770"}));
}

TEST_F(RawSuiteTest, AbsentDaemonFailsEverySuite) {
    daemon.reset();  // the socket is gone with it
    OutputCapture output;
    ZETest test;
    EXPECT_EQ(test.process_test(), 511u);
    EXPECT_EQ(test.heavyload_test(), 1023u);
    EXPECT_EQ(test.lifecycle_test(), 5);
    EXPECT_NE(test.bist_test(3), 0);
    EXPECT_NE(test_lifetime(), 0);
    const Lines lines = output.lines();
    const std::string contextFailure = "Failed to initialize TEE context, result = 4294901768";
    EXPECT_EQ(std::count(lines.begin(), lines.end(), contextFailure), 5);
    EXPECT_EQ(lines.size(), 11u);  // created, then a failure line and a result line per test
    EXPECT_EQ(lines[2], "Tessaril PROCESS TEST CA RESULT : 511");
    EXPECT_EQ(lines[4], "Tessaril HEAVYLOAD TEST CA RESULT : 1023");
    EXPECT_EQ(lines[6], "Tessaril LIFECYCLE TEST CA RESULT : 5");
}

TEST_F(RawSuiteTest, DaemonKilledDuringAnInvocationGivesGenericFromComms) {
    ASSERT_EQ(control.stallInvocations(zel_test, 0, 1, 30000), TEEC_SUCCESS);
    OutputCapture output;
    int result = 0;
    std::thread caller([&] { result = test_lifetime(); });
    // The stall holds the invocation inside the daemon far longer than this wait.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    daemon->kill();
    caller.join();
    EXPECT_EQ(result, kGeneric);
    EXPECT_EQ(output.lines(),
              (Lines{"TEE connection has been set",
                     "TEEC_InvokeCommand() failed for cmd = 0, result = 4294901760, retOrigin = 2",
                     "TZ reported recoverable error, session should be restarted",
                     "Tessaril test_lifetime TEST CA RESULT : 4294901760"}));
}

}  // namespace
