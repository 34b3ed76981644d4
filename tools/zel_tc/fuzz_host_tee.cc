#include "fuzz_host_tee.h"

#include <cstdlib>
#include <memory>

#include "daemon_launcher.h"

namespace zel::tc::fuzz {

void addHostTeeOptions(CLI::App& command, HostTeeOptions& options) {
    command.add_option("--socket", options.socket,
                       "Use the TEE daemon already listening here instead of starting one "
                       "(it is then never restarted: a finding that kills it ends the run)");
    command.add_option("--vaultd", options.vaultd,
                       "The zel-vaultd to start (default: beside zel-tc)");
}

bool openHostTee(const HostTeeOptions& options, RestartTee& restart, std::string& error) {
    restart = nullptr;
    if (!options.socket.empty()) {
        setenv("ZEL_TEE_SOCKET", options.socket.c_str(), 1);
        return true;
    }
    auto daemon = std::make_shared<std::unique_ptr<vault::VaultDaemon>>();
    vault::VaultDaemon::Options launch{options.vaultd, {}, false, {}, false};
    launch.dieWithParent = true;  // nothing zel-tc starts outlives it
    restart = [daemon, launch](std::string& why) {
        if (*daemon) (*daemon)->kill();  // it may be hung or dead: no clean stop to wait for
        daemon->reset();
        *daemon = vault::VaultDaemon::start(launch, why);
        if (!*daemon) return false;
        setenv("ZEL_TEE_SOCKET", (*daemon)->socketPath().c_str(), 1);
        return true;
    };
    return restart(error);
}

}  // namespace zel::tc::fuzz
