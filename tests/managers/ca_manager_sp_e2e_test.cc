// The secure-processor scenarios and the inspection entry points, transcript by transcript.
#include <gtest/gtest.h>

#include "output_capture.h"
#include "vault_fixture.h"
#include "wsm_message.h"
#include "zel_tc_lib.h"

namespace {

constexpr int32_t kGeneric = static_cast<int32_t>(TEEC_ERROR_GENERIC);

using CaManagerSpTest = VaultFixture;

TEST_F(CaManagerSpTest, FirmwareInformationPrintsTenSignedWords) {
    // Fewer words: the rest print as 0; a word with the top bit set prints signed.
    ASSERT_EQ(control.scriptReply(zel_test_a, 0x28, 1,
                                  WsmMessage().u(2).blob(words({0xFFFFFFFF, 7})).bytes()),
              TEEC_SUCCESS);
    ASSERT_EQ(control.failInvocations(zel_test_a, 0x28, 1, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    OutputCapture output;
    CaManagerSp manager(0x28);
    EXPECT_EQ(manager.SendDataToZel(), static_cast<int32_t>(TEEC_ERROR_BUSY));
    EXPECT_EQ(manager.SendDataToZel(), 0);
    const Lines lines = output.lines();
    EXPECT_EQ(lines[6], "FW info is not available");
    EXPECT_EQ(Lines(lines.end() - 11, lines.end()),
              (Lines{"FW info:", "0: -1", "1: 7", "2: 0", "3: 0", "4: 0", "5: 0", "6: 0", "7: 0",
                     "8: 0", "9: 0"}));
}

TEST_F(CaManagerSpTest, UnknownNumbersOpenNothingAndSetCmdSwitchesTheScenario) {
    ASSERT_EQ(control.failOpenSession(zel_test_a, 0, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    OutputCapture output;
    CaManagerSp manager(0x1b);
    EXPECT_EQ(manager.SendDataToZel(), kGeneric);
    manager.SetCMD(-1);
    manager.SetPARAM2(7);
    EXPECT_EQ(manager.SendDataToZel(), kGeneric);
    manager.SetCMD(0x2c);
    EXPECT_NE(manager.SendDataToZel(), 0);  // the session is refused, so it did try
    const Lines lines = output.lines();
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 7),
              (Lines{"Ca ManagerSp created", "CA ManagerSp SendDataToZel: 27",
                     "SendDataToZel unknown command", "CA ManagerSp SendDataToZel: -1",
                     "SendDataToZel unknown command", "CA ManagerSp SendDataToZel: 44",
                     "CaManagerSp zel_removeAkKeys"}));
}

TEST_F(CaManagerSpTest, FailedSelfTestAndInfoCommandsAreReportedByTheEntryPoints) {
    ASSERT_EQ(
        control.failInvocations(zel_test_a, 0x20, 1, TEEC_ERROR_GENERIC, TEEC_ORIGIN_TRUSTED_APP),
        TEEC_SUCCESS);
    ASSERT_EQ(control.failInvocations(zel_test_a, 0x1c, 1, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    OutputCapture output;
    EXPECT_EQ(test_process_inspection(), 0);
    test_get_info();
    const Lines lines = output.lines();
    EXPECT_EQ(lines[7], "[FAIL] TEST PROCESS INSPECTION");
    EXPECT_EQ(lines.back(), "test_get_info error");
}

}  // namespace
