#include "reports.h"

#include <cstdio>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "json_string.h"
#include "tee_names.h"

namespace zel::tc {

namespace {


// Text that goes inside XML attributes and elements. Control characters have no place in XML 1.0,
// so they are written as \xNN.
std::string xmlEscaped(const std::string& text) {
    std::string out;
    for (const unsigned char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                if (c < 0x20 && c != '\t' && c != '\n') {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
                    out += escaped;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out;
}

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

}  // namespace

const char* StepRecord::verdict() const {
    switch (outcome.end) {
        case StepOutcome::End::kTimedOut:
            return "HUNG";
        case StepOutcome::End::kCrashed:
            return "CRASHED";
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
        case StepOutcome::End::kReturned:
            break;
    }
    return describeResult(static_cast<uint32_t>(outcome.result));
}

std::string StepRecord::title() const {
    return round > 1 ? step.name + " (round " + std::to_string(round) + ")" : step.name;
}

void writeSummary(std::ostream& out, const std::vector<StepRecord>& records,
                  unsigned timeoutSeconds) {
    out << "zel-tc: summary\n"
        << std::left << "  " << std::setw(34) << "step" << std::setw(11) << "cmd" << std::setw(40)
        << "result" << std::setw(9) << "verdict"
        << "time\n";
    for (const StepRecord& record : records) {
        std::ostringstream seconds;
        seconds << std::fixed << std::setprecision(3) << record.outcome.seconds << " s";
        out << "  " << std::setw(34)
            << (std::to_string(record.step.entry->number) + " " + record.title()) << std::setw(11)
            << sendsText(record.step) << std::setw(40) << record.describe(timeoutSeconds)
            << std::setw(9) << record.verdict() << seconds.str();
        if (record.step.why)
            out << "  expected " << resultHex(static_cast<uint32_t>(record.step.expected)) << ": " << record.step.why;
        out << "\n";
    }
    const int failed = countFailed(records);
    out << "zel-tc: " << records.size() - failed << " passed, " << failed << " failed" << std::endl;
}

bool writeJunit(const std::string& path, const RunInfo& run,
                const std::vector<StepRecord>& records, unsigned timeoutSeconds) {
    std::ofstream xml(path);
    int errors = 0, failures = 0;
    for (const StepRecord& record : records) {
        if (record.outcome.end != StepOutcome::End::kReturned)
            ++errors;
        else if (!record.passed())
            ++failures;
    }
    xml << std::fixed << std::setprecision(3);
    xml << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        << "<testsuites tests=\"" << records.size() << "\" failures=\"" << failures
        << "\" errors=\"" << errors << "\" time=\"" << totalSeconds(records) << "\">\n"
        << "  <testsuite name=\"zel-tc\" tests=\"" << records.size() << "\" failures=\"" << failures
        << "\" errors=\"" << errors << "\" time=\"" << totalSeconds(records) << "\">\n"
        << "    <properties>\n";
    auto property = [&xml](const std::string& name, const std::string& value) {
        xml << "      <property name=\"" << xmlEscaped(name) << "\" value=\"" << xmlEscaped(value)
            << "\"/>\n";
    };
    property("platform", run.platform);
    property("tee", run.tee);
    for (const auto& [name, value] : run.identity) property(name, value);
    xml << "    </properties>\n";
    for (const StepRecord& record : records) {
        xml << "    <testcase classname=\"zel-tc." << record.step.entry->number << "\" name=\""
            << xmlEscaped(record.title()) << "\" time=\"" << record.outcome.seconds << "\">\n";
        const std::string said = record.describe(timeoutSeconds);
        if (record.outcome.end != StepOutcome::End::kReturned)
            xml << "      <error message=\"" << xmlEscaped(said) << "\"/>\n";
        else if (!record.passed())
            xml << "      <failure message=\"result " << xmlEscaped(said) << ", expected "
                << resultHex(static_cast<uint32_t>(record.step.expected)) << "\"/>\n";
        xml << "      <system-out>";
        for (const std::string& line : record.outcome.lines) xml << xmlEscaped(line) << "\n";
        xml << "</system-out>\n    </testcase>\n";
    }
    xml << "  </testsuite>\n</testsuites>\n";
    xml.close();
    return !xml.fail();
}

bool writeJson(const std::string& path, const RunInfo& run, const std::vector<StepRecord>& records,
               unsigned timeoutSeconds) {
    std::ofstream json(path);
    const int failed = countFailed(records);
    json << "{\n  \"run\": {\"platform\": " << jsonString(run.platform)
         << ", \"tee\": " << jsonString(run.tee) << ", \"identity\": {";
    for (size_t i = 0; i < run.identity.size(); ++i)
        json << (i ? ", " : "") << jsonString(run.identity[i].first) << ": "
             << jsonString(run.identity[i].second);
    json << "}},\n  \"passed\": " << records.size() - failed << ",\n  \"failed\": " << failed
         << ",\n  \"steps\": [";
    const char* separator = "\n";
    for (const StepRecord& record : records) {
        const bool returned = record.outcome.end == StepOutcome::End::kReturned;
        json << separator << "    {\"number\": " << record.step.entry->number
             << ", \"name\": " << jsonString(record.step.name) << ", \"round\": " << record.round
             << ", \"sends\": " << jsonString(sendsText(record.step))
             << ", \"result\": " << (returned ? std::to_string(record.outcome.result) : "null")
             << ", \"description\": " << jsonString(record.describe(timeoutSeconds))
             << ", \"expected\": " << record.step.expected
             << ", \"expectedWhy\": " << (record.step.why ? jsonString(record.step.why) : "null")
             << ", \"verdict\": " << jsonString(record.verdict())
             << ", \"seconds\": " << record.outcome.seconds << ", \"output\": [";
        for (size_t i = 0; i < record.outcome.lines.size(); ++i)
            json << (i ? ", " : "") << jsonString(record.outcome.lines[i]);
        json << "]}";
        separator = ",\n";
    }
    json << "\n  ]\n}\n";
    json.close();
    return !json.fail();
}

}  // namespace zel::tc
