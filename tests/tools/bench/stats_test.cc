// zel-tc bench's arithmetic and its baseline verdicts, on samples and reports made here: the
// percentiles a user reads, and which steps a comparison calls slower.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "bench/report.h"
#include "bench/stats.h"
#include "output_capture.h"

namespace {

using zel::tc::BenchedStep;
using zel::tc::LatencySummary;

std::string writeFile(const std::string& name, const std::string& text) {
    const std::string path = testing::TempDir() + name;
    std::ofstream(path) << text;
    return path;
}

TEST(BenchStats, PercentilesAreNearestRankOverUnsortedSamples) {
    // 1..100 shuffled: the p-th percentile is p itself.
    std::vector<double> samples;
    for (int i = 0; i < 100; ++i) samples.push_back((i * 37) % 100 + 1);
    const LatencySummary summary = zel::tc::summarize(samples, 3, 2.0);
    EXPECT_DOUBLE_EQ(summary.p50Us, 50);
    EXPECT_DOUBLE_EQ(summary.p90Us, 90);
    EXPECT_DOUBLE_EQ(summary.p99Us, 99);
    EXPECT_DOUBLE_EQ(summary.perSecond(), 50);

    // Few samples: ranks round up.
    std::vector<double> three = {30, 10, 20};
    const LatencySummary small = zel::tc::summarize(three, 0, 0);
    EXPECT_DOUBLE_EQ(small.p50Us, 20);
    EXPECT_DOUBLE_EQ(small.p90Us, 30);
    EXPECT_DOUBLE_EQ(small.perSecond(), 0) << "no time measured is no rate, not a division by 0";

    std::vector<double> none;
    const LatencySummary empty = zel::tc::summarize(none, 0, 1);
    EXPECT_EQ(empty.runs, 0u);
    EXPECT_DOUBLE_EQ(empty.p50Us, 0);
    EXPECT_DOUBLE_EQ(empty.maxUs, 0);
}

TEST(BenchStats, ASummaryCrossesTheProcessBoundaryWholeOrNotAtAll) {
    std::vector<double> samples = {5, 1, 9};
    const LatencySummary sent = zel::tc::summarize(samples, 1, 0.5);
    LatencySummary got;
    ASSERT_TRUE(zel::tc::decodeSummary(zel::tc::encodeSummary(sent), got));
    EXPECT_EQ(got.runs, 3u);
    EXPECT_EQ(got.failures, 1u);
    EXPECT_DOUBLE_EQ(got.maxUs, 9);
    const std::string bytes = zel::tc::encodeSummary(sent);
    EXPECT_FALSE(zel::tc::decodeSummary(bytes.substr(1), got)) << "a cut-short payload";
    EXPECT_FALSE(zel::tc::decodeSummary("", got)) << "a child that handed back nothing";
}

TEST(BenchBaseline, AReportReadsBackAndOnlyStepsSlowerThanTheThresholdRegress) {
    LatencySummary fast, slow;
    fast.p50Us = 100;
    slow.p50Us = 300;
    const std::vector<BenchedStep> before = {{"zel_getSlotInfo", fast}, {"command 0x2D", slow}};
    const std::string path =
        writeFile("bench_baseline.json", zel::tc::benchReport({{"tee", "here"}}, before).dump());
    std::map<std::string, double> baseline;
    std::string error;
    ASSERT_TRUE(zel::tc::readBaseline(path, baseline, error)) << error;
    EXPECT_EQ(baseline.size(), 2u);
    EXPECT_DOUBLE_EQ(baseline["zel_getSlotInfo"], 100);

    LatencySummary now1, now3;
    now1.p50Us = 125;  // +25%: over 20
    now3.p50Us = 1;    // not in the baseline
    const auto rows =
        zel::tc::compareWithBaseline({{"zel_getSlotInfo", now1}, {"bist 7", now3}}, baseline, 20);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_TRUE(rows[0].regressed);
    EXPECT_NEAR(rows[0].changePercent, 25, 1e-9);
    EXPECT_FALSE(rows[1].regressed);
    EXPECT_DOUBLE_EQ(rows[1].baselineP50Us, 0);

    // The threshold is the user's: at 30% the same run passes, at 0% a faster step still does.
    EXPECT_FALSE(
        zel::tc::compareWithBaseline({{"zel_getSlotInfo", now1}}, baseline, 30)[0].regressed);
    LatencySummary faster;
    faster.p50Us = 90;
    EXPECT_FALSE(
        zel::tc::compareWithBaseline({{"zel_getSlotInfo", faster}}, baseline, 0)[0].regressed);
}

TEST(BenchBaseline, ABaselineThatIsNotAReportIsRefusedWithItsReason) {
    std::map<std::string, double> baseline;
    std::string error;
    EXPECT_FALSE(
        zel::tc::readBaseline(testing::TempDir() + "no_such_baseline.json", baseline, error));
    EXPECT_TRUE(contains(error, "cannot read"));

    const struct {
        const char* text;
        const char* reason;
    } kBad[] = {
        {"{not json", "not a zel-tc bench report"},
        {"[1, 2]", "not a zel-tc bench report"},
        {R"({"steps": {}})", "not a zel-tc bench report"},
        {R"({"steps": [{"p50_us": 5}]})", "without a name"},
        {R"({"steps": [{"name": "x", "p50_us": 0}]})", "positive p50_us"},
        {R"({"steps": [{"name": "x", "p50_us": "fast"}]})", "positive p50_us"},
    };
    for (const auto& bad : kBad) {
        error.clear();
        EXPECT_FALSE(
            zel::tc::readBaseline(writeFile("bad_baseline.json", bad.text), baseline, error))
            << bad.text;
        EXPECT_TRUE(contains(error, bad.reason)) << bad.text;
    }
}

}  // namespace
