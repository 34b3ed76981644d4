#include "transport/zel_tee_client.h"

#include "transport/log_line.h"

using zel::logLine;

ZELTEEClient::ZELTEEClient() : contextOpened(false), sessionOpened(false), memoryAllocated(false) {}

ZELTEEClient::~ZELTEEClient() {
    Close();
}

bool ZELTEEClient::Open(TEEC_UUID destination) {
    uuid = destination;
    if (!OpenContext() || !OpenSession() || !AllocateMemory()) return false;
    logLine("TEE connection has been set");
    return true;
}

bool ZELTEEClient::OpenContext() {
    if (contextOpened) return true;
    const TEEC_Result result = TEEC_InitializeContext(nullptr, &context);
    if (result != TEEC_SUCCESS) {
        logLine("Failed to initialize TEE context, result = ", result);
        return false;
    }
    contextOpened = true;
    return true;
}

bool ZELTEEClient::OpenSession() {
    if (sessionOpened) return true;
    uint32_t origin = 0;
    const TEEC_Result result =
        TEEC_OpenSession(&context, &session, &uuid, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin);
    if (result != TEEC_SUCCESS) {
        logLine("Failed to open TEE session, result and retOrigin = ", result, ", ", origin);
        return false;
    }
    sessionOpened = true;
    return true;
}

bool ZELTEEClient::AllocateMemory() {
    if (memoryAllocated) return true;
    sharedMemory.size = kSharedMemorySize;
    sharedMemory.flags = kSharedMemoryFlags;
    const TEEC_Result result = TEEC_AllocateSharedMemory(&context, &sharedMemory);
    if (result != TEEC_SUCCESS) {
        logLine("Failed to allocate shared memory, result = ", result);
        return false;
    }
    memoryAllocated = true;
    return true;
}

void* ZELTEEClient::getSHMPtr() {
    return &sharedMemory;
}

TEEC_Result ZELTEEClient::InvokeCommand(unsigned int commandID) {
    // Invoking over a session that is not open is a programmer error to the TEE Client API.
    if (!contextOpened || !sessionOpened || !memoryAllocated) return kNotConnected;

    TEEC_Operation operation{};
    operation.paramTypes =
        TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_INOUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
    operation.params[0].memref.parent = &sharedMemory;
    operation.params[0].memref.size = sharedMemory.size;
    operation.params[0].memref.offset = 0;
    uint32_t origin = 0;
    const TEEC_Result result = TEEC_InvokeCommand(&session, commandID, &operation, &origin);
    if (result == TEEC_SUCCESS) return TEEC_SUCCESS;

    logLine("TEEC_InvokeCommand() failed for cmd = ", commandID, ", result = ", result,
            ", retOrigin = ", origin);
    if (result == TEEC_ERROR_GENERIC && origin == TEEC_ORIGIN_COMMS)
        logLine("TZ reported recoverable error, session should be restarted");
    return result;
}

void ZELTEEClient::FreeMemory() {
    if (!memoryAllocated) return;
    TEEC_ReleaseSharedMemory(&sharedMemory);
    memoryAllocated = false;
}

void ZELTEEClient::CloseSession() {
    if (!sessionOpened) return;
    TEEC_CloseSession(&session);
    sessionOpened = false;
}

void ZELTEEClient::CloseContext() {
    if (!contextOpened) return;
    TEEC_FinalizeContext(&context);
    contextOpened = false;
}

void ZELTEEClient::Close() {
    FreeMemory();
    CloseSession();
    CloseContext();
}
