// zel-tc bench end to end: steps and commands timed, a report written, a baseline judged.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "interface/zel_ta_ids.h"
#include "vault_fixture.h"
#include "zel_tc_run.h"

namespace {

TEST(ZelTcBenchTest, TimesStepsAndCommandsAndJudgesAgainstABaseline) {
    const std::string report = testing::TempDir() + "zel_tc_bench.json";
    const CliRun bench = zelTc("bench zel_getSlotInfo --command 0x2D --count 5 --json " + report);
    ASSERT_EQ(bench.exitCode, 0) << bench.err;
    ASSERT_EQ(bench.out.size(), 3u) << "a header and a row per step, no library lines";
    EXPECT_EQ(bench.out[1].rfind("zel_getSlotInfo ", 0), 0u) << bench.out[1];
    EXPECT_EQ(bench.out[2].rfind("command 0x2D ", 0), 0u) << bench.out[2];
    const nlohmann::json written = nlohmann::json::parse(readFile(report), nullptr, false);
    ASSERT_TRUE(written.is_object()) << "the report is not JSON";
    EXPECT_EQ(written["run"]["platform"], "host");
    ASSERT_EQ(written["steps"].size(), 2u);
    for (const nlohmann::json& step : written["steps"]) {
        EXPECT_EQ(step["runs"], 5);
        EXPECT_EQ(step["failures"], 0);
        EXPECT_GT(step["p50_us"].get<double>(), 0);
        EXPECT_GT(step["commands_per_s"].get<double>(), 0);
    }

    // Against a baseline no real run can match, and one no real run can miss.
    const std::string baseline = testing::TempDir() + "zel_tc_bench_baseline.json";
    std::ofstream(baseline) << R"({"steps": [{"name": "command 0x2D", "p50_us": 0.001}]})";
    const CliRun slower = zelTc("bench --command 0x2D --count 3 --baseline " + baseline);
    EXPECT_EQ(slower.exitCode, 1) << slower.err;
    EXPECT_TRUE(contains(slower.err, "command 0x2D: p50"));
    EXPECT_TRUE(contains(slower.err, "SLOWER than the threshold"));
    std::ofstream(baseline) << R"({"steps": [{"name": "command 0x2D", "p50_us": 1e12}]})";
    EXPECT_EQ(zelTc("bench --command 0x2D --count 3 --baseline " + baseline).exitCode, 0);

    // For a time instead of a count: runs until the time is up, and says so in the report.
    ASSERT_EQ(zelTc("bench bist 3 --seconds 0.3 --json " + report).exitCode, 0);
    const nlohmann::json timed = nlohmann::json::parse(readFile(report), nullptr, false);
    ASSERT_TRUE(timed.is_object());
    EXPECT_DOUBLE_EQ(timed["run"]["seconds"].get<double>(), 0.3);
    ASSERT_EQ(timed["steps"].size(), 1u);
    EXPECT_EQ(timed["steps"][0]["name"], "bist 3");
    EXPECT_GE(timed["steps"][0]["runs"].get<int>(), 1);
    EXPECT_GE(timed["steps"][0]["seconds"].get<double>(), 0.3);

    // A command the TA refuses is timed, and the run fails.
    const CliRun refused = zelTc("bench --command 0x99 --count 3");
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_TRUE(contains(refused.err, "command 0x99: 3 of 3 runs did not pass"));

    for (const std::string& arguments : std::vector<std::string>{
             "bench", "bench nosuch", "bench --command zz", "bench --command 0x100000000",
             "bench --command 0 --count 2 --seconds 1", "bench --command 0 --count 0",
             "bench --command 0 --threshold -5",
             "bench --command 0 --baseline " + testing::TempDir() + "no_such_baseline.json",
             "bench --command 0 --json /no/such/dir/b.json"}) {
        const CliRun run = zelTc(arguments);
        EXPECT_EQ(run.exitCode, 2) << arguments;
        EXPECT_EQ(run.out, Lines{}) << arguments;
    }
    unlink(report.c_str());
    unlink(baseline.c_str());
}

}  // namespace
