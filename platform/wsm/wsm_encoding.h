// The codec's byte encoding (wsm_core.h) for C++: the same cursor, as a reader and a writer.
#pragma once

#include <cstdint>

#include "wsm_core.h"

namespace zel::wsm {

enum Tag : uint32_t {
    kEnd = WSM_END,
    kInt = WSM_INT,
    kUint = WSM_UINT,
    kBlob = WSM_BLOB,
};

inline constexpr uint32_t kFieldHeaderSize = WSM_FIELD_HEADER_SIZE;

// Appends fields; every successful put leaves an end marker behind the field.
class Writer {
  public:
    Writer(uint8_t* block, uint32_t size) { wsm_init(&cursor_, block, size); }

    // False, with nothing written, when the field and the end marker after it would not fit.
    bool put(Tag tag, const void* payload, uint32_t length) {
        return wsm_put(&cursor_, tag, payload, length);
    }
    bool putInt(int32_t value) { return wsm_put_int(&cursor_, value); }
    bool putUint(uint32_t value) { return wsm_put_uint(&cursor_, value); }
    void rewind() { cursor_.position = 0; }
    uint32_t position() const { return cursor_.position; }

  private:
    wsm_cursor cursor_;
};

// Reads fields in order.
class Reader {
  public:
    Reader(const uint8_t* block, uint32_t size) {
        // The cursor never writes through a reader.
        wsm_init(&cursor_, const_cast<uint8_t*>(block), size);
    }

    // The payload of the next field when it has this tag and exactly this length; null (and the
    // position unchanged) otherwise.
    const uint8_t* get(Tag tag, uint32_t length) { return wsm_get(&cursor_, tag, length); }
    bool getInt(int32_t& value) { return wsm_get_int(&cursor_, &value); }
    bool getUint(uint32_t& value) { return wsm_get_uint(&cursor_, &value); }
    // The tag of the next field (kEnd at the end of the message or of the block).
    Tag peek() const { return static_cast<Tag>(wsm_peek(&cursor_)); }
    void rewind() { cursor_.position = 0; }

  private:
    wsm_cursor cursor_;
};

}  // namespace zel::wsm
