// Derivation-path buffers: exactly 20 bytes of five big-endian levels, and the level accessor that
// clamps to the last level.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/hd_path.h"

namespace {

using Bytes = std::vector<unsigned char>;

// m/44'/60'/0'/0/7 as a device sends it.
const Bytes kPath = {0x80, 0x00, 0x00, 0x2C, 0x80, 0x00, 0x00, 0x3C, 0x80, 0x00,
                     0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x07};

TEST(HdPath, TwentyBytesAreFiveBigEndianLevelsInOrder) {
    hd_path_param path{};
    ASSERT_EQ(BufferToHdParamS(kPath.data(), 20, &path), 0);
    EXPECT_EQ(path.purpose, 0x8000002Cu);
    EXPECT_EQ(path.coinType, 0x8000003Cu);
    EXPECT_EQ(path.account, 0x80000000u);
    EXPECT_EQ(path.change, 0u);
    EXPECT_EQ(path.addressIndex, 7u);

    // Each group on its own, so that a swapped or misplaced group cannot hide behind another.
    const Bytes groups[] = {{0x00, 0x00, 0x00, 0x2C},
                            {0x80, 0x00, 0x00, 0x00},
                            {0x01, 0x02, 0x03, 0x04},
                            {0xFF, 0xFF, 0xFF, 0xFE}};
    const uint32_t values[] = {44, 0x80000000u, 0x01020304u, 0xFFFFFFFEu};
    for (unsigned int level = 0; level < 5; ++level) {
        for (size_t g = 0; g < 4; ++g) {
            Bytes buffer(20, 0);
            std::copy(groups[g].begin(), groups[g].end(), buffer.begin() + 4 * level);
            ASSERT_EQ(BufferToHdParamS(buffer.data(), 20, &path), 0);
            for (unsigned int other = 0; other < 5; ++other)
                EXPECT_EQ(getHDPathIndex(path, other), other == level ? values[g] : 0u)
                    << "group " << g << " at level " << level << ", read at " << other;
        }
    }
}

TEST(HdPath, AnyLengthButTwentyOrANullRecordWritesNothing) {
    const Bytes longer = [] {
        Bytes bytes = kPath;
        bytes.push_back(0x01);
        return bytes;
    }();
    const hd_path_param before{1, 2, 3, 4, 5};
    for (unsigned int length : {0u, 19u, 21u, 40u}) {
        hd_path_param path = before;
        EXPECT_EQ(BufferToHdParamS(longer.data(), length, &path), -1) << length;
        EXPECT_EQ(std::memcmp(&path, &before, sizeof path), 0) << length;
    }
    EXPECT_EQ(BufferToHdParamS(kPath.data(), 20, nullptr), -1);
}

TEST(HdPath, LevelsAboveFourReadTheLastLevel) {
    const hd_path_param path{10, 11, 12, 13, 14};
    const unsigned int levels[] = {0, 1, 2, 3, 4, 5, 7, 1000, 0xFFFFFFFFu};
    const unsigned int expected[] = {10, 11, 12, 13, 14, 14, 14, 14, 14};
    for (size_t i = 0; i < std::size(levels); ++i)
        EXPECT_EQ(getHDPathIndex(path, levels[i]), expected[i]) << levels[i];
}

}  // namespace
