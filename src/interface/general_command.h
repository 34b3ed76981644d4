// The skeleton of every general command of the vault TA, written once: the "CA Interface: " line,
// the empty-input check, a fresh connection, the request, the invocation, and the reply buffers
// handed to the caller as malloc'ed copies that the caller frees.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>

#include "transport/zel_exchange.h"

namespace zel {

inline constexpr int32_t kEmptyParameters = -13;

// Where one reply buffer goes: its address (malloc'ed, the caller frees it) and its length.
struct BufferOut {
    unsigned char** data;
    unsigned int* size;
};

// Steps up to the invocation. status() is 0 when the reply is ready to read, otherwise the
// command's result: -13 for an empty input, the open failure, 0xFFFF000B for a request that
// could not be written, and for a failed invocation 0xFFFF0000 (commands that read a reply) or
// the TEE's own result.
class GeneralCall {
public:
    GeneralCall(const TEEC_UUID& uuid, uint32_t commandId, bool emptyInput,
                std::initializer_list<WsmField> request, bool readsReply);
    int32_t status() const { return status_; }
    CQeruWsm& reply() { return exchange_->reply(); }

private:
    std::optional<ZelExchange> exchange_;
    int32_t status_ = 0;
};

// Reads a length and a blob per output, all before any check; then hands out a copy of each.
// missingMessage is printed when a blob is missing or empty.
int32_t handOutBuffers(CQeruWsm& reply, std::initializer_list<BufferOut> outputs,
                       const char* missingMessage);

// A whole command whose reply, if any, is length-prefixed buffers.
int32_t runGeneralCommand(const TEEC_UUID& uuid, uint32_t commandId, bool emptyInput,
                          std::initializer_list<WsmField> request,
                          std::initializer_list<BufferOut> outputs = {},
                          const char* missingMessage = "Data null from TA");

}  // namespace zel
