#include <tee_internal_api.h>

#include "panic_ta.h"

static uint32_t invocations;

TEE_Result TA_CreateEntryPoint(void) {
    return TEE_SUCCESS;
}

void TA_DestroyEntryPoint(void) {}

TEE_Result TA_OpenSessionEntryPoint(uint32_t param_types, TEE_Param params[4], void** session) {
    (void)param_types;
    (void)params;
    *session = NULL;
    return TEE_SUCCESS;
}

void TA_CloseSessionEntryPoint(void* session) {
    (void)session;
}

TEE_Result TA_InvokeCommandEntryPoint(void* session, uint32_t command, uint32_t param_types,
                                      TEE_Param params[4]) {
    (void)session;
    if (param_types != TEE_PARAM_TYPES(TEE_PARAM_TYPE_VALUE_OUTPUT, TEE_PARAM_TYPE_NONE,
                                       TEE_PARAM_TYPE_NONE, TEE_PARAM_TYPE_NONE))
        return TEE_ERROR_BAD_PARAMETERS;
    if (command == PANIC_TA_PANIC) {
        /* What a panicking instance holds is the TEE's to free. */
        void* held = TEE_Malloc(1024, 0);
        (void)held;
        TEE_Panic(PANIC_TA_CODE);
    }
    if (command != PANIC_TA_COUNT) return TEE_ERROR_NOT_SUPPORTED;
    params[0].value.a = ++invocations;
    return TEE_SUCCESS;
}
