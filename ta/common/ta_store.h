/* A TA's state in the TEE's private storage: one persistent object per value, named by a short
 * text id. Every write and erase is one storage operation, so it is there whole or not at all.
 * Results are the answers the vault's TAs give their clients: TEE_ERROR_ITEM_NOT_FOUND when there
 * is no such object, TEE_ERROR_BAD_STATE for a damaged one, TEE_ERROR_STORAGE_NO_SPACE,
 * TEE_ERROR_OUT_OF_MEMORY and TEE_ERROR_BUSY as the storage says them, otherwise
 * TEE_ERROR_GENERIC. */
#ifndef ZEL_TA_STORE_H
#define ZEL_TA_STORE_H

#include <stdint.h>
#include <tee_internal_api.h>

/* Longest id ta_store_id makes, with its terminating zero. */
#define TA_STORE_ID_SIZE 16

/* "<kind>.<index>", e.g. "slot.7": the id of the value at index of a kind. */
void ta_store_id(char id[TA_STORE_ID_SIZE], const char* kind, uint32_t index);

/* The whole value in a buffer of the TA's (free it with TEE_Free; NULL for an empty value). */
TEE_Result ta_store_read(const char* id, uint8_t** data, uint32_t* length);
/* Creates the object or replaces its value. */
TEE_Result ta_store_write(const char* id, const void* data, uint32_t length);
/* TEE_ERROR_ITEM_NOT_FOUND when there was nothing to erase. */
TEE_Result ta_store_erase(const char* id);

#endif
