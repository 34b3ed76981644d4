// The host build's side of the seam: the host TEE daemon.
#include <cstdlib>

#include <tee_client_api.h>

#include "daemon_launcher.h"
#include "tee/target.h"
#include "tee/vault_commands.h"

namespace zel::tc {

const char* platformName() {
    return "host";
}

void addTeeTargetOptions(CLI::App& command, TeeTargetOptions& options) {
    command.add_option("--socket", options.socket,
                       "Use the TEE daemon already listening here instead of starting one");
    command.add_option("--vaultd", options.vaultd,
                       "The zel-vaultd to start (default: beside zel-tc)");
}

struct TeeTarget::Held {
    std::string vaultd;
    std::unique_ptr<vault::VaultDaemon> daemon;
};

TeeTarget::TeeTarget() : held_(std::make_unique<Held>()) {}
TeeTarget::~TeeTarget() = default;

bool TeeTarget::open(const TeeTargetOptions& options, std::string& error) {
    where_ = options.socket;
    if (where_.empty()) {
        held_->vaultd = options.vaultd;
        return restart(error);
    }
    TEEC_Context context{};
    if (TEEC_InitializeContext(where_.c_str(), &context) != TEEC_SUCCESS) {
        error = "no TEE answers at " + where_;
        return false;
    }
    TEEC_FinalizeContext(&context);
    // The TEE client library finds the default TEE here.
    setenv("ZEL_TEE_SOCKET", where_.c_str(), 1);
    return true;
}

bool TeeTarget::canRestart() const {
    return held_->daemon != nullptr;
}

bool TeeTarget::restart(std::string& error) {
    if (held_->daemon) held_->daemon->kill();  // it may be hung or dead: no clean stop to wait for
    vault::VaultDaemon::Options launch;
    launch.executable = held_->vaultd;
    // Nothing zel-tc starts outlives it, however it ends.
    launch.dieWithParent = true;
    held_->daemon = vault::VaultDaemon::start(launch, error);
    if (!held_->daemon) return false;
    where_ = held_->daemon->socketPath();
    setenv("ZEL_TEE_SOCKET", where_.c_str(), 1);
    return true;
}

void addTeeCommands(CLI::App& app, int& exitCode) {
    addVaultCommands(app, exitCode);
}

}  // namespace zel::tc
