// One request/reply exchange with a TA through a fresh connection: the framing every command
// method follows. Opens a ZELTEEClient on construction; the codec, when used, is laid over the
// client's block and always destroyed before the client (member order), which then releases the
// memory, the session and the context.
#pragma once

#include <initializer_list>
#include <optional>

#include "qeru_wsm.h"
#include "transport/zel_tee_client.h"

namespace zel {

// One typed request field.
struct WsmField {
    enum Kind { kInt, kUint, kBlob } kind;
    int32_t intValue;
    uint32_t uintValue;
    const void* data;

    static WsmField Int(int32_t value) { return {kInt, value, 0, nullptr}; }
    static WsmField Uint(uint32_t value) { return {kUint, 0, value, nullptr}; }
    static WsmField Blob(const void* data, uint32_t size) { return {kBlob, 0, size, data}; }
};

class ZelExchange {
public:
    // What a command returns when its connection could not be opened (the client has printed why).
    static constexpr TEEC_Result kNotConnected = ZELTEEClient::kNotConnected;

    explicit ZelExchange(const TEEC_UUID& uuid);
    ZelExchange(const ZelExchange&) = delete;
    ZelExchange& operator=(const ZelExchange&) = delete;

    bool isOpen() const { return open_; }
    // Writes every field, even after one failed; false (after printing "WSM error") if any did.
    bool write(std::initializer_list<WsmField> fields);
    TEEC_Result invoke(uint32_t commandId) { return client_.InvokeCommand(commandId); }
    // The codec, rewound to read what the TA wrote into the block.
    CQeruWsm& reply();

private:
    CQeruWsm& codec();

    ZELTEEClient client_;
    bool open_;
    std::optional<CQeruWsm> codec_;
};

}  // namespace zel
