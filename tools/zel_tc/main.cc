// zel-tc: runs the library's test steps against a TEE and judges each one.
//
// The library's own lines go to stdout untouched; everything zel-tc says itself goes to stderr,
// so that a log parser reading stdout sees exactly what the library printed.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>

#include "bench_command.h"
#include "catalogue.h"
#include "fuzz_commands.h"
#include "helper_commands.h"
#include "reports.h"
#include "results_stream.h"
#include "run_identity.h"
#include "step_runner.h"
#include "tee_names.h"
#include "tee_target.h"
#include "uuid_arg.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

void say(const std::string& text) {
    std::cerr << "zel-tc: " << text << std::endl;
}

void listSteps() {
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
    bool firmwareVersions = false;
    zel::tc::Overrides overrides;
    unsigned repeat = 1;
    bool stopOnFailure = false;
    unsigned timeoutSeconds = 120;
};

// A report file that cannot be written is bad input, found before anything runs.
bool writable(const std::string& path) {
    return path.empty() || std::ofstream(path, std::ios::app).good();
}

int runSteps(const std::vector<zel::tc::Step>& steps, const RunOptions& options,
             const zel::tc::RunInfo& info) {
    std::vector<zel::tc::StepRecord> records;
    bool stop = false;
    nlohmann::json run = zel::tc::runMetadata();
    run["tee"] = info.tee;
    for (const auto& [name, value] : info.identity) run["identity"][name] = value;
    zel::tc::ResultsStream stream(options.results, run);
    for (unsigned round = 1; round <= options.repeat && !stop; ++round) {
        for (const zel::tc::Step& step : steps) {
            zel::tc::StepRecord record{step, static_cast<int>(round), {}};
            record.outcome = zel::tc::runIsolated([&step] { return step.entry->run(step.input); },
                                                  options.timeoutSeconds);
            std::string verdict = std::string(record.verdict()) + " " +
                                  std::to_string(step.entry->number) + " " + record.title() +
                                  " result " + record.describe(options.timeoutSeconds);
            if (step.expected != 0 && record.passed())
                verdict += step.why ? std::string(" (expected: ") + step.why + ")"
                                    : " (passes with " + std::to_string(step.expected) + ")";
            say(verdict);
            stream.add(record, options.timeoutSeconds);
            records.push_back(std::move(record));
            if (options.stopOnFailure && !records.back().passed()) {
                say("stopping at the first failure (--stop-on-failure)");
                stop = true;
                break;
            }
        }
    }
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
    for (const zel::tc::StepRecord& record : records)
        if (!record.passed()) return kExitFailed;
    return reported ? 0 : kExitFailed;
}

int run(RunOptions& options) {
    if (options.all == !options.words.empty()) {
        say(options.all ? "give step names or --all, not both"
                        : "name the steps to run, or --all for the whole plan");
        return kExitUsage;
    }
    if (!options.uuidText.empty()) {
        TEEC_UUID uuid{};
        if (!zel::tc::parseUuid(options.uuidText, uuid)) {
            say("cannot read --uuid " + options.uuidText);
            return kExitUsage;
        }
        options.overrides.uuid = uuid;
    }
    for (const std::string& path : {options.junit, options.json, options.results}) {
        if (!writable(path)) {
            say("cannot write " + path);
            return kExitUsage;
        }
    }
    std::vector<zel::tc::Step> steps;
    std::string error;
    if (options.all)
        steps = zel::tc::planSteps(options.overrides);
    else if (!zel::tc::selectSteps(options.words, options.overrides, steps, error)) {
        say(error);
        return kExitUsage;
    }
    zel::tc::TeeTarget target;
    if (!target.open(options.target, error)) {
        say(error);
        return kExitUsage;
    }
    zel::tc::RunInfo info{zel::tc::platformName(), target.where(), {}};
    info.identity = zel::tc::readRunIdentity(
        {options.timeoutSeconds, options.firmwareVersions, options.overrides.param.value_or(0)});
    say("identity " + zel::tc::identityLine(info.identity));
    return runSteps(steps, options, info);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"zel-tc: runs libzel-tc-lib's test steps against the vault TA"};
    app.require_subcommand(1);

    app.add_subcommand("list", "List every step: number, name, command ids sent, data types")
        ->callback(listSteps);

    RunOptions options;
    auto* run = app.add_subcommand("run", "Run steps by name, number or pattern, or --all");
    run->add_option("steps", options.words,
                    "Step names, numbers or patterns: \"bist 7\", 503, zel_put, put, 'zel_get*'");
    run->add_flag("--all", options.all, "The whole plan, in dependency order");
    zel::tc::addTeeTargetOptions(*run, options.target);
    run->add_option("--data-type", options.overrides.dataType,
                    "Test data of the scenarios: 0 random, 1 or 2 a fixed vector set");
    run->add_option("--index", options.overrides.index, "Slot or key index of the scenarios");
    run->add_option("--param", options.overrides.param,
                    "Parameter of the firmware update (default 0)");
    run->add_option("--uuid", options.uuidText,
                    "TA of the general scenarios: zel_test, zel_test_a or a UUID");
    run->add_option("--repeat", options.repeat, "Run the selection this many times")
        ->check(CLI::Range(1u, 1000000u));
    run->add_flag("--stop-on-failure", options.stopOnFailure, "Stop at the first failed step");
    run->add_option("--timeout", options.timeoutSeconds,
                    "Seconds a step may take before it is killed as hung; 0: no limit")
        ->capture_default_str();
    run->add_flag("--fw-versions", options.firmwareVersions,
                  "Also record the secure processor's version texts (sends ze_updateFW, which "
                  "starts a firmware update on a device)");
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
