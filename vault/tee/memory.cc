// Memory: the TA's heap is counted against its instance's limit and freed with the instance.
#include <cstring>

#include "api_internal.h"

using zel::tee::current;

extern "C" {

void* TEE_Malloc(size_t size, uint32_t hint) {
    zel::tee::TaContext& ta = current();
    // Unknown hints answer NULL, as on OP-TEE. Every block is zero-filled: NO_FILL only allows
    // garbage, and NO_SHARE means nothing here.
    if (hint & ~(TEE_MALLOC_NO_FILL | TEE_MALLOC_NO_SHARE)) return nullptr;
    return ta.tables().allocate(size);
}

void TEE_Free(void* buffer) {
    if (!buffer) return;
    if (!current().tables().release(buffer)) TEE_Panic(zel::tee::kMisuse);
}

void TEE_MemMove(void* dest, const void* src, size_t size) {
    if (size) std::memmove(dest, src, size);
}

// Constant time: how long it takes tells nothing of where the buffers differ.
int32_t TEE_MemCompare(const void* buffer1, const void* buffer2, size_t size) {
    const auto* left = static_cast<const uint8_t*>(buffer1);
    const auto* right = static_cast<const uint8_t*>(buffer2);
    int32_t first = 0;
    uint32_t found = 0;
    for (size_t index = 0; index < size; ++index) {
        const int32_t difference = int32_t(left[index]) - int32_t(right[index]);
        first |= int32_t(uint32_t(difference) & ~found);
        found |= 0u - uint32_t(difference != 0);
    }
    return (first > 0) - (first < 0);
}

void TEE_MemFill(void* buffer, uint32_t x, size_t size) {
    if (size) std::memset(buffer, int(uint8_t(x)), size);
}

}  // extern "C"
