/* The vault TA: data slots, keys and hub tokens kept in the TEE's private storage, and the
 * cryptography done with them. Every command takes the client's block as its one parameter; an
 * empty message is the TA's built-in self-test of that command id. */
#include <stddef.h>
#include <stdint.h>
#include <tee_internal_api.h>

#include "ta_request.h"
#include "vault_commands.h"
#include "zel_ta_ids.h"

struct command {
    uint32_t id;
    TEE_Result (*run)(struct ta_request* request);
};

static const struct command commands[] = {
    {ZEL_CMD_zel_put, vault_put},
    {ZEL_CMD_zel_get, vault_get},
    {ZEL_CMD_zel_delete, vault_delete},
    {ZEL_CMD_zel_deleteKey, vault_delete_key},
    {ZEL_CMD_zel_checkDataExistence, vault_check_data_existence},
    {ZEL_CMD_zel_storeKey, vault_store_key},
    {ZEL_CMD_zel_getHash, vault_get_hash},
    {ZEL_CMD_zel_compareData, vault_compare_data},
    {ZEL_CMD_zel_generateKey, vault_generate_key},
    {ZEL_CMD_zel_getSlotInfo, vault_get_slot_info},
    {ZEL_CMD_zel_aesEncrypt, vault_aes_encrypt},
    {ZEL_CMD_zel_aesDecrypt, vault_aes_decrypt},
    {ZEL_CMD_zel_ecdsaCreateSignature, vault_ecdsa_create_signature},
    {ZEL_CMD_zel_decryptByKey, vault_decrypt_by_key},
    {ZEL_CMD_zel_genAuthKey, vault_gen_auth_key},
    {ZEL_CMD_zel_decryptHubToken, vault_decrypt_hub_token},
    {ZEL_CMD_zel_getHubID, vault_get_hub_id},
    {ZEL_CMD_zel_getCmacKey, vault_get_cmac_key},
    {ZEL_CMD_zel_getCMACwithHubToken, vault_get_cmac_with_hub_token},
};

/* The ids with a self-test: the general commands and every number the raw suites send. Some of
 * those have a self-test and nothing else (no row above). */
#define SELF_TEST_ROW(id, name) id,
static const uint32_t self_tests[] = {
    ZEL_GENERAL_COMMANDS(SELF_TEST_ROW) ZEL_LIFECYCLE_COMMAND,
    ZEL_PROCESS_COMMANDS,
    ZEL_HEAVYLOAD_COMMANDS,
};
#undef SELF_TEST_ROW

static bool has_self_test(uint32_t id) {
    size_t i;

    if (id >= ZEL_FIRST_BIST_COMMAND && id <= ZEL_LAST_BIST_COMMAND) return true;
    for (i = 0; i < sizeof(self_tests) / sizeof(self_tests[0]); i++)
        if (self_tests[i] == id) return true;
    return false;
}

static TEE_Result serve(uint32_t id, struct ta_request* request) {
    size_t i;

    if (!has_self_test(id)) return TEE_ERROR_NOT_SUPPORTED;
    if (ta_request_empty(request)) return TEE_SUCCESS;
    for (i = 0; i < sizeof(commands) / sizeof(commands[0]); i++)
        if (commands[i].id == id) return commands[i].run(request);
    return TEE_ERROR_NOT_SUPPORTED;
}

TEE_Result TA_CreateEntryPoint(void) {
    return TEE_SUCCESS;
}

void TA_DestroyEntryPoint(void) {}

/* Any client may open a session; the TA keeps nothing per session. */
TEE_Result TA_OpenSessionEntryPoint(uint32_t param_types, TEE_Param params[TEE_NUM_PARAMS],
                                    void** session) {
    (void)param_types;
    (void)params;
    *session = NULL;
    return TEE_SUCCESS;
}

void TA_CloseSessionEntryPoint(void* session) {
    (void)session;
}

TEE_Result TA_InvokeCommandEntryPoint(void* session, uint32_t command, uint32_t param_types,
                                      TEE_Param params[TEE_NUM_PARAMS]) {
    struct ta_request request;
    TEE_Result result;

    (void)session;
    result = ta_request_open(&request, param_types, params);
    if (result != TEE_SUCCESS) return result;
    result = serve(command, &request);
    ta_request_close(&request);
    return result;
}
