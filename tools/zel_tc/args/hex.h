// Hexadecimal text as people type it on zel-tc's command line, read with the library's own
// conversion so that zel-tc accepts exactly what the library does.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/byte_helpers.h"

namespace zel::tc {

inline bool parseHex(const std::string& text, std::vector<uint8_t>& bytes) {
    unsigned int size = static_cast<unsigned int>(text.size() / 2);
    bytes.resize(size);
    return hex_str_2_bin(bytes.data(), text.c_str(), &size,
                         static_cast<unsigned int>(text.size())) == 0;
}

}  // namespace zel::tc
