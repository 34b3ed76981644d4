// zel-vaultd: the host's TEE. Hosts the vault's GlobalPlatform TAs and serves TEE Client API
// connections on an AF_UNIX socket until SIGINT or SIGTERM.
#include <CLI/CLI.hpp>

#include <malloc.h>

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
#include "object_store.h"
#include "server.h"
#include "sp_items.h"
#include "ta_folder.h"
#include "teec_wire.h"

int main(int argc, char** argv) {
    using namespace zel::vault;
    namespace tee = zel::tee;
    namespace wire = zel::wire;
    CLI::App app{"zel-vaultd: the host TEE, hosting the vault's GlobalPlatform TAs"};
    std::string socketPath = zel::wire::defaultSocketPath();
    bool control = false;
    int readyFd = -1;
    std::string storagePath = ":memory:";
    app.add_option("--socket", socketPath, "Socket to listen on")->capture_default_str();
    app.add_option("--storage", storagePath,
                   "The vault's secure storage: an SQLite file kept across restarts")
        ->capture_default_str();
    std::string taFolder = TaFolder::besideProgram();
    app.add_option("--ta-dir", taFolder, "The TA folder: GlobalPlatform TAs as <uuid>.so")
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

    // glibc gives each busy thread a malloc arena of 64 MiB of address space; under a device's
    // memory limit those, not the threads' stacks, would cap the clients served.
    mallopt(M_ARENA_MAX, 2);
    // The store, its WAL files and the socket are this user's alone.
    umask(077);
    std::string error;
    const auto store = tee::ObjectStore::open(storagePath, error);
    if (!store) {
        std::cerr << "zel-vaultd: " << error << std::endl;
        return 1;
    }
    TaFolder folder(taFolder, *store);
    if (!folder.check(error)) {
        std::cerr << "zel-vaultd: " << error << std::endl;
        return 1;
    }
    TaRegistry registry(
        [&folder](const wire::UuidBytes& uuid, TrustedApp& ta) { return folder.load(uuid, ta); });
    FaultPlan faults;
    if (control) {
        // Each waits for the TA whose state it changes to finish its command.
        ControlHooks hooks;
        hooks.resetState = [&] {
            TrustedApp* vault = registry.find(wire::uuidBytes(zel_test));
            TrustedApp* secureProcessor = registry.find(wire::uuidBytes(zel_test_a));
            std::unique_lock<std::mutex> first, second;
            if (vault) first = std::unique_lock<std::mutex>(vault->lock);
            if (secureProcessor) second = std::unique_lock<std::mutex>(secureProcessor->lock);
            store->clear();
        };
        hooks.setAnswer = [&](uint32_t item, const std::vector<uint8_t>& value) -> TEEC_Result {
            // The secure processor's own rules, read from its header: the TA checks the value
            // again when it reads it.
            const sp_item_rule* rule = sp_item_rule_of(item);
            if (!rule || !rule->settable ||
                !sp_item_value_fits(rule, static_cast<uint32_t>(value.size())))
                return TEEC_ERROR_BAD_PARAMETERS;
            TrustedApp* secureProcessor = registry.find(wire::uuidBytes(zel_test_a));
            std::unique_lock<std::mutex> oneAtATime;
            if (secureProcessor) oneAtATime = std::unique_lock<std::mutex>(secureProcessor->lock);
            const TEE_UUID secureProcessorUuid = ZEL_TEST_A_UUID;
            const std::string id = rule->object_id;
            return store->write(secureProcessorUuid, tee::Bytes(id.begin(), id.end()), value, true);
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
