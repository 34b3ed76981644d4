// One connection to one trusted application: a TEE context, one session and one 8192-byte
// shared-memory block that carries every request and reply.
//
// Meant as a stack object for a single command (or one raw suite): Open acquires context, session
// and memory in that order and keeps whatever it got even when a later step fails; Close and the
// destructor release what is held, memory first, then the session, then the context. The object
// owns TEE handles and cannot be copied. getSHMPtr() and InvokeCommand are meaningful only after
// Open returned true; on a client that is not connected InvokeCommand touches no TEE function and
// returns TEEC_ERROR_BAD_STATE.
#pragma once

#include <tee_client_api.h>

#include <cstdint>

#include "zel_export.h"

class ZEL_TC_API ZELTEEClient {
  public:
    static constexpr uint32_t kSharedMemorySize = 8192;
    static constexpr uint32_t kSharedMemoryFlags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
    // InvokeCommand's answer on a client that is not connected.
    static constexpr TEEC_Result kNotConnected = TEEC_ERROR_BAD_STATE;

    ZELTEEClient();
    ~ZELTEEClient();
    ZELTEEClient(const ZELTEEClient&) = delete;
    ZELTEEClient& operator=(const ZELTEEClient&) = delete;

    bool Open(TEEC_UUID uuid);
    bool OpenContext();
    bool OpenSession();
    bool AllocateMemory();

    // The TEEC_SharedMemory record itself (not its buffer): what the codec is laid over.
    void* getSHMPtr();
    TEEC_Result InvokeCommand(unsigned int commandID);

    void FreeMemory();
    void CloseSession();
    void CloseContext();
    void Close();

  private:
    TEEC_Context context{};
    TEEC_Session session{};
    TEEC_SharedMemory sharedMemory{};
    TEEC_UUID uuid{};
    bool contextOpened;
    bool sessionOpened;
    bool memoryAllocated;
};
