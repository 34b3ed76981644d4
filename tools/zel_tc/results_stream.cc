#include "results_stream.h"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <ctime>

#include "case_name.h"
#include "tee_names.h"

namespace zel::tc {

nlohmann::json runMetadata() {
    char host[HOST_NAME_MAX + 1] = {};
    if (gethostname(host, sizeof host - 1) != 0) host[0] = '\0';
    char started[32] = {};
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    std::strftime(started, sizeof started, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return {{"record", "run"},
            {"zel_tc_version", ZEL_TC_VERSION},
            {"platform", ZEL_TC_PLATFORM},
            {"hostname", host},
            {"started_utc", started}};
}

nlohmann::json stepRecord(const StepRecord& record, unsigned timeoutSeconds) {
    const bool returned = record.outcome.end == StepOutcome::End::kReturned;
    nlohmann::json out = {{"record", "step"},
                          {"case", caseName(record.step)},
                          {"step", record.step.name},
                          {"round", record.round},
                          {"number", record.step.entry->number},
                          {"verdict", record.verdict()},
                          {"seconds", record.outcome.seconds},
                          {"result", nullptr},
                          {"result_name", nullptr}};
    if (returned) {
        const uint32_t result = static_cast<uint32_t>(record.outcome.result);
        out["result"] = resultHex(result);
        const std::string name = resultName(result);
        if (!name.empty()) out["result_name"] = name;
    } else {
        out["reason"] = record.describe(timeoutSeconds);
    }
    return out;
}

ResultsStream::ResultsStream(const std::string& path, const nlohmann::json& run) {
    if (path.empty()) return;
    out_.open(path, std::ios::trunc);
    write(run);
}

void ResultsStream::add(const StepRecord& record, unsigned timeoutSeconds) {
    if (out_.is_open()) write(stepRecord(record, timeoutSeconds));
}

void ResultsStream::write(const nlohmann::json& record) {
    // std::endl: the line reaches the file before the next step starts.
    out_ << record.dump() << std::endl;
}

}  // namespace zel::tc
