// The vault's storage in a file: what a command stored survives the daemon's death and restart;
// a damaged file is refused with a clear message.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "daemon_launcher.h"
#include "output_capture.h"
#include "store_fixture.h"
#include "zel_tc_lib.h"

namespace {

using StoragePersistenceTest = StoreFixture;

TEST_F(StoragePersistenceTest, SlotsSurviveKillAndRestart) {
    std::string error;
    ASSERT_TRUE(startDaemon(error)) << error;
    OutputCapture output;
    CaZelInterface vault(zel_test);
    const std::vector<uint8_t> data = {1, 2, 3, 4, 5, 6, 7};
    ASSERT_EQ(vault.zel_put(3, data.data(), 7), 0);
    ASSERT_EQ(vault.zel_put(4, data.data(), 3), 0);
    daemon_->kill();  // no chance to flush anything

    ASSERT_TRUE(startDaemon(error)) << error;
    unsigned char* read = nullptr;
    unsigned int size = 0;
    ASSERT_EQ(vault.zel_get(3, &read, &size), 0);
    EXPECT_EQ(std::vector<uint8_t>(read, read + size), data);
    std::free(read);
    ASSERT_EQ(vault.zel_delete(4), 0);
    ASSERT_TRUE(daemon_->stop());

    ASSERT_TRUE(startDaemon(error)) << error;
    EXPECT_EQ(vault.zel_checkDataExistence(4, 0), static_cast<int32_t>(TEEC_ERROR_ITEM_NOT_FOUND));
    EXPECT_EQ(vault.zel_checkDataExistence(3, 0), 0);
}

TEST_F(StoragePersistenceTest, SecureProcessorStateSurvivesKillAndRestart) {
    std::string error;
    ASSERT_TRUE(startDaemon(error)) << error;
    OutputCapture output;
    std::vector<unsigned char> key(540);
    ASSERT_EQ(DataPlaceHolder::fill_zel_publicKey(1, key.data(), 540), TEEC_SUCCESS);
    CaZelInterfaceSp secureProcessor(zel_test_a);
    ASSERT_EQ(secureProcessor.zel_akProvision(key.data(), 540), 0);
    daemon_->kill();

    ASSERT_TRUE(startDaemon(error)) << error;
    EXPECT_EQ(secureProcessor.zel_checkZelAk(key.data(), 540), 0);
    ASSERT_EQ(secureProcessor.zel_removeAkKeys(), 0);
    ASSERT_TRUE(daemon_->stop());

    ASSERT_TRUE(startDaemon(error)) << error;
    EXPECT_EQ(secureProcessor.zel_getPublicKeyStatus(),
              static_cast<int32_t>(TEEC_ERROR_ITEM_NOT_FOUND));
}

TEST_F(StoragePersistenceTest, DamagedStoreIsRefused) {
    std::ofstream(storage_) << std::string(4096, '\x5a');
    ASSERT_EQ(chmod(storage_.c_str(), 0600), 0);  // refused for its content, not its mode
    std::string error;
    EXPECT_FALSE(startDaemon(error));
    EXPECT_NE(error.find("exited with status 1"), std::string::npos) << error;
}

}  // namespace
