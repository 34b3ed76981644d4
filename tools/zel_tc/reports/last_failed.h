// zel-tc run --last-failed: the steps that did not pass in the previous run, kept in
// $XDG_STATE_HOME/zel-tc/last-failed.json (~/.local/state without it) with everything needed to
// run them again as they ran: number, argument, inputs and the result expected.
#pragma once

#include <string>
#include <vector>

#include "reports/reports.h"

namespace zel::tc {

std::string lastFailedPath();
// Records the steps of this run that did not pass (none: an empty list). False when the file
// cannot be written.
bool saveLastFailed(const std::vector<StepRecord>& records);
// The steps recorded; false with a message when there is no record or it cannot be read.
bool loadLastFailed(std::vector<Step>& steps, std::string& error);

}  // namespace zel::tc
