// zel-tc as a user runs it: its stdout is the library's lines only, its verdicts and exit code
// follow the steps' results.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "interface/zel_ta_ids.h"
#include "output_capture.h"
#include "vault_fixture.h"
#include "zel_tc_lib.h"

namespace {

struct CliRun {
    int exitCode;
    Lines out;
    std::string err;
};

Lines splitLines(const std::string& text) {
    std::istringstream in(text);
    Lines lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// environment: "NAME=value ..." for zel-tc alone.
CliRun zelTc(const std::string& arguments, const std::string& environment = "") {
    // Tests run in parallel processes: each call gets a file of its own.
    std::string errFile = testing::TempDir() + "zel_tc_stderr_XXXXXX";
    close(mkstemp(errFile.data()));
    const std::string emulator = zel::vault::programEmulator();
    const std::string command = environment + " " + (emulator.empty() ? "" : emulator + " ") +
                                ZEL_TC_PATH + " " + arguments + " 2>" + errFile;
    FILE* pipe = popen(command.c_str(), "r");
    std::string out;
    char buffer[4096];
    for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, got);
    const int status = pclose(pipe);
    std::ifstream err(errFile);
    std::stringstream errText;
    errText << err.rdbuf();
    unlink(errFile.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, splitLines(out), errText.str()};
}

TEST(ZelTcCliTest, RunsNamedStepsAgainstItsOwnDaemon) {
    const CliRun run = zelTc("run process bist 17");
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out,
              (Lines{"Tessaril Test CA created", "Tessaril Test CA SendCMD: 2",
                     "TEE connection has been set", "Tessaril PROCESS TEST CA RESULT : 0",
                     "Tessaril Test CA created", "Tessaril Test CA SendCMD: 17",
                     "TEE connection has been set", "Tessaril BIST : 17 TEST CA RESULT : 0"}));
    EXPECT_NE(run.err.find("PASS 503 process result 0x00000000"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("PASS 504 bist 17 result 0x00000000"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("2 passed, 0 failed"), std::string::npos) << run.err;
}

TEST(ZelTcCliTest, BadInputIsRefusedBeforeAnythingRuns) {
    for (const char* arguments :
         {"run nosuch", "run bist 18", "run 999", "frobnicate", "run", "run --all process",
          "run 'nosuch*'", "run process --repeat 0", "run process --junit /no/such/dir/r.xml",
          "run process --timeout x", "helper zelResultToStr 1", "helper GetSHA256Hash 0g"}) {
        const CliRun run = zelTc(arguments);
        EXPECT_EQ(run.exitCode, 2) << arguments;
        EXPECT_EQ(run.out, Lines{}) << arguments;
    }
    EXPECT_NE(zelTc("run nosuch").err.find("no step is named 'nosuch'"), std::string::npos);
    EXPECT_NE(zelTc("run bist 18").err.find("bist takes a number from 3 to 17"), std::string::npos);
    EXPECT_NE(zelTc("run 'x*'").err.find("no step matches 'x*'"), std::string::npos);
    EXPECT_NE(zelTc("run").err.find("--all for the whole plan"), std::string::npos);
}

TEST(ZelTcCliTest, HelpersAnswerOnStdout) {
    CliRun run = zelTc("helper zelResultToStr 6 -11");
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.out,
              (Lines{"ZEL result is:", "\t\tZEL: 6", "\t\tFirmware: -IRDO_INVALID_PARAMETER"}));
    run = zelTc("helper GetSHA256Hash 616263");  // "abc", FIPS 180-2
    EXPECT_EQ(run.out, (Lines{"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"}));
    EXPECT_EQ(zelTc("helper base64_encode 666f6f62").out, (Lines{"Zm9vYg=="}));
}

TEST(ZelTcCliTest, ListShowsEveryStepWithItsNumber) {
    const CliRun run = zelTc("list");
    EXPECT_EQ(run.exitCode, 0);
    // A header; raw suites, entry points, the two commands without a scenario, 20 general and 13
    // secure-processor scenarios; then the helpers.
    ASSERT_EQ(run.out.size(), 1u + 42u + 2u + 3u);
    for (const char* row :
         {" 504  bist N (3-17)", "  45  zel_getSlotInfo              0x2D       any",
          "  37  zel_compareData              0x25       2", "  44  zel_removeAkKeys",
          " 506  test_process_inspection      0x20", "  18  ze_updateFW", "      zelResultToStr"}) {
        EXPECT_EQ(std::count_if(run.out.begin(), run.out.end(),
                                [&](const std::string& line) { return line.rfind(row, 0) == 0; }),
                  1)
            << row;
    }
}

using ZelTcAgainstRunningDaemonTest = VaultFixture;

TEST_F(ZelTcAgainstRunningDaemonTest, FailingStepFailsTheRun) {
    ASSERT_EQ(control.failInvocations(zel_test, 7, 0, TEEC_ERROR_GENERIC, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    const CliRun run = zelTc("run --socket " + daemon->socketPath() + " 503 test_lifetime");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("FAIL 503 process result 0x00000004"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("PASS 505 test_lifetime"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("1 passed, 1 failed"), std::string::npos) << run.err;
}

}  // namespace

namespace {

TEST_F(ZelTcAgainstRunningDaemonTest, VaultCommandsArmTheControlTaFromTheShell) {
    const std::string socket = " --socket " + daemon->socketPath();
    EXPECT_EQ(zelTc("vault fail" + socket + " --cmd 0x0d --result BUSY --origin TEE").exitCode, 0);
    CliRun run = zelTc("run" + socket + " process");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(std::find(run.out.begin(), run.out.end(),
                        "TEEC_InvokeCommand() failed for cmd = 13, result = 4294901773, "
                        "retOrigin = 3"),
              run.out.end());
    EXPECT_NE(run.err.find("FAIL 503 process result 0x00000010"), std::string::npos) << run.err;

    // A session or an allocation has no command: those verbs neither need nor take --cmd.
    EXPECT_EQ(zelTc("vault fail-session" + socket + " --result ACCESS_DENIED").exitCode, 0);
    run = zelTc("run" + socket + " test_lifetime");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(std::find(run.out.begin(), run.out.end(),
                        "Failed to open TEE session, result and retOrigin = 4294901761, 4"),
              run.out.end());
    EXPECT_EQ(zelTc("vault fail-alloc" + socket + " --result OUT_OF_MEMORY --count 0").exitCode, 0);
    run = zelTc("run" + socket + " process");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(std::find(run.out.begin(), run.out.end(),
                        "Failed to allocate shared memory, result = 4294901772"),
              run.out.end());
    // The failure mask overflows the summary's result column; its verdict stays a word apart.
    EXPECT_NE(run.err.find("0x10, 0x11) FAIL"), std::string::npos) << run.err;
    EXPECT_EQ(zelTc("vault fail-alloc" + socket + " --cmd 1").exitCode, 2);
    EXPECT_EQ(zelTc("vault reset" + socket).exitCode, 0);

    EXPECT_EQ(zelTc("vault fail" + socket + " --cmd 0 --count 0").exitCode, 0);
    EXPECT_EQ(zelTc("vault reset" + socket).exitCode, 0);
    EXPECT_EQ(zelTc("run" + socket + " test_lifetime").exitCode, 0);

    run = zelTc("vault fail" + socket + " --cmd 1 --result NO_SUCH_RESULT");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("cannot read --result NO_SUCH_RESULT"), std::string::npos);
    EXPECT_EQ(zelTc("vault fail" + socket + " --cmd 1 --uuid 58d50001-1105").exitCode, 2);
    // What the control TA would refuse is refused here, saying why.
    run = zelTc("vault fail" + socket + " --cmd 1 --result TEEC_SUCCESS");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("--result TEEC_SUCCESS (a failure, not success)"), std::string::npos)
        << run.err;
    run = zelTc("vault stall" + socket + " --cmd 1 --ms 60001");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("--ms"), std::string::npos) << run.err;
    EXPECT_EQ(zelTc("vault stall" + socket + " --cmd 1 --ms 60000 --count 1").exitCode, 0);
    run = zelTc("vault script" + socket + " --cmd 1 --reply blob:" + std::string(16400, 'a'));
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("--reply blob:aaaa"), std::string::npos) << run.err;
    EXPECT_LT(run.err.size(), 300u) << run.err;
    EXPECT_EQ(zelTc("vault reset" + socket).exitCode, 0);
    EXPECT_EQ(zelTc("vault reset --socket " + daemon->socketPath() + ".gone").exitCode, 1);
}

}  // namespace

namespace {

TEST_F(ZelTcAgainstRunningDaemonTest, ScenariosTakeTheirDataTypeIndexAndUuid) {
    const std::string socket = " --socket " + daemon->socketPath();
    CliRun run = zelTc("run" + socket + " zel_put --index 7 --data-type 0");
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(Lines(run.out.begin(), run.out.begin() + 6),
              (Lines{"CA Manager created", "CA Manager SendDataToZel: 0", "CaManager zel_put",
                     "Data successfully generated", "index: 7", "uDataSize: 241"}));

    run = zelTc("run" + socket + " get 45 --index 7");  // by short name and by number
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(std::find(run.out.begin(), run.out.end(), "status: 01"), run.out.end());
    EXPECT_NE(run.err.find("PASS 2 zel_get"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("PASS 45 zel_getSlotInfo"), std::string::npos) << run.err;

    run = zelTc("run" + socket + " zel_put --data-type 7");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.out, Lines{});

    // Another TA's UUID: the vault's commands are not there.
    run = zelTc("run" + socket + " zel_openSession --uuid zel_test_a");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(zelTc("run" + socket + " zel_get --uuid not-a-uuid").exitCode, 2);
    EXPECT_EQ(zelTc("run" + socket + " zel_get --index x").exitCode, 2);
}

}  // namespace

namespace {

// The plan, the reports and the isolation of steps, against a daemon the test controls.
class ZelTcReportsTest : public VaultFixture {
  protected:
    void SetUp() override {
        VaultFixture::SetUp();
        socket = " --socket " + daemon->socketPath();
        report = testing::TempDir() + "zel_tc_report_" + std::to_string(getpid());
    }
    void TearDown() override {
        unlink((report + ".xml").c_str());
        unlink((report + ".json").c_str());
        VaultFixture::TearDown();
    }
    // What Python's XML parser reads from the JUnit file: tests, failures, errors, then the
    // names of the failed test cases.
    std::string junitSummary() {
        const std::string script =
            "import sys, xml.etree.ElementTree as E\n"
            "s = E.parse(sys.argv[1]).getroot().find('testsuite')\n"
            "cases = s.findall('testcase')\n"
            "assert len(cases) == int(s.get('tests'))\n"
            "bad = [c.get('name') for c in cases if c.find('failure') is not None or "
            "c.find('error') is not None]\n"
            "print(s.get('tests'), s.get('failures'), s.get('errors'), *bad)\n";
        const std::string command = "python3 -c \"" + script + "\" " + report + ".xml";
        FILE* pipe = popen(command.c_str(), "r");
        char line[512] = {};
        const bool read = fgets(line, sizeof line, pipe) != nullptr;
        pclose(pipe);
        std::string text = read ? line : "";
        if (!text.empty() && text.back() == '\n') text.pop_back();
        return text;
    }

    std::string socket, report;
};

TEST_F(ZelTcReportsTest, PlanPassesWithExpectedFailuresAndFailsWithAnInjectedOne) {
    CliRun run =
        zelTc("run --all" + socket + " --junit " + report + ".xml --json " + report + ".json");
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.err.find("PASS 2 zel_get result 0xFFFF0000 TEEC_ERROR_GENERIC (expected: the "
                           "slot was deleted)"),
              std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("61 passed, 0 failed"), std::string::npos) << run.err;
    EXPECT_EQ(junitSummary(), "61 0 0");
    std::ifstream json(report + ".json");
    std::stringstream jsonText;
    jsonText << json.rdbuf();
    EXPECT_NE(jsonText.str().find("\"passed\": 61,"), std::string::npos);
    EXPECT_NE(jsonText.str().find("\"failed\": 0,"), std::string::npos);

    ASSERT_EQ(control.reset(), TEEC_SUCCESS);
    ASSERT_EQ(control.failInvocations(zel_test, 0x23, 1, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    run = zelTc("run --all" + socket + " --junit " + report + ".xml");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("FAIL 35 zel_aesEncrypt result 0xFFFF0000"), std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("60 passed, 1 failed"), std::string::npos) << run.err;
    EXPECT_EQ(junitSummary(), "61 1 0 zel_aesEncrypt.data2.index2");
}

TEST_F(ZelTcReportsTest, EveryReportNamesTheDeviceAndFirmwareItRanAgainst) {
    const std::string vconf = report + ".vconf", sysinfo = report + ".sysinfo";
    std::ofstream(vconf) << "db/comss/serialnumber=R3CT 0042\n";
    std::ofstream(sysinfo) << "model=ZV-1\nmanufacturer=Tessaril\n";
    const std::string environment = "ZEL_VCONF_FILE=" + vconf + " ZEL_SYSTEM_INFO_FILE=" + sysinfo;
    ASSERT_EQ(control.setSecureProcessor(3, {3, 0, 0, 0, 0xEF, 0xBE, 0xAD, 0xDE}), TEEC_SUCCESS);

    // Without a configuration store nor system information: unavailable, not fatal.
    CliRun run = zelTc("run process" + socket + " --json " + report + ".json");
    EXPECT_EQ(run.exitCode, 0) << run.err;
    // The library's lines of the queries stay out of stdout: the step's four lines only.
    EXPECT_EQ(run.out.size(), 4u);
    EXPECT_NE(run.err.find("zel-tc: identity device.serial=unavailable device.model=unavailable"),
              std::string::npos)
        << run.err;
    run = zelTc("run process" + socket + " --fw-versions --junit " + report + ".xml", environment);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out.size(), 4u);
    EXPECT_NE(run.err.find("zel-tc: identity device.serial=R3CT 0042 device.model=ZV-1 "
                           "device.manufacturer=Tessaril device.platform_name=unavailable"),
              std::string::npos)
        << run.err;
    std::stringstream json, xml;
    json << std::ifstream(report + ".json").rdbuf();
    xml << std::ifstream(report + ".xml").rdbuf();
    const nlohmann::json about = nlohmann::json::parse(json.str())["run"];
    EXPECT_EQ(about["platform"], "host");
    EXPECT_EQ(about["tee"], daemon->socketPath());
    EXPECT_EQ(about["identity"]["device.serial"], "unavailable");
    EXPECT_EQ(about["identity"]["ta.firmware_words"], "0x00000003,0xDEADBEEF");
    for (const char* property :
         {"<property name=\"device.serial\" value=\"R3CT 0042\"",
          "<property name=\"device.build_date\" value=\"unavailable\"",
          "<property name=\"ta.firmware_words\" value=\"0x00000003,0xDEADBEEF\"",
          "<property name=\"ta.system_version\" value=\"1.0.2\"",
          "<property name=\"ta.app_version\" value=\"7.1\""})
        EXPECT_NE(xml.str().find(property), std::string::npos) << property << "\n" << xml.str();
    unlink(vconf.c_str());
    unlink(sysinfo.c_str());
}

TEST_F(ZelTcReportsTest, PatternsRepeatAndStopOnFailure) {
    CliRun run = zelTc("run 'test_*' --repeat 2" + socket);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    for (const char* verdict :
         {"PASS 505 test_lifetime result", "PASS 506 test_process_inspection result",
          "PASS 507 test_get_info result", "PASS 507 test_get_info (round 2) result"})
        EXPECT_NE(run.err.find(verdict), std::string::npos) << verdict << "\n" << run.err;
    EXPECT_NE(run.err.find("6 passed, 0 failed"), std::string::npos) << run.err;

    ASSERT_EQ(control.failInvocations(zel_test, 0, 0, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    run = zelTc("run test_lifetime process --stop-on-failure" + socket);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err.find("503 process"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("0 passed, 1 failed"), std::string::npos) << run.err;
}

TEST_F(ZelTcReportsTest, HungStepIsKilledNamedAndTheRunGoesOn) {
    // The stalled TA holds its lock, so the next step talks to the other TA.
    ASSERT_EQ(control.stallInvocations(zel_test, 0, 1, 5000), TEEC_SUCCESS);
    const CliRun run = zelTc("run test_lifetime test_process_inspection --timeout 1 --junit " +
                             report + ".xml" + socket);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("HUNG 505 test_lifetime result hung, killed after 1 s"),
              std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("PASS 506 test_process_inspection"), std::string::npos) << run.err;
    EXPECT_EQ(junitSummary(), "2 0 1 test_lifetime");
}

TEST_F(ZelTcReportsTest, StdoutIsExactlyWhatTheLibraryPrints) {
    Lines direct;
    {
        setenv("ZEL_TEE_SOCKET", daemon->socketPath().c_str(), 1);
        OutputCapture output;
        EXPECT_EQ(CaManager(1, 0, zel_test, 3).SendDataToZel(), 0);
        EXPECT_EQ(CaManager(1, 2, zel_test, 3).SendDataToZel(), 0);
        direct = output.lines();
    }
    const CliRun run = zelTc("run zel_put zel_get --data-type 1 --index 3" + socket);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, direct);
}

}  // namespace

namespace {

TEST(ZelTcVaultTest, StartScriptAnswerStatusAndStopFromTheShell) {
    std::string directory = testing::TempDir() + "zel_tc_vault_XXXXXX";
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    const std::string socket = " --socket " + directory + "/socket";
    CliRun run = zelTc("vault start" + socket);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    run = zelTc("vault start" + socket);  // taken: the refusal says why, not only where to look
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("before listening: zel-vaultd: another daemon is listening on " +
                           directory + "/socket (its log: "),
              std::string::npos)
        << run.err;
    run = zelTc("vault status" + socket);
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_NE(std::find(run.out.begin(), run.out.end(), "  control TA: yes"), run.out.end());

    EXPECT_EQ(
        zelTc("vault script" + socket + " --uuid zel_test_a --cmd 0x27 --reply 'int:2 blob:abcd'")
            .exitCode,
        0);
    run = zelTc("run zel_getHackInfo" + socket);
    EXPECT_EQ(run.out.back(), "hack status: abcd00000000000000");
    EXPECT_EQ(zelTc("vault answer" + socket + " --hack-status 01").exitCode, 0);
    run = zelTc("run zel_selfTestAll" + socket);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("FAIL 32 zel_selfTestAll result 0xFFFF000F TEEC_ERROR_SECURITY"),
              std::string::npos)
        << run.err;
    EXPECT_EQ(zelTc("vault script" + socket + " --cmd 2 --reply 'int:x'").exitCode, 2);

    EXPECT_EQ(zelTc("vault stop" + socket).exitCode, 0);
    EXPECT_EQ(zelTc("vault status" + socket).exitCode, 1);
    EXPECT_EQ(zelTc("vault stop" + socket).exitCode, 1);  // nothing left to stop
    unlink((directory + "/socket.log").c_str());          // the daemon's log outlives it, by design
    EXPECT_EQ(rmdir(directory.c_str()), 0) << "vault stop left files in " << directory;
}

TEST(ZelTcCliTest, BenchTimesStepsAndCommandsAndJudgesAgainstABaseline) {
    const std::string report = testing::TempDir() + "zel_tc_bench.json";
    const CliRun bench = zelTc("bench zel_getSlotInfo --command 0x2D --count 5 --json " + report);
    ASSERT_EQ(bench.exitCode, 0) << bench.err;
    ASSERT_EQ(bench.out.size(), 3u) << "a header and a row per step, no library lines";
    EXPECT_EQ(bench.out[1].rfind("zel_getSlotInfo ", 0), 0u) << bench.out[1];
    EXPECT_EQ(bench.out[2].rfind("command 0x2D ", 0), 0u) << bench.out[2];
    std::ifstream in(report);
    const nlohmann::json written = nlohmann::json::parse(in, nullptr, false);
    ASSERT_TRUE(written.is_object()) << "the report is not JSON";
    EXPECT_EQ(written["run"]["platform"], "host");
    ASSERT_EQ(written["steps"].size(), 2u);
    for (const nlohmann::json& step : written["steps"]) {
        EXPECT_EQ(step["runs"], 5);
        EXPECT_EQ(step["failures"], 0);
        EXPECT_GT(step["p50_us"].get<double>(), 0);
        EXPECT_LE(step["p50_us"].get<double>(), step["p90_us"].get<double>());
        EXPECT_LE(step["p90_us"].get<double>(), step["p99_us"].get<double>());
        EXPECT_LE(step["p99_us"].get<double>(), step["max_us"].get<double>());
        EXPECT_GT(step["commands_per_s"].get<double>(), 0);
    }

    // Against a baseline no real run can match, and one no real run can miss.
    const std::string baseline = testing::TempDir() + "zel_tc_bench_baseline.json";
    std::ofstream(baseline) << R"({"steps": [{"name": "command 0x2D", "p50_us": 0.001}]})";
    const CliRun slower = zelTc("bench --command 0x2D --count 3 --baseline " + baseline);
    EXPECT_EQ(slower.exitCode, 1) << slower.err;
    EXPECT_NE(slower.err.find("command 0x2D: p50"), std::string::npos) << slower.err;
    EXPECT_NE(slower.err.find("SLOWER than the threshold"), std::string::npos) << slower.err;
    std::ofstream(baseline) << R"({"steps": [{"name": "command 0x2D", "p50_us": 1e12}]})";
    EXPECT_EQ(zelTc("bench --command 0x2D --count 3 --baseline " + baseline).exitCode, 0);

    // For a time instead of a count: runs until the time is up, and says so in the report.
    ASSERT_EQ(zelTc("bench bist 3 --seconds 0.3 --json " + report).exitCode, 0);
    std::ifstream timedIn(report);
    const nlohmann::json timed = nlohmann::json::parse(timedIn, nullptr, false);
    ASSERT_TRUE(timed.is_object());
    EXPECT_DOUBLE_EQ(timed["run"]["seconds"].get<double>(), 0.3);
    ASSERT_EQ(timed["steps"].size(), 1u);
    EXPECT_EQ(timed["steps"][0]["name"], "bist 3");
    EXPECT_GE(timed["steps"][0]["runs"].get<int>(), 1);
    EXPECT_GE(timed["steps"][0]["seconds"].get<double>(), 0.3);

    // A command the TA refuses is timed, and the run fails.
    const CliRun refused = zelTc("bench --command 0x99 --count 3");
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("command 0x99: 3 of 3 runs did not pass"), std::string::npos)
        << refused.err;

    for (const std::string& arguments :
         {std::string("bench"), std::string("bench nosuch"), std::string("bench --command zz"),
          std::string("bench --command -1"), std::string("bench --command 0x100000000"),
          std::string("bench --command 0 --count 2 --seconds 1"),
          std::string("bench --command 0 --count 0"),
          std::string("bench --command 0 --threshold -5"),
          "bench --command 0 --baseline " + testing::TempDir() + "no_such_baseline.json",
          std::string("bench --command 0 --json /no/such/dir/b.json")}) {
        const CliRun run = zelTc(arguments);
        EXPECT_EQ(run.exitCode, 2) << arguments;
        EXPECT_EQ(run.out, Lines{}) << arguments;
    }
    unlink(report.c_str());
    unlink(baseline.c_str());
}

}  // namespace
