/* The vault's state: one persistent object per value, named "<kind>.<index>" (slot.7, key.0,
 * hub.31). A slot holds its data; a key holds one byte of key type and then the key material; a
 * hub token holds the decrypted token. */
#ifndef VAULT_OBJECTS_H
#define VAULT_OBJECTS_H

#include <stdbool.h>
#include <stdint.h>
#include <tee_internal_api.h>

#define VAULT_MAX_INDEX 31
#define VAULT_SLOT_MAX 4096
#define VAULT_KEY_TYPE_EC 5  /* RFC 5915 ECPrivateKey on P-256 */
#define VAULT_KEY_TYPE_AES 6 /* 256-bit AES key */
#define VAULT_HUB_ID_SIZE 16
#define VAULT_HUB_KEY_SIZE 32

enum vault_kind { VAULT_SLOT, VAULT_KEY, VAULT_HUB_TOKEN };

bool vault_valid_index(int32_t index);

/* The value of that kind at index (0 to VAULT_MAX_INDEX) in the TA's buffer: free it with
 * vault_free_value. TEE_ERROR_BAD_STATE when its length breaks the kind's rule; storage results as
 * ta_store.h says. Nothing is held on failure. */
TEE_Result vault_read(enum vault_kind kind, uint32_t index, uint8_t** value, uint32_t* length);
void vault_free_value(uint8_t* value, uint32_t length);
TEE_Result vault_write(enum vault_kind kind, uint32_t index, const void* value, uint32_t length);
/* A key: its type byte, then the material. */
TEE_Result vault_write_key(uint32_t index, uint8_t type, const uint8_t* material, uint32_t length);
/* TEE_ERROR_ITEM_NOT_FOUND when there was nothing there. */
TEE_Result vault_erase(enum vault_kind kind, uint32_t index);

#endif
