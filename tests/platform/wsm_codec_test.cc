// The codec and the bytes that cross the TEE boundary: what it writes byte for byte, the same on
// the 32-bit device as on a 64-bit host, and every malformed message read back as a failure
// rather than as bytes from outside the block.
#include <gtest/gtest.h>

#include <tee_client_api.h>

#include <cstddef>
#include <cstring>
#include <vector>

#include "interface/zel_result.h"
#include "qeru_wsm.h"
#include "teec_wire.h"

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

// The layouts the code does not pin itself: the platform's records, and where the wire's
// parameters start, whichever of the client and the daemon is 32-bit.
TEST(WsmCodecTest, PlatformRecordsHaveTheirFixedLayout) {
    EXPECT_EQ(sizeof(TEEC_UUID), 16u);
    EXPECT_EQ(offsetof(TEEC_UUID, clockSeqAndNode), 8u);
    EXPECT_EQ(sizeof(TEEC_Value), 8u);
    EXPECT_EQ(offsetof(zel::wire::Request, params), 48u);
}

TEST(WsmCodecTest, FieldsAreTaggedLittleEndianPaddedEndMarkedAndReadBackInOrder) {
    Block block(128, 0xEE);
    CQeruWsm wsm(&block.record);
    const ZelResult sent{-3, INT32_MIN + 1};
    ASSERT_TRUE(wsm.PutInt(-2));
    ASSERT_TRUE(wsm.PutUint(0x80000001u));
    ASSERT_TRUE(wsm.PutBlob("abcde", 5));
    ASSERT_TRUE(wsm.PutBlob(&sent, sizeof sent));
    ASSERT_TRUE(wsm.PutBlob(nullptr, 0));  // an empty blob is a field of its own
    const std::vector<uint8_t> expected = {
        1, 0, 0, 0, 4, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF,                    // Int -2
        2, 0, 0, 0, 4, 0, 0, 0, 0x01, 0x00, 0x00, 0x80,                    // Uint 0x80000001
        3, 0, 0, 0, 5, 0, 0, 0, 'a',  'b',  'c',  'd',  'e',  0, 0, 0,     // Blob, padded
        3, 0, 0, 0, 8, 0, 0, 0, 0xFD, 0xFF, 0xFF, 0xFF, 0x01, 0, 0, 0x80,  // Blob: the record
        3, 0, 0, 0, 0, 0, 0, 0,                                            // empty Blob
        0, 0, 0, 0};                                                       // end of message
    EXPECT_EQ(std::vector<uint8_t>(block.bytes.begin(), block.bytes.begin() + expected.size()),
              expected);
    EXPECT_EQ(block.bytes[expected.size()], 0xEE);  // nothing written past the end marker

    wsm.PrepareReset(1);
    int i = 0;
    unsigned int u = 0;
    ASSERT_TRUE(wsm.GetInt(&i));
    ASSERT_TRUE(wsm.GetUint(&u));
    const unsigned char* text = wsm.GetBlob(5);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::memcmp(text, "abcde", 5), 0);
    EXPECT_NE(wsm.GetBlob(sizeof(ZelResult)), nullptr);
    EXPECT_EQ(i, -2);
    EXPECT_EQ(u, 0x80000001u);
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
    int i = 0;
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
