/* The header of one TA, compiled with that TA's own include folder. */
#include "ta_head.h"

#include "user_ta_header_defines.h"

const struct zel_ta_head zel_ta_head = {TA_UUID, TA_FLAGS, TA_STACK_SIZE, TA_DATA_SIZE};
