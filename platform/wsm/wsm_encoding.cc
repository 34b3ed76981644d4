#include "wsm_encoding.h"

#include <cstring>

namespace zel::wsm {

namespace {

// 64-bit so that no length from a block can wrap the arithmetic.
uint64_t paddedLength(uint32_t length) { return (static_cast<uint64_t>(length) + 3) & ~3ull; }

void storeLe32(uint8_t* at, uint32_t value) {
    for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t loadLe32(const uint8_t* at) {
    return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 |
           static_cast<uint32_t>(at[2]) << 16 | static_cast<uint32_t>(at[3]) << 24;
}

}  // namespace

bool Writer::put(Tag tag, const void* payload, uint32_t length) {
    if (tag == kEnd || (length != 0 && !payload)) return false;
    const uint64_t end = position_ + kFieldHeaderSize + paddedLength(length);
    if (end + sizeof(uint32_t) > size_) return false;
    uint8_t* field = block_ + position_;
    storeLe32(field, tag);
    storeLe32(field + 4, length);
    if (length) std::memcpy(field + kFieldHeaderSize, payload, length);
    std::memset(field + kFieldHeaderSize + length, 0, paddedLength(length) - length);
    position_ = static_cast<uint32_t>(end);
    storeLe32(block_ + position_, kEnd);
    return true;
}

bool Writer::putInt(int32_t value) {
    uint8_t bytes[4];
    storeLe32(bytes, static_cast<uint32_t>(value));
    return put(kInt, bytes, sizeof bytes);
}

bool Writer::putUint(uint32_t value) {
    uint8_t bytes[4];
    storeLe32(bytes, value);
    return put(kUint, bytes, sizeof bytes);
}

Tag Reader::peek() const {
    if (static_cast<uint64_t>(position_) + kFieldHeaderSize > size_) return kEnd;
    return static_cast<Tag>(loadLe32(block_ + position_));
}

const uint8_t* Reader::get(Tag tag, uint32_t length) {
    if (tag == kEnd || peek() != tag) return nullptr;
    const uint8_t* field = block_ + position_;
    if (loadLe32(field + 4) != length) return nullptr;
    const uint64_t end = position_ + kFieldHeaderSize + paddedLength(length);
    if (end > size_) return nullptr;
    position_ = static_cast<uint32_t>(end);
    return field + kFieldHeaderSize;
}

bool Reader::getInt(int32_t& value) {
    const uint8_t* payload = get(kInt, 4);
    if (payload) value = static_cast<int32_t>(loadLe32(payload));
    return payload != nullptr;
}

bool Reader::getUint(uint32_t& value) {
    const uint8_t* payload = get(kUint, 4);
    if (payload) value = loadLe32(payload);
    return payload != nullptr;
}

}  // namespace zel::wsm
