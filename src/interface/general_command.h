// The general commands of the vault TA over the command skeleton: the "CA Interface: " line, the
// empty-input check, and reply buffers handed to the caller as malloc'ed copies it frees.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "interface/command_call.h"

namespace zel {

// Where one reply buffer goes: its address (malloc'ed, the caller frees it) and its length.
struct BufferOut {
    unsigned char** data;
    unsigned int* size;
};

// A general command, up to its invocation.
CommandCall generalCall(const TEEC_UUID& uuid, uint32_t commandId, bool emptyInput,
                        std::initializer_list<WsmField> request, bool readsReply);

// Reads a length and a blob per output, all before any check; then hands out a copy of each.
// missingMessage is printed when a blob is missing or empty.
int32_t handOutBuffers(CQeruWsm& reply, std::initializer_list<BufferOut> outputs,
                       const char* missingMessage);

// A whole general command whose reply, if any, is length-prefixed buffers.
int32_t runGeneralCommand(const TEEC_UUID& uuid, uint32_t commandId, bool emptyInput,
                          std::initializer_list<WsmField> request,
                          std::initializer_list<BufferOut> outputs = {},
                          const char* missingMessage = "Data null from TA");

}  // namespace zel
