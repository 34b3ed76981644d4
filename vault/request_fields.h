// How a simulated TA reads a request and writes a reply in the client's block, shared by the
// vault and the secure-processor TAs.
#pragma once

#include <tee_client_api.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "trusted_app.h"
#include "wsm_encoding.h"

namespace zel::vault {

using Bytes = std::vector<uint8_t>;

// Reads a request field by field. The first field that is missing or of the wrong type makes the
// request malformed, and every later read yields nothing.
class RequestFields {
  public:
    explicit RequestFields(wsm::Reader reader) : reader_(reader) {}

    int32_t integer() {
        int32_t value = 0;
        ok_ = ok_ && reader_.getInt(value);
        return value;
    }
    // A length field and the blob of that length that follows it.
    Bytes sizedBlob() {
        uint32_t length = 0;
        ok_ = ok_ && reader_.getUint(length);
        const uint8_t* bytes = ok_ ? reader_.get(wsm::kBlob, length) : nullptr;
        ok_ = ok_ && bytes;
        return ok_ ? Bytes(bytes, bytes + length) : Bytes();
    }
    // Every field was there and nothing follows them.
    bool complete() const { return ok_ && reader_.peek() == wsm::kEnd; }

  private:
    wsm::Reader reader_;
    bool ok_ = true;
};

// Every TA command takes the client's block as its one partial in/out memory reference.
inline bool isOneBlock(const TaOperation& operation) {
    return TEEC_PARAM_TYPE_GET(operation.paramTypes, 0) == TEEC_MEMREF_PARTIAL_INOUT &&
           (operation.paramTypes >> 4) == 0 && operation.params[0].size >= sizeof(uint32_t);
}

// A reply of one length-prefixed buffer.
inline TEEC_Result replyBuffer(wsm::Writer& out, const Bytes& data) {
    if (!out.putUint(static_cast<uint32_t>(data.size())) ||
        !out.put(wsm::kBlob, data.data(), static_cast<uint32_t>(data.size())))
        return TEEC_ERROR_SHORT_BUFFER;
    return TEEC_SUCCESS;
}

// One row of a TA's command table: the command id and the member that serves it.
template <typename Ta>
struct CommandHandler {
    uint32_t id;
    TEEC_Result (Ta::*run)(RequestFields& in, wsm::Writer& out);
};

// Serves a command through the TA's table: the handler reads the request from the block and
// writes its reply over it. An id with no row is TEEC_ERROR_NOT_SUPPORTED.
template <typename Ta, size_t N>
TaResult dispatch(Ta& ta, const CommandHandler<Ta> (&table)[N], uint32_t command,
                  const TaParam& block) {
    for (const CommandHandler<Ta>& handler : table) {
        if (handler.id != command) continue;
        RequestFields in(wsm::Reader(block.buffer, block.size));
        wsm::Writer out(block.buffer, block.size);
        return {(ta.*handler.run)(in, out), TEEC_ORIGIN_TRUSTED_APP};
    }
    return {TEEC_ERROR_NOT_SUPPORTED, TEEC_ORIGIN_TRUSTED_APP};
}

}  // namespace zel::vault
