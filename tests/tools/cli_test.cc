// zel-tc as a user runs it: its stdout is the library's lines only, its verdicts and exit code
// follow the steps' results.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <fstream>

#include "interface/zel_ta_ids.h"
#include "output_capture.h"
#include "vault_fixture.h"
#include "zel_tc_run.h"

namespace {

TEST(ZelTcCliTest, HelpersAnswerOnStdout) {
    CliRun run = zelTc("helper zelResultToStr 6 -11");
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.out,
              (Lines{"ZEL result is:", "\t\tZEL: 6", "\t\tFirmware: -IRDO_INVALID_PARAMETER"}));
    run = zelTc("helper GetSHA256Hash 616263");  // "abc", FIPS 180-2
    EXPECT_EQ(run.out, (Lines{"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"}));
    EXPECT_EQ(zelTc("helper base64_encode 666f6f62").out, (Lines{"Zm9vYg=="}));
}

using ZelTcAgainstRunningDaemonTest = VaultFixture;

TEST_F(ZelTcAgainstRunningDaemonTest, ScenariosTakeTheirDataTypeIndexAndUuid) {
    const std::string socket = " --socket " + daemon->socketPath();
    CliRun run = zelTc("run" + socket + " zel_put --index 7 --data-type 0");
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(Lines(run.out.begin(), run.out.begin() + 6),
              (Lines{"CA Manager created", "CA Manager SendDataToZel: 0", "CaManager zel_put",
                     "Data successfully generated", "index: 7", "uDataSize: 241"}));

    run = zelTc("run" + socket + " get --index 7");  // by its short name
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(contains(run.err, "PASS 2 zel_get"));

    // Another TA's UUID: the vault's commands are not there.
    run = zelTc("run" + socket + " zel_openSession --uuid zel_test_a");
    EXPECT_EQ(run.exitCode, 1);
}

TEST_F(ZelTcAgainstRunningDaemonTest, EveryReportNamesTheDeviceAndFirmwareItRanAgainst) {
    const std::string socket = " --socket " + daemon->socketPath();
    const std::string report = testing::TempDir() + "zel_tc_report_" + std::to_string(getpid());
    const std::string vconf = report + ".vconf", sysinfo = report + ".sysinfo";
    std::ofstream(vconf) << "db/comss/serialnumber=R3CT 0042\n";
    std::ofstream(sysinfo) << "model=ZV-1\nmanufacturer=Tessaril\n";
    const std::string environment = "ZEL_VCONF_FILE=" + vconf + " ZEL_SYSTEM_INFO_FILE=" + sysinfo;
    ASSERT_EQ(control.setSecureProcessor(3, {3, 0, 0, 0, 0xEF, 0xBE, 0xAD, 0xDE}), TEEC_SUCCESS);

    // Without them the identity is unavailable, not fatal: the README's session shows it.
    const CliRun run = zelTc("run process" + socket + " --fw-versions --junit " + report +
                                 ".xml --json " + report + ".json",
                             environment);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    // The library's lines of the queries stay out of stdout: the step's four lines only.
    EXPECT_EQ(run.out.size(), 4u);
    EXPECT_TRUE(contains(run.err,
                         "zel-tc: identity device.serial=R3CT 0042 device.model=ZV-1 "
                         "device.manufacturer=Tessaril device.platform_name=unavailable"));
    const nlohmann::json about = nlohmann::json::parse(readFile(report + ".json"))["run"];
    const std::string xml = readFile(report + ".xml");
    EXPECT_EQ(about["platform"], "host");
    EXPECT_EQ(about["tee"], daemon->socketPath());
    EXPECT_EQ(about["identity"]["ta.firmware_words"], "0x00000003,0xDEADBEEF");
    for (const char* property :
         {"<property name=\"device.build_date\" value=\"unavailable\"",
          "<property name=\"ta.firmware_words\" value=\"0x00000003,0xDEADBEEF\"",
          "<property name=\"ta.system_version\" value=\"1.0.2\"",
          "<property name=\"ta.app_version\" value=\"7.1\""})
        EXPECT_TRUE(contains(xml, property)) << property;
    for (const char* suffix : {".vconf", ".sysinfo", ".xml", ".json"})
        unlink((report + suffix).c_str());
}

TEST_F(ZelTcAgainstRunningDaemonTest, PatternsRepeatAndStopOnFailure) {
    const std::string socket = " --socket " + daemon->socketPath();
    CliRun run = zelTc("run 'test_*' --repeat 2" + socket);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(contains(run.err, "PASS 507 test_get_info (round 2) result"));
    EXPECT_TRUE(contains(run.err, "6 passed, 0 failed"));

    ASSERT_EQ(control.failInvocations(zel_test, 0, 0, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    run = zelTc("run test_lifetime process --stop-on-failure" + socket);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_FALSE(contains(run.err, "503 process"));
    EXPECT_TRUE(contains(run.err, "0 passed, 1 failed"));
}

}  // namespace
