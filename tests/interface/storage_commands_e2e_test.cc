// The storage and key commands end to end against zel-vaultd: results, lines and handed-out
// buffers, with replies and failures scripted through the control TA where the vault itself
// would not produce them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <vector>

#include "openssl_bytes.h"
#include "output_capture.h"
#include "vault_fixture.h"
#include "wsm_message.h"
#include "zel_tc_lib.h"

namespace {

using zel::test::Bytes;
constexpr int32_t kGeneric = static_cast<int32_t>(TEEC_ERROR_GENERIC);
constexpr int32_t kNoData = static_cast<int32_t>(TEEC_ERROR_NO_DATA);

int32_t asResult(TEEC_Result result) {
    return static_cast<int32_t>(result);
}

Bytes pattern(size_t size, uint8_t seed) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 13);
    return bytes;
}

class StorageCommandsTest : public VaultFixture {
  protected:
    CaZelInterface vault{zel_test};
    OutputCapture output;  // the commands' lines, checked where they matter
};

TEST_F(StorageCommandsTest, SlotRoundTripWithHashInfoExistenceAndDeletion) {
    const Bytes data = pattern(241, 1);
    ASSERT_EQ(vault.zel_put(3, data.data(), 241), 0);

    unsigned char* first = nullptr;
    unsigned int size = 0;
    ASSERT_EQ(vault.zel_get(3, &first, &size), 0);
    ASSERT_EQ(size, 241u);
    EXPECT_EQ(Bytes(first, first + size), data);
    std::free(first);

    unsigned char* hash = nullptr;
    unsigned int hashSize = 0;
    ASSERT_EQ(vault.zel_getHash(3, 0, &hash, &hashSize), 0);
    Bytes digest(32);
    EVP_Digest(data.data(), data.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
    EXPECT_EQ(Bytes(hash, hash + hashSize), digest);
    std::free(hash);
    EXPECT_EQ(vault.zel_getHash(3, 1, &hash, &hashSize), kGeneric);  // a reply command failed

    unsigned char status = 0xEE;
    unsigned int slotSize = 0;
    ASSERT_EQ(vault.zel_getSlotInfo(3, &status, &slotSize), 0);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(slotSize, 241u);

    EXPECT_EQ(vault.zel_checkDataExistence(3, 1), asResult(TEEC_ERROR_ITEM_NOT_FOUND));
    EXPECT_EQ(vault.zel_delete(3), 0);
    EXPECT_EQ(vault.zel_delete(3), asResult(TEEC_ERROR_ITEM_NOT_FOUND));  // the TEE's own code
}

TEST_F(StorageCommandsTest, KeysAreStoredComparedGeneratedAndDeleted) {
    const Bytes aes = pattern(32, 9);
    ASSERT_EQ(vault.zel_storeKey(4, 6, const_cast<uint8_t*>(aes.data()), 32), 0);
    Bytes same = aes, other = pattern(32, 10);
    EXPECT_EQ(vault.zel_compareData(4, other.data(), 32), asResult(TEEC_ERROR_SECURITY));
    // An option the vault does not implement (no padding) fails even with the key there.
    unsigned char* encrypted = nullptr;
    unsigned int encryptedSize = 0;
    EXPECT_EQ(vault.zel_aesEncrypt(4, 0, 32, 1, same.data(), 16, same.data(), 32, &encrypted,
                                   &encryptedSize),
              kGeneric);
    // No empty-input check here: the request goes out and the TA refuses it.
    EXPECT_EQ(vault.zel_compareData(4, same.data(), 0), asResult(TEEC_ERROR_BAD_PARAMETERS));

    Bytes notAKey = pattern(121, 3);
    EXPECT_EQ(vault.zel_storeKey(6, 5, notAKey.data(), 121), asResult(TEEC_ERROR_BAD_FORMAT));
    EXPECT_EQ(vault.zel_storeKey(6, 6, notAKey.data(), 31), asResult(TEEC_ERROR_BAD_PARAMETERS));
    EXPECT_EQ(vault.zel_storeKey(6, 9, same.data(), 32), asResult(TEEC_ERROR_NOT_SUPPORTED));
    EXPECT_EQ(vault.zel_checkDataExistence(6, 1), asResult(TEEC_ERROR_ITEM_NOT_FOUND));

    EXPECT_EQ(vault.zel_generateKey(7, 2), 0);
    EXPECT_EQ(vault.zel_generateKey(7, 3), asResult(TEEC_ERROR_BAD_PARAMETERS));
    unsigned char status = 0;
    unsigned int size = 99;
    ASSERT_EQ(vault.zel_getSlotInfo(7, &status, &size), 0);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(size, 0u);

    EXPECT_EQ(vault.zel_deleteKey(4), 0);
    EXPECT_EQ(vault.zel_deleteKey(4), asResult(TEEC_ERROR_ITEM_NOT_FOUND));
    EXPECT_EQ(vault.zel_compareData(4, same.data(), 32), asResult(TEEC_ERROR_ITEM_NOT_FOUND));
    EXPECT_EQ(vault.zel_delete(32), asResult(TEEC_ERROR_BAD_PARAMETERS));
    EXPECT_EQ(vault.zel_put(-1, same.data(), 32), asResult(TEEC_ERROR_BAD_PARAMETERS));
}

TEST_F(StorageCommandsTest, EmptyInputsAreRefusedBeforeAnySession) {
    ASSERT_EQ(control.failOpenSession(zel_test, 0, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE), TEEC_SUCCESS);
    unsigned char byte = 1;
    EXPECT_EQ(vault.zel_put(3, nullptr, 5), -13);
    EXPECT_EQ(vault.zel_put(3, &byte, 0), -13);
    EXPECT_EQ(vault.zel_storeKey(3, 6, &byte, 0), -13);
    EXPECT_EQ(output.lines(),
              (Lines{"CA Interface: zel_put", "Empty parameters", "CA Interface: zel_put",
                     "Empty parameters", "CA Interface: zel_storeKey", "Empty parameters"}));
}

TEST_F(StorageCommandsTest, RequestLargerThanTheBlockIsNotSent) {
    const Bytes big = pattern(9000, 2);
    EXPECT_EQ(vault.zel_put(3, big.data(), 9000), kNoData);
    EXPECT_EQ(vault.zel_checkDataExistence(3, 0), asResult(TEEC_ERROR_ITEM_NOT_FOUND));
    const Lines lines = output.lines();
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 3),
              (Lines{"CA Interface: zel_put", "TEE connection has been set", "WSM error"}));
}

TEST_F(StorageCommandsTest, RepliesWithoutDataAreReportedAndHandOutNothing) {
    ASSERT_EQ(control.scriptReply(zel_test, 0x02, 1, WsmMessage().u(0).blob(Bytes()).bytes()),
              TEEC_SUCCESS);
    unsigned char sentinel = 0;
    unsigned char* data = &sentinel;
    unsigned int size = 77;
    EXPECT_EQ(vault.zel_get(3, &data, &size), kNoData);
    EXPECT_EQ(data, &sentinel);
    EXPECT_EQ(size, 0u);

    // A length with no blob behind it.
    ASSERT_EQ(control.scriptReply(zel_test, 0x0c, 1, WsmMessage().u(32).bytes()), TEEC_SUCCESS);
    unsigned char* hash = nullptr;
    EXPECT_EQ(vault.zel_getHash(3, 0, &hash, &size), kNoData);
    EXPECT_EQ(hash, nullptr);

    ASSERT_EQ(control.scriptReply(zel_test, 0x2d, 1, WsmMessage().i(0x1FF).u(241).bytes()),
              TEEC_SUCCESS);
    unsigned char status = 0;
    ASSERT_EQ(vault.zel_getSlotInfo(3, &status, &size), 0);
    EXPECT_EQ(status, 0xFF);
    EXPECT_EQ(size, 241u);

    const Lines lines = output.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "Data null from TA"), 2);
}

// Slot info reads its reply outside the shared path, and still fails as a reply command does.
TEST_F(StorageCommandsTest, FailedSlotInfoGivesGeneric) {
    ASSERT_EQ(control.failInvocations(zel_test, 0x2d, 1, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    unsigned char status = 0;
    unsigned int size = 0;
    EXPECT_EQ(vault.zel_getSlotInfo(3, &status, &size), kGeneric);
}

}  // namespace
