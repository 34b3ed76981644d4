// The raw suites' entry point against a zel-vaultd that dies in the middle of a call.
#include <gtest/gtest.h>

#include <thread>

#include "output_capture.h"
#include "vault_fixture.h"
#include "zel_tc_lib.h"

namespace {

using RawSuiteTest = VaultFixture;

constexpr int32_t kGeneric = static_cast<int32_t>(TEEC_ERROR_GENERIC);

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
