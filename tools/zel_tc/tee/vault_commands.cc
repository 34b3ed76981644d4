#include "tee/vault_commands.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <sstream>
#include <vector>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "args/hex.h"
#include "args/number_option.h"
#include "args/tee_names.h"
#include "args/uuid.h"
#include "control_client.h"
#include "control_ids.h"
#include "daemon_launcher.h"
#include "interface/zel_ta_ids.h"
#include "teec_wire.h"
#include "wsm_encoding.h"

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
    std::string reply;  // typed fields: "int:4 uint:3 blob:aabbcc"
};

struct Parsed {
    TEEC_UUID uuid;
    uint32_t result;
    uint32_t origin;
    std::vector<uint8_t> reply;  // in the codec's encoding, end marker included
};

// "int:-1 uint:3 blob:aabbcc" into a message of the codec's encoding.
bool parseReply(const std::string& text, std::vector<uint8_t>& message) {
    std::vector<uint8_t> block(8192);
    wsm::Writer writer(block.data(), static_cast<uint32_t>(block.size()));
    std::istringstream fields(text);
    for (std::string field; fields >> field;) {
        const size_t colon = field.find(':');
        if (colon == std::string::npos) return false;
        const std::string kind = field.substr(0, colon), value = field.substr(colon + 1);
        bool written = false;
        if (kind == "int" || kind == "uint") {
            long long number = 0;
            if (!parseNumber(value, INT32_MIN, UINT32_MAX, number)) return false;
            written = kind == "int" ? writer.putInt(static_cast<int32_t>(number))
                                    : writer.putUint(static_cast<uint32_t>(number));
        } else if (kind == "blob") {
            std::vector<uint8_t> bytes;
            if (!parseHex(value, bytes)) return false;
            written = writer.put(wsm::kBlob, bytes.data(), static_cast<uint32_t>(bytes.size()));
        }
        if (!written) return false;
    }
    message.assign(block.begin(), block.begin() + writer.position() + sizeof(uint32_t));
    return true;
}

using Request = TEEC_Result (*)(const vault::VaultControl&, const ControlArguments&, const Parsed&);

// The options a verb takes, beyond --socket.
enum VerbOption : unsigned {
    kUuid = 1u << 0,      // --uuid
    kCommand = 1u << 1,   // --cmd
    kFailure = 1u << 2,   // --result and --origin
    kDuration = 1u << 3,  // --ms
    kCount = 1u << 4,     // --count
    kReply = 1u << 5,     // --reply
};

struct ControlVerb {
    const char* name;
    const char* help;
    unsigned takes;  // VerbOption bits
    Request send;
};

const ControlVerb kVerbs[] = {
    {"reset", "Disarm every fault and clear the TAs' state", 0,
     [](const vault::VaultControl& c, const ControlArguments&, const Parsed&) {
         return c.reset();
     }},
    {"fail", "Make the next --count invocations of --cmd on --uuid return --result/--origin",
     kUuid | kCommand | kFailure | kCount,
     [](const vault::VaultControl& c, const ControlArguments& a, const Parsed& p) {
         return c.failInvocations(p.uuid, a.command, a.count, p.result, p.origin);
     }},
    {"fail-session", "Make the next --count sessions opened to --uuid fail",
     kUuid | kFailure | kCount,
     [](const vault::VaultControl& c, const ControlArguments& a, const Parsed& p) {
         return c.failOpenSession(p.uuid, a.count, p.result, p.origin);
     }},
    {"fail-alloc", "Make the next --count shared-memory allocations fail", kFailure | kCount,
     [](const vault::VaultControl& c, const ControlArguments& a, const Parsed& p) {
         return c.failAllocations(a.count, p.result, p.origin);
     }},
    {"stall", "Hold the next --count invocations of --cmd on --uuid for --ms milliseconds",
     kUuid | kCommand | kDuration | kCount,
     [](const vault::VaultControl& c, const ControlArguments& a, const Parsed& p) {
         return c.stallInvocations(p.uuid, a.command, a.count, a.milliseconds);
     }},
    {"script", "Answer the next --count invocations of --cmd on --uuid with --reply's fields",
     kUuid | kCommand | kCount | kReply,
     [](const vault::VaultControl& c, const ControlArguments& a, const Parsed& p) {
         return c.scriptReply(p.uuid, a.command, a.count, p.reply);
     }},
};

int sendVerb(const ControlVerb& verb, const ControlArguments& arguments) {
    Parsed parsed{};
    std::string bad;
    if (!parseUuid(arguments.uuid, parsed.uuid)) bad = "--uuid " + arguments.uuid;
    if (!parseResult(arguments.result, parsed.result)) bad = "--result " + arguments.result;
    if ((verb.takes & kFailure) && parsed.result == TEEC_SUCCESS)
        bad = "--result " + arguments.result + " (a failure, not success)";
    if (!parseOrigin(arguments.origin, parsed.origin)) bad = "--origin " + arguments.origin;
    if ((verb.takes & kReply) && !parseReply(arguments.reply, parsed.reply))
        bad = "--reply " +
              (arguments.reply.size() > 40 ? arguments.reply.substr(0, 40) + "..."
                                           : arguments.reply) +
              " (fields such as int:-1 uint:3 blob:aabb, within one 8192-byte block)";
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
        long long number = 0;
        if (!parseNumber(item, INT32_MIN, UINT32_MAX, number)) return false;
        appendWord(value, static_cast<uint32_t>(number));
    }
    return true;
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
     vault::kAnswerHackStatus, parseHex},
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

// Starting and stopping a daemon that outlives zel-tc: its process id is kept beside its socket.
struct LifecycleArguments {
    std::string socket;  // empty: the default TEE
    std::string storage;
    std::string vaultd;
    bool noControl = false;
    std::string socketPath() const { return socket.empty() ? wire::defaultSocketPath() : socket; }
    std::string pidFile() const { return socketPath() + ".pid"; }
};

// The program, or the program an emulator runs (a cross build under qemu), is zel-vaultd.
bool isVaultd(pid_t pid) {
    std::ifstream commandLine("/proc/" + std::to_string(pid) + "/cmdline");
    std::string word;
    for (int i = 0; i < 2 && std::getline(commandLine, word, '\0'); ++i)
        if (word.size() >= 10 && word.compare(word.size() - 10, 10, "zel-vaultd") == 0) return true;
    return false;
}

int startVault(const LifecycleArguments& arguments) {
    vault::VaultDaemon::Options options;
    options.executable = arguments.vaultd;
    options.socketPath = arguments.socketPath();
    options.control = !arguments.noControl;
    if (!arguments.storage.empty()) options.extraArguments = {"--storage", arguments.storage};
    options.ownSession = true;
    // Detached: `out=$(zel-tc vault start ...)` and `... | tee log` return once it is ready.
    options.logPath = arguments.socketPath() + ".log";
    std::string error;
    auto daemon = vault::VaultDaemon::start(options, error);
    if (!daemon) {
        // The daemon's last words say why, so that nobody has to open the log to learn it.
        std::ifstream log(options.logPath);
        std::string said;
        for (std::string line; std::getline(log, line);)
            if (!line.empty()) said = line;
        std::cerr << "zel-tc: vault start: " << error << (said.empty() ? "" : ": " + said)
                  << " (its log: " << options.logPath << ")" << std::endl;
        return 1;
    }
    const pid_t pid = daemon->release();
    std::ofstream(arguments.pidFile()) << pid << "\n";
    std::cout << "zel-vaultd " << pid << " listening on " << options.socketPath
              << (options.control ? " with the control TA" : "") << std::endl;
    return 0;
}

int stopVault(const LifecycleArguments& arguments) {
    pid_t pid = 0;
    std::ifstream(arguments.pidFile()) >> pid;
    if (pid <= 0 || !isVaultd(pid)) {
        std::cerr << "zel-tc: vault stop: no zel-vaultd started by zel-tc at "
                  << arguments.socketPath() << std::endl;
        unlink(arguments.pidFile().c_str());
        return 1;
    }
    kill(pid, SIGTERM);
    for (int waited = 0; kill(pid, 0) == 0 && isVaultd(pid); waited += 10) {
        if (waited >= 5000) kill(pid, SIGKILL);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    unlink(arguments.pidFile().c_str());
    std::cout << "zel-vaultd " << pid << " stopped" << std::endl;
    return 0;
}

// Which TAs answer at the socket; 0 when a TEE is there at all.
int vaultStatus(const LifecycleArguments& arguments) {
    const std::string socket = arguments.socketPath();
    TEEC_Context context{};
    const TEEC_Result result = TEEC_InitializeContext(socket.c_str(), &context);
    if (result != TEEC_SUCCESS) {
        std::cout << "no TEE at " << socket << ": " << describeResult(result) << std::endl;
        return 1;
    }
    std::cout << "TEE at " << socket << std::endl;
    const struct {
        const char* name;
        TEEC_UUID uuid;
    } kTas[] = {{"vault TA (zel_test)", zel_test},
                {"secure processor (zel_test_a)", zel_test_a},
                {"control TA", vault::kControlUuid}};
    for (const auto& ta : kTas) {
        TEEC_Session session{};
        uint32_t origin = 0;
        const TEEC_Result opened = TEEC_OpenSession(&context, &session, &ta.uuid, TEEC_LOGIN_PUBLIC,
                                                    nullptr, nullptr, &origin);
        std::cout << "  " << ta.name << ": " << (opened == TEEC_SUCCESS ? "yes" : "no")
                  << std::endl;
        if (opened == TEEC_SUCCESS) TEEC_CloseSession(&session);
    }
    TEEC_FinalizeContext(&context);
    return 0;
}

void addLifecycleCommands(CLI::App& vaultApp, int& exitCode) {
    auto arguments = std::make_shared<LifecycleArguments>();
    const char* socketHelp = "The daemon's socket (default: the default TEE)";
    auto* start = vaultApp.add_subcommand(
        "start", "Start a zel-vaultd (with the control TA) that keeps running after zel-tc");
    start->add_option("--socket", arguments->socket, socketHelp);
    start->add_option("--storage", arguments->storage, "Keep the vault's storage in this file");
    start->add_option("--vaultd", arguments->vaultd, "The zel-vaultd to start");
    start->add_flag("--no-control", arguments->noControl, "Without the control TA");
    start->callback([arguments, &exitCode] { exitCode = startVault(*arguments); });
    auto* stop = vaultApp.add_subcommand("stop", "Stop the zel-vaultd that vault start started");
    stop->add_option("--socket", arguments->socket, socketHelp);
    stop->callback([arguments, &exitCode] { exitCode = stopVault(*arguments); });
    auto* status = vaultApp.add_subcommand("status", "Say which TAs answer at the socket");
    status->add_option("--socket", arguments->socket, socketHelp);
    status->callback([arguments, &exitCode] { exitCode = vaultStatus(*arguments); });
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
        if (verb.takes & kUuid)
            sub->add_option("--uuid", arguments->uuid, "zel_test, zel_test_a or a UUID")
                ->capture_default_str();
        if (verb.takes & kCommand)
            sub->add_option("--cmd", arguments->command, "Command id")
                ->required()
                ->transform(decimalOrHex());
        if (verb.takes & kFailure) {
            sub->add_option("--result", arguments->result, "Result name or number")
                ->capture_default_str();
            sub->add_option("--origin", arguments->origin, "Origin name or number")
                ->capture_default_str();
        }
        if (verb.takes & kDuration)
            sub->add_option("--ms", arguments->milliseconds, "Milliseconds")
                ->capture_default_str()
                ->transform(decimalOrHex())
                ->check(CLI::Range(0u, vault::kControlMaxStallMs));
        if (verb.takes & kCount)
            sub->add_option("--count", arguments->count, "How many times; 0 until reset")
                ->capture_default_str()
                ->transform(decimalOrHex());
        if (verb.takes & kReply)
            sub->add_option("--reply", arguments->reply,
                            "The reply's fields in order: int:N uint:N blob:HEX")
                ->required();
        sub->callback([&verb, arguments, &exitCode] { exitCode = sendVerb(verb, *arguments); });
    }
    addAnswerCommand(*vaultApp, exitCode);
    addLifecycleCommands(*vaultApp, exitCode);
}

}  // namespace zel::tc
