#include "control_client.h"

#include "control_ids.h"

#include <cstring>

namespace zel::vault {

TEEC_Result VaultControl::send(uint32_t command, uint32_t target, uint32_t count, uint32_t what,
                               uint32_t origin, const TEEC_UUID& ta,
                               const std::vector<uint8_t>* message) const {
    TEEC_Context context{};
    TEEC_Result result =
        TEEC_InitializeContext(socketPath_.empty() ? nullptr : socketPath_.c_str(), &context);
    if (result != TEEC_SUCCESS) return result;
    TEEC_Session session{};
    uint32_t returnOrigin = 0;
    result = TEEC_OpenSession(&context, &session, &kControlUuid, TEEC_LOGIN_PUBLIC, nullptr,
                              nullptr, &returnOrigin);
    TEEC_SharedMemory memory{};
    if (result == TEEC_SUCCESS && message) {
        memory.size = message->size();
        memory.flags = TEEC_MEM_INPUT;
        result = TEEC_AllocateSharedMemory(&context, &memory);
        if (result == TEEC_SUCCESS && !message->empty())
            std::memcpy(memory.buffer, message->data(), message->size());
    }
    if (result == TEEC_SUCCESS) {
        const auto words = uuidWords(ta);
        TEEC_Operation operation{};
        operation.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, TEEC_VALUE_INPUT,
                                                TEEC_VALUE_INPUT, TEEC_VALUE_INPUT);
        operation.params[0].value = {target, count};
        operation.params[1].value = {what, origin};
        if (message) {
            operation.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, TEEC_MEMREF_PARTIAL_INPUT,
                                                    TEEC_VALUE_INPUT, TEEC_VALUE_INPUT);
            operation.params[1].memref = {&memory, memory.size, 0};
        }
        operation.params[2].value = {words[0], words[1]};
        operation.params[3].value = {words[2], words[3]};
        result = TEEC_InvokeCommand(&session, command, &operation, &returnOrigin);
    }
    TEEC_ReleaseSharedMemory(&memory);
    TEEC_CloseSession(&session);
    TEEC_FinalizeContext(&context);
    return result;
}

TEEC_Result VaultControl::reset() const {
    return send(kControlReset, 0, 0, 0, 0, TEEC_UUID{});
}

TEEC_Result VaultControl::failInvocations(const TEEC_UUID& ta, uint32_t command, uint32_t count,
                                          TEEC_Result result, uint32_t origin) const {
    return send(kControlFailInvoke, command, count, result, origin, ta);
}

TEEC_Result VaultControl::failOpenSession(const TEEC_UUID& ta, uint32_t count, TEEC_Result result,
                                          uint32_t origin) const {
    return send(kControlFailOpenSession, 0, count, result, origin, ta);
}

TEEC_Result VaultControl::failAllocations(uint32_t count, TEEC_Result result,
                                          uint32_t origin) const {
    return send(kControlFailAllocation, 0, count, result, origin, TEEC_UUID{});
}

TEEC_Result VaultControl::stallInvocations(const TEEC_UUID& ta, uint32_t command, uint32_t count,
                                           uint32_t milliseconds) const {
    return send(kControlStallInvoke, command, count, milliseconds, 0, ta);
}

}  // namespace zel::vault

namespace zel::vault {

TEEC_Result VaultControl::scriptReply(const TEEC_UUID& ta, uint32_t command, uint32_t count,
                                      const std::vector<uint8_t>& message) const {
    return send(kControlScriptReply, command, count, 0, 0, ta, &message);
}

TEEC_Result VaultControl::setSecureProcessor(uint32_t item,
                                             const std::vector<uint8_t>& value) const {
    return send(kControlSetSecureProcessor, item, 0, 0, 0, TEEC_UUID{}, &value);
}

}  // namespace zel::vault
