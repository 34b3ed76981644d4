// zelResultToStr: the text of a firmware-update result, by its two code tables.
#include <gtest/gtest.h>

#include "interface/zel_result.h"

namespace {

std::string text(int32_t zelCode, int32_t firmwareCode) {
    return zelResultToStr(ZelResult{zelCode, firmwareCode});
}

std::string expected(const std::string& vault, const std::string& firmware) {
    return "ZEL result is:\n\t\tZEL: " + vault + "\n\t\tFirmware: " + firmware;
}

TEST(ZelResultTest, WholeTexts) {
    EXPECT_EQ(text(0, 0), expected("ZEL_RET_SUCCESS", "IRDO_NO_ERROR"));
    EXPECT_EQ(text(6, -11), expected("6", "-IRDO_INVALID_PARAMETER"));
    EXPECT_EQ(text(-1, 200), expected("-1", "200"));
    EXPECT_EQ(text(1, -300), expected("ZEL_RET_FAIL", "-300"));
    EXPECT_EQ(text(13, 125), expected("ZEL_RET_NOT_IMPLEMENTED", "IRDO_SC_MAC_MISMATCH_ERROR"));
}

TEST(ZelResultTest, VaultCodesAreLookedUpUnsignedAndFirmwareCodesByMagnitude) {
    EXPECT_EQ(text(-5, 0), expected("-5", "IRDO_NO_ERROR"));
    EXPECT_EQ(text(14, 0), expected("14", "IRDO_NO_ERROR"));
    EXPECT_EQ(text(INT32_MIN, 0), expected("-2147483648", "IRDO_NO_ERROR"));
    EXPECT_EQ(text(0, -141), expected("ZEL_RET_SUCCESS", "-IRDO_SC_COMM_ERROR"));
    EXPECT_EQ(text(0, 141), expected("ZEL_RET_SUCCESS", "IRDO_SC_COMM_ERROR"));
    EXPECT_EQ(text(0, 142), expected("ZEL_RET_SUCCESS", "142"));
    EXPECT_EQ(text(0, -142), expected("ZEL_RET_SUCCESS", "-142"));
    EXPECT_EQ(text(0, INT32_MIN), expected("ZEL_RET_SUCCESS", "-2147483648"));
    // Gaps inside the firmware table are numbers, not the nearest name.
    for (int32_t gap : {4, 10, 33, 84, 106, 126})
        EXPECT_EQ(text(0, gap), expected("ZEL_RET_SUCCESS", std::to_string(gap))) << gap;
}

}  // namespace
