// Runs one step in a child process of its own, so that a step that hangs or crashes is reported
// against its name while the run goes on. The child's stdout (the library's lines) is passed on
// to zel-tc's stdout a whole line per write and kept for the reports; its stderr likewise to
// zel-tc's stderr. A signal caught by zel-tc (interruption.h) stops the child at once.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zel::tc {

struct StepOutcome {
    enum class End { kReturned, kTimedOut, kCrashed, kInterrupted };
    End end = End::kReturned;
    int32_t result = 0;  // what the step returned, when it returned
    int signal = 0;      // what ended it, when it crashed or was interrupted
    double seconds = 0;
    std::vector<std::string> lines;     // what it printed on stdout
    std::vector<std::string> errLines;  // and on stderr
    std::string payload;                // what it handed back besides its result
};

// Whether the child's stdout and stderr are passed on to zel-tc's or only kept; kErrOnly passes
// stderr on and keeps stdout (zel-tc run --quiet).
enum class Echo { kOn, kOff, kErrOnly };

// timeoutSeconds 0: no limit. The step's function runs in the child; the parent keeps nothing of
// the child's memory but the outcome.
StepOutcome runIsolated(const std::function<int32_t()>& step, unsigned timeoutSeconds,
                        Echo echo = Echo::kOn);
// The same for work that hands back bytes (at most a pipe's buffer, 64 KiB) as well as a result.
StepOutcome runIsolated(const std::function<int32_t(std::string& payload)>& work,
                        unsigned timeoutSeconds, Echo echo);

}  // namespace zel::tc
