// How zel-tc reads UUIDs and result codes typed by people.
#include <gtest/gtest.h>

#include <cstring>

#include "args/number.h"
#include "args/tee_names.h"
#include "args/uuid.h"
#include "fuzz/table.h"
#include "interface/zel_ta_ids.h"
#include "teec_wire.h"

namespace {

bool sameUuid(const TEEC_UUID& a, const TEEC_UUID& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

TEST(ArgumentsTest, UuidsByNameOrInTheirTextForm) {
    TEEC_UUID uuid{};
    ASSERT_TRUE(zel::tc::parseUuid("58d50001-1105-000f-9799-7f5af3f9c7bb", uuid));
    EXPECT_TRUE(sameUuid(uuid, zel_test));
    ASSERT_TRUE(zel::tc::parseUuid("00000000-0000-0000-0000-00000000F5CC", uuid));
    EXPECT_TRUE(sameUuid(uuid, zel_test_a));
    ASSERT_TRUE(zel::tc::parseUuid("zel_test_a", uuid));
    EXPECT_TRUE(sameUuid(uuid, zel_test_a));
    // The text form and the wire's canonical bytes agree.
    EXPECT_EQ(zel::wire::uuidText(zel::wire::uuidBytes(zel_test)),
              "58d50001-1105-000f-9799-7f5af3f9c7bb");

    for (const char* bad :
         {"", "zel_tes", "58d50001-1105-000f-9799-7f5af3f9c7b",
          "58d50001-1105-000f-9799-7f5af3f9c7bbb", "58d50001x1105-000f-9799-7f5af3f9c7bb",
          "58d50001-1105-000f-9799-7f5af3f9c7bg"})
        EXPECT_FALSE(zel::tc::parseUuid(bad, uuid)) << bad;
}

TEST(ArgumentsTest, ResultsAndOriginsByNameOrNumber) {
    uint32_t value = 0;
    ASSERT_TRUE(zel::tc::parseResult("TEEC_ERROR_ITEM_NOT_FOUND", value));
    EXPECT_EQ(value, TEEC_ERROR_ITEM_NOT_FOUND);
    ASSERT_TRUE(zel::tc::parseResult("BUSY", value));
    EXPECT_EQ(value, TEEC_ERROR_BUSY);
    ASSERT_TRUE(zel::tc::parseResult("0xFFFF3024", value));
    EXPECT_EQ(value, TEEC_ERROR_TARGET_DEAD);
    ASSERT_TRUE(zel::tc::parseOrigin("COMMS", value));
    EXPECT_EQ(value, TEEC_ORIGIN_COMMS);
    ASSERT_TRUE(zel::tc::parseOrigin("4", value));
    EXPECT_EQ(value, TEEC_ORIGIN_TRUSTED_APP);
    for (const char* bad : {"", "-1", "0x100000000", "12abc", "ERROR_BUSY"})
        EXPECT_FALSE(zel::tc::parseResult(bad, value)) << bad;

    // A leading zero is no octal: "010" is ten wherever zel-tc reads a number.
    ASSERT_TRUE(zel::tc::parseResult("010", value));
    EXPECT_EQ(value, 10u);
    const zel::tc::fuzz::CommandSpec* command = zel::tc::fuzz::findCommand("010");
    ASSERT_NE(command, nullptr);
    EXPECT_EQ(command->id, 10u);

    EXPECT_EQ(zel::tc::describeResult(0xFFFF0008), "0xFFFF0008 TEEC_ERROR_ITEM_NOT_FOUND");
    EXPECT_EQ(zel::tc::describeResult(0x00000104), "0x00000104");
}

TEST(ArgumentsTest, NumbersAreDecimalOrHexOverTheirWholeRange) {
    unsigned long long wide = 0;
    ASSERT_TRUE(zel::tc::parseUnsigned("18446744073709551615", wide));
    EXPECT_EQ(wide, 18446744073709551615ull);
    ASSERT_TRUE(zel::tc::parseUnsigned("0XFFFFFFFFFFFFFFFF", wide));
    EXPECT_EQ(wide, 18446744073709551615ull);
    long long number = 0;
    ASSERT_TRUE(zel::tc::parseNumber("-0x80000000", INT32_MIN, INT32_MAX, number));
    EXPECT_EQ(number, INT32_MIN);
    for (const char* bad : {"", "-", "0x", "18446744073709551616", "-1", "+1", " 1", "1 ", "0b1"})
        EXPECT_FALSE(zel::tc::parseUnsigned(bad, wide)) << bad;
    for (const char* bad : {"9223372036854775808", "--1", "-0x", "08x"})
        EXPECT_FALSE(zel::tc::parseNumber(bad, number)) << bad;
    EXPECT_FALSE(zel::tc::parseNumber("2147483648", INT32_MIN, INT32_MAX, number));
}

}  // namespace
