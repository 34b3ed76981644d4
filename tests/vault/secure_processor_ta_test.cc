// The host's secure-processor TA, driven through the library's commands and the control TA.
#include <gtest/gtest.h>

#include <vector>

#include "output_capture.h"
#include "sp_items.h"
#include "vault_fixture.h"
#include "wsm_encoding.h"
#include "zel_tc_lib.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr int32_t kNotFound = static_cast<int32_t>(TEEC_ERROR_ITEM_NOT_FOUND);
constexpr int32_t kSecurity = static_cast<int32_t>(TEEC_ERROR_SECURITY);

class SecureProcessorTaTest : public VaultFixture {
  protected:
    void SetUp() override {
        VaultFixture::SetUp();
        ASSERT_EQ(DataPlaceHolder::fill_zel_publicKey(1, key.data(), 540), TEEC_SUCCESS);
    }
    void set(sp_item item, const Bytes& value) {
        ASSERT_EQ(control.setSecureProcessor(item, value), TEEC_SUCCESS);
    }
    Bytes hackStatus() {
        unsigned char status[9];
        EXPECT_EQ(secureProcessor.zel_getHackInfo(status, 9), 0);
        return Bytes(status, status + 9);
    }

    std::vector<unsigned char> key = std::vector<unsigned char>(540);
    CaZelInterfaceSp secureProcessor{zel_test_a};
    OutputCapture output;
};

// The plan's run checks the commands' answers along its way (provision, check, status, bind,
// remove, check again); here, what it never meets.
TEST_F(SecureProcessorTaTest, AkKeyIsRefusedMismatchedBoundAndRemoved) {
    EXPECT_EQ(secureProcessor.zel_akProvisionRPMB(), kNotFound);  // nothing to bind yet

    // Text that is not hexadecimal, or hexadecimal that is no RSA public key, is refused.
    std::vector<unsigned char> bad = key;
    bad[7] = 'x';
    EXPECT_EQ(secureProcessor.zel_akProvision(bad.data(), 540),
              static_cast<int32_t>(TEEC_ERROR_BAD_FORMAT));
    std::vector<unsigned char> zeros(540, '0');
    EXPECT_EQ(secureProcessor.zel_akProvision(zeros.data(), 540),
              static_cast<int32_t>(TEEC_ERROR_BAD_FORMAT));
    EXPECT_EQ(secureProcessor.zel_akProvision(key.data(), 538),
              static_cast<int32_t>(TEEC_ERROR_BAD_PARAMETERS));
    EXPECT_EQ(secureProcessor.zel_getPublicKeyStatus(), kNotFound);

    ASSERT_EQ(secureProcessor.zel_akProvision(key.data(), 540), 0);
    std::vector<unsigned char> other = key;
    other[539] = other[539] == '0' ? '1' : '0';
    EXPECT_EQ(secureProcessor.zel_checkZelAk(other.data(), 540), kSecurity);
    ASSERT_EQ(secureProcessor.zel_removeAkKeys(), 0);
    EXPECT_EQ(secureProcessor.zel_removeAkKeys(), 0);  // removing nothing is no error

    ASSERT_EQ(secureProcessor.zel_akProvision(key.data(), 540), 0);
    ASSERT_EQ(control.reset(), TEEC_SUCCESS);  // the reset forgets the key too
    EXPECT_EQ(secureProcessor.zel_getPublicKeyStatus(), kNotFound);
}

TEST_F(SecureProcessorTaTest, SelfTestFailsWhileAHackIsReportedUntilTheProcessorRecovers) {
    set(SP_HACK_STATUS, {0x00, 0x01, 0x80});
    EXPECT_EQ(hackStatus(), (Bytes{0x00, 0x01, 0x80, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(secureProcessor.zel_selfTestAll(), kSecurity);
    EXPECT_EQ(secureProcessor.zel_forceRecovery(), 0);
    EXPECT_EQ(secureProcessor.zel_selfTestAll(), kSecurity);  // the device's recovery is not it
    EXPECT_EQ(secureProcessor.zel_forceRecoverySP(), 0);
    EXPECT_EQ(secureProcessor.zel_selfTestAll(), 0);
    EXPECT_EQ(hackStatus(), Bytes(9, 0));

    // An empty status reaches the library as a zero length.
    set(SP_HACK_STATUS, {});
    unsigned char status[9];
    EXPECT_EQ(secureProcessor.zel_getHackInfo(status, 9), static_cast<int32_t>(TEEC_ERROR_NO_DATA));
}

TEST_F(SecureProcessorTaTest, FirmwareUpdateReportsTheConfiguredOutcome) {
    std::string system, app;
    ZelResult result{7, 7};
    ASSERT_EQ(secureProcessor.ze_updateFW(0, system, app, &result), 0);
    EXPECT_EQ(system, "1.0.2");
    EXPECT_EQ(app, "7.1");
    EXPECT_EQ(result.zelCode, 0);
    EXPECT_EQ(result.firmwareCode, 0);

    // A failed update: the report carries its codes, the plain command fails.
    const int32_t codes[2] = {1, -51};
    set(SP_UPDATE_RESULT, Bytes(reinterpret_cast<const uint8_t*>(codes),
                                reinterpret_cast<const uint8_t*>(codes) + 8));
    set(SP_SYSTEM_VERSION, {'2', '.', '0'});
    ASSERT_EQ(secureProcessor.ze_updateFW(0, system, app, &result), 0);
    EXPECT_EQ(system, "2.0");
    EXPECT_EQ(zelResultToStr(result),
              "ZEL result is:\n\t\tZEL: ZEL_RET_FAIL\n\t\tFirmware: -IRDO_FW_ERROR");
    EXPECT_EQ(secureProcessor.zel_updateFW(0), static_cast<int32_t>(TEEC_ERROR_GENERIC));

    // Only the answers are the control TA's to set, each in its own shape.
    EXPECT_EQ(control.setSecureProcessor(SP_UPDATE_RESULT, Bytes(7)), TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(control.setSecureProcessor(SP_FIRMWARE_WORDS, Bytes(6)), TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(control.setSecureProcessor(SP_AK_KEY, Bytes(540, '0')), TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(control.setSecureProcessor(99, Bytes(4)), TEEC_ERROR_BAD_PARAMETERS);
}

TEST_F(SecureProcessorTaTest, UnknownIdsAreNotSupportedAndPlainCommandsIgnoreTheBlock) {
    // The vault TA's numbers are not the secure processor's.
    ZELTEEClient client;
    ASSERT_TRUE(client.Open(zel_test_a));
    EXPECT_EQ(client.InvokeCommand(0x00), TEEC_ERROR_NOT_SUPPORTED);
    // A device's TEE client may hand out a block that still holds an earlier message: a plain
    // command answers as if the block were empty.
    auto* memory = static_cast<TEEC_SharedMemory*>(client.getSHMPtr());
    zel::wsm::Writer(static_cast<uint8_t*>(memory->buffer), 8192).putInt(1);
    EXPECT_EQ(client.InvokeCommand(0x20), TEEC_SUCCESS);
}

}  // namespace
