#include "fuzz/commands.h"

#include <fstream>
#include <iostream>
#include <memory>

#include "args/number_option.h"
#include "args/tee_names.h"
#include "fuzz/campaign.h"
#include "plan/interruption.h"
#include "reports/report_file.h"
#include "reports/terminal.h"
#include "tee/target.h"

namespace zel::tc {

namespace {

constexpr int kExitFound = 1;
constexpr int kExitUsage = 2;

struct FuzzOptions {
    fuzz::CampaignOptions campaign;
    std::vector<std::string> commands;
    std::string uuid;
    double timeoutSeconds = 2;
    std::string json;
    std::string transcript;
    bool quiet = false;
    TeeTargetOptions tee;
};

struct ReplayOptions {
    std::string file;
    double timeoutSeconds = 2;
    TeeTargetOptions tee;
};

unsigned milliseconds(double seconds) {
    return static_cast<unsigned>(seconds * 1000 + 0.5);
}

int fuzzCommand(FuzzOptions& options) {
    fuzz::CampaignOptions& campaign = options.campaign;
    fuzz::Ta ta = fuzz::Ta::kVault;
    if (!options.uuid.empty() && !fuzz::parseTa(options.uuid, ta)) {
        say("--uuid " + options.uuid + " is neither zel_test nor zel_test_a");
        return kExitUsage;
    }
    for (const std::string& name : options.commands) {
        const fuzz::CommandSpec* spec = fuzz::findCommand(name);
        if (!spec) {
            say("--cmd " + name + ": no such command (a name like zel_put or put, or an id)");
            return kExitUsage;
        }
        campaign.commands.push_back(spec);
    }
    if (!options.uuid.empty()) {
        if (campaign.commands.empty())
            for (const fuzz::CommandSpec& spec : fuzz::commandTable())
                campaign.commands.push_back(&spec);
        std::vector<const fuzz::CommandSpec*> ofTa;
        for (const fuzz::CommandSpec* spec : campaign.commands)
            if (spec->ta == ta) ofTa.push_back(spec);
        if (ofTa.empty()) {
            say("no command selected on " + options.uuid);
            return kExitUsage;
        }
        campaign.commands = ofTa;
    }
    if (campaign.runs == 0 && campaign.seconds <= 0) {
        say("give a bound: --runs N or --seconds S");
        return kExitUsage;
    }
    std::string error;
    for (const std::string& file : {options.json, options.transcript}) {
        if (!file.empty() && !canWriteReport(file, error)) {
            say(error);
            return kExitUsage;
        }
    }
    campaign.timeoutMs = milliseconds(options.timeoutSeconds);
    campaign.progress = !options.quiet;
    TeeTarget target;
    if (!target.open(options.tee, error)) {
        say(error);
        return kExitUsage;
    }
    std::ofstream transcript;
    if (!options.transcript.empty()) {
        transcript.open(options.transcript, std::ios::trunc);
        if (!transcript) {
            say("cannot write " + options.transcript);
            return kExitUsage;
        }
        campaign.transcript = &transcript;
    }
    // A signal ends the campaign after the execution under way; the summary and the reproducers
    // found so far are kept, and the private TEE is stopped on the way out.
    interruption::install();
    campaign.stopRequested = [] {
        const int signal = interruption::caught();
        return signal ? "interrupted by " + interruption::signalName(signal) : std::string();
    };
    // Without a restart, a finding that kills the TEE ends the campaign.
    fuzz::Restart restart;
    if (target.canRestart()) restart = [&target](std::string& why) { return target.restart(why); };
    const fuzz::CampaignSummary summary = fuzz::runCampaign(campaign, restart, std::cerr);
    say("fuzz summary: seed " + std::to_string(campaign.seed) + ", " +
        std::to_string(summary.executions) + " executions, " + std::to_string(summary.calls) +
        " calls in " + std::to_string(static_cast<int>(summary.seconds)) + " s, commands covered " +
        std::to_string(summary.covered) + "/" + std::to_string(summary.commands) + ", " +
        std::to_string(summary.findings.size()) + " findings" +
        (summary.stopped.empty() ? "" : " (stopped: " + summary.stopped + ")"));
    for (const fuzz::FindingRecord& finding : summary.findings)
        say("  " + std::string(fuzz::kindName(finding.reproducer.kind)) + " at " +
            fuzz::describe(finding.reproducer.calls.back()) + " after " +
            std::to_string(finding.secondsToFind) + " s: " + finding.file);
    if (!options.json.empty() &&
        !writeReport(options.json, fuzz::campaignJson(campaign, summary))) {
        say("cannot write " + options.json);
        return kExitUsage;
    }
    if (transcript.is_open() && !transcript.flush()) {
        say("cannot write " + options.transcript);
        return kExitUsage;
    }
    if (interruption::caught()) return 128 + interruption::caught();
    return summary.findings.empty() ? 0 : kExitFound;
}

int replayCommand(const ReplayOptions& options) {
    fuzz::Reproducer reproducer;
    std::string error;
    if (!fuzz::readReproducer(options.file, reproducer, error)) {
        say(error);
        return kExitUsage;
    }
    TeeTarget target;
    if (!target.open(options.tee, error)) {
        say(error);
        return kExitUsage;
    }
    fuzz::Executor executor(milliseconds(options.timeoutSeconds));
    const fuzz::Verdict seen = fuzz::replay(reproducer, executor, nullptr, error);
    const std::string expected = std::string(fuzz::kindName(reproducer.kind)) + " at " +
                                 fuzz::describe(reproducer.calls.back());
    if (fuzz::sameFinding(reproducer, reproducer.calls, seen)) {
        say("replay " + options.file + ": reproduces: " + expected + ": " + seen.detail);
        return kExitFound;
    }
    std::string saw = "no finding";
    if (seen.kind != fuzz::FindingKind::kNone)
        saw = std::string(fuzz::kindName(seen.kind)) + " at call " + std::to_string(seen.call + 1) +
              ": " + seen.detail;
    else if (!seen.detail.empty())
        saw = seen.detail;
    say("replay " + options.file + ": does not reproduce " + expected + " (saw " + saw +
        ", last result " + describeResult(seen.result) + ")");
    return 0;
}

}  // namespace

void addFuzzCommands(CLI::App& app, int& exitCode) {
    auto fuzzOptions = std::make_shared<FuzzOptions>();
    CLI::App* fuzz = app.add_subcommand(
        "fuzz", "Fuzz the TAs' commands; exit 1 with reproducers when something is found");
    fuzz->add_option("--seed", fuzzOptions->campaign.seed, "Seed of the generator")
        ->capture_default_str()
        ->transform(unsignedDecimalOrHex());
    fuzz->add_option("--runs", fuzzOptions->campaign.runs, "Stop after this many sequences")
        ->transform(decimalOrHex());
    fuzz->add_option("--seconds", fuzzOptions->campaign.seconds, "Stop after this many seconds")
        ->check(runSeconds());
    fuzz->add_option("--cmd", fuzzOptions->commands,
                     "Only these commands (names like zel_put or put, or ids); repeatable")
        ->allow_extra_args(false);
    fuzz->add_option("--uuid", fuzzOptions->uuid,
                     "Only the commands of this TA: zel_test or "
                     "zel_test_a (or its UUID)");
    fuzz->add_option("--timeout", fuzzOptions->timeoutSeconds,
                     "Seconds a TEE call may take before it counts as a hang")
        ->capture_default_str()
        ->check(callTimeoutSeconds());
    fuzz->add_option("--out", fuzzOptions->campaign.outDir, "Folder for the reproducers")
        ->capture_default_str();
    fuzz->add_option("--max-findings", fuzzOptions->campaign.maxFindings,
                     "Stop after this many distinct findings")
        ->transform(decimalOrHex());
    fuzz->add_option("--json", fuzzOptions->json, "Write the summary as JSON here");
    fuzz->add_option("--transcript", fuzzOptions->transcript,
                     "Write each call and its answer here, one line each");
    fuzz->add_flag("--quiet", fuzzOptions->quiet, "No progress lines");
    addTeeTargetOptions(*fuzz, fuzzOptions->tee);
    fuzz->callback([fuzzOptions, &exitCode] { exitCode = fuzzCommand(*fuzzOptions); });

    auto replayOptions = std::make_shared<ReplayOptions>();
    CLI::App* replay = app.add_subcommand(
        "replay", "Send a reproducer again; exit 1 when its finding reproduces, 0 when not");
    replay->add_option("file", replayOptions->file, "The reproducer file")->required();
    replay
        ->add_option("--timeout", replayOptions->timeoutSeconds,
                     "Seconds a TEE call may take before it counts as a hang")
        ->capture_default_str()
        ->check(callTimeoutSeconds());
    addTeeTargetOptions(*replay, replayOptions->tee);
    replay->callback([replayOptions, &exitCode] { exitCode = replayCommand(*replayOptions); });
}

}  // namespace zel::tc
