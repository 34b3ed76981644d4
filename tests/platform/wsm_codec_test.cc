// The codec: what it writes byte for byte, and every malformed message read back as a failure
// rather than as bytes from outside the block.
#include <gtest/gtest.h>

#include <tee_client_api.h>

#include <cstring>
#include <vector>

#include "qeru_wsm.h"

namespace {

// A block as the TEE client library hands it out: a record describing a buffer.
struct Block {
    explicit Block(size_t size, uint8_t fill = 0) : bytes(size, fill) {
        record.buffer = bytes.data();
        record.size = size;
        record.flags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
    }
    uint32_t word(size_t offset) const {
        uint32_t value;
        std::memcpy(&value, bytes.data() + offset, 4);
        return value;
    }
    std::vector<uint8_t> bytes;
    TEEC_SharedMemory record{};
};

TEST(WsmCodecTest, FieldsAreTaggedLengthPrefixedPaddedAndEndMarked) {
    Block block(64, 0xEE);
    CQeruWsm wsm(&block.record);
    ASSERT_TRUE(wsm.PutUint(0x01020304));
    ASSERT_TRUE(wsm.PutBlob("abcde", 5));
    const std::vector<uint8_t> expected = {2,   0,   0,   0, 4, 0, 0, 0, 4, 3,   2,
                                           1,   3,   0,   0, 0, 5, 0, 0, 0, 'a', 'b',
                                           'c', 'd', 'e', 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::vector<uint8_t>(block.bytes.begin(), block.bytes.begin() + 32), expected);
    EXPECT_EQ(block.bytes[32], 0xEE);  // nothing written past the end marker
}

TEST(WsmCodecTest, RoundTripReadsBackEveryFieldInOrder) {
    Block block(8192);
    CQeruWsm wsm(&block.record);
    std::vector<uint8_t> data(241);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
    ASSERT_TRUE(wsm.PutInt(-5));
    ASSERT_TRUE(wsm.PutUint(241));
    ASSERT_TRUE(wsm.PutBlob(data.data(), 241));
    ASSERT_TRUE(wsm.PutBlob(nullptr, 0));  // an empty blob is a field of its own

    wsm.PrepareReset(1);
    int i = 0;
    unsigned int u = 0;
    ASSERT_TRUE(wsm.GetInt(&i));
    ASSERT_TRUE(wsm.GetUint(&u));
    const unsigned char* blob = wsm.GetBlob(u);
    ASSERT_NE(blob, nullptr);
    EXPECT_EQ(i, -5);
    EXPECT_EQ(u, 241u);
    EXPECT_GE(blob, block.bytes.data());
    EXPECT_LT(blob, block.bytes.data() + block.bytes.size());
    EXPECT_EQ(std::memcmp(blob, data.data(), 241), 0);
    EXPECT_NE(wsm.GetBlob(0), nullptr);
    EXPECT_FALSE(wsm.GetInt(&i));  // the end marker

    wsm.PrepareReset(1);  // rewinds: the same message can be read again
    EXPECT_TRUE(wsm.GetInt(&i));
}

TEST(WsmCodecTest, WrongTypeOrLengthFailsAndKeepsThePosition) {
    Block block(128);
    CQeruWsm wsm(&block.record);
    ASSERT_TRUE(wsm.PutInt(7));
    ASSERT_TRUE(wsm.PutBlob("xyz", 3));
    wsm.PrepareReset(1);
    unsigned int u = 99;
    EXPECT_FALSE(wsm.GetUint(&u));
    EXPECT_EQ(u, 99u);
    EXPECT_EQ(wsm.GetBlob(4), nullptr);
    int i = 0;
    ASSERT_TRUE(wsm.GetInt(&i));
    EXPECT_EQ(wsm.GetBlob(2), nullptr);
    EXPECT_EQ(wsm.GetBlob(4), nullptr);
    EXPECT_NE(wsm.GetBlob(3), nullptr);
}

TEST(WsmCodecTest, MalformedBlocksNeverReadOutsideTheBlock) {
    // No end marker anywhere: every word is a bogus tag.
    Block garbage(64, 0xFF);
    CQeruWsm noMarker(&garbage.record);
    int i = 0;
    EXPECT_FALSE(noMarker.GetInt(&i));
    EXPECT_EQ(noMarker.GetBlob(0xFFFFFFFF), nullptr);

    // A blob whose length reaches past the block, and one of the largest length there is.
    Block truncated(32);
    const uint32_t header[] = {3, 100};
    std::memcpy(truncated.bytes.data(), header, sizeof header);
    CQeruWsm pastEnd(&truncated.record);
    EXPECT_EQ(pastEnd.GetBlob(100), nullptr);
    const uint32_t huge[] = {3, 0xFFFFFFFF};
    std::memcpy(truncated.bytes.data(), huge, sizeof huge);
    EXPECT_EQ(pastEnd.GetBlob(0xFFFFFFFF), nullptr);

    // A block too small for even a header.
    Block tiny(6);
    CQeruWsm small(&tiny.record);
    EXPECT_FALSE(small.GetInt(&i));
    EXPECT_FALSE(small.PutInt(1));

    // No record, or a record without a buffer.
    CQeruWsm none(nullptr);
    EXPECT_FALSE(none.PutInt(1));
    EXPECT_EQ(none.GetBlob(0), nullptr);
    TEEC_SharedMemory empty{};
    empty.size = 8192;
    CQeruWsm noBuffer(&empty);
    EXPECT_FALSE(noBuffer.PutUint(1));
    EXPECT_FALSE(noBuffer.GetUint(nullptr));
}

TEST(WsmCodecTest, PutThatWouldNotLeaveRoomForTheEndMarkerWritesNothing) {
    Block block(8192);
    CQeruWsm wsm(&block.record);
    std::vector<uint8_t> data(8192);
    // 8 bytes of header, the payload and a 4-byte end marker must fit in 8192.
    EXPECT_FALSE(wsm.PutBlob(data.data(), 8192 - 12 + 1));
    EXPECT_EQ(block.word(0), 0u);
    EXPECT_FALSE(wsm.PutBlob(nullptr, 5));  // bytes promised but none given
    ASSERT_TRUE(wsm.PutBlob(data.data(), 8192 - 12));
    EXPECT_FALSE(wsm.PutInt(1));
    EXPECT_EQ(block.word(8192 - 4), 0u);

    wsm.PrepareReset(0);  // rewinds the writer: a new message from offset 0
    ASSERT_TRUE(wsm.PutInt(42));
    wsm.PrepareReset(1);
    int i = 0;
    ASSERT_TRUE(wsm.GetInt(&i));
    EXPECT_EQ(i, 42);
    EXPECT_EQ(wsm.GetBlob(0), nullptr);  // the end marker after the new field
}

}  // namespace
