#include "support/byte_helpers.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <sstream>

#include "transport/log_line.h"

using zel::logLine;

namespace {

constexpr unsigned int kSha256Length = 32;
constexpr char kLowerHexDigits[] = "0123456789abcdef";
constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int hexDigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// On a 32-bit device an encoded length can exceed what size_t holds; such a request gets an empty
// string rather than a truncated allocation that the encoder would then overrun.
bool fitsInString(uint64_t length) {
    return length <= std::string().max_size();
}

struct Piece {
    const unsigned char* data;
    unsigned int size;
};

int merge(unsigned char* output, unsigned int outputSize, std::initializer_list<Piece> pieces) {
    // Summed in 64 bits: a 32-bit total could wrap to a small number and pass the check.
    uint64_t total = 0;
    for (const Piece& piece : pieces) total += piece.size;
    if (total > outputSize) {
        logLine("Unable to merge, small array size");
        return -1;
    }
    if (total != 0 && output == nullptr) return -1;
    for (const Piece& piece : pieces)
        if (piece.size != 0 && piece.data == nullptr) return -1;
    for (const Piece& piece : pieces) {
        if (piece.size == 0) continue;
        std::memcpy(output, piece.data, piece.size);
        output += piece.size;
    }
    return 0;
}

}  // namespace

int GetRandomBytes(unsigned char* buffer, unsigned int count) {
    const bool usable = (buffer != nullptr || count == 0) && count <= INT_MAX;
    if (!usable || RAND_bytes(buffer, static_cast<int>(count)) != 1) {
        logLine("Data generation error!");
        return -1;
    }
    logLine("Data successfully generated");
    return 0;
}

int GetSHA256Hash(const unsigned char* data, unsigned int dataLength, unsigned char* digest,
                  unsigned int* digestLength) {
    if (data == nullptr || digest == nullptr || digestLength == nullptr || dataLength == 0 ||
        *digestLength < kSha256Length)
        return 0;
    unsigned int written = 0;
    if (EVP_Digest(data, dataLength, digest, &written, EVP_sha256(), nullptr) != 1 ||
        written != kSha256Length)
        return 0;
    *digestLength = written;
    return 1;
}

std::string convertToString(char* buffer, int length) {
    if (buffer == nullptr || length <= 0) return {};
    return std::string(buffer, static_cast<size_t>(length));
}

bool fileExists(const std::string& path) {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0;
}

std::string fit_string_length(const std::string& text, unsigned int wantedLength) {
    if (text.size() >= wantedLength) return text.substr(0, wantedLength);
    return std::string(wantedLength - text.size(), '\0') + text;
}

std::string to_big_endian(unsigned int value) {
    const uint32_t v = value;
    return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
            static_cast<char>(v)};
}

int fill_array(unsigned char* source, unsigned int sourceSize, unsigned char* destination,
               unsigned int destinationSize, unsigned int first, unsigned int last) {
    // The length checks wrap in 32 bits, so last < first passes them only with sizes near 2^32;
    // they bound the range's length, not its position, hence the separate check against the source.
    const uint32_t span = last - first;
    const bool rangeFits = span <= destinationSize - 1u && span <= sourceSize - 1u;
    const bool insideBuffers = source != nullptr && destination != nullptr && sourceSize != 0 &&
                               destinationSize != 0 && last < sourceSize;
    if (!rangeFits || !insideBuffers) {
        logLine("Invalid input in function: ", "fill_array");
        return -1;
    }
    if (last < first) return 0;
    std::memcpy(destination, source + first, span + 1u);
    return 0;
}

int mergeArraysIntoOne(unsigned char* output, unsigned int outputSize, unsigned char* first,
                       unsigned int firstSize, unsigned char* second, unsigned int secondSize,
                       unsigned char* third, unsigned int thirdSize) {
    return merge(output, outputSize,
                 {{first, firstSize}, {second, secondSize}, {third, thirdSize}});
}

int mergeArraysIntoOne(unsigned char* output, unsigned int outputSize, unsigned char* first,
                       unsigned int firstSize, unsigned char* second, unsigned int secondSize) {
    return merge(output, outputSize, {{first, firstSize}, {second, secondSize}});
}

std::string base64_encode(const char* data, unsigned int length) {
    const uint64_t encodedLength = 4ull * (length / 3) + (length % 3 != 0 ? 4 : 0);
    if (data == nullptr || encodedLength == 0 || !fitsInString(encodedLength)) return {};
    // Pre-filled with '=' so that the padding is whatever the encoder does not overwrite.
    std::string encoded(static_cast<size_t>(encodedLength), '=');
    size_t next = 0;
    uint32_t bits = 0;
    int pending = 0;
    for (unsigned int i = 0; i < length; ++i) {
        bits = (bits << 8) | static_cast<unsigned char>(data[i]);
        pending += 8;
        while (pending >= 6) {
            pending -= 6;
            encoded[next++] = kBase64Alphabet[(bits >> pending) & 0x3Fu];
        }
    }
    if (pending > 0) encoded[next] = kBase64Alphabet[(bits << (6 - pending)) & 0x3Fu];
    return encoded;
}

std::string string_to_hex_string(std::string text) {
    std::ostringstream hex;
    hex << std::hex;
    // Widened through int8_t on purpose: bytes from 0x80 up keep printing as eight digits, the
    // established form of this text, which is why it is not a hex dump.
    for (char c : text) hex << static_cast<int32_t>(static_cast<int8_t>(c));
    return hex.str();
}

std::string uint8_to_hex_string(const unsigned char* data, unsigned int length) {
    const uint64_t textLength = 2ull * length;
    if (data == nullptr || !fitsInString(textLength)) return {};
    std::string text(static_cast<size_t>(textLength), '0');
    for (unsigned int i = 0; i < length; ++i) {
        text[2 * size_t{i}] = kLowerHexDigits[data[i] >> 4];
        text[2 * size_t{i} + 1] = kLowerHexDigits[data[i] & 0x0Fu];
    }
    return text;
}

std::string unsigned_char_to_hex_string(const unsigned char* data, unsigned int length) {
    return uint8_to_hex_string(data, length);
}

int hex_str_2_bin(unsigned char* out, const char* hex, unsigned int* size, unsigned int hexLength) {
    if (size == nullptr || hexLength % 2 != 0 || *size < hexLength / 2) return -1;
    if (hexLength != 0 && (out == nullptr || hex == nullptr)) return -1;
    const unsigned int count = hexLength / 2;
    *size = count;
    for (unsigned int i = 0; i < count; ++i) {
        const int high = hexDigitValue(hex[2 * size_t{i}]);
        if (high < 0) return -1;
        out[i] = static_cast<unsigned char>(high << 4);
        const int low = hexDigitValue(hex[2 * size_t{i} + 1]);
        if (low < 0) return -1;
        out[i] = static_cast<unsigned char>(out[i] | low);
    }
    return 0;
}
