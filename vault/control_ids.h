// The control TA of the host TEE: how tests (and people at a shell) arm faults and reset state.
// Present only when zel-vaultd runs with --control. Every command takes four parameters:
//   params[0] = value {a: command id, b: count (0: until reset)}
//   params[1] = value {a: result, b: origin}, or for kStallInvoke {a: milliseconds}, or for
//               kScriptReply a partial input memory reference holding the reply message, or for
//               kSetSecureProcessor one holding the item's new value (params[0].a: the item)
//   params[2], params[3] = values: the target TA's UUID as four 32-bit words (see uuidWords)
#pragma once

#include <tee_client_api.h>

#include <array>
#include <cstdint>

namespace zel::vault {

inline constexpr TEEC_UUID kControlUuid = {
    0x5a454c00, 0xc0de, 0x4c7e, {0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01}};

enum ControlCommand : uint32_t {
    kControlReset = 0,               // disarm every fault and clear TA state
    kControlFailInvoke = 1,          // next invocations of (uuid, command) return (result, origin)
    kControlFailOpenSession = 2,     // next sessions opened to uuid fail with (result, origin)
    kControlFailAllocation = 3,      // next shared-memory allocations fail with (result, origin)
    kControlStallInvoke = 4,         // next invocations of (uuid, command) first wait milliseconds
    kControlScriptReply = 5,         // next invocations of (uuid, command) answer success with this
                                     // message in the block, in the TA's place
    kControlSetSecureProcessor = 6,  // replace one of the secure processor's answers (an item
                                     // of sp_items.h: firmware words, hack status, update
                                     // result record, version texts)
};

inline constexpr uint32_t kControlMaxStallMs = 60000;

// The secure processor's answers that kSetSecureProcessor replaces.
enum SecureProcessorAnswer : uint32_t {
    kAnswerFirmwareWords = 3,  // 32-bit little-endian words, at most 1024
    kAnswerHackStatus = 4,     // bytes, at most 256; any non-zero byte reports a hack
    kAnswerUpdateResult = 5,   // the 8-byte result record: zelCode, firmwareCode
    kAnswerSystemVersion = 6,  // version texts, at most 256 bytes each
    kAnswerAppVersion = 7,
};

inline std::array<uint32_t, 4> uuidWords(const TEEC_UUID& uuid) {
    auto bytesWord = [&](int first) {
        uint32_t word = 0;
        for (int i = 0; i < 4; ++i) word = word << 8 | uuid.clockSeqAndNode[first + i];
        return word;
    };
    return {uuid.timeLow, static_cast<uint32_t>(uuid.timeMid) << 16 | uuid.timeHiAndVersion,
            bytesWord(0), bytesWord(4)};
}

inline TEEC_UUID uuidFromWords(const std::array<uint32_t, 4>& words) {
    TEEC_UUID uuid{
        words[0], static_cast<uint16_t>(words[1] >> 16), static_cast<uint16_t>(words[1]), {}};
    for (int i = 0; i < 4; ++i) {
        uuid.clockSeqAndNode[i] = static_cast<uint8_t>(words[2] >> (24 - 8 * i));
        uuid.clockSeqAndNode[4 + i] = static_cast<uint8_t>(words[3] >> (24 - 8 * i));
    }
    return uuid;
}

}  // namespace zel::vault
