// zel-tc: runs the library's test steps against a TEE and judges each one.
//
// The library's own lines go to stdout untouched; everything zel-tc says itself goes to stderr,
// so that a log parser reading stdout sees exactly what the library printed.
#include <CLI/CLI.hpp>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <memory>
#include <optional>

#include "args/number.h"
#include "args/tee_names.h"
#include "args/uuid.h"
#include "bench/command.h"
#include "fuzz/commands.h"
#include "helper/commands.h"
#include "plan/catalogue.h"
#include "plan/interruption.h"
#include "plan/run_identity.h"
#include "plan/step_runner.h"
#include "reports/last_failed.h"
#include "reports/report_file.h"
#include "reports/reports.h"
#include "reports/results_stream.h"
#include "reports/terminal.h"
#include "tee/target.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

using zel::tc::say;

// list --json: the catalogue for scripts.
void listJson() {
    nlohmann::json steps = nlohmann::json::array();
    for (const zel::tc::CatalogueEntry& entry : zel::tc::catalogue()) {
        nlohmann::json step = {{"number", entry.number},
                               {"name", entry.name},
                               {"sends", zel::tc::sendsText(entry)},
                               {"data_types", entry.dataTypes},
                               {"title", entry.title}};
        if (entry.takesArgument()) step["arguments"] = {entry.firstArgument, entry.lastArgument};
        steps.push_back(step);
    }
    std::cout << steps.dump(2) << std::endl;
}

void listSteps(bool json) {
    if (json) return listJson();
    std::printf("%4s  %-28s %-10s %-6s %s\n", "no", "step", "sends", "data", "what it does");
    for (const zel::tc::CatalogueEntry& entry : zel::tc::catalogue()) {
        std::string name = entry.name;
        if (entry.takesArgument())
            name += " N (" + std::to_string(entry.firstArgument) + "-" +
                    std::to_string(entry.lastArgument) + ")";
        std::printf("%4u  %-28s %-10s %-6s %s\n", entry.number, name.c_str(),
                    zel::tc::sendsText(entry).c_str(), entry.dataTypes, entry.title);
    }
    std::printf("\nhelpers (zel-tc helper NAME ...):\n");
    zel::tc::listHelpers();
}

struct RunOptions {
    std::vector<std::string> words;
    bool all = false;
    zel::tc::TeeTargetOptions target;
    std::string uuidText, junit, json, results;
    // Numbers as typed, read by parseNumber: decimal or 0x-hex, never octal.
    std::optional<std::string> dataType, index, param, repeat = "1", timeout = "120";
    bool firmwareVersions = false;
    zel::tc::Overrides overrides;
    unsigned repeatCount = 1;
    bool stopOnFailure = false;
    unsigned timeoutSeconds = 120;
    std::vector<std::string> exclude;
    bool quiet = false, lastFailed = false, withSetup = false, dryRun = false;
    std::string colour = "auto";
    zel::tc::Terminal terminal;
};

// One numeric option: where its text is, its range, and where the value goes.
struct NumberOption {
    const char* flag;
    std::optional<std::string> RunOptions::*text;
    long long low, high;
    void (*store)(RunOptions& options, long long value);
};

const NumberOption kNumberOptions[] = {
    {"--data-type", &RunOptions::dataType, INT32_MIN, INT32_MAX,
     [](RunOptions& o, long long v) { o.overrides.dataType = static_cast<int>(v); }},
    {"--index", &RunOptions::index, INT32_MIN, INT32_MAX,
     [](RunOptions& o, long long v) { o.overrides.index = static_cast<int>(v); }},
    {"--param", &RunOptions::param, INT32_MIN, INT32_MAX,
     [](RunOptions& o, long long v) { o.overrides.param = static_cast<int>(v); }},
    {"--repeat", &RunOptions::repeat, 1, 1000000,
     [](RunOptions& o, long long v) { o.repeatCount = static_cast<unsigned>(v); }},
    {"--timeout", &RunOptions::timeout, 0, 86400,
     [](RunOptions& o, long long v) { o.timeoutSeconds = static_cast<unsigned>(v); }},
};

// Everything that can be known wrong before a step runs: options, step names, the values' fit
// with the steps, where the reports go. False with a message.
bool validate(RunOptions& options, std::vector<zel::tc::Step>& steps, std::string& error) {
    if (int(options.all) + int(!options.words.empty()) + int(options.lastFailed) != 1) {
        error = options.words.empty() && !options.all && !options.lastFailed
                    ? "name the steps to run, or --all for the whole plan, or --last-failed"
                    : "give step names, --all or --last-failed, one of them";
        return false;
    }
    if (!options.terminal.configure(options.colour)) {
        error = "--color " + options.colour + ": auto, always or never";
        return false;
    }
    for (const NumberOption& option : kNumberOptions) {
        const std::optional<std::string>& text = options.*option.text;
        if (!text) continue;
        long long value = 0;
        if (!zel::tc::parseNumber(*text, option.low, option.high, value)) {
            error = std::string("cannot read ") + option.flag + " " + *text + " (a number from " +
                    std::to_string(option.low) + " to " + std::to_string(option.high) +
                    ", decimal or 0x-hex)";
            return false;
        }
        option.store(options, value);
    }
    if (!options.uuidText.empty()) {
        TEEC_UUID uuid{};
        if (!zel::tc::parseUuid(options.uuidText, uuid)) {
            error = "cannot read --uuid " + options.uuidText;
            return false;
        }
        options.overrides.uuid = uuid;
    }
    for (const std::string* path : {&options.junit, &options.json, &options.results})
        if (!path->empty() && !zel::tc::canWriteReport(*path, error)) return false;
    if (options.all)
        steps = zel::tc::planSteps(options.overrides);
    else if (options.lastFailed && !zel::tc::loadLastFailed(steps, error))
        return false;
    else if (!options.words.empty() &&
             !zel::tc::selectSteps(options.words, options.overrides, steps, error))
        return false;
    if (options.lastFailed &&
        (options.dataType || options.index || options.param || !options.uuidText.empty())) {
        error = "--last-failed runs the steps with the inputs they had; give no other";
        return false;
    }
    if (options.withSetup) steps = zel::tc::withSetup(steps, options.overrides);
    if (!zel::tc::excludeSteps(options.exclude, steps, error)) return false;
    if (steps.empty() && !options.lastFailed) {
        error = "--exclude leaves no step to run";
        return false;
    }
    return options.lastFailed || zel::tc::checkOverrides(steps, options.overrides, error);
}

// --dry-run: what would run, in order, with what it reads; on stdout, as nothing else is there.
void showPlan(const std::vector<zel::tc::Step>& steps, unsigned rounds) {
    for (unsigned round = 1; round <= rounds; ++round) {
        size_t position = 0;
        for (const zel::tc::Step& step : steps) {
            const zel::tc::StepRecord record{step, static_cast<int>(round), {}, 0};
            std::cout << ++position << "\t" << step.entry->number << "\t" << record.uniqueName()
                      << "\t" << zel::tc::stepRecord(record, 0)["inputs"].dump() << "\n";
        }
    }
    std::cout.flush();
}

int interruptedExit() {
    return 128 + zel::tc::interruption::caught();
}

int runSteps(const std::vector<zel::tc::Step>& steps, const RunOptions& options,
             zel::tc::RunInfo& info) {
    std::vector<zel::tc::StepRecord> records;
    bool stop = false;
    zel::tc::ResultsStream stream(options.results, zel::tc::runJson(info));
    const size_t total = steps.size() * options.repeatCount;
    for (unsigned round = 1; round <= options.repeatCount && !stop; ++round) {
        for (const zel::tc::Step& step : steps) {
            if (zel::tc::interruption::caught()) {
                stop = true;
                break;
            }
            zel::tc::StepRecord record{step, static_cast<int>(round), {}, std::time(nullptr)};
            if (options.terminal.progress())
                say("[" + std::to_string(records.size() + 1) + "/" + std::to_string(total) + "] " +
                    record.title() + " ...");
            record.outcome = zel::tc::runIsolated(
                [&step] { return step.entry->run(step.input); }, options.timeoutSeconds,
                options.quiet ? zel::tc::Echo::kErrOnly : zel::tc::Echo::kOn);
            std::string verdict = options.terminal.verdict(record.verdict()) + " " +
                                  std::to_string(step.entry->number) + " " + record.title() +
                                  " result " + record.describe(options.timeoutSeconds);
            if (step.expected != 0 && record.passed())
                verdict += step.why ? std::string(" (expected: ") + step.why + ")"
                                    : " (passes with " + std::to_string(step.expected) + ")";
            say(verdict);
            stream.add(record, options.timeoutSeconds);
            records.push_back(std::move(record));
            if (options.stopOnFailure && !records.back().passed()) {
                if (!zel::tc::interruption::caught())
                    say("stopping at the first failure (--stop-on-failure)");
                stop = true;
                break;
            }
        }
    }
    info.interruptedBy = zel::tc::interruption::caught();
    if (!zel::tc::saveLastFailed(records)) say("cannot write " + zel::tc::lastFailedPath());
    if (info.interruptedBy)
        say("interrupted by " + zel::tc::interruption::signalName(info.interruptedBy) +
            "; reporting the " + std::to_string(records.size()) + " steps run so far");
    zel::tc::writeSummary(std::cerr, records, options.timeoutSeconds);
    bool reported = stream.ok();
    if (!reported) say("cannot write " + options.results);
    if (!options.junit.empty() &&
        !zel::tc::writeJunit(options.junit, info, records, options.timeoutSeconds)) {
        say("cannot write " + options.junit);
        reported = false;
    }
    if (!options.json.empty() &&
        !zel::tc::writeJson(options.json, info, records, options.timeoutSeconds)) {
        say("cannot write " + options.json);
        reported = false;
    }
    if (info.interruptedBy) return interruptedExit();
    for (const zel::tc::StepRecord& record : records)
        if (!record.passed()) return kExitFailed;
    return reported ? 0 : kExitFailed;
}

int run(RunOptions& options) {
    std::vector<zel::tc::Step> steps;
    std::string error;
    if (!validate(options, steps, error)) {
        say(error);
        return kExitUsage;
    }
    if (steps.empty()) {
        say("nothing to run: the last run had no failed step");
        return 0;
    }
    if (options.dryRun) {
        showPlan(steps, options.repeatCount);
        return 0;
    }
    // From here on a signal ends the run in order: the step stopped, the reports written, the
    // private daemon stopped and its folder removed (by the target's destructor).
    zel::tc::interruption::install();
    zel::tc::TeeTarget target;
    if (!target.open(options.target, error)) {
        say(error);
        return zel::tc::interruption::caught() ? interruptedExit() : kExitUsage;
    }
    zel::tc::RunInfo info = zel::tc::startRun(target.where());
    info.identity = zel::tc::readRunIdentity(
        {options.timeoutSeconds, options.firmwareVersions, options.overrides.param.value_or(0)});
    say("identity " + zel::tc::identityLine(info.identity));
    return runSteps(steps, options, info);
}

}  // namespace

int main(int argc, char** argv) {
    // Every line on stderr leaves in one write, however it is composed, so that a lab script
    // printing on the same console never splits one.
    std::setvbuf(stderr, nullptr, _IOLBF, BUFSIZ);
    std::cerr.unsetf(std::ios::unitbuf);
    CLI::App app{"zel-tc: runs libzel-tc-lib's test steps against the vault TA"};
    app.require_subcommand(1);

    app.set_version_flag("--version", std::string("zel-tc ") + ZEL_TC_VERSION + " (" +
                                          zel::tc::platformName() + ")");
    bool listAsJson = false;
    auto* list =
        app.add_subcommand("list", "List every step: number, name, command ids sent, data types");
    list->add_flag("--json", listAsJson, "As a JSON array, for scripts");
    list->callback([&listAsJson] { listSteps(listAsJson); });

    RunOptions options;
    auto* run = app.add_subcommand("run", "Run steps by name, number or pattern, or --all");
    run->add_option("steps", options.words,
                    "Step names, numbers or patterns: \"bist 7\", 503, zel_put, put, 'zel_get*'");
    run->add_flag("--all", options.all, "The whole plan, in dependency order");
    zel::tc::addTeeTargetOptions(*run, options.target);
    run->add_option("--data-type", options.dataType,
                    "Test data of the scenarios: 0 random, 1 or 2 a fixed vector set");
    run->add_option("--index", options.index, "Slot or key index of the scenarios (0-31)");
    run->add_option("--param", options.param, "Parameter of the firmware update (default 0)");
    run->add_option("--uuid", options.uuidText,
                    "TA of the general scenarios: zel_test, zel_test_a or a UUID");
    run->add_option("--repeat", options.repeat, "Run the selection this many times");
    run->add_flag("--stop-on-failure", options.stopOnFailure, "Stop at the first failed step");
    run->add_option("--timeout", options.timeout,
                    "Seconds a step may take before it is killed as hung; 0: no limit")
        ->capture_default_str();
    run->add_flag("--fw-versions", options.firmwareVersions,
                  "Also record the secure processor's version texts (sends ze_updateFW, which "
                  "starts a firmware update on a device)");
    run->add_option("--exclude", options.exclude,
                    "Leave out the steps this pattern matches (name, case name or number); "
                    "repeatable")
        ->allow_extra_args(false);
    run->add_flag("-q,--quiet", options.quiet,
                  "Keep the library's lines for the reports but do not show them");
    run->add_option("--color", options.colour, "Verdicts in colour: auto, always or never")
        ->capture_default_str();
    run->add_flag("--last-failed", options.lastFailed,
                  "Run again the steps that did not pass in the previous run");
    run->add_flag("--with-setup", options.withSetup,
                  "Run before each step the plan steps whose state it needs (zel_get: zel_put)");
    run->add_flag("--dry-run", options.dryRun, "Show what would run, in order, and run nothing");
    run->add_option("--junit", options.junit, "Write a JUnit XML report here");
    run->add_option("--json", options.json, "Write a JSON report here");
    run->add_option("--results", options.results,
                    "Write each step's result here as it ends (JSON lines)");

    int exitCode = 0;
    run->callback([&] { exitCode = ::run(options); });
    zel::tc::addTeeCommands(app, exitCode);
    zel::tc::addFuzzCommands(app, exitCode);
    zel::tc::addHelperCommands(app, exitCode);
    zel::tc::addBenchCommand(app, exitCode);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // --help is an "error" that exits 0; every real one is a usage error.
        return app.exit(error) == 0 ? 0 : kExitUsage;
    }
    return exitCode;
}
