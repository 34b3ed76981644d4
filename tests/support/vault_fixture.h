// Starts a zel-vaultd with the control TA for each test, on a private socket that becomes the
// default TEE of this process.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "control_client.h"
#include "daemon_launcher.h"

class VaultFixture : public testing::Test {
  protected:
    void SetUp() override { launch({{}, {}, true, {}}); }
    // For a fixture's own daemon, which TearDown stops all the same.
    void launch(const zel::vault::VaultDaemon::Options& options) {
        std::string error;
        daemon = zel::vault::VaultDaemon::start(options, error);
        ASSERT_TRUE(daemon) << error;
        setenv("ZEL_TEE_SOCKET", daemon->socketPath().c_str(), 1);
    }
    void TearDown() override {
        // A daemon that is still running must stop cleanly: under the sanitizers a leak or a
        // memory error in it shows up as a non-zero exit here.
        if (daemon && daemon->pid() > 0) {
            EXPECT_TRUE(daemon->stop()) << "zel-vaultd did not exit cleanly";
        }
        daemon.reset();
        unsetenv("ZEL_TEE_SOCKET");
    }

    std::unique_ptr<zel::vault::VaultDaemon> daemon;
    zel::vault::VaultControl control;
};
