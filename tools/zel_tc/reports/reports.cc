#include "reports/reports.h"

#include <unistd.h>
#include <nlohmann/json.hpp>
#include <pugixml.hpp>

#include <climits>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "args/tee_names.h"
#include "plan/case_name.h"
#include "plan/interruption.h"
#include "reports/report_file.h"
#include "reports/results_stream.h"
#include "reports/utf8_text.h"

namespace zel::tc {

namespace {

int countFailed(const std::vector<StepRecord>& records) {
    int failed = 0;
    for (const StepRecord& record : records) failed += record.passed() ? 0 : 1;
    return failed;
}

double totalSeconds(const std::vector<StepRecord>& records) {
    double seconds = 0;
    for (const StepRecord& record : records) seconds += record.outcome.seconds;
    return seconds;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += reportText(line) + "\n";
    return text;
}

std::vector<std::string> fitForReports(const std::vector<std::string>& lines) {
    std::vector<std::string> fit;
    for (const std::string& line : lines) fit.push_back(reportText(line));
    return fit;
}

// Milliseconds are what a CI shows; pugixml would write every digit of the double.
std::string secondsText(double seconds) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(3) << seconds;
    return text.str();
}

void addProperty(pugi::xml_node properties, const std::string& name, const std::string& value) {
    pugi::xml_node property = properties.append_child("property");
    property.append_attribute("name") = reportText(name).c_str();
    property.append_attribute("value") = reportText(value).c_str();
}

void setCounts(pugi::xml_node node, const std::vector<StepRecord>& records) {
    int errors = 0, failures = 0;
    for (const StepRecord& record : records) {
        if (record.outcome.end != StepOutcome::End::kReturned)
            ++errors;
        else if (!record.passed())
            ++failures;
    }
    node.append_attribute("tests") = static_cast<unsigned>(records.size());
    node.append_attribute("failures") = failures;
    node.append_attribute("errors") = errors;
    node.append_attribute("time") = secondsText(totalSeconds(records)).c_str();
}

}  // namespace

const char* StepRecord::verdict() const {
    switch (outcome.end) {
        case StepOutcome::End::kTimedOut:
            return "HUNG";
        case StepOutcome::End::kCrashed:
            return "CRASHED";
        case StepOutcome::End::kInterrupted:
            return "INTERRUPTED";
        case StepOutcome::End::kReturned:
            break;
    }
    return passed() ? "PASS" : "FAIL";
}

std::string StepRecord::describe(unsigned timeoutSeconds) const {
    switch (outcome.end) {
        case StepOutcome::End::kTimedOut:
            return "hung, killed after " + std::to_string(timeoutSeconds) + " s";
        case StepOutcome::End::kCrashed:
            return "crashed" +
                   (outcome.signal ? ": signal " + std::to_string(outcome.signal) : std::string());
        case StepOutcome::End::kInterrupted:
            return "interrupted by " + interruption::signalName(outcome.signal);
        case StepOutcome::End::kReturned:
            break;
    }
    const std::string failed = decodeMask(*step.entry, outcome.result);
    return describeResult(static_cast<uint32_t>(outcome.result)) +
           (failed.empty() ? "" : " (" + failed + ")");
}

std::string StepRecord::title() const {
    return round > 1 ? step.name + " (round " + std::to_string(round) + ")" : step.name;
}

std::string StepRecord::uniqueName() const {
    return caseName(step) + (round > 1 ? ".round" + std::to_string(round) : "");
}

RunInfo startRun(const std::string& tee) {
    char host[HOST_NAME_MAX + 1] = {};
    if (gethostname(host, sizeof host - 1) != 0) host[0] = '\0';
    return {ZEL_TC_VERSION, ZEL_TC_PLATFORM, host, std::time(nullptr), tee, {}, 0};
}

std::string utcText(std::time_t when, bool zone) {
    std::tm utc{};
    gmtime_r(&when, &utc);
    char text[32] = {};
    std::strftime(text, sizeof text, zone ? "%Y-%m-%dT%H:%M:%SZ" : "%Y-%m-%dT%H:%M:%S", &utc);
    return text;
}

void writeSummary(std::ostream& out, const std::vector<StepRecord>& records,
                  unsigned timeoutSeconds) {
    // A text wider than its column still keeps a space before the next one.
    const auto cell = [&out](const std::string& text, int width) {
        out << std::left << std::setw(width - 1) << text << ' ';
    };
    out << "zel-tc: summary\n  ";
    cell("step", 34);
    cell("cmd", 11);
    cell("result", 40);
    cell("verdict", 12);
    out << "time\n";
    for (const StepRecord& record : records) {
        std::ostringstream seconds;
        seconds << std::fixed << std::setprecision(3) << record.outcome.seconds << " s";
        out << "  ";
        cell(std::to_string(record.step.entry->number) + " " + record.title(), 34);
        cell(sendsText(record.step), 11);
        cell(record.describe(timeoutSeconds), 40);
        cell(record.verdict(), 12);
        out << seconds.str();
        if (record.step.why)
            out << "  expected " << resultHex(static_cast<uint32_t>(record.step.expected)) << ": "
                << record.step.why;
        out << "\n";
    }
    const int failed = countFailed(records);
    out << "zel-tc: " << records.size() - failed << " passed, " << failed << " failed" << std::endl;
}

bool writeJunit(const std::string& path, const RunInfo& run, const std::vector<StepRecord>& records,
                unsigned timeoutSeconds) {
    pugi::xml_document document;
    pugi::xml_node declaration = document.append_child(pugi::node_declaration);
    declaration.append_attribute("version") = "1.0";
    declaration.append_attribute("encoding") = "UTF-8";
    pugi::xml_node suites = document.append_child("testsuites");
    suites.append_attribute("name") = "zel-tc";
    setCounts(suites, records);
    pugi::xml_node suite = suites.append_child("testsuite");
    suite.append_attribute("name") = "zel-tc";
    setCounts(suite, records);
    suite.append_attribute("skipped") = 0;
    suite.append_attribute("timestamp") = utcText(run.started, false).c_str();
    suite.append_attribute("hostname") = reportText(run.hostname).c_str();
    pugi::xml_node properties = suite.append_child("properties");
    addProperty(properties, "zel-tc.version", run.version);
    addProperty(properties, "platform", run.platform);
    addProperty(properties, "tee", run.tee);
    if (run.interruptedBy)
        addProperty(properties, "interrupted", interruption::signalName(run.interruptedBy));
    for (const auto& [name, value] : run.identity) addProperty(properties, name, value);
    for (const StepRecord& record : records) {
        pugi::xml_node testcase = suite.append_child("testcase");
        testcase.append_attribute("classname") =
            ("zel-tc." + std::to_string(record.step.entry->number)).c_str();
        testcase.append_attribute("name") = record.uniqueName().c_str();
        testcase.append_attribute("time") = secondsText(record.outcome.seconds).c_str();
        const std::string said = record.describe(timeoutSeconds);
        if (record.outcome.end != StepOutcome::End::kReturned) {
            pugi::xml_node error = testcase.append_child("error");
            error.append_attribute("message") = said.c_str();
            error.append_attribute("type") = record.verdict();
        } else if (!record.passed()) {
            pugi::xml_node failure = testcase.append_child("failure");
            failure.append_attribute("message") =
                ("result " + said + ", expected " +
                 resultHex(static_cast<uint32_t>(record.step.expected)))
                    .c_str();
            failure.append_attribute("type") = "FAIL";
        }
        testcase.append_child("system-out").text() = joined(record.outcome.lines).c_str();
        testcase.append_child("system-err").text() = joined(record.outcome.errLines).c_str();
    }
    std::ostringstream text;
    document.save(text, "  ", pugi::format_default, pugi::encoding_utf8);
    return writeReport(path, text.str());
}

bool writeJson(const std::string& path, const RunInfo& run, const std::vector<StepRecord>& records,
               unsigned timeoutSeconds) {
    nlohmann::json runRecord = runJson(run);
    runRecord.erase("record");
    const int failed = countFailed(records);
    nlohmann::json report = {{"run", runRecord},
                             {"passed", records.size() - static_cast<size_t>(failed)},
                             {"failed", failed},
                             {"steps", nlohmann::json::array()}};
    for (const StepRecord& record : records) {
        nlohmann::json step = stepRecord(record, timeoutSeconds);
        step.erase("record");
        step["description"] = record.describe(timeoutSeconds);
        step["sends"] = sendsText(record.step);
        step["expected"] = resultHex(static_cast<uint32_t>(record.step.expected));
        step["expected_why"] = record.step.why ? nlohmann::json(record.step.why) : nullptr;
        step["output"] = fitForReports(record.outcome.lines);
        step["stderr"] = fitForReports(record.outcome.errLines);
        report["steps"].push_back(std::move(step));
    }
    return writeReport(path, report.dump(2) + "\n");
}

}  // namespace zel::tc
