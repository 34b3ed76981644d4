// zel-tc's `vault` verbs from a shell: arming the control TA, and a daemon that outlives zel-tc.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "interface/zel_ta_ids.h"
#include "vault_fixture.h"
#include "zel_tc_run.h"

namespace {

using ZelTcVaultCommandsTest = VaultFixture;

// A verb refused before it reaches the vault: exit 2, the reason said in a line, not a dump.
void expectRefused(const std::string& arguments, const std::string& says) {
    const CliRun run = zelTc("vault " + arguments);
    EXPECT_EQ(run.exitCode, 2) << arguments;
    EXPECT_TRUE(contains(run.err, says)) << arguments;
    EXPECT_LT(run.err.size(), 300u) << run.err;
}

// `vault fail` of one command is the README's session, run by readme_sessions.
TEST_F(ZelTcVaultCommandsTest, VaultCommandsArmTheControlTaFromTheShell) {
    const std::string socket = " --socket " + daemon->socketPath();
    // A session or an allocation has no command: those verbs neither need nor take --cmd.
    EXPECT_EQ(zelTc("vault fail-session" + socket + " --result ACCESS_DENIED").exitCode, 0);
    CliRun run = zelTc("run" + socket + " test_lifetime");
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
    EXPECT_TRUE(contains(run.err, "0x10, 0x11) FAIL"));
    expectRefused("fail-alloc --cmd 1" + socket, "not expected: 1 --cmd");
    EXPECT_EQ(zelTc("vault reset" + socket).exitCode, 0);

    EXPECT_EQ(zelTc("vault fail" + socket + " --cmd 0 --count 0").exitCode, 0);
    EXPECT_EQ(zelTc("vault reset" + socket).exitCode, 0);
    EXPECT_EQ(zelTc("run" + socket + " test_lifetime").exitCode, 0);

    expectRefused("fail --cmd 1 --result NO_SUCH_RESULT" + socket,
                  "cannot read --result NO_SUCH_RESULT");
    expectRefused("fail --cmd 1 --uuid 58d50001-1105" + socket, "cannot read --uuid");
    // What the control TA would refuse is refused here, saying why.
    expectRefused("fail --cmd 1 --result TEEC_SUCCESS" + socket,
                  "--result TEEC_SUCCESS (a failure, not success)");
    expectRefused("stall --cmd 1 --ms 60001" + socket, "--ms");
    EXPECT_EQ(zelTc("vault stall" + socket + " --cmd 1 --ms 60000 --count 1").exitCode, 0);
    expectRefused("script --cmd 1 --reply blob:" + std::string(16400, 'a') + socket,
                  "--reply blob:aaaa");
    EXPECT_EQ(zelTc("vault reset --socket " + daemon->socketPath() + ".gone").exitCode, 1);
}

TEST(ZelTcVaultTest, StartScriptAnswerStatusAndStopFromTheShell) {
    std::string directory = testing::TempDir() + "zel_tc_vault_XXXXXX";
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    const std::string socket = " --socket " + directory + "/socket";
    // Command substitution waits for every writer of the pipe: the daemon must hold none.
    const auto [started, said] = shell("out=$(timeout 20 " + zelTcCommand() + " vault start" +
                                       socket + " 2>&1); echo \"$? $out\"");
    ASSERT_EQ(said.rfind("0 zel-vaultd ", 0), 0u) << said;
    const pid_t pid = std::stoi(readFile(directory + "/socket.pid"));
    // Its standard streams are its own, and nothing else of the caller's is open in it.
    const auto descriptor = [pid](const std::string& fd) {
        char target[256] = {};
        const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + fd;
        return readlink(link.c_str(), target, sizeof target - 1) > 0 ? std::string(target) : "";
    };
    EXPECT_EQ(descriptor("0"), "/dev/null");
    EXPECT_EQ(descriptor("1"), "/dev/null");
    EXPECT_EQ(descriptor("2"), directory + "/socket.log");
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd"))
        EXPECT_FALSE(contains(descriptor(entry.path().filename()), "pipe:"));
    EXPECT_EQ(getsid(pid), pid);

    // Taken: the refusal says why, not only where to look.
    CliRun run = zelTc("vault start" + socket);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(contains(run.err, "before listening: zel-vaultd: another daemon is listening on " +
                                      directory + "/socket (its log: "));
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
    EXPECT_TRUE(contains(run.err, "FAIL 32 zel_selfTestAll result 0xFFFF000F TEEC_ERROR_SECURITY"));
    expectRefused("script --cmd 2 --reply 'int:x'" + socket, "cannot read --reply int:x");

    EXPECT_EQ(shell(zelTcCommand() + " vault stop" + socket),
              std::make_pair(0, "zel-vaultd " + std::to_string(pid) + " stopped\n"));
    EXPECT_EQ(zelTc("vault status" + socket).exitCode, 1);
    EXPECT_EQ(zelTc("vault stop" + socket).exitCode, 1);  // nothing left to stop
    unlink((directory + "/socket.log").c_str());          // the daemon's log outlives it, by design
    EXPECT_EQ(rmdir(directory.c_str()), 0) << "vault stop left files in " << directory;
}

}  // namespace
