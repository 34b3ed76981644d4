// The DER-to-raw converter against OpenSSL: real P-256 signatures whose r and s have every DER
// length that occurs, converted and verified again in raw form, and inputs built for each result
// code, checked in the order the codes are tested.
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <utility>
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

using MdCtx = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;
using zel::test::ecdsaDer;
using zel::test::ecdsaRaw;

Bytes sign(EVP_PKEY* key, const Bytes& message) {
    MdCtx ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    size_t length = 0;
    EXPECT_EQ(EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key), 1);
    EXPECT_EQ(EVP_DigestSign(ctx.get(), nullptr, &length, message.data(), message.size()), 1);
    Bytes signature(length);
    EXPECT_EQ(EVP_DigestSign(ctx.get(), signature.data(), &length, message.data(), message.size()),
              1);
    signature.resize(length);
    return signature;
}

bool verify(EVP_PKEY* key, const Bytes& message, const Bytes& derSignature) {
    MdCtx ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    return EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
           EVP_DigestVerify(ctx.get(), derSignature.data(), derSignature.size(), message.data(),
                            message.size()) == 1;
}

TEST(EcSignatureDerToRaw, OpenSslSignaturesOfEveryLengthConvertAndVerifyAgain) {
    const zel::test::Pkey key(EVP_EC_gen("P-256"));
    ASSERT_TRUE(key);
    // r and s take 33 bytes when their top bit is set (half the time) and 31 about once in 256:
    // a few thousand signatures find every pair below; the bound only stops a broken signer.
    const std::set<std::pair<int, int>> wanted = {{31, 32}, {32, 31}, {32, 32},
                                                  {33, 33}, {33, 31}, {31, 33}};
    std::set<std::pair<int, int>> seen;
    Bytes message = {'z', 'e', 'l', 0, 0};
    for (int attempt = 0; attempt < 50000 && seen != wanted; ++attempt) {
        message[3] = static_cast<unsigned char>(attempt);
        message[4] = static_cast<unsigned char>(attempt >> 8);
        const Bytes signature = sign(key.get(), message);
        const std::pair<int, int> lengths = {signature.at(3), signature.at(5 + signature.at(3))};
        if (!wanted.count(lengths) || !seen.insert(lengths).second) continue;

        SCOPED_TRACE("r " + std::to_string(lengths.first) + " s " + std::to_string(lengths.second));
        const Converted out = convert(signature);
        ASSERT_EQ(out.result, 0);
        EXPECT_EQ(out.rawLen, 64u);
        EXPECT_EQ(out.raw, ecdsaRaw(signature));
        // A value shorter than 32 bytes leaves a zero in front of it in the raw form. DER writes
        // such a value in 31 bytes, or in 32 when its top bit needs a zero sign byte before it.
        const auto shorterThan32 = [&](int length, std::size_t at) {
            return length < 32 || (length == 32 && signature.at(at) == 0);
        };
        EXPECT_EQ(out.raw[0] == 0, shorterThan32(lengths.first, 4));
        EXPECT_EQ(out.raw[32] == 0, shorterThan32(lengths.second, 6 + lengths.first));
        EXPECT_TRUE(verify(key.get(), message, ecdsaDer(out.raw)));
        // The same raw form with one bit flipped must not verify: the check above means something.
        Bytes damaged = out.raw;
        damaged[63] ^= 1;
        EXPECT_FALSE(verify(key.get(), message, ecdsaDer(damaged)));
    }
    EXPECT_EQ(seen, wanted);
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
    out = convert(der(r31, s32));
    ASSERT_EQ(out.result, 0);
    EXPECT_EQ(out.raw, Bytes{0x00} + r31 + s32);

    out = convert(der({}, {0x05}));  // rLen 0: r is zero; a 1-byte s lands in the last byte
    ASSERT_EQ(out.result, 0);
    EXPECT_EQ(out.raw, Bytes(63, 0) + Bytes{0x05});

    out = convert(der({}, {}));  // the shortest input there is: six bytes of headers
    EXPECT_EQ(out.result, 0);
    EXPECT_EQ(out.raw, Bytes(64, 0));

    out = convert(der(r31, s32), 100);  // a larger output: 64 bytes written, capacity replaced
    EXPECT_EQ(out.result, 0);
    EXPECT_EQ(out.rawLen, 64u);
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
        {"73 bytes that are garbage after byte 0", with(longest + Bytes{0}, 2, 0x05), 64, -1},
        {"not a SEQUENCE", with(good, 0, 0x31), 64, -1},
        {"sequence length 71", with(good, 1, 71), 64, -1},
        {"sequence length 70 is accepted", with(good, 1, 70), 64, 0},
        {"sequence length not compared with the input", with(good, 1, 3), 64, 0},
        {"first element not an INTEGER", with(good, 2, 0x04), 64, -2},
        {"... also when r's length is impossible", with(with(good, 2, 0x04), 3, 0xFF), 64, -2},
        {"r runs into the header of s", with(good, 3, 65), 64, -3},
        {"r of 34 bytes that does not fit either", cut(der(Bytes(34, 0x11), {}), 39), 64, -3},
        {"r of 34 bytes", der(Bytes(34, 0x11), Bytes(30, 0x22)), 64, -4},
        {"second element not an INTEGER", with(good, 36, 0x03), 64, -5},
        {"... also when s's length is impossible", with(with(good, 36, 0x03), 37, 0xFF), 64, -5},
        {"s one byte longer than the input", with(good, 37, 33), 64, -6},
        {"s of 34 bytes", der(r32, Bytes(34, 0x22)), 64, -7},
        {"output of 63 bytes", good, 63, -8},
        {"output of 0 bytes", good, 0, -8},
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

TEST(EcSignatureDerToRaw, TruncatedInputsAreRejectedWithoutReadingPastTheirEnd) {
    const Bytes longest = der(Bytes(33, 0x11), Bytes(33, 0x22));
    // Below six bytes the two INTEGER headers cannot be there: rejected by length alone, as -1.
    for (size_t length = 0; length < 6; ++length) {
        SCOPED_TRACE(length);
        const Converted out = convert(cut(longest, length));
        EXPECT_EQ(out.result, -1);
        EXPECT_EQ(out.raw, kUntouched);
    }
    EXPECT_EQ(ecSignature_der_to_raw(longest.data(), 0, nullptr, nullptr), -1);
    // Every longer cut of a valid signature loses part of r or s.
    for (size_t length = 6; length < longest.size(); ++length) {
        SCOPED_TRACE(length);
        const int result = convert(cut(longest, length)).result;
        EXPECT_EQ(result, length < 4 + 33 + 2 ? -3 : -6);
    }
}

}  // namespace
