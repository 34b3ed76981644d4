// zel-tc fuzz against a real zel-vaultd: each kind of finding made to happen through the control
// TA and caught at its call, a block-filling blob, and a short campaign against the clean vault
// that must find nothing. Replay is scripts/fuzz-planted-check.sh's: it replays each planted
// fault's reproducer on the planted vault and on the clean one.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <fstream>

#include "fuzz/executor.h"
#include "fuzz/request.h"
#include "interface/zel_ta_ids.h"
#include "vault_fixture.h"
#include "wsm_message.h"
#include "zel_tc_run.h"

namespace {

using namespace zel::tc::fuzz;

class FuzzE2eTest : public VaultFixture {
  protected:
    Verdict run(Sequence calls) { return Executor(5000).run(calls, true); }
};

TEST_F(FuzzE2eTest, EachKindOfFindingIsCaughtAtItsCall) {
    const Sequence calls = {{Ta::kVault,
                             zel::cmd::zel_put,
                             {Field::integer(2), Field::unsignedInt(3), Field::blob({1, 2, 3})}},
                            {Ta::kVault, zel::cmd::zel_get, {Field::integer(2)}},
                            {Ta::kVault, zel::cmd::zel_getSlotInfo, {Field::integer(2)}}};
    const struct {
        TEEC_Result result;
        uint32_t origin;
        FindingKind kind;
    } answers[] = {
        {0x16, TEEC_ORIGIN_TRUSTED_APP, FindingKind::kNonGpResult},
        {TEEC_ERROR_TARGET_DEAD, TEEC_ORIGIN_TEE, FindingKind::kTaDead},
        {TEEC_ERROR_GENERIC, TEEC_ORIGIN_COMMS, FindingKind::kCommsError},
    };
    for (const auto& answer : answers) {
        ASSERT_EQ(
            control.failInvocations(zel_test, zel::cmd::zel_get, 1, answer.result, answer.origin),
            TEEC_SUCCESS);
        const Verdict seen = run(calls);
        EXPECT_EQ(seen.kind, answer.kind) << std::hex << answer.result << " " << seen.detail;
        EXPECT_EQ(seen.result, answer.result);
        EXPECT_EQ(seen.origin, answer.origin);
        EXPECT_EQ(seen.call, 1u);
        EXPECT_EQ(seen.callsRun, 2u);  // it stops at the finding
    }

    // A success whose reply is a Uint where an Int was due, then one that ends after the Int.
    for (const auto& reply : {WsmMessage().u(1).u(3).bytes(), WsmMessage().i(1).bytes()}) {
        ASSERT_EQ(control.scriptReply(zel_test, zel::cmd::zel_getSlotInfo, 1, reply), TEEC_SUCCESS);
        const Verdict seen = run(calls);
        EXPECT_EQ(seen.kind, FindingKind::kReplyShape);
        EXPECT_EQ(seen.call, 2u);
        EXPECT_TRUE(contains(seen.detail, "reply field"));
    }

    // A call that does not come back in time, and the fuzzer goes on with a fresh worker.
    ASSERT_EQ(control.stallInvocations(zel_test, zel::cmd::zel_get, 1, 1500), TEEC_SUCCESS);
    {
        Executor executor(200);
        Sequence stalled = calls;
        const Verdict hang = executor.run(stalled, true);
        EXPECT_EQ(hang.kind, FindingKind::kHang);
        EXPECT_EQ(hang.call, 1u);
        usleep(1600 * 1000);
        Sequence again = calls;
        EXPECT_EQ(executor.run(again, true).kind, FindingKind::kNone);
    }

    // A TA that opens no session after the commands.
    ASSERT_EQ(control.failOpenSession(zel_test_a, 2, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    const Verdict lost = run({{Ta::kSecureProcessor, zel::cmd::zel_getInfo, {}}});
    EXPECT_EQ(lost.kind, FindingKind::kSessionLost);
    EXPECT_EQ(lost.result, TEEC_ERROR_BUSY);
}

TEST_F(FuzzE2eTest, AFillBlobTakesTheRestOfTheBlockAndWhatDoesNotFitIsDropped) {
    Call filling{Ta::kVault,
                 zel::cmd::zel_compareData,
                 {Field::integer(1), Field::unsignedInt(0), Field::blob({})}};
    filling.fields.back().fill = true;
    filling.fields.push_back(Field::integer(5));  // no room left for it
    Sequence calls = {filling};
    Executor executor(5000);
    const Verdict seen = executor.run(calls, true);
    EXPECT_EQ(seen.kind, FindingKind::kNone) << seen.detail;
    EXPECT_EQ(seen.result, TEEC_ERROR_BAD_FORMAT);  // its length field disagrees
    ASSERT_EQ(calls[0].fields.size(), 3u);
    const size_t size = calls[0].fields[2].bytes.size();
    // The block is 8192 bytes; three fields' headers and the end marker take a few of them.
    EXPECT_GT(size, 8192u - 64);
    EXPECT_LT(size, 8192u);
    EXPECT_FALSE(calls[0].fields[2].fill);
    // What was recorded is what was sent: sent again, it fills the block the same way.
    Sequence again = calls;
    executor.run(again, true);
    EXPECT_EQ(again, calls);
}

// The AK keys the generator makes are keys the TA takes, so that the provisioning chain builds
// the state its later commands need: the check then matches the key just provisioned.
TEST_F(FuzzE2eTest, GeneratedAkKeysAreProvisionedAndThenMatch) {
    const CommandSpec* provision = findCommand("zel_akProvision");
    ASSERT_NE(provision, nullptr);
    Generator generator(5, {provision});
    int matched = 0;
    for (int i = 0; i < 20; ++i) {
        const Call key = generator.wellFormedCall(*provision, 0);
        const Call check{Ta::kSecureProcessor, zel::cmd::zel_checkZelAk, key.fields};
        const Verdict verdict = run({key, check});
        EXPECT_EQ(verdict.kind, FindingKind::kNone) << verdict.detail;
        if (verdict.callsRun == 2 && verdict.result == TEEC_SUCCESS) ++matched;
    }
    EXPECT_GE(matched, 6);
}

// The fuzzer against the clean vault, on a daemon of its own: it covers every command and finds
// nothing.
TEST(FuzzSmokeTest, TwentySecondsAgainstTheCleanVaultFindNothing) {
    const std::string dir = testing::TempDir() + "fuzz_smoke";
    const std::string json = dir + ".json";
    const CliRun run =
        zelTc("fuzz --seconds 20 --seed 20 --quiet --out " + dir + " --json " + json);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    std::ifstream in(json);
    const nlohmann::json summary = nlohmann::json::parse(in, nullptr, false);
    EXPECT_EQ(summary["findings"], nlohmann::json::array()) << summary;
    EXPECT_EQ(summary["commands_covered"], 35) << summary;
    EXPECT_EQ(summary["seed"], 20) << summary;
    EXPECT_GT(summary["executions_per_second"].get<double>(), 0.0) << summary;
    EXPECT_TRUE(contains(run.err, "0 findings"));
    std::remove(json.c_str());
}

}  // namespace
