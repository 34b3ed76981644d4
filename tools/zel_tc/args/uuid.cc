#include "args/uuid.h"

#include <cctype>
#include <cstdio>
#include <cstring>

#include "interface/zel_ta_ids.h"

namespace zel::tc {

bool parseUuid(const std::string& text, TEEC_UUID& uuid) {
    if (text == "zel_test") return uuid = zel_test, true;
    if (text == "zel_test_a") return uuid = zel_test_a, true;
    // 32 hex digits in groups of 8-4-4-4-12.
    static constexpr size_t kDashes[] = {8, 13, 18, 23};
    if (text.size() != 36) return false;
    uint8_t bytes[16] = {};
    size_t digit = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool dashHere =
            i == kDashes[0] || i == kDashes[1] || i == kDashes[2] || i == kDashes[3];
        if (dashHere) {
            if (text[i] != '-') return false;
            continue;
        }
        if (!std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
        const int value = std::isdigit(static_cast<unsigned char>(text[i]))
                              ? text[i] - '0'
                              : std::tolower(static_cast<unsigned char>(text[i])) - 'a' + 10;
        bytes[digit / 2] = static_cast<uint8_t>(bytes[digit / 2] << 4 | value);
        ++digit;
    }
    uuid.timeLow =
        static_cast<uint32_t>(bytes[0]) << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3];
    uuid.timeMid = static_cast<uint16_t>(bytes[4] << 8 | bytes[5]);
    uuid.timeHiAndVersion = static_cast<uint16_t>(bytes[6] << 8 | bytes[7]);
    for (int i = 0; i < 8; ++i) uuid.clockSeqAndNode[i] = bytes[8 + i];
    return true;
}

std::string uuidText(const TEEC_UUID& uuid) {
    if (std::memcmp(&uuid, &zel_test, sizeof uuid) == 0) return "zel_test";
    if (std::memcmp(&uuid, &zel_test_a, sizeof uuid) == 0) return "zel_test_a";
    char text[40];
    std::snprintf(text, sizeof text, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                  uuid.timeLow, uuid.timeMid, uuid.timeHiAndVersion, uuid.clockSeqAndNode[0],
                  uuid.clockSeqAndNode[1], uuid.clockSeqAndNode[2], uuid.clockSeqAndNode[3],
                  uuid.clockSeqAndNode[4], uuid.clockSeqAndNode[5], uuid.clockSeqAndNode[6],
                  uuid.clockSeqAndNode[7]);
    return text;
}

}  // namespace zel::tc
