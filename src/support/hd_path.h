// Hierarchical-deterministic derivation paths: five 32-bit indices, level 0 first.
#pragma once

#include <cstdint>

#include "zel_export.h"

// Host byte order, no other fields. The names follow the usual five-level layout
// (m / purpose' / coin' / account' / change / address); hardened indices keep their 0x80000000
// bit.
struct hd_path_param {
    uint32_t purpose;       // level 0
    uint32_t coinType;      // level 1
    uint32_t account;       // level 2
    uint32_t change;        // level 3
    uint32_t addressIndex;  // level 4
};
static_assert(sizeof(hd_path_param) == 20, "five 32-bit levels and nothing else");

// Decodes exactly 20 bytes, five big-endian 32-bit values with level 0 first, into *out and
// returns 0. Returns -1 and writes nothing when length is not 20 or out is null; buffer itself is
// not checked, a null one with length 20 is the caller's fault.
ZEL_TC_API int BufferToHdParamS(const void* buffer, unsigned int length, hd_path_param* out);

// Level 0 to 3 for level 0 to 3; level 4 for 4 and every larger level.
ZEL_TC_API unsigned int getHDPathIndex(const hd_path_param& path, unsigned int level);
