// number_arg.h's reading for CLI11 options, whose own would take "010" for octal eight.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

#include "number_arg.h"

namespace zel::tc {

// Reads the option's text as decimal or 0x-hex and hands CLI11 the value in decimal.
inline CLI::Validator decimalOrHex() {
    return CLI::Validator(
        [](std::string& text) {
            long long value = 0;
            if (!parseNumber(text, value)) return "not a decimal or 0x-hex number: " + text;
            text = std::to_string(value);
            return std::string();
        },
        "NUMBER");
}

// The same for a 64-bit unsigned option.
inline CLI::Validator unsignedDecimalOrHex() {
    return CLI::Validator(
        [](std::string& text) {
            unsigned long long value = 0;
            if (!parseUnsigned(text, value)) return "not a decimal or 0x-hex number: " + text;
            text = std::to_string(value);
            return std::string();
        },
        "NUMBER");
}

}  // namespace zel::tc
