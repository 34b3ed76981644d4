// A private folder with a vault store file in it, and a daemon over that store made the default
// TEE; both gone after the test.
#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "daemon_launcher.h"
#include "zel_tc_lib.h"

using Bytes = std::vector<unsigned char>;

// A slot's content as the library reads it; nullopt when the read fails.
inline std::optional<Bytes> slotContent(CaZelInterface& vault, int slot) {
    unsigned char* read = nullptr;
    unsigned int size = 0;
    std::optional<Bytes> content;
    if (vault.zel_get(slot, &read, &size) == 0) content = Bytes(read, read + size);
    std::free(read);
    return content;
}

class StoreFixture : public testing::Test {
  protected:
    void SetUp() override {
        directory_ = testing::TempDir() + "zel_store_XXXXXX";
        ASSERT_NE(mkdtemp(directory_.data()), nullptr);
        storage_ = directory_ + "/vault.db";
    }
    void TearDown() override {
        daemon_.reset();
        unsetenv("ZEL_TEE_SOCKET");
        for (const char* suffix : {"", "-wal", "-shm"}) unlink((storage_ + suffix).c_str());
        rmdir(directory_.c_str());
    }
    // Starts a daemon over the store; a failure says why it did not start.
    testing::AssertionResult startDaemon() {
        std::string error;
        daemon_ = zel::vault::VaultDaemon::start({{}, {}, false, {"--storage", storage_}}, error);
        if (!daemon_) return testing::AssertionFailure() << error;
        setenv("ZEL_TEE_SOCKET", daemon_->socketPath().c_str(), 1);
        return testing::AssertionSuccess();
    }

    std::string directory_, storage_;
    std::unique_ptr<zel::vault::VaultDaemon> daemon_;
};
