// A private folder with a vault store file in it, and a daemon over that store made the default
// TEE; both gone after the test.
#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "daemon_launcher.h"

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
    // Starts a daemon over the store; error receives why it did not start.
    bool startDaemon(std::string& error) {
        daemon_ = zel::vault::VaultDaemon::start({{}, {}, false, {"--storage", storage_}}, error);
        if (daemon_) setenv("ZEL_TEE_SOCKET", daemon_->socketPath().c_str(), 1);
        return daemon_ != nullptr;
    }

    std::string directory_, storage_;
    std::unique_ptr<zel::vault::VaultDaemon> daemon_;
};
