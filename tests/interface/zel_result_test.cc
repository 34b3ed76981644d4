// zelResultToStr: the text of a firmware-update result, by its two code tables.
#include <gtest/gtest.h>

#include "interface/zel_result.h"

namespace {

// Vault codes are looked up unsigned, firmware codes by their magnitude; gaps in either table are
// numbers, not the nearest name.
TEST(ZelResultTest, WholeTexts) {
    const struct {
        int32_t zelCode, firmwareCode;
        const char *vault, *firmware;
    } kCases[] = {
        {0, 0, "ZEL_RET_SUCCESS", "IRDO_NO_ERROR"},
        {6, -11, "6", "-IRDO_INVALID_PARAMETER"},
        {-1, 200, "-1", "200"},
        {1, -300, "ZEL_RET_FAIL", "-300"},
        {13, 125, "ZEL_RET_NOT_IMPLEMENTED", "IRDO_SC_MAC_MISMATCH_ERROR"},
        {-5, 0, "-5", "IRDO_NO_ERROR"},
        {14, 0, "14", "IRDO_NO_ERROR"},
        {INT32_MIN, 0, "-2147483648", "IRDO_NO_ERROR"},
        {0, -141, "ZEL_RET_SUCCESS", "-IRDO_SC_COMM_ERROR"},
        {0, 141, "ZEL_RET_SUCCESS", "IRDO_SC_COMM_ERROR"},
        {0, 142, "ZEL_RET_SUCCESS", "142"},
        {0, -142, "ZEL_RET_SUCCESS", "-142"},
        {0, INT32_MIN, "ZEL_RET_SUCCESS", "-2147483648"},
        {0, 4, "ZEL_RET_SUCCESS", "4"},
        {0, 10, "ZEL_RET_SUCCESS", "10"},
        {0, 33, "ZEL_RET_SUCCESS", "33"},
        {0, 84, "ZEL_RET_SUCCESS", "84"},
        {0, 106, "ZEL_RET_SUCCESS", "106"},
        {0, 126, "ZEL_RET_SUCCESS", "126"},
    };
    for (const auto& c : kCases)
        EXPECT_EQ(
            zelResultToStr(ZelResult{c.zelCode, c.firmwareCode}),
            std::string("ZEL result is:\n\t\tZEL: ") + c.vault + "\n\t\tFirmware: " + c.firmware)
            << c.zelCode << " " << c.firmwareCode;
}

}  // namespace
