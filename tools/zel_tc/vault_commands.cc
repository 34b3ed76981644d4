#include "vault_commands.h"

#include <iostream>
#include <memory>

#include "control_client.h"
#include "tee_names.h"
#include "uuid_arg.h"

namespace zel::tc {

namespace {

// Everything one control request may carry, as typed on the command line.
struct ControlArguments {
    std::string socket;
    std::string uuid = "zel_test";
    uint32_t command = 0;
    uint32_t count = 1;
    std::string result = "TEEC_ERROR_GENERIC";
    std::string origin = "TEEC_ORIGIN_TRUSTED_APP";
    uint32_t milliseconds = 1000;
};

struct Parsed {
    TEEC_UUID uuid;
    uint32_t result;
    uint32_t origin;
};

using Request = TEEC_Result (*)(const vault::VaultControl&, const ControlArguments&, const Parsed&);

struct ControlVerb {
    const char* name;
    const char* help;
    bool takesTarget;    // --uuid and --cmd
    bool takesFailure;   // --result and --origin
    bool takesDuration;  // --ms
    bool takesCount;     // --count
    Request send;
};

const ControlVerb kVerbs[] = {
    {"reset", "Disarm every fault and clear the TAs' state", false, false, false, false,
     [](const vault::VaultControl& c, const ControlArguments&, const Parsed&) {
         return c.reset();
     }},
    {"fail", "Make the next --count invocations of --cmd on --uuid return --result/--origin", true,
     true, false, true,
     [](const vault::VaultControl& c, const ControlArguments& a, const Parsed& p) {
         return c.failInvocations(p.uuid, a.command, a.count, p.result, p.origin);
     }},
    {"fail-session", "Make the next --count sessions opened to --uuid fail", true, true, false,
     true,
     [](const vault::VaultControl& c, const ControlArguments& a, const Parsed& p) {
         return c.failOpenSession(p.uuid, a.count, p.result, p.origin);
     }},
    {"fail-alloc", "Make the next --count shared-memory allocations fail", false, true, false, true,
     [](const vault::VaultControl& c, const ControlArguments& a, const Parsed& p) {
         return c.failAllocations(a.count, p.result, p.origin);
     }},
    {"stall", "Hold the next --count invocations of --cmd on --uuid for --ms milliseconds", true,
     false, true, true,
     [](const vault::VaultControl& c, const ControlArguments& a, const Parsed& p) {
         return c.stallInvocations(p.uuid, a.command, a.count, a.milliseconds);
     }},
};

int sendVerb(const ControlVerb& verb, const ControlArguments& arguments) {
    Parsed parsed{};
    std::string bad;
    if (!parseUuid(arguments.uuid, parsed.uuid)) bad = "--uuid " + arguments.uuid;
    if (!parseResult(arguments.result, parsed.result)) bad = "--result " + arguments.result;
    if (!parseOrigin(arguments.origin, parsed.origin)) bad = "--origin " + arguments.origin;
    if (!bad.empty()) {
        std::cerr << "zel-tc: cannot read " << bad << std::endl;
        return 2;
    }
    const TEEC_Result result = verb.send(vault::VaultControl(arguments.socket), arguments, parsed);
    if (result == TEEC_SUCCESS) return 0;
    std::cerr << "zel-tc: vault " << verb.name << " refused: " << describeResult(result)
              << " (is zel-vaultd running with --control?)" << std::endl;
    return 1;
}

}  // namespace

void addVaultCommands(CLI::App& app, int& exitCode) {
    auto* vaultApp = app.add_subcommand("vault", "Drive a running zel-vaultd's control TA");
    vaultApp->require_subcommand(1);
    auto arguments = std::make_shared<ControlArguments>();
    for (const ControlVerb& verb : kVerbs) {
        auto* sub = vaultApp->add_subcommand(verb.name, verb.help);
        sub->add_option("--socket", arguments->socket,
                        "The daemon's socket (default: the "
                        "default TEE)");
        if (verb.takesTarget) {
            sub->add_option("--uuid", arguments->uuid, "zel_test, zel_test_a or a UUID")
                ->capture_default_str();
            sub->add_option("--cmd", arguments->command, "Command id")->required();
        }
        if (verb.takesFailure) {
            sub->add_option("--result", arguments->result, "Result name or number")
                ->capture_default_str();
            sub->add_option("--origin", arguments->origin, "Origin name or number")
                ->capture_default_str();
        }
        if (verb.takesDuration)
            sub->add_option("--ms", arguments->milliseconds, "Milliseconds")->capture_default_str();
        if (verb.takesCount)
            sub->add_option("--count", arguments->count, "How many times; 0 until reset")
                ->capture_default_str();
        sub->callback([&verb, arguments, &exitCode] { exitCode = sendVerb(verb, *arguments); });
    }
}

}  // namespace zel::tc
