// The byte encoding of messages in a shared-memory block, written once for both sides: the
// library's codec and the host's simulated TAs.
//
// Fields follow each other from offset 0. Each is a 32-bit little-endian tag, a 32-bit
// little-endian length and the payload padded with zeros to a multiple of 4 bytes. A zero tag ends
// the message, so a freshly allocated (all-zero) block is an empty message. Strict on purpose: a
// field of the wrong type or length, or one that would reach past the block, is a failed read,
// never a read outside the block.
#pragma once

#include <cstdint>

namespace zel::wsm {

enum Tag : uint32_t {
    kEnd = 0,
    kInt = 1,
    kUint = 2,
    kBlob = 3,
};

inline constexpr uint32_t kFieldHeaderSize = 8;

// Appends fields; every successful put leaves an end marker behind the field.
class Writer {
public:
    Writer(uint8_t* block, uint32_t size) : block_(block), size_(block ? size : 0) {}

    // False, with nothing written, when the field and the end marker after it would not fit.
    bool put(Tag tag, const void* payload, uint32_t length);
    bool putInt(int32_t value);
    bool putUint(uint32_t value);
    void rewind() { position_ = 0; }
    uint32_t position() const { return position_; }

private:
    uint8_t* block_;
    uint32_t size_;
    uint32_t position_ = 0;
};

// Reads fields in order.
class Reader {
public:
    Reader(const uint8_t* block, uint32_t size) : block_(block), size_(block ? size : 0) {}

    // The payload of the next field when it has this tag and exactly this length; null (and the
    // position unchanged) otherwise.
    const uint8_t* get(Tag tag, uint32_t length);
    bool getInt(int32_t& value);
    bool getUint(uint32_t& value);
    // The tag of the next field (kEnd at the end of the message or of the block).
    Tag peek() const;
    void rewind() { position_ = 0; }

private:
    const uint8_t* block_;
    uint32_t size_;
    uint32_t position_ = 0;
};

}  // namespace zel::wsm
