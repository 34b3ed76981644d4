// Sends zel-tc fuzz's sequences through the TEE Client API and the codec, and judges what comes
// back. Opens the default TEE (TEEC_InitializeContext with a NULL name).
//
// Every TEE call runs on a worker thread while the caller watches the clock: a call that does not
// return within the timeout is a hang. The worker stuck in it is abandoned with its context (it
// finishes, and frees them, whenever the call returns, e.g. once the TEE is restarted); the next
// sequence runs on a new worker and a new context.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/request.h"

namespace zel::tc::fuzz {

enum class FindingKind : uint8_t {
    kNone,
    kTaDead,       // an invocation answered TEEC_ERROR_TARGET_DEAD
    kCommsError,   // the communication layer failed: the TEE or its daemon died
    kHang,         // a call did not return within the timeout
    kSessionLost,  // no session could be opened after the commands
    kNonGpResult,  // a result that is none of the GlobalPlatform result codes
    kReplyShape,   // a success whose reply breaks the command's declared shape
};

const char* kindName(FindingKind kind);  // "ta-dead", "comms-error", ...
bool parseKind(const std::string& text, FindingKind& kind);

struct Verdict {
    FindingKind kind = FindingKind::kNone;
    // The call it showed at (the sequence's size: when opening a session after it).
    size_t call = 0;
    uint32_t result = 0;
    uint32_t origin = 0;
    std::string detail;
    size_t callsRun = 0;  // invocations made, for the rate
};

// What one call of a sequence got back, for the transcript.
struct Answer {
    enum class Status : uint8_t { kUnsent, kAnswered, kNoSession, kHang };
    Status status = Status::kUnsent;  // unsent: an earlier call of its sequence ended it
    uint32_t result = 0;
    uint32_t origin = 0;
    // Decoded by the command's reply shape when the request was well formed and succeeded;
    // else one blob: the block up to its last byte that is not zero.
    bool decoded = false;
    std::vector<Field> reply;
};

// The GlobalPlatform result codes: success and the TEEC_ERROR_* values of the standard.
bool isGlobalPlatformResult(uint32_t result);

class Executor {
  public:
    explicit Executor(unsigned timeoutMilliseconds);
    ~Executor();
    Executor(const Executor&) = delete;
    Executor& operator=(const Executor&) = delete;

    // Sends the calls in order, each in a fresh message, over one session per TA, stopping at the
    // first finding; closes the sessions, then (when checkSessions) opens one to each TA used to
    // see that it still can. A blob marked fill is grown, and a field the block cannot take is
    // dropped, in every call before the first is sent, so that the sequence afterwards holds
    // exactly what was sent, or would have been. answers, when given, gets one per call.
    Verdict run(Sequence& sequence, bool checkSessions, std::vector<Answer>* answers = nullptr);

    // Drops the worker and its context (after the TEE was restarted under it).
    void renew();

  private:
    struct Worker;
    unsigned timeoutMilliseconds_;
    std::shared_ptr<Worker> worker_;
};

}  // namespace zel::tc::fuzz
