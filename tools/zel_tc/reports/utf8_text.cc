#include "reports/utf8_text.h"

#include <cstdint>

namespace zel::tc {

namespace {

constexpr const char* kReplacement = "\xEF\xBF\xBD";

// The length of the well-formed UTF-8 sequence at text[at] that XML may carry, 0 if there is none.
size_t sequenceLength(const std::string& text, size_t at) {
    const auto byte = [&text](size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t lead = byte(at);
    if (lead < 0x80) return lead >= 0x20 || lead == '\t' || lead == '\r' ? 1 : 0;
    size_t length = 0;
    uint32_t code = 0, lowest = 0;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, code = lead & 0x1Fu, lowest = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, code = lead & 0x0Fu, lowest = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, code = lead & 0x07u, lowest = 0x10000;
    } else {
        return 0;
    }
    if (at + length > text.size()) return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80) return 0;
        code = (code << 6) | (byte(at + i) & 0x3Fu);
    }
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    const bool notACharacter = code == 0xFFFE || code == 0xFFFF;
    return code < lowest || code > 0x10FFFF || surrogate || notACharacter ? 0 : length;
}

}  // namespace

std::string reportText(const std::string& bytes) {
    std::string text;
    text.reserve(bytes.size());
    for (size_t at = 0; at < bytes.size();) {
        const size_t length = sequenceLength(bytes, at);
        if (length == 0) {
            text += kReplacement;
            ++at;
        } else {
            text.append(bytes, at, length);
            at += length;
        }
    }
    return text;
}

}  // namespace zel::tc
