#include "reports/results_stream.h"

#include "args/tee_names.h"
#include "args/uuid.h"
#include "plan/case_name.h"
#include "plan/interruption.h"
#include "reports/utf8_text.h"

namespace zel::tc {

nlohmann::json runJson(const RunInfo& run) {
    nlohmann::json record = {{"record", "run"},
                             {"zel_tc_version", run.version},
                             {"platform", run.platform},
                             {"hostname", reportText(run.hostname)},
                             {"started_utc", utcText(run.started)},
                             {"tee", reportText(run.tee)},
                             {"identity", nlohmann::json::object()}};
    for (const auto& [name, value] : run.identity)
        record["identity"][reportText(name)] = reportText(value);
    if (run.interruptedBy) record["interrupted"] = interruption::signalName(run.interruptedBy);
    return record;
}

namespace {

// Only what the step reads, as case_name.h names it.
nlohmann::json inputs(const Step& step) {
    nlohmann::json read = nlohmann::json::object();
    if (step.entry->takesArgument()) read["argument"] = step.input.argument;
    if (readsTestData(*step.entry)) {
        read["data_type"] = step.input.dataType;
        read["index"] = step.input.index;
        read["uuid"] = uuidText(step.input.uuid);
    }
    if (readsParam(*step.entry)) read["param"] = step.input.param;
    return read;
}

}  // namespace

nlohmann::json stepRecord(const StepRecord& record, unsigned timeoutSeconds) {
    const bool returned = record.outcome.end == StepOutcome::End::kReturned;
    nlohmann::json out = {{"record", "step"},
                          {"case", caseName(record.step)},
                          {"step", record.step.name},
                          {"round", record.round},
                          {"number", record.step.entry->number},
                          {"inputs", inputs(record.step)},
                          {"started_utc", utcText(record.started)},
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
