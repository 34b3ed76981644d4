// The device build's side of the seam: the platform's own TEE, found by its client library.
#include <iostream>

#include "tee/target.h"

namespace zel::tc {

namespace {

constexpr int kExitUsage = 2;
constexpr const char* kRefusal = "this zel-tc was built for the device's own TEE";

}  // namespace

const char* platformName() {
    return "device";
}

void addTeeTargetOptions(CLI::App& command, TeeTargetOptions& options) {
    // Kept out of --help, but named when given, so a host command line pasted on a device fails
    // with a reason rather than as an unknown option.
    command.add_option("--socket", options.socket)->group("");
    command.add_option("--vaultd", options.vaultd)->group("");
}

struct TeeTarget::Held {};

TeeTarget::TeeTarget() : held_(std::make_unique<Held>()) {}
TeeTarget::~TeeTarget() = default;

bool TeeTarget::open(const TeeTargetOptions& options, std::string& error) {
    if (!options.socket.empty() || !options.vaultd.empty()) {
        error = std::string(options.socket.empty() ? "--vaultd" : "--socket") + ": " + kRefusal;
        return false;
    }
    where_ = "the platform's default TEE";
    return true;
}

bool TeeTarget::canRestart() const {
    return false;
}

bool TeeTarget::restart(std::string& error) {
    error = "the device's TEE is not zel-tc's to restart";
    return false;
}

void addTeeCommands(CLI::App& app, int& exitCode) {
    CLI::App* vault = app.add_subcommand("vault", "Host TEE only: not in this build");
    vault->allow_extras()->prefix_command();
    vault->callback([&exitCode] {
        std::cerr << "zel-tc: vault: " << kRefusal << std::endl;
        exitCode = kExitUsage;
    });
}

}  // namespace zel::tc
