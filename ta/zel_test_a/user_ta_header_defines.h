#ifndef USER_TA_HEADER_DEFINES_H
#define USER_TA_HEADER_DEFINES_H

#include "zel_ta_ids.h"

#define TA_UUID ZEL_TEST_A_UUID
#define TA_FLAGS (TA_FLAG_SINGLE_INSTANCE | TA_FLAG_MULTI_SESSION | TA_FLAG_INSTANCE_KEEP_ALIVE)
/* The deepest command decodes the 270-byte AK key on the stack, beside the storage calls. */
#define TA_STACK_SIZE (4 * 1024)
/* The heap holds a copy of the client's block (8 KiB from the library) and one stored value (the
 * firmware words, at most 4 KiB), with room for the storage's own handles. */
#define TA_DATA_SIZE (32 * 1024)

#endif
