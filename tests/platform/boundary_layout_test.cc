// What crosses the TEE boundary must have the same bytes on the 32-bit device as on a 64-bit
// host: the records' sizes and offsets, and the codec's fields. Runs on every architecture the
// suite is built for.
#include <gtest/gtest.h>

#include <tee_client_api.h>

#include <cstddef>
#include <cstring>
#include <vector>

#include "interface/zel_result.h"
#include "qeru_wsm.h"
#include "support/hd_path.h"
#include "teec_wire.h"

namespace {

TEST(BoundaryLayout, RecordsHaveTheirFixedSizesAndOffsets) {
    EXPECT_EQ(sizeof(ZelResult), 8u);
    EXPECT_EQ(offsetof(ZelResult, zelCode), 0u);
    EXPECT_EQ(offsetof(ZelResult, firmwareCode), 4u);

    EXPECT_EQ(sizeof(hd_path_param), 20u);
    EXPECT_EQ(offsetof(hd_path_param, coinType), 4u);
    EXPECT_EQ(offsetof(hd_path_param, addressIndex), 16u);

    EXPECT_EQ(sizeof(TEEC_UUID), 16u);
    EXPECT_EQ(offsetof(TEEC_UUID, clockSeqAndNode), 8u);
    EXPECT_EQ(sizeof(TEEC_Value), 8u);

    // Between the TEE client library and zel-vaultd, whichever of them is 32-bit.
    EXPECT_EQ(sizeof(zel::wire::Param), 20u);
    EXPECT_EQ(sizeof(zel::wire::Request), 128u);
    EXPECT_EQ(sizeof(zel::wire::Reply), 92u);
    EXPECT_EQ(offsetof(zel::wire::Request, params), 48u);
}

TEST(BoundaryLayout, CodecFieldsAreLittleEndianWordsWhateverTheArchitecture) {
    std::vector<uint8_t> bytes(64, 0xEE);
    TEEC_SharedMemory block{};
    block.buffer = bytes.data();
    block.size = bytes.size();
    block.flags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
    CQeruWsm wsm(&block);
    const ZelResult sent{-3, INT32_MIN + 1};
    ASSERT_TRUE(wsm.PutInt(-2));
    ASSERT_TRUE(wsm.PutUint(0x80000001u));
    ASSERT_TRUE(wsm.PutBlob(&sent, sizeof sent));
    const std::vector<uint8_t> expected = {
        1, 0, 0, 0, 4, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF,                    // Int -2
        2, 0, 0, 0, 4, 0, 0, 0, 0x01, 0x00, 0x00, 0x80,                    // Uint 0x80000001
        3, 0, 0, 0, 8, 0, 0, 0, 0xFD, 0xFF, 0xFF, 0xFF, 0x01, 0, 0, 0x80,  // Blob: the record
        0, 0, 0, 0};                                                       // end of message
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + expected.size()), expected);

    // Read back the way the firmware-update reply is read: an 8-byte blob copied into the record.
    wsm.PrepareReset(1);
    int i = 0;
    unsigned int u = 0;
    ASSERT_TRUE(wsm.GetInt(&i));
    ASSERT_TRUE(wsm.GetUint(&u));
    const unsigned char* record = wsm.GetBlob(sizeof(ZelResult));
    ASSERT_NE(record, nullptr);
    ZelResult received{};
    std::memcpy(&received, record, sizeof received);
    EXPECT_EQ(i, -2);
    EXPECT_EQ(u, 0x80000001u);
    EXPECT_EQ(received.zelCode, -3);
    EXPECT_EQ(received.firmwareCode, INT32_MIN + 1);
}

}  // namespace
