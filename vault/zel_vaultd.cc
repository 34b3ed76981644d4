// zel-vaultd: the host's TEE. Hosts the simulated TAs and serves TEE Client API connections on an
// AF_UNIX socket until SIGINT or SIGTERM.
#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <iostream>

#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "control_ta.h"
#include "fault_plan.h"
#include "interface/zel_ta_ids.h"
#include "secure_processor_ta.h"
#include "server.h"
#include "teec_wire.h"
#include "vault_storage.h"
#include "vault_ta.h"

int main(int argc, char** argv) {
    using namespace zel::vault;
    CLI::App app{"zel-vaultd: the host TEE with the simulated vault TAs"};
    std::string socketPath = zel::wire::defaultSocketPath();
    bool control = false;
    int readyFd = -1;
    std::string storagePath = ":memory:";
    app.add_option("--socket", socketPath, "Socket to listen on")->capture_default_str();
    app.add_option("--storage", storagePath,
                   "The vault's secure storage: an SQLite file kept across restarts")
        ->capture_default_str();
    app.add_flag("--control", control, "Host the control TA (fault injection, reset) for tests");
    app.add_option("--ready-fd", readyFd,
                   "Write \"ready\\n\" to this descriptor and close it once listening")
        ->check(CLI::NonNegativeNumber);
    pid_t parent = 0;
    app.add_option("--die-with-parent", parent,
                   "End (as on SIGTERM) when this process, the one that started the daemon, dies")
        ->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);

    // Signals are read from a descriptor, so every thread started later inherits the mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    UniqueFd stopFd(signalfd(-1, &stopSignals, SFD_CLOEXEC));
    if (!stopFd) {
        std::perror("zel-vaultd: signalfd");
        return 1;
    }
    // Set before checking: a parent that died in between is seen by the check.
    if (parent > 0) {
        if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0) std::perror("zel-vaultd: --die-with-parent");
        if (getppid() != parent) {
            std::cerr << "zel-vaultd: the process that started it is gone" << std::endl;
            return 1;
        }
    }

    // The store, its WAL files and the socket are this user's alone.
    umask(077);
    std::string error;
    const auto storage = VaultStorage::open(storagePath, error);
    if (!storage) {
        std::cerr << "zel-vaultd: " << error << std::endl;
        return 1;
    }
    VaultTa vault(*storage);
    SecureProcessorTa secureProcessor(*storage);
    TaRegistry registry;
    FaultPlan faults;
    TrustedApp& vaultApp = addVaultTa(registry, vault);
    TrustedApp& secureProcessorApp = addSecureProcessorTa(registry, secureProcessor);
    if (control) {
        // Each waits for the TA it changes to finish its command.
        ControlHooks hooks;
        hooks.resetState = [&] {
            std::scoped_lock oneAtATime(vaultApp.lock, secureProcessorApp.lock);
            vault.reset();
        };
        hooks.setAnswer = [&](uint32_t item, const std::vector<uint8_t>& value) {
            std::lock_guard<std::mutex> oneAtATime(secureProcessorApp.lock);
            return secureProcessor.setAnswer(item, value);
        };
        addControlTa(registry, faults, hooks);
    }

    Server server(socketPath, registry, faults);
    if (!server.listen(error)) {
        std::cerr << "zel-vaultd: " << error << std::endl;
        return 1;
    }
    std::cout << "zel-vaultd listening on " << socketPath << std::endl;
    if (readyFd >= 0) {
        const char ready[] = "ready\n";
        if (write(readyFd, ready, sizeof ready - 1) < 0) std::perror("zel-vaultd: --ready-fd");
        close(readyFd);
    }
    server.run(stopFd.get());
    return 0;
}
