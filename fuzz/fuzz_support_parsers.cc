// The support library's parsers against reference models of their documented contracts: the
// hexadecimal reader, DER signature to raw, derivation-path decoding, create_zel_data and base64.
// Input: one byte choosing the parser, one byte of capacity, then the text or bytes.
#include <openssl/evp.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/byte_helpers.h"
#include "support/data_place_holder.h"
#include "support/ec_signature.h"
#include "support/hd_path.h"

namespace {

using Bytes = std::vector<uint8_t>;

void check(bool holds) {
    if (!holds) abort();
}

// Reference: even length, capacity for half of it, every character a hex digit.
bool modelHex(const uint8_t* text, size_t length, Bytes& out) {
    if (length % 2) return false;
    out.clear();
    for (size_t i = 0; i < length; i += 2) {
        if (!std::isxdigit(text[i]) || !std::isxdigit(text[i + 1])) return false;
        const char pair[3] = {static_cast<char>(text[i]), static_cast<char>(text[i + 1]), 0};
        out.push_back(static_cast<uint8_t>(std::strtoul(pair, nullptr, 16)));
    }
    return true;
}

void hexReader(const uint8_t* text, size_t length, unsigned int capacity) {
    Bytes out(capacity + 1, 0xEE);
    unsigned int size = capacity;
    const int got = hex_str_2_bin(out.data(), reinterpret_cast<const char*>(text), &size,
                                  static_cast<unsigned int>(length));
    Bytes expected;
    const bool ok = capacity >= length / 2 && modelHex(text, length, expected);
    check((got == 0) == ok);
    if (ok) {
        check(size == expected.size());
        check(Bytes(out.begin(), out.begin() + expected.size()) == expected);
    }
    check(out[capacity] == 0xEE);  // nothing past the capacity
    if (length % 2 || capacity < length / 2) check(size == capacity);
}

void createData(const uint8_t* text, size_t length, unsigned int outSize) {
    Bytes out(outSize + 1, 0xEE);
    const int got = create_zel_data(out.data(), outSize, reinterpret_cast<const char*>(text),
                                    static_cast<unsigned int>(length));
    Bytes expected;
    const bool ok = modelHex(text, length, expected) && expected.size() == outSize;
    check((got == 0) == ok);
    if (ok)
        check(Bytes(out.begin(), out.begin() + outSize) == expected);
    else
        check(Bytes(outSize + 1, 0xEE) == out);  // written only on success
}

// Reference of the documented checks, in their order.
int modelDer(const uint8_t* der, size_t length, Bytes& raw) {
    if (length > 72 || length < 6 || der[0] != 0x30 || der[1] > 70) return -1;
    if (der[2] != 0x02) return -2;
    const size_t rLength = der[3];
    if (4 + rLength + 2 > length) return -3;
    if (rLength > 33) return -4;
    if (der[4 + rLength] != 0x02) return -5;
    const size_t sLength = der[5 + rLength];
    if (6 + rLength + sLength > length) return -6;
    if (sLength > 33) return -7;
    raw.assign(64, 0);
    auto place = [&](const uint8_t* integer, size_t size, size_t at) {
        if (size == 33) ++integer, --size;
        std::memcpy(raw.data() + at + 32 - size, integer, size);
    };
    place(der + 4, rLength, 0);
    place(der + 6 + rLength, sLength, 32);
    return 0;
}

void derToRaw(const uint8_t* der, size_t length, unsigned int capacity) {
    Bytes raw(std::max(capacity, 64u) + 1, 0xEE);
    unsigned int size = capacity;
    const std::vector<uint8_t> copy(der, der + length);  // exactly length bytes for ASan
    const int got =
        ecSignature_der_to_raw(copy.data(), static_cast<unsigned int>(length), raw.data(), &size);
    Bytes expected;
    int model = modelDer(der, length, expected);
    if (model == 0 && capacity < 64) model = -8;
    check(got == model);
    if (model == 0) {
        check(size == 64 && std::memcmp(raw.data(), expected.data(), 64) == 0);
    } else {
        check(size == capacity);
    }
}

void hdPath(const uint8_t* bytes, size_t length) {
    hd_path_param path{1, 1, 1, 1, 1};
    const std::vector<uint8_t> copy(bytes, bytes + length);
    const int got = BufferToHdParamS(copy.data(), static_cast<unsigned int>(length), &path);
    check((got == 0) == (length == 20));
    const uint32_t* levels = &path.purpose;
    for (unsigned int i = 0; i < 5; ++i) {
        const uint32_t expected = length == 20 ? static_cast<uint32_t>(bytes[4 * i]) << 24 |
                                                     bytes[4 * i + 1] << 16 |
                                                     bytes[4 * i + 2] << 8 | bytes[4 * i + 3]
                                               : 1u;
        check(levels[i] == expected);
        check(getHDPathIndex(path, i) == expected);
    }
}

void base64(const uint8_t* bytes, size_t length) {
    const std::string encoded =
        base64_encode(reinterpret_cast<const char*>(bytes), static_cast<unsigned int>(length));
    std::vector<unsigned char> reference(4 * ((length + 2) / 3) + 1);
    const int size = EVP_EncodeBlock(reference.data(), bytes, static_cast<int>(length));
    check(encoded == std::string(reinterpret_cast<char*>(reference.data()), size));
    const std::string hex = uint8_to_hex_string(bytes, static_cast<unsigned int>(length));
    Bytes back;
    check(modelHex(reinterpret_cast<const uint8_t*>(hex.data()), hex.size(), back));
    check(back == Bytes(bytes, bytes + length));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The parsers' log lines go to stdout; the fuzzer's own report goes to stderr.
    return std::freopen("/dev/null", "w", stdout) ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const unsigned int capacity = data[1];
    const uint8_t* rest = data + 2;
    const size_t length = size - 2;
    switch (data[0] % 5) {
        case 0:
            hexReader(rest, length, capacity);
            break;
        case 1:
            derToRaw(rest, length, capacity);
            break;
        case 2:
            hdPath(rest, length);
            break;
        case 3:
            createData(rest, length, capacity);
            break;
        default:
            base64(rest, length);
            break;
    }
    return 0;
}
