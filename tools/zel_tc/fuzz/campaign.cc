#include "fuzz/campaign.h"

#include <sys/stat.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <deque>
#include <ostream>
#include <set>
#include <utility>

#include "args/tee_names.h"

namespace zel::tc::fuzz {

namespace {

// Calls kept from earlier sequences: a finding may need the state they built.
constexpr size_t kHistoryCalls = 24;
constexpr size_t kMinimizeTests = 200;
// Opening sessions failing this many sequences running means the TEE is gone for good.
constexpr int kSessionFailuresToStop = 3;

bool killsTee(FindingKind kind) {
    return kind == FindingKind::kTaDead || kind == FindingKind::kCommsError ||
           kind == FindingKind::kHang || kind == FindingKind::kSessionLost;
}

std::string fileName(const CampaignOptions& options, const Reproducer& r, size_t number) {
    const Call& last = r.calls.back();
    const CommandSpec* spec = findCommand(last.ta, last.id);
    char id[16];
    std::snprintf(id, sizeof id, "0x%02x", last.id);
    return options.outDir + "/" + std::to_string(number) + "-" + kindName(r.kind) + "-" +
           (spec ? spec->name : id) + ".repro";
}

}  // namespace

std::string transcriptLine(uint64_t execution, size_t call, const Call& sent,
                           const Answer& answer) {
    std::string line =
        std::to_string(execution) + "." + std::to_string(call) + " " + formatCall(sent) + " => ";
    switch (answer.status) {
        case Answer::Status::kUnsent:
            return line + "unsent";
        case Answer::Status::kHang:
            return line + "hang";
        case Answer::Status::kNoSession:
        case Answer::Status::kAnswered:
            break;
    }
    line += resultHex(answer.result) + " origin:" + std::to_string(answer.origin);
    if (answer.status == Answer::Status::kNoSession) return line + " no-session";
    const std::string fields = formatFields(answer.reply);
    if (answer.decoded) return fields.empty() ? line : line + " " + fields;
    return line + " raw:" + fields.substr(std::string("blob:").size());
}

Verdict replay(const Reproducer& reproducer, Executor& executor, const Restart& restart,
               std::string& error) {
    if (restart) {
        if (!restart(error)) return {FindingKind::kNone, 0, 0, 0, error, 0};
        executor.renew();
    }
    Sequence calls = reproducer.calls;
    return executor.run(calls, true);
}

CampaignSummary runCampaign(const CampaignOptions& options, const Restart& restart,
                            std::ostream& log) {
    using Clock = std::chrono::steady_clock;
    CampaignSummary summary;
    Generator generator(options.seed, options.commands);
    Executor executor(options.timeoutMs);
    std::set<std::pair<Ta, uint32_t>> tableCommands, covered;
    for (const CommandSpec& spec : commandTable())
        if (options.commands.empty() ||
            std::count(options.commands.begin(), options.commands.end(), &spec))
            tableCommands.insert({spec.ta, spec.id});
    summary.commands = tableCommands.size();
    std::set<std::pair<FindingKind, std::pair<Ta, uint32_t>>> seen;
    std::deque<Call> history;
    int sessionFailures = 0;
    if (options.transcript)
        *options.transcript << "zel-tc-transcript 1 seed " << options.seed << "\n";
    const auto started = Clock::now();
    auto nextProgress = started + std::chrono::seconds(1);
    const auto elapsed = [&] {
        return std::chrono::duration<double>(Clock::now() - started).count();
    };
    const auto progress = [&] {
        const double seconds = elapsed();
        char line[200];
        std::snprintf(line, sizeof line,
                      "zel-tc: fuzz %.0f s: %llu executions (%.0f/s), %llu calls, commands "
                      "covered %zu/%zu, findings %zu",
                      seconds, static_cast<unsigned long long>(summary.executions),
                      seconds > 0 ? summary.executions / seconds : 0.0,
                      static_cast<unsigned long long>(summary.calls), covered.size(),
                      summary.commands, summary.findings.size());
        log << line << std::endl;
    };

    while ((options.runs == 0 || summary.executions < options.runs) &&
           (options.seconds <= 0 || elapsed() < options.seconds)) {
        if (options.stopRequested) {
            summary.stopped = options.stopRequested();
            if (!summary.stopped.empty()) break;
        }
        Sequence sequence = generator.next();
        std::vector<Answer> answers;
        const Verdict verdict =
            executor.run(sequence, false, options.transcript ? &answers : nullptr);
        ++summary.executions;
        for (size_t i = 0; options.transcript && i < sequence.size(); ++i)
            *options.transcript << transcriptLine(summary.executions, i + 1, sequence[i],
                                                  answers[i])
                                << "\n";
        summary.calls += verdict.callsRun;
        const size_t sent = verdict.kind == FindingKind::kNone
                                ? sequence.size()
                                : std::min(verdict.call + 1, sequence.size());
        for (size_t i = 0; i < sent; ++i)
            if (tableCommands.count({sequence[i].ta, sequence[i].id}))
                covered.insert({sequence[i].ta, sequence[i].id});
        if (options.progress && Clock::now() >= nextProgress) {
            progress();
            nextProgress += std::chrono::seconds(1);
        }
        if (verdict.kind == FindingKind::kNone) {
            sessionFailures = 0;
            history.insert(history.end(), sequence.begin(), sequence.end());
            while (history.size() > kHistoryCalls) history.pop_front();
            continue;
        }

        Reproducer found;
        found.kind = verdict.kind;
        found.result = verdict.result;
        found.origin = verdict.origin;
        found.seed = options.seed;
        found.detail = verdict.detail;
        found.calls.assign(history.begin(), history.end());
        found.calls.insert(found.calls.end(), sequence.begin(), sequence.begin() + sent);
        if (found.calls.empty()) found.calls.push_back(sequence.front());
        const Call& at = found.calls.back();
        const bool fresh = seen.insert({found.kind, {at.ta, at.id}}).second;
        sessionFailures = verdict.kind == FindingKind::kSessionLost ? sessionFailures + 1 : 0;
        if (!fresh) {
            ++summary.repeats;
        } else {
            FindingRecord record;
            record.secondsToFind = elapsed();
            record.callsSeen = found.calls.size();
            log << "zel-tc: finding " << kindName(found.kind) << " at " << describe(at) << ": "
                << found.detail << std::endl;
            // Without a fresh TEE for each try, only findings that leave the TEE working can be
            // minimized (against the state it has).
            if (restart || !killsTee(found.kind)) {
                std::string error;
                const Sequence minimal = minimize(
                    found.calls,
                    [&](const Sequence& candidate) {
                        std::string why;
                        Reproducer attempt = found;
                        attempt.calls = candidate;
                        const Verdict again = replay(attempt, executor, restart, why);
                        return sameFinding(found, attempt.calls, again);
                    },
                    kMinimizeTests);
                record.minimized = true;
                found.calls = minimal;
            }
            std::string error;
            mkdir(options.outDir.c_str(), 0755);
            record.file = fileName(options, found, summary.findings.size() + 1);
            if (!writeReproducer(record.file, found, error)) {
                log << "zel-tc: " << error << std::endl;
                record.file.clear();
            } else {
                log << "zel-tc: reproducer (" << found.calls.size() << " of " << record.callsSeen
                    << " calls) in " << record.file << std::endl;
            }
            record.reproducer = std::move(found);
            summary.findings.push_back(std::move(record));
        }
        history.clear();
        if (options.maxFindings && summary.findings.size() >= options.maxFindings) {
            summary.stopped = "reached --max-findings";
            break;
        }
        if (restart && (killsTee(verdict.kind) || fresh)) {
            std::string error;
            if (!restart(error)) {
                summary.stopped = "the TEE could not be restarted: " + error;
                break;
            }
        }
        executor.renew();
        if (sessionFailures >= kSessionFailuresToStop) {
            summary.stopped = "the TEE no longer opens sessions";
            break;
        }
    }
    if (options.transcript) options.transcript->flush();
    summary.seconds = elapsed();
    summary.covered = covered.size();
    if (options.progress) progress();
    return summary;
}

std::string campaignJson(const CampaignOptions& options, const CampaignSummary& summary) {
    const auto hex = [](uint32_t value, int digits) {
        char text[16];
        std::snprintf(text, sizeof text, "0x%0*x", digits, value);
        return std::string(text);
    };
    const double rate = summary.seconds > 0 ? summary.executions / summary.seconds : 0.0;
    nlohmann::json report = {{"seed", options.seed},
                             {"executions", summary.executions},
                             {"calls", summary.calls},
                             {"seconds", summary.seconds},
                             {"executions_per_second", std::round(rate * 10) / 10},
                             {"commands_covered", summary.covered},
                             {"commands", summary.commands},
                             {"repeats", summary.repeats},
                             {"stopped", summary.stopped},
                             {"findings", nlohmann::json::array()}};
    for (const FindingRecord& f : summary.findings) {
        const Call& at = f.reproducer.calls.back();
        const CommandSpec* spec = findCommand(at.ta, at.id);
        report["findings"].push_back({{"kind", kindName(f.reproducer.kind)},
                                      {"ta", taName(at.ta)},
                                      {"command", hex(at.id, 2)},
                                      {"name", spec ? spec->name : ""},
                                      {"result", hex(f.reproducer.result, 8)},
                                      {"origin", hex(f.reproducer.origin, 8)},
                                      {"detail", f.reproducer.detail},
                                      {"seconds_to_find", f.secondsToFind},
                                      {"calls_seen", f.callsSeen},
                                      {"calls", f.reproducer.calls.size()},
                                      {"minimized", f.minimized},
                                      {"file", f.file}});
    }
    // Bytes of a detail that are not UTF-8 are replaced rather than refused.
    return report.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace zel::tc::fuzz
