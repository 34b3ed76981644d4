#ifndef USER_TA_HEADER_DEFINES_H
#define USER_TA_HEADER_DEFINES_H

#include "zel_ta_ids.h"

#define TA_UUID ZEL_TEST_UUID

/* One instance keeps the storage's objects consistent: a command runs to its end before the next
 * starts, whatever session sends it. */
#define TA_FLAGS (TA_FLAG_SINGLE_INSTANCE | TA_FLAG_MULTI_SESSION | TA_FLAG_INSTANCE_KEEP_ALIVE)
/* The deepest command (ECDH then HKDF and GCM in decrypt-hub-token) keeps under 2 KiB of its own
 * on the stack; the rest is room for the TEE's library below it. */
#define TA_STACK_SIZE (8 * 1024)
/* A command holds at most about three copies of the client's block (the request, a padded input
 * and the cipher's output): 8 KiB blocks take 25 KiB; this leaves room for blocks of up to 40 KiB
 * and the TEE's own allocations. */
#define TA_DATA_SIZE (128 * 1024)

#endif
