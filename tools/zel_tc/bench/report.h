// zel-tc bench's JSON report, and the comparison of a run against an earlier one's report: a step
// regressed when its median latency grew by more than a threshold.
#pragma once

#include <nlohmann/json.hpp>

#include <map>
#include <string>
#include <vector>

#include "bench/stats.h"

namespace zel::tc {

struct BenchedStep {
    std::string name;  // as zel-tc names it: "zel_getSlotInfo", "bist 7", "command 0x2D"
    LatencySummary summary;
};

// run: what the run says about itself (version, platform, host, time, TEE).
nlohmann::json benchReport(const nlohmann::json& run, const std::vector<BenchedStep>& steps);

// The median of every step a report holds, by name. False with a message for a file that cannot
// be read, is not a report, or holds a step without a name or a positive median.
bool readBaseline(const std::string& path, std::map<std::string, double>& p50ByStep,
                  std::string& error);

struct BaselineRow {
    std::string name;
    double baselineP50Us = 0;  // 0: the baseline does not have the step
    double p50Us = 0;
    double changePercent = 0;  // + slower, - faster
    bool regressed = false;
};

// One row per benched step, in their order; a step the baseline lacks is listed, never regressed.
std::vector<BaselineRow> compareWithBaseline(const std::vector<BenchedStep>& steps,
                                             const std::map<std::string, double>& p50ByStep,
                                             double thresholdPercent);

}  // namespace zel::tc
