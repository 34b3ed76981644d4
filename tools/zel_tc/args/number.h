// Whole numbers as people type them on zel-tc's command line: decimal, or hexadecimal after 0x.
// A leading zero means nothing more ("010" is ten), unlike strtol's octal.
#pragma once

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

namespace zel::tc {

// Without a sign: the whole range of 64 bits (a seed, say).
inline bool parseUnsigned(const std::string& text, unsigned long long& value) {
    std::string digits = text;
    int base = 10;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        base = 16;
        digits.erase(0, 2);
    }
    if (digits.empty()) return false;
    for (const char c : digits)
        if (!(base == 16 ? std::isxdigit(static_cast<unsigned char>(c))
                         : std::isdigit(static_cast<unsigned char>(c))))
            return false;
    errno = 0;
    value = std::strtoull(digits.c_str(), nullptr, base);
    return errno != ERANGE;
}

inline bool parseNumber(const std::string& text, long long& value) {
    const bool negative = !text.empty() && text[0] == '-';
    unsigned long long magnitude = 0;
    if (!parseUnsigned(text.substr(negative ? 1 : 0), magnitude) ||
        magnitude > static_cast<unsigned long long>(LLONG_MAX))
        return false;
    value = negative ? -static_cast<long long>(magnitude) : static_cast<long long>(magnitude);
    return true;
}

// The same within [low, high].
inline bool parseNumber(const std::string& text, long long low, long long high, long long& value) {
    return parseNumber(text, value) && value >= low && value <= high;
}

}  // namespace zel::tc
