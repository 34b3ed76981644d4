// How zel-tc reads UUIDs and result codes typed by people.
#include <gtest/gtest.h>

#include <cstring>

#include "interface/zel_ta_ids.h"
#include "tee_names.h"
#include "teec_wire.h"
#include "uuid_arg.h"

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

    EXPECT_EQ(zel::tc::describeResult(0xFFFF0008), "0xFFFF0008 TEEC_ERROR_ITEM_NOT_FOUND");
    EXPECT_EQ(zel::tc::describeResult(0x00000104), "0x00000104");
}

}  // namespace
