// zel-tc run --results and the LAVA test definition's script that reads it, against a daemon the
// test controls: what a device lab is told about every step.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "interface/zel_ta_ids.h"
#include "vault_fixture.h"
#include "zel_tc_run.h"

namespace {

using nlohmann::json;

class ResultsStreamTest : public VaultFixture {
  protected:
    void SetUp() override {
        VaultFixture::SetUp();
        socket = " --socket " + daemon->socketPath();
        directory = testing::TempDir() + "zel_tc_results_XXXXXX";
        ASSERT_NE(mkdtemp(directory.data()), nullptr);
        results = directory + "/results.jsonl";
    }
    void TearDown() override {
        std::system(("rm -rf " + directory).c_str());
        VaultFixture::TearDown();
    }

    // zel-tc's exit code; the stream is what is looked at here.
    static int zelTc(const std::string& arguments) { return ::zelTc(arguments).exitCode; }

    std::vector<json> records() {
        std::ifstream in(results);
        std::vector<json> parsed;
        for (std::string line; std::getline(in, line);) parsed.push_back(json::parse(line));
        return parsed;
    }

    std::string socket, directory, results;
};

TEST_F(ResultsStreamTest, EveryPlanStepHasOneStableNameAndItsResult) {
    ASSERT_EQ(zelTc("run --all" + socket + " --results " + results), 0);
    const std::vector<json> lines = records();
    ASSERT_EQ(lines.size(), 62u);

    const json& run = lines[0];
    EXPECT_EQ(run["record"], "run");
    EXPECT_EQ(run["platform"], "host");
    EXPECT_TRUE(
        std::regex_match(run["zel_tc_version"].get<std::string>(), std::regex(R"(\d+\.\d+\.\d+)")))
        << run;
    char host[HOST_NAME_MAX + 1] = {};
    gethostname(host, sizeof host - 1);
    EXPECT_EQ(run["hostname"], host);
    EXPECT_TRUE(std::regex_match(run["started_utc"].get<std::string>(),
                                 std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")))
        << run;

    std::set<std::string> names;
    for (size_t i = 1; i < lines.size(); ++i) {
        const json& step = lines[i];
        const std::string name = step["case"];
        EXPECT_TRUE(names.insert(name).second) << "two steps named " << name;
        // LAVA splits its signals on spaces and '='.
        EXPECT_TRUE(std::regex_match(name, std::regex("[A-Za-z0-9_.-]+"))) << name;
        EXPECT_EQ(step["record"], "step");
        EXPECT_EQ(step["round"], 1);
        EXPECT_EQ(step["verdict"], "PASS") << step;
        EXPECT_GE(step["seconds"].get<double>(), 0.0);
    }
    for (const char* name :
         {"lifecycle", "bist.3", "bist.17", "zel_storeKey.data1.index3",
          "zel_storeKey.data2.index2", "zel_get.data1.index3",
          "zel_get.data1.index3.expect0xFFFF0000",
          "zel_checkDataExistence.data1.index3.expect0xFFFF0008", "zel_getPublicKeyStatus",
          "zel_getPublicKeyStatus.expect0xFFFF0008", "zel_checkZelAk.expect0xFFFF0008"})
        EXPECT_EQ(names.count(name), 1u) << name;
    // The expected failure passes, and says what it returned.
    const json& deleted = *std::find_if(lines.begin(), lines.end(), [](const json& line) {
        return line.value("case", "") == "zel_get.data1.index3.expect0xFFFF0000";
    });
    EXPECT_EQ(deleted["number"], 2);
    EXPECT_EQ(deleted["result"], "0xFFFF0000");
    EXPECT_EQ(deleted["result_name"], "TEEC_ERROR_GENERIC");
    EXPECT_EQ(lines[1]["result"], "0x00000000");
    EXPECT_EQ(lines[1]["result_name"], "TEEC_SUCCESS");
}

TEST_F(ResultsStreamTest, InputsRoundsHangsAndUnwritableFiles) {
    ASSERT_EQ(zelTc("run zel_get bist 7 ze_updateFW --data-type 2 --index 4 --param 3 "
                    "--uuid zel_test_a --repeat 2" +
                    socket + " --results " + results),
              1);
    std::vector<json> lines = records();
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[1]["case"], "zel_get.data2.index4.zel_test_a");
    EXPECT_EQ(lines[1]["verdict"], "FAIL");  // the vault's commands are not that TA's
    EXPECT_EQ(lines[2]["case"], "bist.7");
    EXPECT_EQ(lines[3]["case"], "ze_updateFW.param3");
    EXPECT_EQ(lines[4]["case"], lines[1]["case"]);
    EXPECT_EQ(lines[4]["round"], 2);
    EXPECT_EQ(lines[6]["round"], 2);

    // The stalled TA holds its lock, so the next step talks to the other TA.
    ASSERT_EQ(control.stallInvocations(zel_test, 0, 1, 5000), TEEC_SUCCESS);
    ASSERT_EQ(zelTc("run test_lifetime test_process_inspection --timeout 1" + socket +
                    " --results " + results),
              1);
    lines = records();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1]["case"], "test_lifetime");
    EXPECT_EQ(lines[1]["verdict"], "HUNG");
    EXPECT_EQ(lines[1]["reason"], "hung, killed after 1 s");
    EXPECT_TRUE(lines[1]["result"].is_null());
    EXPECT_EQ(lines[2]["verdict"], "PASS");
    EXPECT_FALSE(lines[2].contains("reason"));

    const CliRun unwritable =
        ::zelTc("run process" + socket + " --results " + directory + "/no/such/r.jsonl");
    EXPECT_EQ(unwritable.exitCode, 2);
    EXPECT_NE(unwritable.err.find("cannot write a report to " + directory + "/no/such/r.jsonl"),
              std::string::npos)
        << unwritable.err;
}

#ifdef ZEL_LAVA_SCRIPT
// The definition's script on a board without the LAVA helpers: it says what it would report,
// in order, and exits with zel-tc's code.
TEST_F(ResultsStreamTest, LavaScriptReportsEveryStepWithoutTheHelpers) {
    const auto script = [&](const std::string& arguments, std::vector<std::string>& lines) {
        const std::string output = directory + "/script.log";
        const std::string command = std::string("sh ") + ZEL_LAVA_SCRIPT + " -z " + ZEL_TC_PATH +
                                    " -o " + directory + "/out -e '" + socket + "' " + arguments +
                                    " >" + output + " 2>&1";
        const int status = std::system(command.c_str());
        std::ifstream in(output);
        lines.clear();
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    // Each pattern matches a line after the previous one's.
    const auto inOrder = [](const std::vector<std::string>& lines,
                            const std::vector<std::string>& patterns) {
        auto at = lines.begin();
        for (const std::string& pattern : patterns) {
            at = std::find_if(at, lines.end(), [&](const std::string& line) {
                return std::regex_match(line, std::regex(pattern));
            });
            if (at == lines.end()) return "no line matches " + pattern + " in its place";
            ++at;
        }
        return std::string();
    };
    const std::string absent = R"( \(LAVA helpers absent: not reported\))";
    const std::string seconds = R"( --measurement [0-9.e+-]+ --units seconds)";

    std::vector<std::string> lines;
    ASSERT_EQ(control.failInvocations(zel_test, 0x2D, 1, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    EXPECT_EQ(script("-s 'zel_getSlotInfo test_get_info' -r 2", lines), 1);
    EXPECT_EQ(
        inOrder(lines,
                {"zel-tc device identity: \\{.*\"record\":\"run\".*\\}",
                 "lava-test-set start round-1" + absent,
                 "zel-tc: zel_getSlotInfo.data1.index3 FAIL: result 0xFFFF0000 "
                 "TEEC_ERROR_GENERIC",
                 "lava-test-case zel_getSlotInfo.data1.index3 --result fail" + seconds + absent,
                 "lava-test-case test_get_info --result pass" + seconds + absent,
                 "lava-test-set stop" + absent, "lava-test-set start round-2" + absent,
                 "lava-test-case zel_getSlotInfo.data1.index3 --result pass" + seconds + absent,
                 "lava-test-case test_get_info --result pass" + seconds + absent,
                 "lava-test-set stop" + absent, "===== BEGIN zel-tc JUnit report .*",
                 "<testsuites name=\"zel-tc\" tests=\"4\" .*",
                 "===== END zel-tc JUnit report =====", "===== BEGIN zel-tc JSON report .*",
                 "===== END zel-tc JSON report =====", "zel-tc exit code: 1"}),
        "");
    EXPECT_EQ(std::count_if(
                  lines.begin(), lines.end(),
                  [](const std::string& line) { return line.rfind("lava-test-case ", 0) == 0; }),
              4);

    // One run, no sets; a hung step is a fail whose reason is in the log.
    ASSERT_EQ(control.stallInvocations(zel_test, 0, 1, 5000), TEEC_SUCCESS);
    EXPECT_EQ(script("-s 'test_lifetime test_process_inspection' -t 1", lines), 1);
    EXPECT_EQ(
        inOrder(lines, {"zel-tc: test_lifetime HUNG: hung, killed after 1 s",
                        "lava-test-case test_lifetime --result fail" + seconds + absent,
                        "lava-test-case test_process_inspection --result pass" + seconds + absent}),
        "");
    EXPECT_EQ(
        std::find_if(lines.begin(), lines.end(),
                     [](const std::string& line) { return line.rfind("lava-test-set", 0) == 0; }),
        lines.end());
    EXPECT_EQ(script("-s process", lines), 0);
}
#endif

}  // namespace
