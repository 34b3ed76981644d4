#include "wsm_core.h"

#include <string.h>

/* 64-bit so that no length from a block can wrap the arithmetic. */
static uint64_t padded_length(uint32_t length) {
    return ((uint64_t)length + 3) & ~(uint64_t)3;
}

static void store_le32(uint8_t* at, uint32_t value) {
    for (int i = 0; i < 4; ++i) at[i] = (uint8_t)(value >> (8 * i));
}

static uint32_t load_le32(const uint8_t* at) {
    return (uint32_t)at[0] | (uint32_t)at[1] << 8 | (uint32_t)at[2] << 16 | (uint32_t)at[3] << 24;
}

void wsm_init(struct wsm_cursor* cursor, void* block, uint32_t size) {
    cursor->block = (uint8_t*)block;
    cursor->size = block ? size : 0;
    cursor->position = 0;
}

bool wsm_put(struct wsm_cursor* out, uint32_t tag, const void* payload, uint32_t length) {
    if (tag == WSM_END || (length != 0 && !payload)) return false;
    const uint64_t end = out->position + WSM_FIELD_HEADER_SIZE + padded_length(length);
    if (end + sizeof(uint32_t) > out->size) return false;
    uint8_t* field = out->block + out->position;
    store_le32(field, tag);
    store_le32(field + 4, length);
    if (length) memmove(field + WSM_FIELD_HEADER_SIZE, payload, length);
    memset(field + WSM_FIELD_HEADER_SIZE + length, 0, (size_t)(padded_length(length) - length));
    out->position = (uint32_t)end;
    store_le32(out->block + out->position, WSM_END);
    return true;
}

bool wsm_put_int(struct wsm_cursor* out, int32_t value) {
    uint8_t bytes[4];
    store_le32(bytes, (uint32_t)value);
    return wsm_put(out, WSM_INT, bytes, sizeof bytes);
}

bool wsm_put_uint(struct wsm_cursor* out, uint32_t value) {
    uint8_t bytes[4];
    store_le32(bytes, value);
    return wsm_put(out, WSM_UINT, bytes, sizeof bytes);
}

uint32_t wsm_peek(const struct wsm_cursor* in) {
    if ((uint64_t)in->position + WSM_FIELD_HEADER_SIZE > in->size) return WSM_END;
    return load_le32(in->block + in->position);
}

const uint8_t* wsm_get(struct wsm_cursor* in, uint32_t tag, uint32_t length) {
    if (tag == WSM_END || wsm_peek(in) != tag) return NULL;
    const uint8_t* field = in->block + in->position;
    if (load_le32(field + 4) != length) return NULL;
    const uint64_t end = in->position + WSM_FIELD_HEADER_SIZE + padded_length(length);
    if (end > in->size) return NULL;
    in->position = (uint32_t)end;
    return field + WSM_FIELD_HEADER_SIZE;
}

bool wsm_get_int(struct wsm_cursor* in, int32_t* value) {
    const uint8_t* payload = wsm_get(in, WSM_INT, 4);
    if (payload) *value = (int32_t)load_le32(payload);
    return payload != NULL;
}

bool wsm_get_uint(struct wsm_cursor* in, uint32_t* value) {
    const uint8_t* payload = wsm_get(in, WSM_UINT, 4);
    if (payload) *value = load_le32(payload);
    return payload != NULL;
}

uint32_t wsm_message_size(const void* block, uint32_t size) {
    const uint8_t* bytes = (const uint8_t*)block;
    uint64_t position = 0;
    if (!block) return 0;
    while (position + WSM_FIELD_HEADER_SIZE <= size) {
        if (load_le32(bytes + position) == WSM_END) return (uint32_t)(position + sizeof(uint32_t));
        position += WSM_FIELD_HEADER_SIZE + padded_length(load_le32(bytes + position + 4));
    }
    return size;
}
