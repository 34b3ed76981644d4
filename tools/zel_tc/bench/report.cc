#include "bench/report.h"

#include <fstream>

namespace zel::tc {

nlohmann::json benchReport(const nlohmann::json& run, const std::vector<BenchedStep>& steps) {
    nlohmann::json report;
    report["run"] = run;
    report["steps"] = nlohmann::json::array();
    for (const BenchedStep& step : steps) {
        const LatencySummary& s = step.summary;
        report["steps"].push_back({{"name", step.name},
                                   {"runs", s.runs},
                                   {"failures", s.failures},
                                   {"seconds", s.seconds},
                                   {"commands_per_s", s.perSecond()},
                                   {"p50_us", s.p50Us},
                                   {"p90_us", s.p90Us},
                                   {"p99_us", s.p99Us},
                                   {"max_us", s.maxUs}});
    }
    return report;
}

bool readBaseline(const std::string& path, std::map<std::string, double>& p50ByStep,
                  std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot read the baseline " + path;
        return false;
    }
    const nlohmann::json report = nlohmann::json::parse(in, nullptr, false);
    if (report.is_discarded() || !report.is_object() || !report.contains("steps") ||
        !report["steps"].is_array()) {
        error = path + " is not a zel-tc bench report (no \"steps\" list)";
        return false;
    }
    p50ByStep.clear();
    for (const nlohmann::json& step : report["steps"]) {
        const bool named = step.is_object() && step.contains("name") && step["name"].is_string();
        if (!named || !step.contains("p50_us") || !step["p50_us"].is_number() ||
            step["p50_us"].get<double>() <= 0) {
            error = path + ": a step without a name or a positive p50_us: " + step.dump();
            return false;
        }
        p50ByStep[step["name"].get<std::string>()] = step["p50_us"].get<double>();
    }
    return true;
}

std::vector<BaselineRow> compareWithBaseline(const std::vector<BenchedStep>& steps,
                                             const std::map<std::string, double>& p50ByStep,
                                             double thresholdPercent) {
    std::vector<BaselineRow> rows;
    for (const BenchedStep& step : steps) {
        BaselineRow row{step.name, 0, step.summary.p50Us, 0, false};
        if (const auto it = p50ByStep.find(step.name); it != p50ByStep.end()) {
            row.baselineP50Us = it->second;
            row.changePercent = (row.p50Us / row.baselineP50Us - 1) * 100;
            row.regressed = row.changePercent > thresholdPercent;
        }
        rows.push_back(row);
    }
    return rows;
}

}  // namespace zel::tc
