// A message in the codec's encoding, built field by field: what a test scripts the control TA to
// answer in a TA's place.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "wsm_encoding.h"

// Words as the secure processor writes them: little-endian.
inline std::vector<uint8_t> words(std::initializer_list<uint32_t> values) {
    std::vector<uint8_t> bytes;
    for (uint32_t value : values)
        for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    return bytes;
}

class WsmMessage {
  public:
    WsmMessage& i(int32_t value) { return writer_.putInt(value), *this; }
    WsmMessage& u(uint32_t value) { return writer_.putUint(value), *this; }
    WsmMessage& blob(const std::vector<uint8_t>& data) {
        writer_.put(zel::wsm::kBlob, data.data(), static_cast<uint32_t>(data.size()));
        return *this;
    }
    WsmMessage& blob(const std::string& text) {
        return blob(std::vector<uint8_t>(text.begin(), text.end()));
    }
    // The fields and the end marker behind them.
    std::vector<uint8_t> bytes() const {
        return std::vector<uint8_t>(block_.begin(), block_.begin() + writer_.position() + 4);
    }

  private:
    std::vector<uint8_t> block_ = std::vector<uint8_t>(4096);
    zel::wsm::Writer writer_{block_.data(), 4096};
};
