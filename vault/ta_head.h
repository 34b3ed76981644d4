/* What a TA shared object tells the host TEE about itself, as a TEE reads a TA's header: made from
 * the TA's own user_ta_header_defines.h by ta_head.c, which the build links into every TA. */
#ifndef ZEL_TA_HEAD_H
#define ZEL_TA_HEAD_H

#include <stdint.h>
#include <tee_internal_api.h>

/* The TA property flags as TA headers spell them (the values OP-TEE gives them). */
#define TA_FLAG_SINGLE_INSTANCE (1u << 2)
#define TA_FLAG_MULTI_SESSION (1u << 3)
#define TA_FLAG_INSTANCE_KEEP_ALIVE (1u << 4)

struct zel_ta_head {
    TEE_UUID uuid;
    uint32_t flags;
    uint32_t stack_size;
    uint32_t data_size; /* the instance's heap */
};

#define ZEL_TA_HEAD_SYMBOL "zel_ta_head"

#endif
