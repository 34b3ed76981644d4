#include "vault_commands.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <sstream>
#include <vector>

#include "control_client.h"
#include "control_ids.h"
#include "support/byte_helpers.h"
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

// The secure processor's answers as typed: one option per answer, each text read into its bytes.
struct AnswerOption {
    const char* flag;
    const char* help;
    uint32_t item;
    bool (*read)(const std::string& text, std::vector<uint8_t>& value);
};

void appendWord(std::vector<uint8_t>& bytes, uint32_t word) {
    for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(word >> (8 * i)));
}

// Comma-separated numbers (decimal, 0x hex, or negative) as little-endian 32-bit words.
bool readWords(const std::string& text, std::vector<uint8_t>& value) {
    std::istringstream list(text);
    for (std::string item; std::getline(list, item, ',');) {
        try {
            size_t used = 0;
            const long long number = std::stoll(item, &used, 0);
            if (used != item.size() || number < INT32_MIN || number > UINT32_MAX) return false;
            appendWord(value, static_cast<uint32_t>(number));
        } catch (const std::exception&) {
            return false;
        }
    }
    return true;
}

bool readHex(const std::string& text, std::vector<uint8_t>& value) {
    unsigned int size = static_cast<unsigned int>(text.size() / 2);
    value.resize(size);
    return hex_str_2_bin(value.data(), text.c_str(), &size,
                         static_cast<unsigned int>(text.size())) == 0;
}

bool readText(const std::string& text, std::vector<uint8_t>& value) {
    value.assign(text.begin(), text.end());
    return true;
}

bool readRecord(const std::string& text, std::vector<uint8_t>& value) {
    return readWords(text, value) && value.size() == 8;
}

const AnswerOption kAnswers[] = {
    {"--firmware-words", "Firmware information: comma-separated 32-bit words (empty: none)",
     vault::kAnswerFirmwareWords, readWords},
    {"--hack-status", "Hack status bytes in hexadecimal (empty: none; non-zero: a hack)",
     vault::kAnswerHackStatus, readHex},
    {"--update-result", "The update's result record: ZEL,FIRMWARE codes, e.g. 1,-51",
     vault::kAnswerUpdateResult, readRecord},
    {"--system-version", "System version text an update reports", vault::kAnswerSystemVersion,
     readText},
    {"--app-version", "App version text an update reports", vault::kAnswerAppVersion, readText},
};

void addAnswerCommand(CLI::App& vaultApp, int& exitCode) {
    auto* sub = vaultApp.add_subcommand(
        "answer", "Set what the secure processor (zel_test_a) answers; each option given is set");
    auto socket = std::make_shared<std::string>();
    auto texts = std::make_shared<std::vector<std::string>>(std::size(kAnswers));
    sub->add_option("--socket", *socket, "The daemon's socket (default: the default TEE)");
    for (size_t i = 0; i < std::size(kAnswers); ++i)
        sub->add_option(kAnswers[i].flag, (*texts)[i], kAnswers[i].help);
    sub->callback([sub, socket, texts, &exitCode] {
        const vault::VaultControl control(*socket);
        exitCode = 0;
        if (std::none_of(std::begin(kAnswers), std::end(kAnswers),
                         [sub](const AnswerOption& answer) { return sub->count(answer.flag); })) {
            std::cerr << "zel-tc: vault answer: nothing to set (see --help)" << std::endl;
            exitCode = 2;
        }
        for (size_t i = 0; i < std::size(kAnswers) && exitCode == 0; ++i) {
            const AnswerOption& answer = kAnswers[i];
            if (sub->count(answer.flag) == 0) continue;
            std::vector<uint8_t> value;
            if (!answer.read((*texts)[i], value)) {
                std::cerr << "zel-tc: cannot read " << answer.flag << " " << (*texts)[i]
                          << std::endl;
                exitCode = 2;
                break;
            }
            const TEEC_Result result = control.setSecureProcessor(answer.item, value);
            if (result != TEEC_SUCCESS) {
                std::cerr << "zel-tc: vault answer " << answer.flag
                          << " refused: " << describeResult(result) << std::endl;
                exitCode = 1;
            }
        }
    });
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
    addAnswerCommand(*vaultApp, exitCode);
}

}  // namespace zel::tc
