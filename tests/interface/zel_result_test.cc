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
        {13, 141, "ZEL_RET_NOT_IMPLEMENTED", "IRDO_SC_COMM_ERROR"},  // the last row of each
        {6, -11, "6", "-IRDO_INVALID_PARAMETER"},
        {-1, 142, "-1", "142"},
        {INT32_MIN, -126, "-2147483648", "-126"},
        {0, INT32_MIN, "ZEL_RET_SUCCESS", "-2147483648"},
    };
    for (const auto& c : kCases)
        EXPECT_EQ(
            zelResultToStr(ZelResult{c.zelCode, c.firmwareCode}),
            std::string("ZEL result is:\n\t\tZEL: ") + c.vault + "\n\t\tFirmware: " + c.firmware)
            << c.zelCode << " " << c.firmwareCode;
}

}  // namespace
