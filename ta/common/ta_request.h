/* How a TA of this project takes a command: one partial in/out memory reference over the client's
 * block, holding a message in the codec's encoding (wsm_core.h). The request is copied out of the
 * shared block before it is read (the client can change the block while the TA runs); the reply is
 * written over the block from offset 0. */
#ifndef ZEL_TA_REQUEST_H
#define ZEL_TA_REQUEST_H

#include <stdbool.h>
#include <stdint.h>
#include <tee_internal_api.h>

#include "wsm_core.h"

struct ta_request {
    uint8_t* copy;         /* the TA's own copy of the block (TEE_Malloc) */
    struct wsm_cursor in;  /* reads the copy */
    struct wsm_cursor out; /* writes the client's block */
    bool ok;               /* every field read so far was there with its type */
};

/* TEE_ERROR_BAD_PARAMETERS unless the parameters are exactly one memref in/out of at least 4
 * bytes; TEE_ERROR_OUT_OF_MEMORY when the copy cannot be made. On success the request must be
 * closed with ta_request_close; on failure nothing is held. */
TEE_Result ta_request_open(struct ta_request* request, uint32_t param_types, TEE_Param params[4]);
/* Frees the copy; safe on a request that failed to open or was closed already. */
void ta_request_close(struct ta_request* request);

/* The block as allocated: a message with no field. */
bool ta_request_empty(const struct ta_request* request);
/* The next field, an Int; 0 (and the request malformed) when it is not. */
int32_t ta_read_int(struct ta_request* request);
/* A Uint length field and the Blob of exactly that length after it: the blob's bytes in the copy
 * (valid until close) and its length; NULL with length 0 (and the request malformed) otherwise. */
const uint8_t* ta_read_blob(struct ta_request* request, uint32_t* length);
/* Every field read was there and nothing follows them. Only for a request with fields: a block the
 * client wrote nothing into holds whatever it held before. */
bool ta_request_complete(const struct ta_request* request);

/* Reply fields; TEE_ERROR_SHORT_BUFFER when one does not fit the block. */
TEE_Result ta_reply_int(struct ta_request* request, int32_t value);
TEE_Result ta_reply_uint(struct ta_request* request, uint32_t value);
/* A bare Blob field, with no length field in front. */
TEE_Result ta_reply_raw_blob(struct ta_request* request, const void* data, uint32_t length);
/* A Uint length field and the Blob after it. */
TEE_Result ta_reply_blob(struct ta_request* request, const void* data, uint32_t length);

#endif
