/* The vault's commands with a request, one function each: it reads the request's fields, answers
 * the result the client sees and writes the reply, if any, over the block. What each does is in
 * docs/vault.md. */
#ifndef VAULT_COMMANDS_H
#define VAULT_COMMANDS_H

#include <tee_internal_api.h>

#include "ta_request.h"

TEE_Result vault_put(struct ta_request* request);
TEE_Result vault_get(struct ta_request* request);
TEE_Result vault_delete(struct ta_request* request);
TEE_Result vault_delete_key(struct ta_request* request);
TEE_Result vault_check_data_existence(struct ta_request* request);
TEE_Result vault_store_key(struct ta_request* request);
TEE_Result vault_get_hash(struct ta_request* request);
TEE_Result vault_compare_data(struct ta_request* request);
TEE_Result vault_generate_key(struct ta_request* request);
TEE_Result vault_get_slot_info(struct ta_request* request);
TEE_Result vault_aes_encrypt(struct ta_request* request);
TEE_Result vault_aes_decrypt(struct ta_request* request);
TEE_Result vault_ecdsa_create_signature(struct ta_request* request);
TEE_Result vault_decrypt_by_key(struct ta_request* request);
TEE_Result vault_gen_auth_key(struct ta_request* request);
TEE_Result vault_decrypt_hub_token(struct ta_request* request);
TEE_Result vault_get_hub_id(struct ta_request* request);
TEE_Result vault_get_cmac_key(struct ta_request* request);
TEE_Result vault_get_cmac_with_hub_token(struct ta_request* request);

#endif
