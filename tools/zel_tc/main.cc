// zel-tc: runs the library's test steps against a TEE and judges each one.
//
// The library's own lines go to stdout untouched; everything zel-tc says itself goes to stderr,
// so that a log parser reading stdout sees exactly what the library printed.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <sstream>

#include "catalogue.h"
#include "daemon_launcher.h"
#include "tee_names.h"
#include "uuid_arg.h"
#include "vault_commands.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

void say(const std::string& text) {
    std::cerr << "zel-tc: " << text << std::endl;
}

void listSteps() {
    for (const zel::tc::CatalogueEntry& entry : zel::tc::catalogue()) {
        std::string name = entry.name;
        if (entry.takesArgument())
            name += " N (" + std::to_string(entry.firstArgument) + "-" +
                    std::to_string(entry.lastArgument) + ")";
        std::printf("%4u  %-22s %s\n", entry.number, name.c_str(), entry.title);
    }
}

int runSteps(const std::vector<zel::tc::Step>& steps) {
    int passed = 0, failed = 0;
    for (const zel::tc::Step& step : steps) {
        const int32_t result = step.entry->run(step.input);
        const bool pass = result == step.entry->expected;
        (pass ? passed : failed)++;
        std::string verdict = std::string(pass ? "PASS " : "FAIL ") +
                              std::to_string(step.entry->number) + " " + step.name + " result " +
                              zel::tc::describeResult(static_cast<uint32_t>(result));
        if (step.entry->expected != 0)
            verdict += " (passes with " + std::to_string(step.entry->expected) + ")";
        say(verdict);
    }
    std::ostringstream summary;
    summary << passed << " passed, " << failed << " failed";
    say(summary.str());
    return failed ? kExitFailed : 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"zel-tc: runs libzel-tc-lib's test steps against the vault TA"};
    app.require_subcommand(1);

    app.add_subcommand("list", "List every step with its number and what it does")
        ->callback(listSteps);

    auto* run = app.add_subcommand(
        "run", "Run steps by name or number (\"bist 7\", 503); none named runs the whole plan");
    std::vector<std::string> words;
    std::string socket, vaultd, uuidText;
    zel::tc::Overrides overrides;
    run->add_option("steps", words, "Step names or numbers");
    run->add_option("--socket", socket,
                    "Use the TEE daemon already listening here instead of starting one");
    run->add_option("--vaultd", vaultd, "The zel-vaultd to start (default: beside zel-tc)");
    run->add_option("--data-type", overrides.dataType,
                    "Test data of the scenarios: 0 random, 1 or 2 a fixed vector set");
    run->add_option("--index", overrides.index, "Slot or key index of the scenarios");
    run->add_option("--param", overrides.param, "Parameter of the firmware update (default 0)");
    run->add_option("--uuid", uuidText, "TA of the scenarios: zel_test, zel_test_a or a UUID");

    int exitCode = 0;
    run->callback([&] {
        std::vector<zel::tc::Step> steps;
        std::string error;
        TEEC_UUID uuid{};
        if (!uuidText.empty()) {
            if (!zel::tc::parseUuid(uuidText, uuid)) {
                say("cannot read --uuid " + uuidText);
                exitCode = kExitUsage;
                return;
            }
            overrides.uuid = uuid;
        }
        if (!zel::tc::selectSteps(words, overrides, steps, error)) {
            say(error);
            exitCode = kExitUsage;
            return;
        }
        std::unique_ptr<zel::vault::VaultDaemon> daemon;
        if (socket.empty()) {
            daemon = zel::vault::VaultDaemon::start({vaultd, {}, false, {}}, error);
            if (!daemon) {
                say(error);
                exitCode = kExitUsage;
                return;
            }
            socket = daemon->socketPath();
        }
        // The TEE client library finds the default TEE here.
        setenv("ZEL_TEE_SOCKET", socket.c_str(), 1);
        exitCode = runSteps(steps);
    });

    zel::tc::addVaultCommands(app, exitCode);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // --help is an "error" that exits 0; every real one is a usage error.
        return app.exit(error) == 0 ? 0 : kExitUsage;
    }
    return exitCode;
}
