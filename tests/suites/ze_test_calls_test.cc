// What the raw suites and the secure-processor scenarios send, and how the suites count, against
// the recording TEE Client API.
#include <gtest/gtest.h>

#include <set>

#include "managers/ca_manager_sp.h"
#include "output_capture.h"
#include "suites/ze_test.h"
#include "teec_recorder.h"
#include "wsm_encoding.h"

namespace {

std::vector<uint32_t> commandsSent() {
    std::vector<uint32_t> commands;
    for (const auto& invocation : recorder::invocations) commands.push_back(invocation.command);
    return commands;
}

void failCommands(std::set<uint32_t> failing) {
    recorder::script.invoke = [failing](uint32_t command, size_t) {
        return failing.count(command) ? recorder::Answer{TEEC_ERROR_GENERIC, TEEC_ORIGIN_TEE}
                                      : recorder::Answer{};
    };
}

// The Int fields at the start of the recorded block.
std::vector<int32_t> requestInts(const std::vector<uint8_t>& block) {
    zel::wsm::Reader reader(block.data(), static_cast<uint32_t>(block.size()));
    std::vector<int32_t> values;
    for (int32_t value = 0; reader.getInt(value);) values.push_back(value);
    return values;
}

class ZeTestCallsTest : public testing::Test {
  protected:
    void SetUp() override { recorder::reset(); }
    OutputCapture output;  // keeps the suites' lines out of the test log
};

TEST_F(ZeTestCallsTest, LifecycleSpendsItsBudgetOfAThousandAndStopsAtTheFifthFailure) {
    ZETest test;
    recorder::script.invoke = [](uint32_t, size_t) {
        return recorder::Answer{TEEC_ERROR_BUSY, TEEC_ORIGIN_TRUSTED_APP};
    };
    EXPECT_EQ(test.lifecycle_test(), 5);
    EXPECT_EQ(recorder::invocations.size(), 5u);

    recorder::reset();
    recorder::script.invoke = [](uint32_t, size_t index) {
        return index == 10 || index == 999 ? recorder::Answer{TEEC_ERROR_BUSY, 4}
                                           : recorder::Answer{};
    };
    EXPECT_EQ(test.lifecycle_test(), 2);
    EXPECT_EQ(commandsSent(), std::vector<uint32_t>(1000, 0));
    EXPECT_EQ(std::count(recorder::calls.begin(), recorder::calls.end(), "OpenSession"), 1);
}

TEST_F(ZeTestCallsTest, MaskSuitesSendTheirCommandsInOrderOverOneSession) {
    ZETest test;
    failCommands({7, 17});
    EXPECT_EQ(test.process_test(), 260u);
    EXPECT_EQ(commandsSent(), (std::vector<uint32_t>{4, 6, 7, 11, 13, 14, 15, 16, 17}));
    EXPECT_EQ(std::count(recorder::calls.begin(), recorder::calls.end(), "OpenSession"), 1);

    recorder::reset();
    failCommands({1, 17});
    EXPECT_EQ(test.heavyload_test(), 0x201u);
    EXPECT_EQ(commandsSent(), (std::vector<uint32_t>{1, 2, 4, 7, 11, 13, 14, 15, 16, 17}));

    recorder::reset();
    recorder::script.openSession = {TEEC_ERROR_ITEM_NOT_FOUND, TEEC_ORIGIN_TEE};
    EXPECT_EQ(test.process_test(), 511u);
    EXPECT_EQ(test.lifecycle_test(), 5);
    EXPECT_TRUE(recorder::invocations.empty());
}

TEST_F(ZeTestCallsTest, SelectorPicksTheSuiteAndUnknownSelectorsOpenNothing) {
    ZETest test;
    failCommands({17});
    test.SetCMD(17);
    EXPECT_EQ(test.SendCMD(), static_cast<int32_t>(TEEC_ERROR_GENERIC));
    EXPECT_EQ(commandsSent(), std::vector<uint32_t>{17});

    recorder::reset();
    test.SetCMD(18);
    EXPECT_EQ(test.SendCMD(), static_cast<int32_t>(TEEC_ERROR_GENERIC));
    ZETest fresh;  // no SetCMD yet
    EXPECT_EQ(fresh.SendCMD(), static_cast<int32_t>(TEEC_ERROR_GENERIC));
    EXPECT_TRUE(recorder::calls.empty());
    const Lines lines = output.lines();
    EXPECT_NE(
        std::find(lines.begin(), lines.end(), "Tessaril BIST : 17 TEST CA RESULT : 4294901760"),
        lines.end());  // the result in unsigned decimal
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "Tessaril Test CA SendCMD unknown command"),
              2);
    EXPECT_NE(std::find(lines.begin(), lines.end(), "Tessaril Test CA SendCMD: -1"), lines.end());
}

TEST(CaManagerSpCallsTest, FirmwareUpdateSendsItsParameterAndZeroUntilSet) {
    recorder::reset();
    OutputCapture output;
    CaManagerSp manager(0x1e);
    EXPECT_EQ(manager.SendDataToZel(), 0);
    manager.SetPARAM(5);
    manager.SetPARAM2(9);  // read by no scenario
    EXPECT_EQ(manager.SendDataToZel(), 0);
    ASSERT_EQ(recorder::invocations.size(), 2u);
    EXPECT_EQ(recorder::invocations[0].command, 0x1eu);
    EXPECT_EQ(requestInts(recorder::invocations[0].block), std::vector<int32_t>{0});
    EXPECT_EQ(requestInts(recorder::invocations[1].block), std::vector<int32_t>{5});
    // A plain command sends the block as allocated.
    recorder::reset();
    manager.SetCMD(0x20);
    EXPECT_EQ(manager.SendDataToZel(), 0);
    ASSERT_EQ(recorder::invocations.size(), 1u);
    EXPECT_EQ(recorder::invocations[0].block, std::vector<uint8_t>(8192, 0));
}

}  // namespace
