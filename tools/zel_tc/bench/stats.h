// The latencies of one benchmarked step, summarised: nearest-rank percentiles over every sample,
// the slowest, and how many commands a second the step ran.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zel::tc {

struct LatencySummary {
    uint64_t runs = 0;      // samples taken (failed runs included)
    uint64_t failures = 0;  // runs whose result was not the step's passing one
    double seconds = 0;     // wall time of all the runs together
    double p50Us = 0, p90Us = 0, p99Us = 0, maxUs = 0;
    double perSecond() const { return seconds > 0 ? static_cast<double>(runs) / seconds : 0; }
};

// The nearest-rank percentile (0 < percent <= 100) of sorted samples; 0 for none.
double percentile(const std::vector<double>& sorted, double percent);
// Sorts samples (microseconds) in place and summarises them.
LatencySummary summarize(std::vector<double>& samplesUs, uint64_t failures, double seconds);

// A summary as bytes, to hand back from the process that measured it, and read back: false for
// bytes that are not one.
std::string encodeSummary(const LatencySummary& summary);
bool decodeSummary(const std::string& bytes, LatencySummary& summary);

}  // namespace zel::tc
