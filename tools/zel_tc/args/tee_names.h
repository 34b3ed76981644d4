// Names of the GlobalPlatform result codes and return origins, for people reading zel-tc's output
// and typing its arguments.
#pragma once

#include <cstdint>
#include <string>

namespace zel::tc {

// "TEEC_ERROR_ITEM_NOT_FOUND" for 0xFFFF0008; empty for a value with no name.
std::string resultName(uint32_t result);
// "0xFFFF0008": a result as every report writes it.
std::string resultHex(uint32_t result);
// "0xFFFF0008 TEEC_ERROR_ITEM_NOT_FOUND", or the hex alone.
std::string describeResult(uint32_t result);

// A name ("TEEC_ERROR_BUSY", also without the TEEC_ERROR_ prefix) or a number (0x..., decimal).
bool parseResult(const std::string& text, uint32_t& result);
// A name ("TEEC_ORIGIN_COMMS", "COMMS") or a number.
bool parseOrigin(const std::string& text, uint32_t& origin);

}  // namespace zel::tc
