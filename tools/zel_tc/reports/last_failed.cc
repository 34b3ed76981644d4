#include "reports/last_failed.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "args/uuid.h"
#include "plan/case_name.h"
#include "reports/report_file.h"

namespace zel::tc {

namespace {

std::string stateFolder() {
    const char* state = std::getenv("XDG_STATE_HOME");
    if (state && *state == '/') return std::string(state) + "/zel-tc";
    const char* home = std::getenv("HOME");
    return std::string(home && *home ? home : "/tmp") + "/.local/state/zel-tc";
}

// mkdir -p, each folder the user's alone.
bool makeFolders(const std::string& path) {
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        const std::string folder = path.substr(0, slash);
        if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return false;
        if (slash == std::string::npos) return true;
    }
}

// A whole number of a record, or -1 when it is missing or is not one (no exceptions from json).
long long number(const nlohmann::json& record, const char* key) {
    const auto found = record.find(key);
    return found != record.end() && found->is_number_integer() ? found->get<long long>() : -1;
}

std::string text(const nlohmann::json& record, const char* key) {
    const auto found = record.find(key);
    return found != record.end() && found->is_string() ? found->get<std::string>() : "";
}

}  // namespace

std::string lastFailedPath() {
    return stateFolder() + "/last-failed.json";
}

bool saveLastFailed(const std::vector<StepRecord>& records) {
    nlohmann::json failed = nlohmann::json::array();
    std::set<std::string> seen;  // a repeated step once
    for (const StepRecord& record : records) {
        const Step& step = record.step;
        if (record.passed() || !seen.insert(caseName(step)).second) continue;
        failed.push_back({{"case", caseName(step)},
                          {"number", step.entry->number},
                          {"argument", step.input.argument},
                          {"data_type", step.input.dataType},
                          {"index", step.input.index},
                          {"param", step.input.param},
                          {"uuid", uuidText(step.input.uuid)},
                          {"expected", step.expected},
                          {"why", step.why ? step.why : ""}});
    }
    return makeFolders(stateFolder()) &&
           writeReport(lastFailedPath(), nlohmann::json{{"failed", failed}}.dump(2) + "\n");
}

bool loadLastFailed(std::vector<Step>& steps, std::string& error) {
    std::ifstream in(lastFailedPath());
    if (!in) {
        error = "--last-failed: no run recorded at " + lastFailedPath();
        return false;
    }
    const nlohmann::json record = nlohmann::json::parse(in, nullptr, false);
    if (record.is_discarded() || !record.contains("failed") || !record["failed"].is_array()) {
        error = "--last-failed: cannot read " + lastFailedPath();
        return false;
    }
    for (const nlohmann::json& each : record["failed"]) {
        StepInput input;
        Step step{};
        const bool read = each.is_object() && number(each, "number") >= 0 &&
                          parseUuid(text(each, "uuid"), input.uuid);
        if (read) {
            input.argument = static_cast<int>(number(each, "argument"));
            input.dataType = static_cast<int>(number(each, "data_type"));
            input.index = static_cast<int>(number(each, "index"));
            input.param = static_cast<int>(number(each, "param"));
        }
        if (!read ||
            !restoreStep(static_cast<uint32_t>(number(each, "number")), input,
                         static_cast<int32_t>(number(each, "expected")), text(each, "why"), step)) {
            error = "--last-failed: " + lastFailedPath() +
                    " names a step this zel-tc does not have: " + each.dump();
            return false;
        }
        steps.push_back(step);
    }
    return true;
}

}  // namespace zel::tc
