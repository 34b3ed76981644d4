#include "bench/stats.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace zel::tc {

double percentile(const std::vector<double>& sorted, double percent) {
    if (sorted.empty()) return 0;
    const double rank = std::ceil(percent / 100.0 * static_cast<double>(sorted.size()));
    const size_t index = rank < 1 ? 0 : static_cast<size_t>(rank) - 1;
    return sorted[std::min(index, sorted.size() - 1)];
}

LatencySummary summarize(std::vector<double>& samplesUs, uint64_t failures, double seconds) {
    std::sort(samplesUs.begin(), samplesUs.end());
    LatencySummary summary;
    summary.runs = samplesUs.size();
    summary.failures = failures;
    summary.seconds = seconds;
    summary.p50Us = percentile(samplesUs, 50);
    summary.p90Us = percentile(samplesUs, 90);
    summary.p99Us = percentile(samplesUs, 99);
    summary.maxUs = samplesUs.empty() ? 0 : samplesUs.back();
    return summary;
}

// Both ends are this very program, forked: the struct's own bytes are the encoding.
std::string encodeSummary(const LatencySummary& summary) {
    return std::string(reinterpret_cast<const char*>(&summary), sizeof summary);
}

bool decodeSummary(const std::string& bytes, LatencySummary& summary) {
    if (bytes.size() != sizeof summary) return false;
    std::memcpy(&summary, bytes.data(), sizeof summary);
    return true;
}

}  // namespace zel::tc
