// A fuzzing campaign: sequences from the generator through the executor until the bounds, each
// new finding minimized and saved as a reproducer; and the replay of one reproducer.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "fuzz/executor.h"
#include "fuzz/reproducer.h"
#include "fuzz/table.h"

namespace zel::tc::fuzz {

// Starts the TEE afresh (empty state); empty when the TEE cannot be restarted from here.
using Restart = std::function<bool(std::string& error)>;

struct CampaignOptions {
    uint64_t seed = 1;
    uint64_t runs = 0;                         // sequences; 0: no bound
    double seconds = 0;                        // 0: no bound
    std::vector<const CommandSpec*> commands;  // empty: all
    unsigned timeoutMs = 2000;
    std::string outDir = "zel-tc-findings";
    size_t maxFindings = 0;  // stop after this many distinct findings; 0: no bound
    bool progress = true;
    // One line per call of each sequence, answered or not, in order (transcriptLine); the calls
    // sent to shrink a finding are not in it.
    std::ostream* transcript = nullptr;
    // Asked between executions; a reason ends the campaign there (as "stopped").
    std::function<std::string()> stopRequested;
};

struct FindingRecord {
    Reproducer reproducer;
    double secondsToFind = 0;
    size_t callsSeen = 0;  // before minimizing
    bool minimized = false;
    std::string file;  // empty when it could not be written
};

struct CampaignSummary {
    uint64_t executions = 0;
    uint64_t calls = 0;
    double seconds = 0;
    size_t covered = 0;  // table commands sent at least once
    size_t commands = 0;
    uint64_t repeats = 0;  // findings seen again after the first
    std::vector<FindingRecord> findings;
    std::string stopped;  // why it ended early, when it did
};

// log: progress lines and one line per finding.
CampaignSummary runCampaign(const CampaignOptions& options, const Restart& restart,
                            std::ostream& log);

// Sends a reproducer's calls on a fresh TEE when restart allows; the verdict seen.
Verdict replay(const Reproducer& reproducer, Executor& executor, const Restart& restart,
               std::string& error);

// "17.2 zel_test 0x0c int:3 int:0 => 0x00000000 origin:4 uint:32 blob:75a0…": the second call of
// the 17th sequence, and what came back.
std::string transcriptLine(uint64_t execution, size_t call, const Call& sent, const Answer& answer);

// The summary as the JSON report that --json writes.
std::string campaignJson(const CampaignOptions& options, const CampaignSummary& summary);

}  // namespace zel::tc::fuzz
