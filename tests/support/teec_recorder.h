// A TEE Client API that records every call and answers as a test scripts it. Linked into unit
// tests in place of the real client library, it shows exactly which TEE functions the library
// calls, in which order and with which arguments.
#pragma once

#include <tee_client_api.h>

#include <functional>
#include <string>
#include <vector>

namespace recorder {

struct Answer {
    TEEC_Result result = TEEC_SUCCESS;
    uint32_t origin = TEEC_ORIGIN_TRUSTED_APP;
};

struct Invocation {
    uint32_t command;
    TEEC_Operation operation;
    std::vector<uint8_t> block;  // what the first memory reference held when invoked
};

struct Script {
    TEEC_Result initialize = TEEC_SUCCESS;
    Answer openSession;
    TEEC_Result allocate = TEEC_SUCCESS;
    // Called with the command id and how many invocations came before this one.
    std::function<Answer(uint32_t command, size_t index)> invoke;
};

extern Script script;
extern std::vector<std::string> calls;  // "InitializeContext", "OpenSession", ...
extern std::vector<Invocation> invocations;
extern TEEC_UUID lastDestination;
extern uint32_t lastLogin;
extern TEEC_SharedMemory lastAllocationRequest;  // size and flags as the library asked

void reset();

}  // namespace recorder
