#include "bench/command.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>

#include "args/number.h"
#include "args/number_option.h"
#include "args/uuid.h"
#include "bench/report.h"
#include "interface/zel_ta_ids.h"
#include "plan/catalogue.h"
#include "plan/interruption.h"
#include "plan/step_runner.h"
#include "reports/report_file.h"
#include "reports/results_stream.h"
#include "reports/terminal.h"
#include "tee/target.h"
#include "transport/zel_tee_client.h"

namespace zel::tc {

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr uint64_t kDefaultCount = 100;

struct BenchOptions {
    std::vector<std::string> words;
    std::vector<std::string> commands;
    std::string uuidText;
    uint64_t count = 0;
    double seconds = 0;
    unsigned timeoutSeconds = 0;
    double thresholdPercent = 20;
    std::string json, baseline;
    TeeTargetOptions target;
};

// One thing to time: run once, it returns a result, and `expected` is the one that passes.
struct BenchItem {
    std::string name;
    std::function<int32_t()> run;
    int32_t expected = 0;
};

bool commandId(const std::string& text, uint32_t& id) {
    unsigned long long value = 0;
    if (!parseUnsigned(text, value) || value > UINT32_MAX) return false;
    id = static_cast<uint32_t>(value);
    return true;
}

// A raw command as a whole command: context, session, block, one invocation over the empty block
// (the TA's self-test for its own ids), release.
BenchItem rawCommand(uint32_t id, const TEEC_UUID& uuid) {
    char name[32];
    std::snprintf(name, sizeof name, "command 0x%02X", id);
    return {name,
            [id, uuid] {
                ZELTEEClient client;
                client.Open(uuid);  // a client left unopened answers kNotConnected below
                return static_cast<int32_t>(client.InvokeCommand(id));
            },
            0};
}

bool buildItems(const BenchOptions& options, std::vector<BenchItem>& items, std::string& error) {
    Overrides overrides;
    TEEC_UUID uuid = zel_test;
    if (!options.uuidText.empty()) {
        if (!parseUuid(options.uuidText, uuid)) {
            error = "cannot read --uuid " + options.uuidText;
            return false;
        }
        overrides.uuid = uuid;
    }
    std::vector<Step> steps;
    if (!options.words.empty() && !selectSteps(options.words, overrides, steps, error))
        return false;
    for (const Step& step : steps) {
        const CatalogueEntry* entry = step.entry;
        const StepInput input = step.input;
        items.push_back({step.name, [entry, input] { return entry->run(input); }, step.expected});
    }
    for (const std::string& text : options.commands) {
        uint32_t id = 0;
        if (!commandId(text, id)) {
            error = "--command takes a TA command id (0x2D, 45), not " + text;
            return false;
        }
        items.push_back(rawCommand(id, uuid));
    }
    if (items.empty()) error = "name the steps to bench, or give --command ID";
    return !items.empty();
}

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Runs in the step's own process: the library's lines go nowhere, only the summary comes back.
int32_t measure(const BenchItem& item, const BenchOptions& options, std::string& payload) {
    const int quiet = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (quiet >= 0) {
        dup2(quiet, STDOUT_FILENO);
        close(quiet);
    }
    std::vector<double> samples;
    samples.reserve(options.count ? options.count : 4096);
    uint64_t failures = 0;
    const double start = now();
    const double deadline = start + options.seconds;
    while (options.count ? samples.size() < options.count : now() < deadline) {
        const double before = now();
        const int32_t result = item.run();
        samples.push_back((now() - before) * 1e6);
        failures += result != item.expected;
    }
    payload = encodeSummary(summarize(samples, failures, now() - start));
    return 0;
}

void printTable(const std::vector<BenchedStep>& steps) {
    std::printf("%-28s %8s %6s %10s %10s %10s %10s %9s\n", "step", "runs", "failed", "p50 us",
                "p90 us", "p99 us", "max us", "cmd/s");
    for (const BenchedStep& step : steps) {
        const LatencySummary& s = step.summary;
        std::printf("%-28s %8llu %6llu %10.1f %10.1f %10.1f %10.1f %9.1f\n", step.name.c_str(),
                    static_cast<unsigned long long>(s.runs),
                    static_cast<unsigned long long>(s.failures), s.p50Us, s.p90Us, s.p99Us, s.maxUs,
                    s.perSecond());
    }
    std::fflush(stdout);
}

// Each row's verdict on stderr; true when a step regressed.
bool reportBaseline(const std::vector<BaselineRow>& rows, const BenchOptions& options) {
    bool regressed = false;
    for (const BaselineRow& row : rows) {
        char line[256];
        if (row.baselineP50Us <= 0)
            std::snprintf(line, sizeof line, "%s: not in the baseline", row.name.c_str());
        else
            std::snprintf(line, sizeof line, "%s: p50 %.1f us against %.1f us, %+.1f%%%s",
                          row.name.c_str(), row.p50Us, row.baselineP50Us, row.changePercent,
                          row.regressed ? " SLOWER than the threshold" : "");
        say(line);
        regressed |= row.regressed;
    }
    if (regressed)
        say("slower than " + options.baseline + " by more than " +
            std::to_string(options.thresholdPercent) + "% (--threshold)");
    return regressed;
}

int bench(BenchOptions& options) {
    if (options.count > 0 && options.seconds > 0) {
        say("give --count or --seconds, not both");
        return kExitUsage;
    }
    if (options.count == 0 && options.seconds <= 0) options.count = kDefaultCount;
    std::vector<BenchItem> items;
    std::string error;
    if (!buildItems(options, items, error)) {
        say(error);
        return kExitUsage;
    }
    std::map<std::string, double> baseline;
    if (!options.baseline.empty() && !readBaseline(options.baseline, baseline, error)) {
        say(error);
        return kExitUsage;
    }
    if (!options.json.empty() && !canWriteReport(options.json, error)) {
        say(error);
        return kExitUsage;
    }
    TeeTarget target;
    if (!target.open(options.target, error)) {
        say(error);
        return kExitUsage;
    }
    // A signal stops the step being timed; what finished is still printed and written.
    interruption::install();

    int exitCode = 0;
    std::vector<BenchedStep> benched;
    for (const BenchItem& item : items) {
        const StepOutcome outcome =
            runIsolated([&](std::string& payload) { return measure(item, options, payload); },
                        options.timeoutSeconds, Echo::kOff);
        if (outcome.end == StepOutcome::End::kInterrupted) {
            say(item.name + ": interrupted by " + interruption::signalName(outcome.signal));
            exitCode = 128 + outcome.signal;
            break;
        }
        BenchedStep step{item.name, {}};
        if (outcome.end != StepOutcome::End::kReturned ||
            !decodeSummary(outcome.payload, step.summary)) {
            say(item.name +
                (outcome.end == StepOutcome::End::kTimedOut
                     ? ": hung, killed after " + std::to_string(options.timeoutSeconds) + " s"
                     : ": crashed"));
            exitCode = kExitFailed;
            continue;
        }
        if (step.summary.failures > 0) {
            say(item.name + ": " + std::to_string(step.summary.failures) + " of " +
                std::to_string(step.summary.runs) + " runs did not pass");
            exitCode = kExitFailed;
        }
        benched.push_back(step);
    }
    // A signal that came as the last step ended still ends the run as interrupted.
    if (interruption::caught() && exitCode < 128) exitCode = 128 + interruption::caught();
    printTable(benched);

    if (!options.json.empty()) {
        nlohmann::json run = runJson(startRun(target.where()));
        run["count"] = options.count;
        run["seconds"] = options.seconds;
        if (!writeReport(options.json, benchReport(run, benched).dump(2) + '\n')) {
            say("cannot write " + options.json);
            if (exitCode == 0) exitCode = kExitFailed;
        }
    }
    if (!options.baseline.empty() &&
        reportBaseline(compareWithBaseline(benched, baseline, options.thresholdPercent), options) &&
        exitCode == 0)
        exitCode = kExitFailed;
    return exitCode;
}

}  // namespace

void addBenchCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<BenchOptions>();
    auto* command = app.add_subcommand(
        "bench", "Time steps or raw TA commands: p50/p90/p99/max latency and commands/s");
    command->add_option("steps", options->words,
                        "Step names, numbers or patterns, as for run: zel_getSlotInfo, bist 7");
    command
        ->add_option("--command", options->commands,
                     "A TA command id to time as a whole command (context, session, block, "
                     "invocation); repeatable")
        ->allow_extra_args(false);
    command->add_option("--uuid", options->uuidText,
                        "TA of the raw commands and the general scenarios (default zel_test)");
    command->add_option("--count", options->count, "Runs of each (default 100)")
        ->transform(decimalOrHex())
        ->check(CLI::Range(uint64_t{1}, uint64_t{100000000}));
    command->add_option("--seconds", options->seconds, "Run each for this long instead")
        ->check(runSeconds());
    command
        ->add_option("--timeout", options->timeoutSeconds,
                     "Seconds each may take in all before it is killed as hung; 0: no limit")
        ->capture_default_str()
        ->transform(decimalOrHex());
    command->add_option("--json", options->json, "Write the results here as JSON");
    command->add_option("--baseline", options->baseline,
                        "An earlier --json report: exit 1 when a step's p50 got slower");
    command
        ->add_option("--threshold", options->thresholdPercent,
                     "Percent a p50 may grow over the baseline's")
        ->check(realBetween(0, 1e6, false, "from 0 to 1000000"))
        ->capture_default_str();
    addTeeTargetOptions(*command, options->target);
    command->callback([options, &exitCode] { exitCode = bench(*options); });
}

}  // namespace zel::tc
