// The outcome of a firmware update as the vault TA reports it: its own result code and the secure
// firmware's, copied verbatim from the 8-byte record of the reply (native byte order).
#pragma once

#include <cstdint>
#include <string>

#include "zel_export.h"

struct ZelResult {
    int32_t zelCode;
    int32_t firmwareCode;
};
static_assert(sizeof(ZelResult) == 8, "ZelResult is the reply's 8-byte record, with no padding");

// "ZEL result is:\n\t\tZEL: <name or %d>\n\t\tFirmware: [-]<name or magnitude>", no trailing line
// feed. Prints nothing.
ZEL_TC_API std::string zelResultToStr(const ZelResult& result);
