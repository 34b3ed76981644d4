#include "vault_commands.h"

#include "vault_crypto.h"
#include "vault_objects.h"

/* The option values the vault implements: PKCS#7 padding, AES-256 (a key size of 32 bytes in the
 * AES commands, code 2 in decrypt-by-key), CBC mode. */
#define PKCS7_PADDING 1
#define AES_256_BYTES 32
#define AES_256_CODE 2
#define CBC_MODE 1
#define GENERATE_AES 1
#define GENERATE_EC 2
#define CMAC_WITH_TOKEN_KEY 1
#define SIGN_HASH_OF_MESSAGE 1
#define SIGN_DIGEST 2
#define HASH_OF_SLOT 0
#define EXISTS_SLOT 0
#define EXISTS_KEY 1

/* Decrypt-by-key input: a 2-byte big-endian plaintext length, a 16-byte IV, the CBC body of at
 * least one block. */
#define LENGTH_FIELD_SIZE 2
#define DECRYPT_BY_KEY_MIN (LENGTH_FIELD_SIZE + VAULT_AES_BLOCK_SIZE + VAULT_AES_BLOCK_SIZE)

static const char hub_token_info[] = "zel hub token";
static const uint8_t rx_key_label[] = {'z', 'e', 'l', ' ', 'r', 'x', ' ', 'k', 'e', 'y'};
static const uint8_t tx_key_label[] = {'z', 'e', 'l', ' ', 't', 'x', ' ', 'k', 'e', 'y'};

/* A key object as read: its type byte, then the material. */
struct stored_key {
    uint8_t* value;
    uint32_t length;
    uint8_t type;
    const uint8_t* material;
    uint32_t material_length;
};

/* A hub token as read: its identity, its key, then claims the vault does not read. */
struct hub_token {
    uint8_t* value;
    uint32_t length;
    const uint8_t* id;
    const uint8_t* key;
};

static TEE_Result read_key(uint32_t index, struct stored_key* key) {
    TEE_Result result = vault_read(VAULT_KEY, index, &key->value, &key->length);

    if (result == TEE_SUCCESS) {
        key->type = key->value[0];
        key->material = key->value + 1;
        key->material_length = key->length - 1;
    }
    return result;
}

static void free_key(struct stored_key* key) {
    vault_free_value(key->value, key->length);
    key->value = NULL;
    key->length = 0;
}

/* The key at index when it is of this type. A stored key is checked like a key arriving in a
 * request: one that would not be accepted there is damage. */
static TEE_Result key_of_type(uint32_t index, uint8_t type, struct stored_key* key) {
    bool well_formed = false;
    TEE_Result result = read_key(index, key);

    if (result != TEE_SUCCESS) return result;
    if (key->type == VAULT_KEY_TYPE_AES)
        well_formed = key->material_length == VAULT_AES_KEY_SIZE;
    else if (key->type == VAULT_KEY_TYPE_EC)
        well_formed =
            vault_check_ec_private_key(key->material, key->material_length) == TEE_SUCCESS;
    if (!well_formed)
        result = TEE_ERROR_BAD_STATE;
    else if (key->type != type)
        result = TEE_ERROR_BAD_PARAMETERS;
    if (result != TEE_SUCCESS) free_key(key);
    return result;
}

static TEE_Result read_hub_token(uint32_t index, struct hub_token* token) {
    TEE_Result result = vault_read(VAULT_HUB_TOKEN, index, &token->value, &token->length);

    if (result == TEE_SUCCESS) {
        token->id = token->value;
        token->key = token->value + VAULT_HUB_ID_SIZE;
    }
    return result;
}

static void free_hub_token(struct hub_token* token) {
    vault_free_value(token->value, token->length);
    token->value = NULL;
    token->length = 0;
}

/* Whether the data equals the material, in a time that does not depend on where they differ. */
static bool same_bytes(const uint8_t* a, uint32_t a_length, const uint8_t* b, uint32_t b_length) {
    uint8_t difference = 0;
    uint32_t i;

    if (a_length != b_length) return false;
    for (i = 0; i < a_length; i++) difference |= a[i] ^ b[i];
    return difference == 0;
}

TEE_Result vault_put(struct ta_request* request) {
    uint32_t size = 0;
    const int32_t index = ta_read_int(request);
    const uint8_t* data = ta_read_blob(request, &size);

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index) || size == 0 || size > VAULT_SLOT_MAX)
        return TEE_ERROR_BAD_PARAMETERS;
    return vault_write(VAULT_SLOT, (uint32_t)index, data, size);
}

TEE_Result vault_get(struct ta_request* request) {
    uint8_t* data = NULL;
    uint32_t size = 0;
    const int32_t index = ta_read_int(request);
    TEE_Result result;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index)) return TEE_ERROR_BAD_PARAMETERS;
    result = vault_read(VAULT_SLOT, (uint32_t)index, &data, &size);
    if (result == TEE_SUCCESS) result = ta_reply_blob(request, data, size);
    vault_free_value(data, size);
    return result;
}

static TEE_Result erase(struct ta_request* request, enum vault_kind kind) {
    const int32_t index = ta_read_int(request);

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index)) return TEE_ERROR_BAD_PARAMETERS;
    return vault_erase(kind, (uint32_t)index);
}

TEE_Result vault_delete(struct ta_request* request) {
    return erase(request, VAULT_SLOT);
}

TEE_Result vault_delete_key(struct ta_request* request) {
    return erase(request, VAULT_KEY);
}

TEE_Result vault_check_data_existence(struct ta_request* request) {
    uint8_t* value = NULL;
    uint32_t length = 0;
    const int32_t index = ta_read_int(request);
    const int32_t type = ta_read_int(request);
    TEE_Result result;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index) || (type != EXISTS_SLOT && type != EXISTS_KEY))
        return TEE_ERROR_BAD_PARAMETERS;
    result =
        vault_read(type == EXISTS_SLOT ? VAULT_SLOT : VAULT_KEY, (uint32_t)index, &value, &length);
    vault_free_value(value, length);
    return result;
}

TEE_Result vault_store_key(struct ta_request* request) {
    uint32_t size = 0;
    const int32_t index = ta_read_int(request);
    const int32_t type = ta_read_int(request);
    const uint8_t* material = ta_read_blob(request, &size);
    TEE_Result result;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index)) return TEE_ERROR_BAD_PARAMETERS;
    if (type == VAULT_KEY_TYPE_AES) {
        if (size != VAULT_AES_KEY_SIZE) return TEE_ERROR_BAD_PARAMETERS;
    } else if (type == VAULT_KEY_TYPE_EC) {
        result = vault_check_ec_private_key(material, size);
        if (result != TEE_SUCCESS) return result;
    } else {
        return TEE_ERROR_NOT_SUPPORTED;
    }
    return vault_write_key((uint32_t)index, (uint8_t)type, material, size);
}

TEE_Result vault_get_hash(struct ta_request* request) {
    uint8_t* data = NULL;
    uint32_t size = 0;
    uint8_t digest[VAULT_SHA256_SIZE];
    const int32_t index = ta_read_int(request);
    const int32_t type = ta_read_int(request);
    TEE_Result result;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index) || type != HASH_OF_SLOT) return TEE_ERROR_BAD_PARAMETERS;
    result = vault_read(VAULT_SLOT, (uint32_t)index, &data, &size);
    if (result == TEE_SUCCESS) result = vault_sha256(data, size, digest);
    if (result == TEE_SUCCESS) result = ta_reply_blob(request, digest, sizeof(digest));
    vault_free_value(data, size);
    return result;
}

TEE_Result vault_compare_data(struct ta_request* request) {
    struct stored_key key = {NULL, 0, 0, NULL, 0};
    uint32_t size = 0;
    const int32_t index = ta_read_int(request);
    const uint8_t* data = ta_read_blob(request, &size);
    TEE_Result result;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index) || size == 0) return TEE_ERROR_BAD_PARAMETERS;
    result = read_key((uint32_t)index, &key);
    if (result == TEE_SUCCESS && !same_bytes(key.material, key.material_length, data, size))
        result = TEE_ERROR_SECURITY;
    free_key(&key);
    return result;
}

TEE_Result vault_generate_key(struct ta_request* request) {
    uint8_t aes_key[VAULT_AES_KEY_SIZE];
    uint8_t ec_key[DER_EC_PRIVATE_KEY_SIZE];
    const int32_t index = ta_read_int(request);
    const int32_t option = ta_read_int(request);
    TEE_Result result;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index) || (option != GENERATE_AES && option != GENERATE_EC))
        return TEE_ERROR_BAD_PARAMETERS;
    if (option == GENERATE_AES) {
        vault_generate_aes_key(aes_key);
        result = vault_write_key((uint32_t)index, VAULT_KEY_TYPE_AES, aes_key, sizeof(aes_key));
    } else {
        result = vault_generate_ec_key(ec_key);
        if (result == TEE_SUCCESS)
            result = vault_write_key((uint32_t)index, VAULT_KEY_TYPE_EC, ec_key, sizeof(ec_key));
    }
    TEE_MemFill(aes_key, 0, sizeof(aes_key));
    TEE_MemFill(ec_key, 0, sizeof(ec_key));
    return result;
}

TEE_Result vault_get_slot_info(struct ta_request* request) {
    /* Bit 0: the slot holds data; bit 1: a key is stored at the index. */
    const int32_t has_data = 1;
    const int32_t has_key = 2;
    uint8_t* data = NULL;
    uint32_t size = 0;
    struct stored_key key = {NULL, 0, 0, NULL, 0};
    const int32_t index = ta_read_int(request);
    TEE_Result slot;
    TEE_Result stored;
    TEE_Result result = TEE_SUCCESS;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index)) return TEE_ERROR_BAD_PARAMETERS;
    slot = vault_read(VAULT_SLOT, (uint32_t)index, &data, &size);
    stored = read_key((uint32_t)index, &key);
    if (slot != TEE_SUCCESS && slot != TEE_ERROR_ITEM_NOT_FOUND)
        result = slot;
    else if (stored != TEE_SUCCESS && stored != TEE_ERROR_ITEM_NOT_FOUND)
        result = stored;
    if (result == TEE_SUCCESS)
        result = ta_reply_int(
            request, (slot == TEE_SUCCESS ? has_data : 0) | (stored == TEE_SUCCESS ? has_key : 0));
    if (result == TEE_SUCCESS) result = ta_reply_uint(request, size);
    vault_free_value(data, size);
    free_key(&key);
    return result;
}

static TEE_Result aes(struct ta_request* request, bool encrypt) {
    struct stored_key key = {NULL, 0, 0, NULL, 0};
    uint8_t* out = NULL;
    uint32_t out_length = 0;
    uint32_t iv_length = 0;
    uint32_t length = 0;
    const int32_t index = ta_read_int(request);
    const int32_t padding = ta_read_int(request);
    const int32_t key_size = ta_read_int(request);
    const int32_t mode = ta_read_int(request);
    const uint8_t* iv = ta_read_blob(request, &iv_length);
    const uint8_t* data = ta_read_blob(request, &length);
    TEE_Result result;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index) || iv_length != VAULT_AES_BLOCK_SIZE)
        return TEE_ERROR_BAD_PARAMETERS;
    if (padding != PKCS7_PADDING || key_size != AES_256_BYTES || mode != CBC_MODE)
        return TEE_ERROR_NOT_SUPPORTED;
    result = key_of_type((uint32_t)index, VAULT_KEY_TYPE_AES, &key);
    if (result == TEE_SUCCESS)
        result = vault_aes_cbc(encrypt, key.material, iv, data, length, &out, &out_length);
    if (result == TEE_SUCCESS) result = ta_reply_blob(request, out, out_length);
    vault_free_secret(out, out_length);
    free_key(&key);
    return result;
}

TEE_Result vault_aes_encrypt(struct ta_request* request) {
    return aes(request, true);
}

TEE_Result vault_aes_decrypt(struct ta_request* request) {
    return aes(request, false);
}

TEE_Result vault_ecdsa_create_signature(struct ta_request* request) {
    struct stored_key key = {NULL, 0, 0, NULL, 0};
    uint8_t hash[VAULT_SHA256_SIZE];
    uint8_t signature[DER_ECDSA_SIGNATURE_MAX];
    uint32_t signature_length = 0;
    uint32_t length = 0;
    const int32_t index = ta_read_int(request);
    const int32_t type = ta_read_int(request);
    const uint8_t* message = ta_read_blob(request, &length);
    const uint8_t* digest = message;
    uint32_t digest_length = length;
    TEE_Result result;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index) || length == 0) return TEE_ERROR_BAD_PARAMETERS;
    if (type != SIGN_HASH_OF_MESSAGE && type != SIGN_DIGEST) return TEE_ERROR_NOT_SUPPORTED;
    result = key_of_type((uint32_t)index, VAULT_KEY_TYPE_EC, &key);
    if (result == TEE_SUCCESS && type == SIGN_HASH_OF_MESSAGE) {
        result = vault_sha256(message, length, hash);
        digest = hash;
        digest_length = sizeof(hash);
    }
    if (result == TEE_SUCCESS)
        result = vault_ecdsa_sign_digest(key.material, key.material_length, digest, digest_length,
                                         signature, &signature_length);
    if (result == TEE_SUCCESS) result = ta_reply_blob(request, signature, signature_length);
    free_key(&key);
    return result;
}

TEE_Result vault_decrypt_by_key(struct ta_request* request) {
    struct stored_key key = {NULL, 0, 0, NULL, 0};
    uint8_t* plain = NULL;
    uint32_t plain_length = 0;
    uint32_t length = 0;
    uint32_t expected;
    const int32_t index = ta_read_int(request);
    const int32_t key_index = ta_read_int(request);
    const int32_t padding = ta_read_int(request);
    const int32_t key_size = ta_read_int(request);
    const int32_t mode = ta_read_int(request);
    const uint8_t* input = ta_read_blob(request, &length);
    TEE_Result result;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index) || !vault_valid_index(key_index)) return TEE_ERROR_BAD_PARAMETERS;
    if (padding != PKCS7_PADDING || key_size != AES_256_CODE || mode != CBC_MODE)
        return TEE_ERROR_NOT_SUPPORTED;
    if (length < DECRYPT_BY_KEY_MIN) return TEE_ERROR_BAD_FORMAT;
    expected = (uint32_t)input[0] << 8 | input[1];
    result = key_of_type((uint32_t)key_index, VAULT_KEY_TYPE_AES, &key);
    if (result == TEE_SUCCESS)
        result =
            vault_aes_cbc(false, key.material, input + LENGTH_FIELD_SIZE,
                          input + LENGTH_FIELD_SIZE + VAULT_AES_BLOCK_SIZE,
                          length - LENGTH_FIELD_SIZE - VAULT_AES_BLOCK_SIZE, &plain, &plain_length);
    if (result == TEE_SUCCESS &&
        (plain_length != expected || plain_length == 0 || plain_length > VAULT_SLOT_MAX))
        result = TEE_ERROR_BAD_FORMAT;
    if (result == TEE_SUCCESS)
        result = vault_write(VAULT_SLOT, (uint32_t)index, plain, plain_length);
    vault_free_secret(plain, plain_length);
    free_key(&key);
    return result;
}

TEE_Result vault_gen_auth_key(struct ta_request* request) {
    struct stored_key key = {NULL, 0, 0, NULL, 0};
    uint8_t secret[VAULT_ECDH_SECRET_SIZE];
    uint32_t length = 0;
    const int32_t index = ta_read_int(request);
    const uint8_t* public_key = ta_read_blob(request, &length);
    TEE_Result result;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index)) return TEE_ERROR_BAD_PARAMETERS;
    result = key_of_type((uint32_t)index, VAULT_KEY_TYPE_EC, &key);
    if (result == TEE_SUCCESS)
        result = vault_ecdh(key.material, key.material_length, public_key, length, secret);
    if (result == TEE_SUCCESS) result = ta_reply_blob(request, secret, sizeof(secret));
    TEE_MemFill(secret, 0, sizeof(secret));
    free_key(&key);
    return result;
}

TEE_Result vault_decrypt_hub_token(struct ta_request* request) {
    struct stored_key key = {NULL, 0, 0, NULL, 0};
    uint8_t secret[VAULT_ECDH_SECRET_SIZE];
    uint8_t token_key[VAULT_AES_KEY_SIZE];
    uint8_t* token = NULL;
    uint32_t token_length = 0;
    uint32_t sealed_length = 0;
    uint32_t iv_length = 0;
    uint32_t cloud_length = 0;
    const int32_t key_index = ta_read_int(request);
    const int32_t store_index = ta_read_int(request);
    const uint8_t* sealed = ta_read_blob(request, &sealed_length);
    const uint8_t* iv = ta_read_blob(request, &iv_length);
    const uint8_t* cloud_key = ta_read_blob(request, &cloud_length);
    TEE_Result result;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(key_index) || !vault_valid_index(store_index) || iv_length == 0)
        return TEE_ERROR_BAD_PARAMETERS;
    result = key_of_type((uint32_t)key_index, VAULT_KEY_TYPE_EC, &key);
    if (result == TEE_SUCCESS)
        result = vault_ecdh(key.material, key.material_length, cloud_key, cloud_length, secret);
    if (result == TEE_SUCCESS)
        result = vault_hkdf_sha256(secret, sizeof(secret), hub_token_info, token_key);
    if (result == TEE_SUCCESS)
        result = vault_aes_gcm_open(token_key, iv, iv_length, sealed, sealed_length, &token,
                                    &token_length);
    if (result == TEE_SUCCESS && token_length < VAULT_HUB_ID_SIZE + VAULT_HUB_KEY_SIZE)
        result = TEE_ERROR_BAD_FORMAT;
    if (result == TEE_SUCCESS)
        result = vault_write(VAULT_HUB_TOKEN, (uint32_t)store_index, token, token_length);
    TEE_MemFill(secret, 0, sizeof(secret));
    TEE_MemFill(token_key, 0, sizeof(token_key));
    vault_free_secret(token, token_length);
    free_key(&key);
    return result;
}

TEE_Result vault_get_hub_id(struct ta_request* request) {
    struct hub_token token = {NULL, 0, NULL, NULL};
    const int32_t index = ta_read_int(request);
    TEE_Result result;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index)) return TEE_ERROR_BAD_PARAMETERS;
    result = read_hub_token((uint32_t)index, &token);
    if (result == TEE_SUCCESS) result = ta_reply_blob(request, token.id, VAULT_HUB_ID_SIZE);
    free_hub_token(&token);
    return result;
}

TEE_Result vault_get_cmac_key(struct ta_request* request) {
    struct hub_token token = {NULL, 0, NULL, NULL};
    uint8_t rx[VAULT_CMAC_SIZE];
    uint8_t tx[VAULT_CMAC_SIZE];
    const int32_t index = ta_read_int(request);
    TEE_Result result;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index)) return TEE_ERROR_BAD_PARAMETERS;
    result = read_hub_token((uint32_t)index, &token);
    if (result == TEE_SUCCESS)
        result = vault_aes_cmac(token.key, rx_key_label, sizeof(rx_key_label), rx);
    if (result == TEE_SUCCESS)
        result = vault_aes_cmac(token.key, tx_key_label, sizeof(tx_key_label), tx);
    if (result == TEE_SUCCESS) result = ta_reply_blob(request, rx, sizeof(rx));
    if (result == TEE_SUCCESS) result = ta_reply_blob(request, tx, sizeof(tx));
    TEE_MemFill(rx, 0, sizeof(rx));
    TEE_MemFill(tx, 0, sizeof(tx));
    free_hub_token(&token);
    return result;
}

TEE_Result vault_get_cmac_with_hub_token(struct ta_request* request) {
    struct hub_token token = {NULL, 0, NULL, NULL};
    uint8_t mac[VAULT_CMAC_SIZE];
    uint32_t length = 0;
    const int32_t index = ta_read_int(request);
    const int32_t type = ta_read_int(request);
    const uint8_t* message = ta_read_blob(request, &length);
    TEE_Result result;

    if (!ta_request_complete(request)) return TEE_ERROR_BAD_FORMAT;
    if (!vault_valid_index(index)) return TEE_ERROR_BAD_PARAMETERS;
    if (type != CMAC_WITH_TOKEN_KEY) return TEE_ERROR_NOT_SUPPORTED;
    result = read_hub_token((uint32_t)index, &token);
    if (result == TEE_SUCCESS) result = vault_aes_cmac(token.key, message, length, mac);
    if (result == TEE_SUCCESS) result = ta_reply_blob(request, mac, sizeof(mac));
    free_hub_token(&token);
    return result;
}
