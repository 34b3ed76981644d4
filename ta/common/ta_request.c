#include "ta_request.h"

#define EXPECTED_PARAMS                                                                    \
    TEE_PARAM_TYPES(TEE_PARAM_TYPE_MEMREF_INOUT, TEE_PARAM_TYPE_NONE, TEE_PARAM_TYPE_NONE, \
                    TEE_PARAM_TYPE_NONE)

TEE_Result ta_request_open(struct ta_request* request, uint32_t param_types, TEE_Param params[4]) {
    /* size_t is 32 bits on some TEEs: a 64-bit copy keeps the check meaningful on both. */
    const uint64_t block_size = params[0].memref.size;
    request->copy = NULL;
    request->ok = false;
    wsm_init(&request->in, NULL, 0);
    wsm_init(&request->out, NULL, 0);
    if (param_types != EXPECTED_PARAMS || !params[0].memref.buffer ||
        block_size < sizeof(uint32_t) || block_size > UINT32_MAX)
        return TEE_ERROR_BAD_PARAMETERS;
    /* Only the message is copied: a large block with a short request costs the TA no more. */
    const uint32_t size = wsm_message_size(params[0].memref.buffer, (uint32_t)block_size);
    request->copy = TEE_Malloc(size, 0);
    if (!request->copy) return TEE_ERROR_OUT_OF_MEMORY;
    TEE_MemMove(request->copy, params[0].memref.buffer, size);
    wsm_init(&request->in, request->copy, size);
    wsm_init(&request->out, params[0].memref.buffer, (uint32_t)block_size);
    request->ok = true;
    return TEE_SUCCESS;
}

void ta_request_close(struct ta_request* request) {
    /* The copy may hold key material. */
    if (request->copy) TEE_MemFill(request->copy, 0, request->in.size);
    TEE_Free(request->copy);
    request->copy = NULL;
}

bool ta_request_empty(const struct ta_request* request) {
    return request->in.position == 0 && wsm_peek(&request->in) == WSM_END;
}

int32_t ta_read_int(struct ta_request* request) {
    int32_t value = 0;
    request->ok = request->ok && wsm_get_int(&request->in, &value);
    return request->ok ? value : 0;
}

const uint8_t* ta_read_blob(struct ta_request* request, uint32_t* length) {
    uint32_t size = 0;
    const uint8_t* bytes = NULL;
    request->ok = request->ok && wsm_get_uint(&request->in, &size);
    if (request->ok) bytes = wsm_get(&request->in, WSM_BLOB, size);
    request->ok = request->ok && bytes;
    *length = request->ok ? size : 0;
    return request->ok ? bytes : NULL;
}

bool ta_request_complete(const struct ta_request* request) {
    return request->ok && wsm_peek(&request->in) == WSM_END;
}

static TEE_Result written(bool fits) {
    return fits ? TEE_SUCCESS : TEE_ERROR_SHORT_BUFFER;
}

TEE_Result ta_reply_int(struct ta_request* request, int32_t value) {
    return written(wsm_put_int(&request->out, value));
}

TEE_Result ta_reply_uint(struct ta_request* request, uint32_t value) {
    return written(wsm_put_uint(&request->out, value));
}

TEE_Result ta_reply_raw_blob(struct ta_request* request, const void* data, uint32_t length) {
    return written(wsm_put(&request->out, WSM_BLOB, data, length));
}

TEE_Result ta_reply_blob(struct ta_request* request, const void* data, uint32_t length) {
    TEE_Result result = ta_reply_uint(request, length);
    return result != TEE_SUCCESS ? result : ta_reply_raw_blob(request, data, length);
}
