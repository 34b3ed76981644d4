// The secure processor's commands in each of their four shapes, with replies scripted through the
// control TA in the secure processor's place.
#include <gtest/gtest.h>

#include <vector>

#include "output_capture.h"
#include "vault_fixture.h"
#include "wsm_message.h"
#include "zel_tc_lib.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr int32_t kNoData = static_cast<int32_t>(TEEC_ERROR_NO_DATA);
constexpr int32_t kCommunication = static_cast<int32_t>(TEEC_ERROR_COMMUNICATION);
constexpr unsigned int kUntouched = 0xAAAAAAAA;

class SecureProcessorCommandsTest : public VaultFixture {
  protected:
    void script(uint32_t command, const WsmMessage& reply) {
        ASSERT_EQ(control.scriptReply(zel_test_a, command, 1, reply.bytes()), TEEC_SUCCESS);
    }
    CaZelInterfaceSp secureProcessor{zel_test_a};
    OutputCapture output;
};

TEST_F(SecureProcessorCommandsTest, FirmwareWordsAreCopiedUpToTheCapacity) {
    std::vector<unsigned int> info(10, kUntouched);
    script(0x28, WsmMessage().u(3).blob(words({1, 2, 3})));
    ASSERT_EQ(secureProcessor.zel_getFWInfo(info.data(), 10), 0);
    EXPECT_EQ(info, (std::vector<unsigned int>{1, 2, 3, kUntouched, kUntouched, kUntouched,
                                               kUntouched, kUntouched, kUntouched, kUntouched}));

    script(0x28, WsmMessage().u(12).blob(words({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12})));
    ASSERT_EQ(secureProcessor.zel_getFWInfo(info.data(), 10), 0);
    EXPECT_EQ(info, (std::vector<unsigned int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));

    script(0x28, WsmMessage().u(2).blob(words({7, 8})));
    EXPECT_EQ(secureProcessor.zel_getFWInfo(nullptr, 0), 0);  // capacity 0: nothing written

    script(0x28, WsmMessage().u(0).blob(Bytes()));
    EXPECT_EQ(secureProcessor.zel_getFWInfo(info.data(), 10), kNoData);
    // A count whose byte size wraps in 32 bits is no count at all.
    script(0x28, WsmMessage().u(0x40000001).blob(words({1})));
    EXPECT_EQ(secureProcessor.zel_getFWInfo(info.data(), 10), kNoData);
    EXPECT_EQ(info[0], 1u);

    // The other id sends 0x13 but says the same name.
    script(0x13, WsmMessage().u(1).blob(words({42})));
    ASSERT_EQ(secureProcessor.ze_getFWInfo(info.data(), 10), 0);
    EXPECT_EQ(info[0], 42u);
    const Lines lines = output.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "CA InterfaceSP: zel_getFWInfo"), 6);
}

TEST_F(SecureProcessorCommandsTest, HackStatusIsClearedFirstThenCopiedUpToTheBuffer) {
    unsigned char status[9];
    std::fill(std::begin(status), std::end(status), 0xEE);
    script(0x27, WsmMessage().i(4).blob(Bytes{0xAA, 0xBB, 0xCC, 0xDD}));
    ASSERT_EQ(secureProcessor.zel_getHackInfo(status, 9), 0);
    EXPECT_EQ(Bytes(status, status + 9), (Bytes{0xAA, 0xBB, 0xCC, 0xDD, 0, 0, 0, 0, 0}));

    std::fill(std::begin(status), std::end(status), 0xEE);
    script(0x27, WsmMessage().i(4).blob(Bytes{1, 2, 3, 4}));
    EXPECT_EQ(secureProcessor.zel_getHackInfo(status, 0), 0);  // asked, read, nothing copied
    EXPECT_EQ(status[0], 0xEE);

    std::fill(std::begin(status), std::end(status), 0xEE);
    script(0x27, WsmMessage().i(0).blob(Bytes()));
    EXPECT_EQ(secureProcessor.zel_getHackInfo(status, 9), kNoData);
    EXPECT_EQ(Bytes(status, status + 9), Bytes(9, 0));
}

TEST_F(SecureProcessorCommandsTest, FirmwareUpdateReadsItsRecordAndVersions) {
    std::string system = "old", app = "old";
    ZelResult result{99, 99};
    script(0x12, WsmMessage().blob(Bytes(8, 0)).u(5).blob("1.0.2").u(3).blob("7.1"));
    ASSERT_EQ(secureProcessor.ze_updateFW(3, system, app, &result), 0);
    EXPECT_EQ(system, "1.0.2");
    EXPECT_EQ(app, "7.1");
    EXPECT_EQ(result.zelCode, 0);
    EXPECT_EQ(result.firmwareCode, 0);
    EXPECT_EQ(output.lines(),
              (Lines{"CA InterfaceSP: ze_updateFW", "TEE connection has been set"}));

    OutputCapture more;
    script(0x12, WsmMessage().u(8));
    EXPECT_EQ(secureProcessor.ze_updateFW(3, system, app, &result), kCommunication);
    script(0x12, WsmMessage().blob(words({6, static_cast<uint32_t>(-11)})).u(5).blob("2.0.0").u(0));
    EXPECT_EQ(secureProcessor.ze_updateFW(3, system, app, &result), kCommunication);
    EXPECT_EQ(result.zelCode, 6);
    EXPECT_EQ(result.firmwareCode, -11);
    EXPECT_EQ(system, "1.0.2");  // the strings change only when everything was read
    ASSERT_EQ(control.failInvocations(zel_test_a, 0x12, 1, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    EXPECT_EQ(secureProcessor.ze_updateFW(3, system, app, &result),
              static_cast<int32_t>(TEEC_ERROR_BUSY));
    const Lines lines = more.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "Error GetBlob ZelResult"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "GetUint() app_ver_size error"), 1);
    EXPECT_EQ(lines.back(), "InvokeCommand error");
}

}  // namespace
