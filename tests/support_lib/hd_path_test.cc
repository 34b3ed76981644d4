// Derivation-path buffers: exactly 20 bytes of five big-endian levels, and the level accessor that
// clamps to the last level.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/hd_path.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Every byte distinct and with its top bit set, so that a swapped byte or level shows.
const Bytes kPath = [] {
    Bytes bytes(20);
    for (unsigned char i = 0; i < 20; ++i) bytes[i] = static_cast<unsigned char>(0xA0 + i);
    return bytes;
}();

TEST(HdPath, TwentyBytesAreFiveBigEndianLevelsAndLevelsAboveFourReadTheLast) {
    hd_path_param path{};
    ASSERT_EQ(BufferToHdParamS(kPath.data(), 20, &path), 0);
    EXPECT_EQ(path.purpose, 0xA0A1A2A3u);
    EXPECT_EQ(path.coinType, 0xA4A5A6A7u);
    EXPECT_EQ(path.account, 0xA8A9AAABu);
    EXPECT_EQ(path.change, 0xACADAEAFu);
    EXPECT_EQ(path.addressIndex, 0xB0B1B2B3u);

    EXPECT_EQ(getHDPathIndex(path, 3), 0xACADAEAFu);
    EXPECT_EQ(getHDPathIndex(path, 5), 0xB0B1B2B3u);
}

TEST(HdPath, AnyLengthButTwentyOrANullRecordWritesNothing) {
    const Bytes longer(21, 0xA5);
    const hd_path_param before{1, 2, 3, 4, 5};
    for (unsigned int length : {19u, 21u}) {
        hd_path_param path = before;
        EXPECT_EQ(BufferToHdParamS(longer.data(), length, &path), -1) << length;
        EXPECT_EQ(std::memcmp(&path, &before, sizeof path), 0) << length;
    }
    EXPECT_EQ(BufferToHdParamS(kPath.data(), 20, nullptr), -1);
}

}  // namespace
