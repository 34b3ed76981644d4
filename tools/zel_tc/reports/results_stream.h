// zel-tc run --results FILE: one JSON object per line, written and flushed as each step ends, so
// that a lab script can report steps while the run goes on and still has every finished step when
// the run is cut short. The first line is the run's own record ("record": "run"); every other is
// a step ("record": "step").
#pragma once

#include <nlohmann/json.hpp>

#include <fstream>
#include <string>

#include "reports/reports.h"

namespace zel::tc {

// What a run says about itself: zel-tc's version, the platform it was built for (host or device),
// the machine's host name, the UTC time the run began, the TEE and the device's identity.
nlohmann::json runJson(const RunInfo& run);

// One step as a record: its case name, round, number, the inputs it read, verdict, result (hex
// and GP name, null when the step did not return), start and seconds, and for a step that did
// not return the reason.
nlohmann::json stepRecord(const StepRecord& record, unsigned timeoutSeconds);

class ResultsStream {
  public:
    // No path: a stream that writes nothing. Otherwise the file is truncated and the run record
    // written at once; ok() says whether every write so far reached the file.
    ResultsStream(const std::string& path, const nlohmann::json& run);
    void add(const StepRecord& record, unsigned timeoutSeconds);
    bool ok() const { return !out_.is_open() || out_.good(); }

  private:
    void write(const nlohmann::json& record);
    std::ofstream out_;
};

}  // namespace zel::tc
