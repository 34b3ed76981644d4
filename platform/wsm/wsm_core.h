/* The byte encoding of messages in a shared-memory block, written once in C for every side: the
 * library's codec, the host's TEE and the TAs (which build with a TEE's own dev kit).
 *
 * Fields follow each other from offset 0. Each is a 32-bit little-endian tag, a 32-bit
 * little-endian length and the payload padded with zeros to a multiple of 4 bytes. A zero tag ends
 * the message, so a freshly allocated (all-zero) block is an empty message. Strict on purpose: a
 * field of the wrong type or length, or one that would reach past the block, is a failed read,
 * never a read outside the block. */
#ifndef ZEL_WSM_CORE_H
#define ZEL_WSM_CORE_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum wsm_tag { WSM_END = 0, WSM_INT = 1, WSM_UINT = 2, WSM_BLOB = 3 };

#define WSM_FIELD_HEADER_SIZE 8u

/* A cursor over a block. A null block reads and writes as a block of size 0. */
struct wsm_cursor {
    uint8_t* block;
    uint32_t size;
    uint32_t position;
};

void wsm_init(struct wsm_cursor* cursor, void* block, uint32_t size);

/* Appends a field and an end marker behind it. False, with nothing written, when the field and the
 * end marker would not fit. */
bool wsm_put(struct wsm_cursor* out, uint32_t tag, const void* payload, uint32_t length);
bool wsm_put_int(struct wsm_cursor* out, int32_t value);
bool wsm_put_uint(struct wsm_cursor* out, uint32_t value);

/* The payload of the next field when it has this tag and exactly this length; NULL (and the
 * position unchanged) otherwise. */
const uint8_t* wsm_get(struct wsm_cursor* in, uint32_t tag, uint32_t length);
bool wsm_get_int(struct wsm_cursor* in, int32_t* value);
bool wsm_get_uint(struct wsm_cursor* in, uint32_t* value);
/* The tag of the next field (WSM_END at the end of the message or of the block). */
uint32_t wsm_peek(const struct wsm_cursor* in);

/* How many bytes of a block its message takes, end marker included (at most the block's size):
 * all that a reader of the message needs to see. */
uint32_t wsm_message_size(const void* block, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif
