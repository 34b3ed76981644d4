// zel-tc's `vault` verbs from a shell: arming the control TA, and a daemon that outlives zel-tc.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "interface/zel_ta_ids.h"
#include "vault_fixture.h"
#include "zel_tc_run.h"

namespace {

using ZelTcVaultCommandsTest = VaultFixture;

TEST_F(ZelTcVaultCommandsTest, VaultCommandsArmTheControlTaFromTheShell) {
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

}  // namespace
