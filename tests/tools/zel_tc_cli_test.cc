// zel-tc as a user runs it: its stdout is the library's lines only, its verdicts and exit code
// follow the steps' results.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "interface/zel_ta_ids.h"
#include "output_capture.h"
#include "vault_fixture.h"

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

CliRun zelTc(const std::string& arguments) {
    // Tests run in parallel processes: each call gets a file of its own.
    std::string errFile = testing::TempDir() + "zel_tc_stderr_XXXXXX";
    close(mkstemp(errFile.data()));
    const std::string emulator = zel::vault::programEmulator();
    const std::string command =
        (emulator.empty() ? "" : emulator + " ") + ZEL_TC_PATH + " " + arguments + " 2>" + errFile;
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
    for (const char* arguments : {"run nosuch", "run bist 18", "run 999", "frobnicate"}) {
        const CliRun run = zelTc(arguments);
        EXPECT_EQ(run.exitCode, 2) << arguments;
        EXPECT_EQ(run.out, Lines{}) << arguments;
    }
    EXPECT_NE(zelTc("run nosuch").err.find("no step is named 'nosuch'"), std::string::npos);
    EXPECT_NE(zelTc("run bist 18").err.find("bist takes a number from 3 to 17"), std::string::npos);
}

TEST(ZelTcCliTest, ListShowsEveryStepWithItsNumber) {
    const CliRun run = zelTc("list");
    EXPECT_EQ(run.exitCode, 0);
    // Raw suites, entry points, the two commands without a scenario, 20 general and 13
    // secure-processor scenarios.
    ASSERT_EQ(run.out.size(), 42u);
    for (const char* row :
         {" 504  bist N (3-17)", "  45  zel_getSlotInfo", "  44  zel_removeAkKeys",
          " 506  test_process_inspection", "  18  ze_updateFW"}) {
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

    EXPECT_EQ(zelTc("vault fail" + socket + " --cmd 0 --count 0").exitCode, 0);
    EXPECT_EQ(zelTc("vault reset" + socket).exitCode, 0);
    EXPECT_EQ(zelTc("run" + socket + " test_lifetime").exitCode, 0);

    run = zelTc("vault fail" + socket + " --cmd 1 --result NO_SUCH_RESULT");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("cannot read --result NO_SUCH_RESULT"), std::string::npos);
    EXPECT_EQ(zelTc("vault fail" + socket + " --cmd 1 --uuid 58d50001-1105").exitCode, 2);
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
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out.back(), "Unknown data type");
    EXPECT_NE(run.err.find("FAIL 0 zel_put result 0xFFFF0000 TEEC_ERROR_GENERIC"),
              std::string::npos)
        << run.err;

    // Another TA's UUID: the vault's commands are not there.
    run = zelTc("run" + socket + " zel_openSession --uuid zel_test_a");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(zelTc("run" + socket + " zel_get --uuid not-a-uuid").exitCode, 2);
    EXPECT_EQ(zelTc("run" + socket + " zel_get --index x").exitCode, 2);
}

}  // namespace
