// zel-tc fuzz's pieces that need no TEE: the generator's mutations and seeding, the reproducer
// file, and the delta debugging that shrinks a finding.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <set>

#include "fuzz/reproducer.h"
#include "fuzz/request.h"
#include "interface/zel_ta_ids.h"
#include "output_capture.h"

namespace {

using namespace zel::tc::fuzz;

std::vector<Sequence> generate(uint64_t seed, size_t count,
                               std::vector<const CommandSpec*> commands = {}) {
    Generator generator(seed, std::move(commands));
    std::vector<Sequence> all;
    for (size_t i = 0; i < count; ++i) all.push_back(generator.next());
    return all;
}

TEST(FuzzTableTest, EveryCommandOfTheLibraryHasOneRowWithItsName) {
    std::set<std::pair<Ta, uint32_t>> rows;
    for (const CommandSpec& spec : commandTable()) {
        EXPECT_STRNE(spec.name, "") << "id " << spec.id << " is not in the library's table";
        EXPECT_TRUE(rows.insert({spec.ta, spec.id}).second) << spec.name << " twice";
    }
    for (const zel::CommandId& command : zel::kGeneralCommands)
        EXPECT_TRUE(rows.count({Ta::kVault, command.id})) << command.name << " has no row";
    for (const zel::CommandId& command : zel::kSecureProcessorCommands)
        EXPECT_TRUE(rows.count({Ta::kSecureProcessor, command.id})) << command.name;
    EXPECT_EQ(findCommand("put"), findCommand(Ta::kVault, zel::cmd::zel_put));
    EXPECT_EQ(findCommand("0x2c"), findCommand(Ta::kSecureProcessor, zel::cmd::zel_removeAkKeys));
    EXPECT_EQ(findCommand("nonsense"), nullptr);
    EXPECT_EQ(findCommand("0x2c junk"), nullptr);
}

TEST(FuzzGeneratorTest, SameSeedSameSequencesAndTheSelectionHolds) {
    EXPECT_EQ(generate(7, 300), generate(7, 300));
    EXPECT_NE(generate(7, 300), generate(8, 300));

    const CommandSpec* put = findCommand("zel_put");
    const CommandSpec* getHash = findCommand("zel_getHash");
    size_t calls = 0;
    for (const Sequence& sequence : generate(3, 500, {put, getHash})) {
        for (const Call& call : sequence) {
            ++calls;
            // Only the selection, or an id no TA knows (one of the mutations).
            const CommandSpec* spec = findCommand(call.ta, call.id);
            EXPECT_TRUE(!spec || spec == put || spec == getHash) << describe(call);
        }
    }
    EXPECT_GT(calls, 500u);
}

TEST(FuzzGeneratorTest, MutationsReachEveryBoundary) {
    std::set<int32_t> ints;
    std::set<size_t> blobSizes;
    size_t lengthMismatch = 0, emptyWithFields = 0, fill = 0, unknownId = 0, wellFormedCalls = 0,
           stateful = 0;
    for (const Sequence& sequence : generate(11, 20000)) {
        // The state-building chains: put then getHash of the same index, in one sequence.
        for (size_t i = 0; i + 1 < sequence.size(); ++i)
            if (sequence[i].id == zel::cmd::zel_put && sequence[i + 1].id == zel::cmd::zel_get &&
                wellFormed(sequence[i]) && wellFormed(sequence[i + 1]) &&
                sequence[i].fields[0] == sequence[i + 1].fields[0])
                ++stateful;
        for (const Call& call : sequence) {
            const CommandSpec* spec = findCommand(call.ta, call.id);
            if (!spec) {
                ++unknownId;
                continue;
            }
            if (wellFormed(call)) ++wellFormedCalls;
            if (call.fields.empty() && !spec->request.empty()) ++emptyWithFields;
            for (size_t i = 0; i < call.fields.size(); ++i) {
                const Field& field = call.fields[i];
                if (field.type == Field::Type::kInt) ints.insert(static_cast<int32_t>(field.value));
                if (field.type == Field::Type::kBlob) blobSizes.insert(field.bytes.size());
                if (field.fill) ++fill;
                if (field.type == Field::Type::kBlob && i > 0 &&
                    call.fields[i - 1].type == Field::Type::kUint &&
                    call.fields[i - 1].value != field.bytes.size())
                    ++lengthMismatch;
            }
        }
    }
    for (int32_t value : {0, 1, -1, INT_MIN, INT_MAX})
        EXPECT_TRUE(ints.count(value)) << "never sent int " << value;
    for (size_t size : {0, 1, 15, 16, 17, 4095, 4096, 4097, 8192, 8193})
        EXPECT_TRUE(blobSizes.count(size)) << "never sent a blob of " << size << " bytes";
    EXPECT_GT(lengthMismatch, 0u);
    EXPECT_GT(emptyWithFields, 0u);
    EXPECT_GT(fill, 0u);
    EXPECT_GT(unknownId, 0u);
    EXPECT_GT(stateful, 0u);
    // Most requests are ones the TA takes, so that state gets built.
    EXPECT_GT(wellFormedCalls, 40000u);
}

Reproducer sample() {
    Reproducer r;
    r.kind = FindingKind::kNonGpResult;
    r.result = 0x16;
    r.origin = TEEC_ORIGIN_TRUSTED_APP;
    r.seed = 18446744073709551615ull;
    r.detail = "result 0x00000016 is no GlobalPlatform code";
    std::vector<uint8_t> big(8000);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 7);
    r.calls = {
        {Ta::kVault,
         zel::cmd::zel_put,
         {Field::integer(INT_MIN), Field::unsignedInt(8000), Field::blob(big)}},
        {Ta::kVault, 0xFFFFFFFFu, {}},
        {Ta::kSecureProcessor,
         zel::cmd::ze_updateFW,
         {Field::integer(-1), Field::unsignedInt(UINT32_MAX), Field::blob({})}},
        {Ta::kVault, zel::cmd::zel_decryptByKey, {Field::integer(INT_MAX)}},
    };
    return r;
}

TEST(FuzzReproducerTest, RoundTripsThroughItsFile) {
    const Reproducer written = sample();
    const std::string path = testing::TempDir() + "fuzz_roundtrip.repro";
    std::string error;
    ASSERT_TRUE(writeReproducer(path, written, error)) << error;
    Reproducer read;
    ASSERT_TRUE(readReproducer(path, read, error)) << error;
    std::remove(path.c_str());
    EXPECT_EQ(read.kind, written.kind);
    EXPECT_EQ(read.result, written.result);
    EXPECT_EQ(read.origin, written.origin);
    EXPECT_EQ(read.seed, written.seed);
    EXPECT_EQ(read.detail, written.detail);
    EXPECT_EQ(read.calls, written.calls);
}

TEST(FuzzReproducerTest, BadFilesAreRefusedNamingTheLine) {
    const std::string good = formatReproducer(sample());
    const std::string header = good.substr(0, good.find("call "));
    const struct {
        std::string text;
        std::string says;
    } cases[] = {
        {"", "line 0: empty file"},
        {"zel-tc-reproducer 2\n", "line 1: not a zel-tc reproducer"},
        {header + "call zel_test 0x00 int:2147483648\n", "line 7: bad field \"int:2147483648\""},
        {header + "call zel_test 0x00 uint:-1\n", "line 7: bad field"},
        {header + "call zel_test 0x00 blob:abc\n", "line 7: bad field"},
        {header + "call zel_test 0x00 blob:zz\n", "line 7: bad field"},
        {header + "call other_ta 0x00\n", "line 7: a call needs a TA"},
        {header + "call zel_test 0x1g\n", "line 7: bad command id"},
        {header + "frobnicate\n", "line 7: unknown line"},
        {header, "no call line"},
        {"zel-tc-reproducer 1\nkind explosion\n", "line 2: unknown finding kind"},
        {"zel-tc-reproducer 1\ncall zel_test 0x00\n", "no kind line"},
    };
    for (const auto& c : cases) {
        Reproducer r;
        std::string error;
        EXPECT_FALSE(parseReproducer(c.text, r, error)) << c.text;
        EXPECT_TRUE(contains(error, c.says)) << c.text;
    }
    Reproducer r;
    std::string error;
    EXPECT_FALSE(readReproducer(testing::TempDir() + "no-such.repro", r, error));
    EXPECT_TRUE(contains(error, "cannot read"));
    // An endless file is refused, not read forever.
    EXPECT_FALSE(readReproducer("/dev/zero", r, error));
    EXPECT_TRUE(contains(error, "/dev/zero: larger than 4 MiB"));
}

Sequence numbered(size_t count) {
    Sequence calls;
    for (size_t i = 0; i < count; ++i) calls.push_back({Ta::kVault, static_cast<uint32_t>(i), {}});
    return calls;
}

TEST(FuzzMinimizeTest, KeepsOnlyTheCallsTheFindingNeeds) {
    size_t tests = 0;
    // The finding needs calls 3 and 11 before the last one (19), in that order.
    const auto needs3And11 = [&](const Sequence& calls) {
        ++tests;
        size_t at3 = calls.size(), at11 = calls.size();
        for (size_t i = 0; i < calls.size(); ++i) {
            if (calls[i].id == 3) at3 = i;
            if (calls[i].id == 11) at11 = i;
        }
        return at3 < at11 && at11 < calls.size() && calls.back().id == 19;
    };
    const Sequence minimal = minimize(numbered(20), needs3And11, 200);
    ASSERT_EQ(minimal.size(), 3u);
    EXPECT_EQ(minimal[0].id, 3u);
    EXPECT_EQ(minimal[1].id, 11u);
    EXPECT_EQ(minimal[2].id, 19u);
    EXPECT_LE(tests, 60u);

    EXPECT_EQ(minimize(
                  numbered(24), [](const Sequence& c) { return c.back().id == 23; }, 200),
              (Sequence{{Ta::kVault, 23, {}}}));
    EXPECT_EQ(minimize(
                  numbered(6), [](const Sequence& c) { return c.size() == 6; }, 200),
              numbered(6));
    // Out of tests: what was reduced so far, still failing.
    tests = 0;
    const Sequence partial = minimize(numbered(20), needs3And11, 3);
    EXPECT_LE(tests, 3u);
    EXPECT_TRUE(needs3And11(partial));
}

}  // namespace
