// The general scenario manager where the plan does not go: unknown data types and commands, fill
// failures and random data. What it prints for the plan's steps is in tests/tools/data/plan.stdout.
#include <gtest/gtest.h>

#include <algorithm>

#include "output_capture.h"
#include "vault_fixture.h"
#include "zel_tc_lib.h"

namespace {

constexpr int32_t kGeneric = static_cast<int32_t>(TEEC_ERROR_GENERIC);

class CaManagerTest : public VaultFixture {
  protected:
    int32_t run(int dataType, int command, int index, Lines* lines = nullptr) {
        OutputCapture output;
        const int32_t result = CaManager(dataType, command, zel_test, index).SendDataToZel();
        const Lines printed = output.lines();
        if (lines) *lines = printed;
        return result;
    }
};

TEST_F(CaManagerTest, UnknownDataTypeAndCommandNumbersSendNothing) {
    ASSERT_EQ(control.failOpenSession(zel_test, 0, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE), TEEC_SUCCESS);
    Lines lines;
    EXPECT_EQ(run(7, 0, 3, &lines), kGeneric);
    EXPECT_EQ(lines, (Lines{"CA Manager created", "CA Manager SendDataToZel: 0",
                            "CaManager zel_put", "Unknown data type"}));
    EXPECT_EQ(run(1, 1, 3, &lines), kGeneric);
    EXPECT_EQ(lines, (Lines{"CA Manager created", "CA Manager SendDataToZel: 1",
                            "SendDataToZel unknown command"}));
}

// Random bytes keep the presets and are no EC key to the vault.
TEST_F(CaManagerTest, StoreKeyOfRandomBytesKeepsThePresets) {
    Lines lines;
    EXPECT_EQ(run(0, 7, 3, &lines), static_cast<int32_t>(TEEC_ERROR_BAD_FORMAT));
    EXPECT_EQ(lines[5], "keytype: 5");
    EXPECT_EQ(lines[6], "fkpKeySize: 121");
}

TEST_F(CaManagerTest, FillFailuresAndRandomDataAreReportedBeforeAnyInput) {
    Lines lines;
    EXPECT_EQ(run(1, 35, 4, &lines), kGeneric);
    EXPECT_EQ(lines, (Lines{"CA Manager created", "CA Manager SendDataToZel: 35",
                            "CaManager zel_aesEncrypt", "Unknown data type",
                            "fill_zel_aesEncrypt return error"}));
    EXPECT_EQ(run(1, 37, 4, &lines), kGeneric);
    EXPECT_EQ(lines, (Lines{"CA Manager created", "CA Manager SendDataToZel: 37",
                            "CaManager zel_compareData", "Unknown data type"}));
    // Random data: one line per buffer, then the inputs; no key at 4 fails the command.
    EXPECT_EQ(run(0, 35, 4, &lines), kGeneric);
    EXPECT_EQ(Lines(lines.begin() + 2, lines.begin() + 6),
              (Lines{"CaManager zel_aesEncrypt", "Data successfully generated",
                     "Data successfully generated", "index: 4"}));
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& l) { return l.rfind("encData", 0) == 0; }),
              0);
}

}  // namespace
