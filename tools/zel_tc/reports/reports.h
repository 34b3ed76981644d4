// What a run of zel-tc leaves behind: the summary table on stderr, and on request JUnit XML (for
// Jenkins and GitLab) and JSON. Each report holds every step's verdict, its inputs, and the lines
// it printed on stdout and stderr; each is written whole or not at all (report_file.h).
#pragma once

#include <ctime>
#include <iosfwd>
#include <string>
#include <vector>

#include "plan/catalogue.h"
#include "plan/run_identity.h"
#include "plan/step_runner.h"

namespace zel::tc {

struct StepRecord {
    Step step;
    int round;  // 1 unless the selection is repeated
    StepOutcome outcome;
    std::time_t started = 0;

    bool passed() const {
        return outcome.end == StepOutcome::End::kReturned && outcome.result == step.expected;
    }
    // "PASS", "FAIL", "HUNG", "CRASHED" or "INTERRUPTED".
    const char* verdict() const;
    // "0xFFFF0008 TEEC_ERROR_ITEM_NOT_FOUND", "hung, killed after 5 s", "crashed: signal 11",
    // "interrupted by SIGINT"; a failure mask with the commands that failed.
    std::string describe(unsigned timeoutSeconds) const;
    // The step's name with its round when the selection is repeated.
    std::string title() const;
    // The step's case name (case_name.h), with its round when the selection is repeated: unique
    // within a run.
    std::string uniqueName() const;
};

// What a run was made against and by what, for the reports' metadata.
struct RunInfo {
    std::string version;   // zel-tc's
    std::string platform;  // "host" or "device"
    std::string hostname;
    std::time_t started = 0;
    std::string tee;  // where the TEE was reached
    RunIdentity identity;
    int interruptedBy = 0;  // the signal that cut the run short
};

// The version, platform, host name and time of a run starting now.
RunInfo startRun(const std::string& tee);
// "2026-11-23T17:43:16Z", or without the zone for JUnit, whose schema takes none.
std::string utcText(std::time_t when, bool zone = true);

void writeSummary(std::ostream& out, const std::vector<StepRecord>& records,
                  unsigned timeoutSeconds);
// False when the file cannot be written.
bool writeJunit(const std::string& path, const RunInfo& run, const std::vector<StepRecord>& records,
                unsigned timeoutSeconds);
bool writeJson(const std::string& path, const RunInfo& run, const std::vector<StepRecord>& records,
               unsigned timeoutSeconds);

}  // namespace zel::tc
