#include "vault_objects.h"

#include "ta_store.h"
#include "vault_crypto.h"

/* What a stored value of each kind may be: anything no command would store reads back as
 * damage. A key needs at least its type byte; its material is checked where it is used. */
static const struct {
    const char* name;
    uint32_t min_length;
    uint32_t max_length;
} kinds[] = {
    [VAULT_SLOT] = {"slot", 1, VAULT_SLOT_MAX},
    [VAULT_KEY] = {"key", 1, UINT32_MAX},
    [VAULT_HUB_TOKEN] = {"hub", VAULT_HUB_ID_SIZE + VAULT_HUB_KEY_SIZE, UINT32_MAX},
};

bool vault_valid_index(int32_t index) {
    return index >= 0 && index <= VAULT_MAX_INDEX;
}

static void object_id(char id[TA_STORE_ID_SIZE], enum vault_kind kind, uint32_t index) {
    ta_store_id(id, kinds[kind].name, index);
}

TEE_Result vault_read(enum vault_kind kind, uint32_t index, uint8_t** value, uint32_t* length) {
    char id[TA_STORE_ID_SIZE];
    TEE_Result result;

    object_id(id, kind, index);
    result = ta_store_read(id, value, length);
    if (result == TEE_SUCCESS &&
        (*length < kinds[kind].min_length || *length > kinds[kind].max_length)) {
        vault_free_value(*value, *length);
        *value = NULL;
        *length = 0;
        result = TEE_ERROR_BAD_STATE;
    }
    return result;
}

void vault_free_value(uint8_t* value, uint32_t length) {
    vault_free_secret(value, length);
}

TEE_Result vault_write(enum vault_kind kind, uint32_t index, const void* value, uint32_t length) {
    char id[TA_STORE_ID_SIZE];

    object_id(id, kind, index);
    return ta_store_write(id, value, length);
}

TEE_Result vault_write_key(uint32_t index, uint8_t type, const uint8_t* material, uint32_t length) {
    uint8_t* value;
    TEE_Result result;

    if (length > UINT32_MAX - 1) return TEE_ERROR_OUT_OF_MEMORY;
    value = TEE_Malloc(length + 1, TEE_MALLOC_FILL_ZERO);
    if (!value) return TEE_ERROR_OUT_OF_MEMORY;
    value[0] = type;
    TEE_MemMove(value + 1, material, length);
    result = vault_write(VAULT_KEY, index, value, length + 1);
    vault_free_secret(value, length + 1);
    return result;
}

TEE_Result vault_erase(enum vault_kind kind, uint32_t index) {
    char id[TA_STORE_ID_SIZE];

    object_id(id, kind, index);
    return ta_store_erase(id);
}
