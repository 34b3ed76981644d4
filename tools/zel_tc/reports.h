// What a run of zel-tc leaves behind: the summary table on stderr, and on request JUnit XML (for
// Jenkins and GitLab) and JSON. Each report holds every step's verdict and the library's lines it
// printed.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "catalogue.h"
#include "run_identity.h"
#include "step_runner.h"

namespace zel::tc {

struct StepRecord {
    Step step;
    int round;  // 1 unless the selection is repeated
    StepOutcome outcome;

    bool passed() const {
        return outcome.end == StepOutcome::End::kReturned && outcome.result == step.expected;
    }
    // "PASS", "FAIL", "HUNG" or "CRASHED".
    const char* verdict() const;
    // "0xFFFF0008 TEEC_ERROR_ITEM_NOT_FOUND", "hung, killed after 5 s", "crashed: signal 11".
    std::string describe(unsigned timeoutSeconds) const;
    // The step's name with its round when the selection is repeated.
    std::string title() const;
};

// What a run was made against, for the reports' metadata.
struct RunInfo {
    std::string platform;  // "host" or "device"
    std::string tee;       // where the TEE was reached
    RunIdentity identity;
};

void writeSummary(std::ostream& out, const std::vector<StepRecord>& records,
                  unsigned timeoutSeconds);
// False when the file cannot be written.
bool writeJunit(const std::string& path, const RunInfo& run,
                const std::vector<StepRecord>& records, unsigned timeoutSeconds);
bool writeJson(const std::string& path, const RunInfo& run, const std::vector<StepRecord>& records,
               unsigned timeoutSeconds);

}  // namespace zel::tc
