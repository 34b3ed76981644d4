/* The vault's secure processor: its management commands. Its state is one persistent object per
 * item of sp_items.h, so the host TEE's reset empties it like the rest of the vault's storage; an
 * answer never stored reads as its default. */
#include <tee_internal_api.h>

#include "der.h"
#include "sp_items.h"
#include "ta_request.h"
#include "ta_store.h"
#include "zel_ta_ids.h"

/* An item's value as a command reads it: bytes of the store (owned, freed by value_release) or the
 * item's default. */
struct sp_value {
    const uint8_t* data;
    uint32_t size;
    uint8_t* owned;
};

static const struct sp_item_rule* rule_of(uint32_t item) {
    const struct sp_item_rule* rule = sp_item_rule_of(item);
    if (!rule) TEE_Panic(TEE_ERROR_GENERIC); /* every item asked for here is in the table */
    return rule;
}

static void value_release(struct sp_value* value) {
    TEE_Free(value->owned);
    value->owned = NULL;
}

/* TEE_ERROR_ITEM_NOT_FOUND only for what the TA keeps itself (no default); TEE_ERROR_BAD_STATE for
 * a stored value whose shape no command or answer would have given it. */
static TEE_Result value_read(uint32_t item, struct sp_value* value) {
    const struct sp_item_rule* rule = rule_of(item);
    const TEE_Result result = ta_store_read(rule->object_id, &value->owned, &value->size);
    value->data = value->owned;
    if (result == TEE_SUCCESS)
        return sp_item_value_fits(rule, value->size) ? TEE_SUCCESS : TEE_ERROR_BAD_STATE;
    if (result != TEE_ERROR_ITEM_NOT_FOUND || !rule->settable) return result;
    value->data = rule->fallback;
    value->size = rule->fallback_size;
    return TEE_SUCCESS;
}

static TEE_Result item_write(uint32_t item, const void* data, uint32_t size) {
    return ta_store_write(rule_of(item)->object_id, data, size);
}

/* Forgetting an item that is not there leaves what was asked for. */
static TEE_Result item_erase(uint32_t item) {
    const TEE_Result result = ta_store_erase(rule_of(item)->object_id);
    return result == TEE_ERROR_ITEM_NOT_FOUND ? TEE_SUCCESS : result;
}

static bool all_zero(const struct sp_value* value) {
    uint8_t any = 0;
    for (uint32_t i = 0; i < value->size; ++i) any |= value->data[i];
    return any == 0;
}

static int hex_digit(uint8_t c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

/* The AK key travels as the hexadecimal text of a DER RSAPublicKey. */
static TEE_Result check_ak_key_text(const uint8_t* text, uint32_t size) {
    uint8_t der[SP_AK_KEY_TEXT_SIZE / 2];
    if (size != SP_AK_KEY_TEXT_SIZE) return TEE_ERROR_BAD_PARAMETERS;
    for (uint32_t i = 0; i < sizeof der; ++i) {
        const int high = hex_digit(text[2 * i]);
        const int low = hex_digit(text[2 * i + 1]);
        if (high < 0 || low < 0) return TEE_ERROR_BAD_FORMAT;
        der[i] = (uint8_t)(high << 4 | low);
    }
    return der_is_rsa_public_key(der, sizeof der) ? TEE_SUCCESS : TEE_ERROR_BAD_FORMAT;
}

static TEE_Result check_zel_ak(struct ta_request* request) {
    uint32_t size = 0;
    const uint8_t* key = ta_read_blob(request, &size);
    struct sp_value provisioned = {0};
    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (size != SP_AK_KEY_TEXT_SIZE) return TEE_ERROR_BAD_PARAMETERS;
    TEE_Result result = value_read(SP_AK_KEY, &provisioned);
    if (result == TEE_SUCCESS)
        result =
            TEE_MemCompare(key, provisioned.data, size) == 0 ? TEE_SUCCESS : TEE_ERROR_SECURITY;
    value_release(&provisioned);
    return result;
}

static TEE_Result ak_provision(struct ta_request* request) {
    uint32_t size = 0;
    const uint8_t* key = ta_read_blob(request, &size);
    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    TEE_Result result = check_ak_key_text(key, size);
    /* A new key is not bound to RPMB until it is provisioned there again. */
    if (result == TEE_SUCCESS) result = item_erase(SP_RPMB_BOUND);
    if (result == TEE_SUCCESS) result = item_write(SP_AK_KEY, key, size);
    return result;
}

/* A command without request fields never reads the block: the TEE client does not clear a block it
 * allocates (Debian's libteec gives heap memory), so it may still hold an earlier message. */
static TEE_Result ak_provision_rpmb(struct ta_request* request) {
    (void)request;
    struct sp_value key = {0};
    TEE_Result result = value_read(SP_AK_KEY, &key);
    if (result == TEE_SUCCESS) result = item_write(SP_RPMB_BOUND, NULL, 0);
    value_release(&key);
    return result;
}

static TEE_Result get_public_key_status(struct ta_request* request) {
    (void)request;
    struct sp_value key = {0};
    const TEE_Result result = value_read(SP_AK_KEY, &key);
    value_release(&key);
    return result;
}

/* Uint size; Blob text. */
static TEE_Result reply_version(struct ta_request* request, uint32_t item) {
    struct sp_value version = {0};
    TEE_Result result = value_read(item, &version);
    if (result == TEE_SUCCESS) result = ta_reply_blob(request, version.data, version.size);
    value_release(&version);
    return result;
}

static TEE_Result get_info(struct ta_request* request) {
    return reply_version(request, SP_SYSTEM_VERSION);
}

static TEE_Result get_app_info(struct ta_request* request) {
    return reply_version(request, SP_APP_VERSION);
}

/* The firmware update itself: the result record it reports. */
static TEE_Result apply_update(struct ta_request* request, struct sp_value* record) {
    /* The caller's parameter, passed on to the firmware unread. */
    const int32_t parameter = ta_read_int(request);
    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
#ifdef ZEL_PLANTED_TA_PANIC
    /* The fuzzer's planted panic, for checking it on a real TEE; never in a TA for use. */
    if (parameter == INT32_MIN) TEE_Panic(TEE_ERROR_GENERIC);
#else
    (void)parameter;
#endif
    return value_read(SP_UPDATE_RESULT, record);
}

static TEE_Result update_fw(struct ta_request* request) {
    struct sp_value record = {0};
    TEE_Result result = apply_update(request, &record);
    /* Without a report, the outcome is the result itself: success only when both codes are 0. */
    if (result == TEE_SUCCESS && !all_zero(&record)) result = TEE_ERROR_GENERIC;
    value_release(&record);
    return result;
}

static TEE_Result update_fw_with_report(struct ta_request* request) {
    struct sp_value record = {0}, system = {0}, app = {0};
    TEE_Result result = apply_update(request, &record);
    if (result == TEE_SUCCESS) result = value_read(SP_SYSTEM_VERSION, &system);
    if (result == TEE_SUCCESS) result = value_read(SP_APP_VERSION, &app);
    /* The record goes as a bare blob: the report has no length field in front of it. */
    if (result == TEE_SUCCESS) result = ta_reply_raw_blob(request, record.data, record.size);
    if (result == TEE_SUCCESS) result = ta_reply_blob(request, system.data, system.size);
    if (result == TEE_SUCCESS) result = ta_reply_blob(request, app.data, app.size);
    value_release(&record);
    value_release(&system);
    value_release(&app);
    return result;
}

static TEE_Result self_test_all(struct ta_request* request) {
    (void)request;
    struct sp_value hack = {0};
    TEE_Result result = value_read(SP_HACK_STATUS, &hack);
    if (result == TEE_SUCCESS && !all_zero(&hack)) result = TEE_ERROR_SECURITY;
    value_release(&hack);
    return result;
}

static TEE_Result get_hack_info(struct ta_request* request) {
    struct sp_value hack = {0};
    TEE_Result result = value_read(SP_HACK_STATUS, &hack);
    if (result == TEE_SUCCESS) result = ta_reply_int(request, (int32_t)hack.size);
    if (result == TEE_SUCCESS) result = ta_reply_raw_blob(request, hack.data, hack.size);
    value_release(&hack);
    return result;
}

static TEE_Result get_fw_info(struct ta_request* request) {
    struct sp_value words = {0};
    TEE_Result result = value_read(SP_FIRMWARE_WORDS, &words);
    /* The length field counts words, not bytes. */
    if (result == TEE_SUCCESS) result = ta_reply_uint(request, words.size / 4);
    if (result == TEE_SUCCESS) result = ta_reply_raw_blob(request, words.data, words.size);
    value_release(&words);
    return result;
}

static TEE_Result force_recovery(struct ta_request* request) {
    (void)request;
    return TEE_SUCCESS;
}

static TEE_Result force_recovery_sp(struct ta_request* request) {
    (void)request;
    /* Recovery restores the secure processor's firmware, which clears a reported hack. */
    return item_erase(SP_HACK_STATUS);
}

static TEE_Result remove_ak_keys(struct ta_request* request) {
    (void)request;
    const TEE_Result result = item_erase(SP_RPMB_BOUND);
    return result != TEE_SUCCESS ? result : item_erase(SP_AK_KEY);
}

static const struct {
    uint32_t id;
    TEE_Result (*run)(struct ta_request* request);
} sp_commands[] = {
    {ZEL_CMD_ze_updateFW, update_fw_with_report},
    {ZEL_CMD_ze_getFWInfo, get_fw_info},
    {ZEL_CMD_zel_checkZelAk, check_zel_ak},
    {ZEL_CMD_zel_akProvision, ak_provision},
    {ZEL_CMD_zel_akProvisionRPMB, ak_provision_rpmb},
    {ZEL_CMD_zel_getPublicKeyStatus, get_public_key_status},
    {ZEL_CMD_zel_getInfo, get_info},
    {ZEL_CMD_zel_getAppInfo, get_app_info},
    {ZEL_CMD_zel_updateFW, update_fw},
    {ZEL_CMD_zel_selfTestAll, self_test_all},
    {ZEL_CMD_zel_getHackInfo, get_hack_info},
    {ZEL_CMD_zel_getFWInfo, get_fw_info},
    {ZEL_CMD_zel_forceRecovery, force_recovery},
    {ZEL_CMD_zel_forceRecoverySP, force_recovery_sp},
    {ZEL_CMD_zel_removeAkKeys, remove_ak_keys},
};

TEE_Result TA_CreateEntryPoint(void) {
    return TEE_SUCCESS;
}

void TA_DestroyEntryPoint(void) {}

/* Sessions keep nothing: every command finds its state in storage. */
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
    (void)session;
    TEE_Result result = ta_request_open(&request, param_types, params);
    if (result != TEE_SUCCESS) return result;
    result = TEE_ERROR_NOT_SUPPORTED;
    for (size_t i = 0; i < sizeof sp_commands / sizeof sp_commands[0]; ++i) {
        if (sp_commands[i].id == command) {
            result = sp_commands[i].run(&request);
            break;
        }
    }
    ta_request_close(&request);
    return result;
}
