// The byte, hex and text helpers against independent references: RFC 4648 base64, a NIST SHA-256
// vector, snprintf and OpenSSL's base64 encoder.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "output_capture.h"
#include "support/byte_helpers.h"

namespace {

std::string referenceHex(const void* data, size_t length) {
    std::string text;
    char pair[3];
    for (size_t i = 0; i < length; ++i) {
        std::snprintf(pair, sizeof pair, "%02x", static_cast<const unsigned char*>(data)[i]);
        text += pair;
    }
    return text;
}

const std::string kAllBytes = [] {
    std::string bytes(256, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(255 - i);
    return bytes;
}();

const unsigned char* u8(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

// "result size bytes" of one conversion into four bytes preset to 0xEE.
std::string convert(const char* text, unsigned int chars, unsigned int capacity) {
    unsigned char out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    unsigned int size = capacity;
    const int result = hex_str_2_bin(out, text, &size, chars);
    return std::to_string(result) + " " + std::to_string(size) + " " + referenceHex(out, 4);
}

TEST(ByteHelpers, HexTextIsTwoLowerCaseDigitsPerByteUnderBothNames) {
    EXPECT_EQ(uint8_to_hex_string(u8(kAllBytes), 256), referenceHex(kAllBytes.data(), 256));
    EXPECT_EQ(unsigned_char_to_hex_string(u8(kAllBytes), 256), referenceHex(kAllBytes.data(), 256));
    EXPECT_EQ(uint8_to_hex_string(nullptr, 5), "");
    // No padding, and bytes from 0x80 up sign-extended.
    EXPECT_EQ(string_to_hex_string(std::string("\x0A\x00\x7F\x80", 4)), "a07fffffff80");
}

TEST(ByteHelpers, HexStr2BinChecksLengthCapacityAndEveryDigit) {
    EXPECT_EQ(convert("", 0, 7), "0 0 eeeeeeee");
    EXPECT_EQ(convert("0aF", 3, 4), "-1 4 eeeeeeee");
    EXPECT_EQ(convert("0aFf", 4, 1), "-1 1 eeeeeeee");
    EXPECT_EQ(convert("0aFfZZ", 4, 2), "0 2 0affeeee");  // reads exactly the count given
    // Each side of each digit range, in the low and the high digit; the count is set regardless.
    for (const char* bad : {"0/", "0:", "0@", "0G", "0`", "0g", "g0"})
        EXPECT_EQ(convert(bad, 2, 4).substr(0, 4), "-1 1") << bad;
    unsigned int size = 4;
    EXPECT_EQ(hex_str_2_bin(nullptr, "12", &size, 2), -1);
    EXPECT_EQ(hex_str_2_bin(nullptr, "12", nullptr, 2), -1);

    std::string mixedCase = referenceHex(kAllBytes.data(), 256);
    for (size_t i = 0; i < mixedCase.size(); i += 3) mixedCase[i] = char(toupper(mixedCase[i]));
    std::string back(257, '\xEE');
    size = 256;
    EXPECT_EQ(
        hex_str_2_bin(reinterpret_cast<unsigned char*>(&back[0]), mixedCase.c_str(), &size, 512),
        0);
    EXPECT_EQ(size, 256u);
    EXPECT_EQ(back, kAllBytes + '\xEE');
}

TEST(ByteHelpers, Base64MatchesRfc4648AndHasNoLineBreaks) {
    const char* rfc4648[][2] = {{"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foobar", "Zm9vYmFy"}};
    for (const auto& vector : rfc4648)
        EXPECT_EQ(base64_encode(vector[0], unsigned(strlen(vector[0]))), vector[1]);

    // High bytes, and well past the 57 after which a MIME encoder would break the line.
    std::string expected(137, '\0');
    expected.resize(size_t(
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&expected[0]), u8(kAllBytes), 100)));
    EXPECT_EQ(base64_encode(kAllBytes.data(), 100), expected);
}

TEST(ByteHelpers, StringShapingHelpers) {
    EXPECT_EQ(fit_string_length("AB", 5), std::string("\0\0\0AB", 5));
    EXPECT_EQ(fit_string_length("ABCDE", 3), "ABC");

    EXPECT_EQ(to_big_endian(0xDEADBEEF), "\xDE\xAD\xBE\xEF");

    char buffer[] = {'a', '\0', 'b', 'c'};
    EXPECT_EQ(convertToString(buffer, 3), std::string("a\0b", 3));
    EXPECT_EQ(convertToString(buffer, -1), "");

    const std::string file = testing::TempDir() + "byte_helpers_file_exists";
    std::ofstream(file) << "x";
    EXPECT_TRUE(fileExists(file));
    std::remove(file.c_str());
    EXPECT_FALSE(fileExists(file));
}

TEST(ByteHelpers, FillArrayCopiesTheInclusiveRangeOrRejectsIt) {
    unsigned char source[] = {1, 2, 3, 4, 5};
    unsigned char destination[4] = {};
    OutputCapture output;
    EXPECT_EQ(fill_array(source, 5, destination, 4, 2, 2), 0);
    EXPECT_EQ(referenceHex(destination, 4), "03000000");
    EXPECT_EQ(fill_array(source, 5, destination, 4, 1, 4), 0);
    EXPECT_EQ(referenceHex(destination, 4), "02030405");

    EXPECT_EQ(fill_array(source, 5, destination, 3, 1, 4), -1);  // longer than the destination
    EXPECT_EQ(fill_array(source, 3, destination, 4, 0, 3), -1);  // longer than the source
    EXPECT_EQ(fill_array(source, 5, destination, 4, 4, 5), -1);  // short, but past the source
    EXPECT_EQ(fill_array(source, 5, destination, 0, 0, 0), -1);
    EXPECT_EQ(fill_array(source, 5, destination, 4, 3, 2), -1);  // reversed: wraps to huge
    EXPECT_EQ(output.lines(), Lines(5, "Invalid input in function: fill_array"));
    EXPECT_EQ(referenceHex(destination, 4), "02030405");
}

TEST(ByteHelpers, MergeArraysIntoOneConcatenatesOrWritesNothing) {
    unsigned char a[] = {0xA1, 0xA2}, b[] = {0xB1}, c[] = {0xC1, 0xC2};
    unsigned char out[6] = {0, 0, 0, 0, 0, 0xEE};
    OutputCapture output;
    EXPECT_EQ(mergeArraysIntoOne(out, 5, a, 2, b, 1, c, 2), 0);
    EXPECT_EQ(referenceHex(out, 6), "a1a2b1c1c2ee");
    EXPECT_EQ(mergeArraysIntoOne(out, 6, c, 2, a, 2), 0);
    EXPECT_EQ(referenceHex(out, 6), "c1c2a1a2c2ee");

    EXPECT_EQ(mergeArraysIntoOne(out, 4, a, 2, b, 1, c, 2), -1);
    EXPECT_EQ(mergeArraysIntoOne(out, 6, a, UINT_MAX, b, 2), -1);  // wraps to 1 in 32 bits
    EXPECT_EQ(output.lines(), Lines(2, "Unable to merge, small array size"));
    EXPECT_EQ(referenceHex(out, 6), "c1c2a1a2c2ee");
}

TEST(ByteHelpers, Sha256MatchesANistVectorAndRefusesWhatItCannotHash) {
    unsigned char digest[64] = {};
    unsigned int capacity = 31;
    OutputCapture output;
    EXPECT_EQ(GetSHA256Hash(u8("abc"), 3, digest, &capacity), 0);
    EXPECT_EQ(capacity, 31u);
    capacity = 64;
    EXPECT_EQ(GetSHA256Hash(u8("abc"), 0, digest, &capacity), 0);
    EXPECT_EQ(GetSHA256Hash(nullptr, 3, digest, &capacity), 0);
    EXPECT_EQ(GetSHA256Hash(u8("abc"), 3, nullptr, &capacity), 0);
    EXPECT_EQ(GetSHA256Hash(u8("abc"), 3, digest, nullptr), 0);
    EXPECT_EQ(referenceHex(digest, 64), std::string(128, '0'));
    EXPECT_EQ(GetSHA256Hash(u8("abc"), 3, digest, &capacity), 1);
    EXPECT_EQ(capacity, 32u);
    EXPECT_EQ(
        referenceHex(digest, 64),
        "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad" + std::string(64, '0'));
    EXPECT_EQ(output.lines(), Lines{});
}

TEST(ByteHelpers, RandomBytesReportTheirOutcome) {
    unsigned char buffer[33] = {};
    OutputCapture output;
    EXPECT_EQ(GetRandomBytes(buffer, 32), 0);
    EXPECT_EQ(GetRandomBytes(nullptr, 32), -1);
    EXPECT_EQ(GetRandomBytes(buffer, 0x80000000u), -1);  // more than RAND_bytes can take
    EXPECT_EQ(output.lines(), (Lines{"Data successfully generated", "Data generation error!",
                                     "Data generation error!"}));
    EXPECT_NE(referenceHex(buffer, 32), std::string(64, '0'));  // wrong once in 2^256 runs
    EXPECT_EQ(buffer[32], 0);
}

}  // namespace
