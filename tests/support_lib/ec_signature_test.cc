// The DER-to-raw converter: integers of every width DER gives a P-256 coordinate, and inputs built
// for each result code, checked in the order the codes are tested.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "openssl_bytes.h"
#include "support/ec_signature.h"

namespace {

using zel::test::Bytes;

struct Converted {
    int result;
    unsigned int rawLen;
    Bytes raw;
};

const Bytes kUntouched(64, 0xEE);

// Converts into a 64-byte buffer preset to 0xEE. The input sits in a heap block of exactly its
// length, so that AddressSanitizer reports any read past it.
Converted convert(const Bytes& der, unsigned int capacity = 64) {
    std::unique_ptr<unsigned char[]> input(new unsigned char[der.size()]);
    std::copy(der.begin(), der.end(), input.get());
    Converted out{0, capacity, kUntouched};
    out.result = ecSignature_der_to_raw(input.get(), static_cast<unsigned int>(der.size()),
                                        out.raw.data(), &out.rawLen);
    return out;
}

// SEQUENCE { INTEGER r, INTEGER s } with single-byte lengths.
Bytes der(const Bytes& r, const Bytes& s) {
    Bytes out = {0x30, 0, 0x02, static_cast<unsigned char>(r.size())};
    out.insert(out.end(), r.begin(), r.end());
    out.push_back(0x02);
    out.push_back(static_cast<unsigned char>(s.size()));
    out.insert(out.end(), s.begin(), s.end());
    out[1] = static_cast<unsigned char>(out.size() - 2);
    return out;
}

Bytes with(Bytes bytes, size_t offset, unsigned char value) {
    bytes.at(offset) = value;
    return bytes;
}

Bytes cut(const Bytes& bytes, size_t length) {
    return Bytes(bytes.begin(), bytes.begin() + length);
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

TEST(EcSignatureDerToRaw, IntegersAreRightAlignedAndTheirSignByteDropped) {
    Bytes r33 = {0x7F};  // the dropped byte is not examined, whatever it holds
    for (int i = 0; i < 32; ++i) r33.push_back(static_cast<unsigned char>(0x80 + i));
    Bytes s33 = {0x00};
    for (int i = 0; i < 32; ++i) s33.push_back(static_cast<unsigned char>(0xC0 + i));
    const Bytes longest = der(r33, s33);
    ASSERT_EQ(longest.size(), 72u);
    Converted out = convert(longest);
    ASSERT_EQ(out.result, 0);
    EXPECT_EQ(out.raw, Bytes(r33.begin() + 1, r33.end()) + Bytes(s33.begin() + 1, s33.end()));

    const Bytes r31(31, 0xAB), s32(32, 0xCD);
    out = convert(der(r31, s32), 100);  // a larger output: 64 bytes written, capacity replaced
    ASSERT_EQ(out.result, 0);
    EXPECT_EQ(out.rawLen, 64u);
    EXPECT_EQ(out.raw, Bytes{0x00} + r31 + s32);

    out = convert(der({}, {}));  // the shortest input there is: six bytes of headers
    EXPECT_EQ(out.result, 0);
    EXPECT_EQ(out.raw, Bytes(64, 0));
}

TEST(EcSignatureDerToRaw, EachCheckFailsWithItsCodeInOrderAndLeavesTheOutputAlone) {
    const Bytes r32(32, 0x11), s32(32, 0x22);
    const Bytes good = der(r32, s32);  // 70 bytes: r at 4, s header at 36 and 37
    ASSERT_EQ(convert(good).result, 0);
    const Bytes longest = der(Bytes(33, 0x11), Bytes(33, 0x22));

    struct Case {
        const char* what;
        Bytes input;
        unsigned int capacity;
        int expected;
    };
    const Case cases[] = {
        {"73 bytes, otherwise well formed", longest + Bytes{0x00}, 64, -1},
        {"5 bytes: no room for both INTEGER headers", cut(longest, 5), 64, -1},
        {"not a SEQUENCE", with(good, 0, 0x31), 64, -1},
        {"sequence length 71", with(good, 1, 71), 64, -1},
        {"sequence length 70 is accepted", with(good, 1, 70), 64, 0},
        {"first element not an INTEGER", with(good, 2, 0x04), 64, -2},
        {"... also when r's length is impossible", with(with(good, 2, 0x04), 3, 0xFF), 64, -2},
        {"cut inside the header of s", cut(longest, 38), 64, -3},
        {"r of 34 bytes", der(Bytes(34, 0x11), Bytes(30, 0x22)), 64, -4},
        {"second element not an INTEGER", with(good, 36, 0x03), 64, -5},
        {"... also when s's length is impossible", with(with(good, 36, 0x03), 37, 0xFF), 64, -5},
        {"s one byte longer than the input", with(good, 37, 33), 64, -6},
        {"cut right after the header of s", cut(longest, 39), 64, -6},
        {"s of 34 bytes", der(r32, Bytes(34, 0x22)), 64, -7},
        {"output of 63 bytes", good, 63, -8},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Converted out = convert(c.input, c.capacity);
        EXPECT_EQ(out.result, c.expected);
        if (c.expected != 0) {
            EXPECT_EQ(out.raw, kUntouched);
            EXPECT_EQ(out.rawLen, c.capacity);
        }
    }

    unsigned char raw[64];
    unsigned int rawLen = 64;
    EXPECT_EQ(ecSignature_der_to_raw(nullptr, 70, raw, &rawLen), -1);
    EXPECT_EQ(ecSignature_der_to_raw(good.data(), 70, nullptr, &rawLen), -8);
    EXPECT_EQ(ecSignature_der_to_raw(good.data(), 70, raw, nullptr), -8);
    EXPECT_EQ(rawLen, 64u);
}

}  // namespace
