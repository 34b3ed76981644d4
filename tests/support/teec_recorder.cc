#include "teec_recorder.h"

#include <cstdlib>

namespace recorder {

Script script;
std::vector<std::string> calls;
std::vector<Invocation> invocations;
TEEC_UUID lastDestination{};
uint32_t lastLogin = 0xFFFFFFFF;
TEEC_SharedMemory lastAllocationRequest{};

void reset() {
    script = Script{};
    calls.clear();
    invocations.clear();
    lastDestination = TEEC_UUID{};
    lastLogin = 0xFFFFFFFF;
    lastAllocationRequest = TEEC_SharedMemory{};
}

}  // namespace recorder

using recorder::calls;
using recorder::script;

extern "C" {

TEEC_Result TEEC_InitializeContext(const char* name, TEEC_Context* context) {
    calls.push_back(name ? "InitializeContext(named)" : "InitializeContext");
    context->imp = nullptr;
    return script.initialize;
}

void TEEC_FinalizeContext(TEEC_Context*) {
    calls.push_back("FinalizeContext");
}

TEEC_Result TEEC_AllocateSharedMemory(TEEC_Context*, TEEC_SharedMemory* memory) {
    calls.push_back("AllocateSharedMemory");
    recorder::lastAllocationRequest = *memory;
    if (script.allocate != TEEC_SUCCESS) return script.allocate;
    // Real heap memory, so that a release missing or repeated shows up under the sanitizers.
    memory->buffer = std::calloc(1, memory->size);
    return TEEC_SUCCESS;
}

void TEEC_ReleaseSharedMemory(TEEC_SharedMemory* memory) {
    calls.push_back("ReleaseSharedMemory");
    std::free(memory->buffer);
    memory->buffer = nullptr;
}

TEEC_Result TEEC_OpenSession(TEEC_Context*, TEEC_Session*, const TEEC_UUID* destination,
                             uint32_t connectionMethod, const void* connectionData,
                             TEEC_Operation* operation, uint32_t* returnOrigin) {
    calls.push_back(connectionData || operation ? "OpenSession(with data)" : "OpenSession");
    recorder::lastDestination = *destination;
    recorder::lastLogin = connectionMethod;
    *returnOrigin = script.openSession.origin;
    return script.openSession.result;
}

void TEEC_CloseSession(TEEC_Session*) {
    calls.push_back("CloseSession");
}

TEEC_Result TEEC_InvokeCommand(TEEC_Session*, uint32_t commandID, TEEC_Operation* operation,
                               uint32_t* returnOrigin) {
    calls.push_back("InvokeCommand");
    const size_t index = recorder::invocations.size();
    std::vector<uint8_t> block;
    const TEEC_SharedMemory* parent = operation->params[0].memref.parent;
    if (TEEC_PARAM_TYPE_GET(operation->paramTypes, 0) >= TEEC_MEMREF_WHOLE && parent &&
        parent->buffer) {
        const auto* start = static_cast<const uint8_t*>(parent->buffer);
        block.assign(start, start + parent->size);
    }
    recorder::invocations.push_back({commandID, *operation, block});
    const recorder::Answer answer =
        script.invoke ? script.invoke(commandID, index) : recorder::Answer{};
    *returnOrigin = answer.origin;
    return answer.result;
}

}  // extern "C"
