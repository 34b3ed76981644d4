// number_arg.h's reading for CLI11 options, whose own would take "010" for octal eight.
#pragma once

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdlib>
#include <string>

#include "args/number.h"

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

// The longest a campaign or a benchmark may be told to run: more is a slip of the keyboard.
constexpr double kMaxSeconds = 365.0 * 24 * 3600;

// A finite real number from `low` (excluded when `aboveLow`) to `high`. CLI11's own ranges let
// "nan" through, and print their bounds with every digit.
inline CLI::Validator realBetween(double low, double high, bool aboveLow,
                                  const std::string& bounds) {
    return CLI::Validator(
        [=](std::string& text) {
            char* end = nullptr;
            const double value = std::strtod(text.c_str(), &end);
            const bool fits = !text.empty() && *end == '\0' && std::isfinite(value) &&
                              (aboveLow ? value > low : value >= low) && value <= high;
            return fits ? std::string() : "must be a number " + bounds + ", not " + text;
        },
        "NUMBER");
}

// How long a campaign or a benchmark runs: --seconds.
inline CLI::Validator runSeconds() {
    return realBetween(0, kMaxSeconds, true, "above 0 and up to a year");
}

// How long one TEE call may take before it counts as a hang: --timeout of fuzz and replay.
inline CLI::Validator callTimeoutSeconds() {
    return realBetween(0.001, 3600, false, "from 0.001 to 3600");
}

}  // namespace zel::tc
