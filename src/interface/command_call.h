// The skeleton of every TA command, written once: its log line, the empty-input check, a fresh
// connection, the request, the invocation. What a family of commands does differently (the log
// prefix, the result of a failed invocation) is data.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>

#include "transport/zel_exchange.h"

namespace zel {

inline constexpr int32_t kEmptyParameters = -13;

struct CommandFamily {
    const char* logPrefix;
    // A command that reads a reply answers a failed invocation with 0xFFFF0000 instead of the
    // TEE's own result.
    bool genericWhenReplyCommandFails;
};

inline constexpr CommandFamily kGeneralFamily{"CA Interface: ", true};
inline constexpr CommandFamily kSecureProcessorFamily{"CA InterfaceSP: ", false};

// Runs the steps up to the invocation on construction. status() is 0 when the reply is ready to
// read, otherwise the command's result: -13 for an empty input ("Empty parameters"), the open
// failure, 0xFFFF000B for a request that could not be written ("WSM error"), or the failed
// invocation's result as the family reports it.
class CommandCall {
  public:
    enum class Step { kNone, kEmptyInput, kOpen, kWrite, kInvoke };

    CommandCall(const CommandFamily& family, const char* name, const TEEC_UUID& uuid,
                uint32_t commandId, bool emptyInput, std::initializer_list<WsmField> request,
                bool readsReply);
    int32_t status() const { return status_; }
    Step failedAt() const { return failedAt_; }
    // The codec, rewound to read the reply; only when status() is 0.
    CQeruWsm& reply() { return exchange_->reply(); }

  private:
    void fail(Step step, int32_t status) {
        failedAt_ = step;
        status_ = status;
    }

    std::optional<ZelExchange> exchange_;
    int32_t status_ = 0;
    Step failedAt_ = Step::kNone;
};

}  // namespace zel
