// What the secure-processor scenarios put in the block, against the recording TEE Client API.
#include <gtest/gtest.h>

#include "managers/ca_manager_sp.h"
#include "output_capture.h"
#include "teec_recorder.h"
#include "wsm_encoding.h"

namespace {

// The Int fields at the start of the recorded block.
std::vector<int32_t> requestInts(const std::vector<uint8_t>& block) {
    zel::wsm::Reader reader(block.data(), static_cast<uint32_t>(block.size()));
    std::vector<int32_t> values;
    for (int32_t value = 0; reader.getInt(value);) values.push_back(value);
    return values;
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
