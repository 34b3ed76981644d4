#include "interface/command_call.h"

#include "transport/log_line.h"

namespace zel {

CommandCall::CommandCall(const CommandFamily& family, const char* name, const TEEC_UUID& uuid,
                         uint32_t commandId, bool emptyInput,
                         std::initializer_list<WsmField> request, bool readsReply) {
    logLine(family.logPrefix, name);
    if (emptyInput) {
        logLine("Empty parameters");
        fail(Step::kEmptyInput, kEmptyParameters);
        return;
    }
    exchange_.emplace(uuid);
    if (!exchange_->isOpen()) {
        fail(Step::kOpen, static_cast<int32_t>(ZelExchange::kNotConnected));
        return;
    }
    if (request.size() != 0 && !exchange_->write(request)) {
        fail(Step::kWrite, static_cast<int32_t>(TEEC_ERROR_NO_DATA));
        return;
    }
    const TEEC_Result result = exchange_->invoke(commandId);
    if (result != TEEC_SUCCESS) {
        const bool generic = readsReply && family.genericWhenReplyCommandFails;
        fail(Step::kInvoke, static_cast<int32_t>(generic ? TEEC_ERROR_GENERIC : result));
    }
}

}  // namespace zel
