// The general scenario manager's storage, key, crypto and hub scenarios, transcript by transcript,
// against zel-vaultd with the fixed vectors.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "output_capture.h"
#include "support/test_vectors.h"
#include "vault_fixture.h"
#include "zel_tc_lib.h"

namespace {

constexpr int32_t kGeneric = static_cast<int32_t>(TEEC_ERROR_GENERIC);

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

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

TEST_F(CaManagerTest, PutWithTheFirstVectorSetThenReadItBack) {
    OutputCapture output;
    CaManager manager(1, 0, zel_test, 3);
    EXPECT_EQ(manager.SendDataToZel(), 0);
    manager.SetCMD(2);
    EXPECT_EQ(manager.SendDataToZel(), 0);
    const std::string data = lower(zel::vectors::kPutData);
    ASSERT_EQ(data.size(), 482u);
    EXPECT_EQ(output.lines(),
              (Lines{"CA Manager created", "CA Manager SendDataToZel: 0", "CaManager zel_put",
                     "index: 3", "uDataSize: 241", "pDataBuffer: " + data, "CA Interface: zel_put",
                     "TEE connection has been set", "CA Manager SendDataToZel: 2",
                     "CaManager zel_get", "index: 3", "CA Interface: zel_get",
                     "TEE connection has been set", "uDataSize: 241", "pDataBuffer: " + data}));
}

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

TEST_F(CaManagerTest, SlotInfoAndHashOfAStoredSlot) {
    Lines lines;
    ASSERT_EQ(run(1, 0, 3, &lines), 0);
    EXPECT_EQ(run(1, 45, 3, &lines), 0);
    EXPECT_EQ(Lines(lines.end() - 2, lines.end()), (Lines{"dataSize: 241", "status: 01"}));
    EXPECT_EQ(run(1, 12, 3, &lines), 0);
    EXPECT_EQ(lines[lines.size() - 2], "hashSize: 32");
}

TEST_F(CaManagerTest, StoreKeyPrintsTheKeyItSends) {
    Lines lines;
    EXPECT_EQ(run(2, 7, 4, &lines), 0);
    EXPECT_EQ(Lines(lines.begin() + 2, lines.begin() + 7),
              (Lines{"CaManager zel_storeKey", "index: 4", "keytype: 6", "fkpKeySize: 32",
                     "pDataBuffer: " + lower(zel::vectors::kAesKey)}));
    // Random bytes keep the presets and are no EC key to the vault.
    EXPECT_EQ(run(0, 7, 3, &lines), static_cast<int32_t>(TEEC_ERROR_BAD_FORMAT));
    EXPECT_EQ(lines[5], "keytype: 5");
    EXPECT_EQ(lines[6], "fkpKeySize: 121");
}

TEST_F(CaManagerTest, AesDecryptWithTheSecondVectorSet) {
    ASSERT_EQ(run(2, 7, 4), 0);  // the AES key the vectors were made with, at 4
    Lines lines;
    EXPECT_EQ(run(2, 36, 4, &lines), 0);
    EXPECT_EQ(lines[8], "iv: " + lower(zel::vectors::kAesIv));
    EXPECT_EQ(lines[10], "data: " + lower(zel::vectors::kAesCiphertext));
    EXPECT_EQ(lines.back(), "decData: " + lower(zel::vectors::kAesPlaintext));
    EXPECT_EQ(run(2, 35, 4, &lines), 0);
    EXPECT_EQ(Lines(lines.end() - 2, lines.end()),
              (Lines{"encDataSize: 48", "encData: " + lower(zel::vectors::kAesCiphertext)}));
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

TEST_F(CaManagerTest, HubScenariosWithTheFirstVectorSet) {
    ASSERT_EQ(run(1, 7, 3), 0);  // the device key the hub token was sealed for
    Lines lines;
    EXPECT_EQ(run(1, 11, 3, &lines), 0);
    EXPECT_EQ(lines[10], "cloudPubkey: " + std::string(zel::vectors::kCloudEcPublicKey));

    // The data type does not matter to these two.
    EXPECT_EQ(run(7, 15, 1, &lines), 0);
    EXPECT_EQ(lines[lines.size() - 2], "hubIDSize: 16");
    EXPECT_EQ(run(7, 16, 1, &lines), 0);
    EXPECT_EQ(lines[lines.size() - 4], "rxKeySize: 16");
    EXPECT_EQ(lines[lines.size() - 2], "txKeySize: 16");

    EXPECT_EQ(run(1, 8, 1, &lines), 0);
    EXPECT_EQ(lines[lines.size() - 2], "cmacSize: 16");
    EXPECT_EQ(run(1, 9, 3, &lines), 0);
    EXPECT_EQ(lines[4], "type: 2");
    EXPECT_EQ(run(1, 14, 3, &lines), 0);
    EXPECT_EQ(lines[lines.size() - 2], "sharedKeySize: 32");
}

}  // namespace
