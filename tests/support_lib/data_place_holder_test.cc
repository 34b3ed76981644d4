// The test vector store: which data type gives which bytes, what a small buffer or a wrong type
// leaves behind, and, checked with OpenSSL alone, that the AES vectors decrypt under their keys
// (the keys' DER is checked in der_test).
#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

#include "openssl_bytes.h"
#include "output_capture.h"
#include "support/data_place_holder.h"
#include "support/test_vectors.h"

namespace {

namespace v = zel::vectors;
using zel::test::aes256CbcDecrypt;
using zel::test::Bytes;

constexpr unsigned char kUnwritten = 0xEE;

constexpr auto decodeHex = zel::test::hexBytes;

using OneBufferFill = TEEC_Result (*)(int32_t, unsigned char*, unsigned int);
const struct {
    const char* name;
    OneBufferFill fill;
    int32_t dataType;
    const char* vector;
    size_t length;
    bool random;
} kOneBufferFills[] = {
    {"put", DataPlaceHolder::fill_zel_put, 1, v::kPutData, 241, true},
    {"compareData", DataPlaceHolder::fill_zel_compareData, 2, v::kAesKey, 32, false},
    {"cmac", DataPlaceHolder::fill_zel_getCMACwithHubToken, 1, v::kCmacMessage, 32, true},
    {"genAuthKey", DataPlaceHolder::fill_zel_genAuthKey, 1, v::kCloudEcPublicKey, 91, true},
    {"ecdsa", DataPlaceHolder::fill_zel_ecdsaCreateSignature, 1, v::kEcdsaMessage, 32, true},
    {"decryptByKey", DataPlaceHolder::fill_zel_decryptByKey, 1, v::kDecryptByKeyInput, 146, true},
};

TEST(DataPlaceHolder, OneBufferFillsWriteTheirVectorOrRandomBytesIfTheyTakeThem) {
    OutputCapture output;
    for (const auto& c : kOneBufferFills) {
        const auto length = static_cast<unsigned int>(c.length);
        Bytes buffer(length + 1, kUnwritten);
        EXPECT_EQ(c.fill(c.dataType, buffer.data(), length + 1), TEEC_SUCCESS) << c.name;
        buffer.pop_back();
        EXPECT_EQ(buffer, decodeHex(c.vector)) << c.name;  // the whole vector and nothing more
        EXPECT_EQ(c.fill(0, buffer.data(), length), c.random ? TEEC_SUCCESS : TEEC_ERROR_GENERIC)
            << c.name;
    }
}

TEST(DataPlaceHolder, RandomDataFillsEachBufferToExactlyItsSize) {
    Bytes a(11, kUnwritten), b(17, kUnwritten), c(5, kUnwritten);
    OutputCapture output;
    EXPECT_EQ(DataPlaceHolder::fill_zel_aesEncrypt(0, a.data(), 10, b.data(), 16), TEEC_SUCCESS);
    EXPECT_EQ(DataPlaceHolder::fill_zel_aesDecrypt(0, a.data(), 10, b.data(), 16), TEEC_SUCCESS);
    EXPECT_EQ(DataPlaceHolder::fill_zel_decryptHubToken(0, a.data(), 10, b.data(), 16, c.data(), 4),
              TEEC_SUCCESS);
    EXPECT_EQ(output.lines(), Lines(7, "Data successfully generated"));
    EXPECT_EQ(a[10], kUnwritten);
    EXPECT_EQ(b[16], kUnwritten);
    EXPECT_EQ(c[4], kUnwritten);
}

TEST(DataPlaceHolder, DataTypesAFunctionDoesNotAcceptAreRejected) {
    Bytes a(600, kUnwritten), b(600, kUnwritten);
    int keyType = -7;
    unsigned int size = 600;
    OutputCapture output;
    const TEEC_Result results[] = {
        DataPlaceHolder::fill_zel_put(2, a.data(), 600),
        DataPlaceHolder::fill_zel_storeKey(3, &keyType, a.data(), &size),
        DataPlaceHolder::fill_zel_publicKey(0, a.data(), 600),
        DataPlaceHolder::fill_zel_enc_dec_tc_scenario(1, 1, a.data(), 600, b.data(), 600, a.data(),
                                                      600, b.data(), 600),
    };
    for (TEEC_Result result : results) EXPECT_EQ(result, TEEC_ERROR_GENERIC);
    EXPECT_EQ(output.lines(), Lines(std::size(results), "Unknown data type"));
    EXPECT_EQ(a, Bytes(600, kUnwritten));
    EXPECT_EQ(b, Bytes(600, kUnwritten));
    EXPECT_EQ(keyType, -7);
    EXPECT_EQ(size, 600u);
}

TEST(DataPlaceHolder, StoreKeyReportsTheKeyTypeAndLength) {
    Bytes key(200, kUnwritten);
    int keyType = -1;
    unsigned int size = 200;
    EXPECT_EQ(DataPlaceHolder::fill_zel_storeKey(1, &keyType, key.data(), &size), TEEC_SUCCESS);
    EXPECT_EQ(keyType, 5);
    EXPECT_EQ(size, 121u);
    EXPECT_EQ(Bytes(key.begin(), key.begin() + 121), decodeHex(v::kDeviceEcPrivateKey));

    size = 120;  // one short of the EC key: type is set, size and buffer are not
    key.assign(200, kUnwritten);
    EXPECT_EQ(DataPlaceHolder::fill_zel_storeKey(1, &keyType, key.data(), &size),
              TEEC_ERROR_GENERIC);
    EXPECT_EQ(keyType, 5);
    EXPECT_EQ(size, 120u);
    EXPECT_EQ(key, Bytes(200, kUnwritten));

    size = 16;
    OutputCapture output;
    EXPECT_EQ(DataPlaceHolder::fill_zel_storeKey(0, &keyType, key.data(), &size), TEEC_SUCCESS);
    EXPECT_EQ(output.lines(), Lines{"Data successfully generated"});
    EXPECT_EQ(keyType, 5);
    EXPECT_EQ(size, 16u);
    EXPECT_EQ(key[16], kUnwritten);
}

TEST(DataPlaceHolder, SeveralBuffersStopAtTheFirstThatIsTooSmall) {
    Bytes token(241, kUnwritten), iv(16, kUnwritten), cloud(91, kUnwritten);
    OutputCapture output;
    EXPECT_EQ(DataPlaceHolder::fill_zel_decryptHubToken(1, token.data(), 241, iv.data(), 15,
                                                        cloud.data(), 91),
              TEEC_ERROR_GENERIC);
    EXPECT_EQ(token, decodeHex(v::kHubToken));
    EXPECT_EQ(iv, Bytes(16, kUnwritten));
    EXPECT_EQ(cloud, Bytes(91, kUnwritten));
    EXPECT_EQ(output.lines(), Lines{});
}

TEST(DataPlaceHolder, PublicKeyIsCopiedAsTextWithStrncpySemantics) {
    std::string text(600, '\xEE');
    auto* buffer = reinterpret_cast<unsigned char*>(&text[0]);
    EXPECT_EQ(DataPlaceHolder::fill_zel_publicKey(1, buffer, 10), TEEC_SUCCESS);
    EXPECT_EQ(text.substr(0, 11), std::string(v::kRsaPublicKey, 10) + '\xEE');  // no terminator
    EXPECT_EQ(DataPlaceHolder::fill_zel_publicKey(1, buffer, 600), TEEC_SUCCESS);
    EXPECT_EQ(text, v::kRsaPublicKey + std::string(60, '\0'));
}

TEST(DataPlaceHolder, TestCaseScenarioChecksIndexThenFillsInOrder) {
    Bytes data(32, kUnwritten), enc(48, kUnwritten), iv(16, kUnwritten), key(32, kUnwritten);
    auto fill = [&](int index, unsigned int dataSize, unsigned int encSize, unsigned int ivSize,
                    unsigned int keySize) {
        return DataPlaceHolder::fill_zel_enc_dec_tc_scenario(2, index, data.data(), dataSize,
                                                             enc.data(), encSize, iv.data(), ivSize,
                                                             key.data(), keySize);
    };
    OutputCapture output;
    EXPECT_EQ(fill(0, 32, 48, 16, 32), TEEC_ERROR_GENERIC);
    EXPECT_EQ(fill(6, 32, 48, 16, 32), TEEC_ERROR_GENERIC);
    EXPECT_EQ(data, Bytes(32, kUnwritten));
    EXPECT_EQ(fill(3, 32, 48, 15, 32), TEEC_ERROR_GENERIC);
    EXPECT_EQ(data, decodeHex(v::kTestCasePlaintext));
    EXPECT_EQ(enc, decodeHex(v::kTestCaseCiphertexts[2]));
    EXPECT_EQ(iv, Bytes(16, kUnwritten));
    EXPECT_EQ(key, Bytes(32, kUnwritten));
    EXPECT_EQ(fill(1, 31, 48, 16, 32), TEEC_ERROR_GENERIC);
    EXPECT_EQ(fill(1, 32, 47, 16, 32), TEEC_ERROR_GENERIC);
    EXPECT_EQ(fill(1, 32, 48, 16, 31), TEEC_ERROR_GENERIC);
    EXPECT_EQ(output.lines(), (Lines{"Wrong TC index", "Wrong TC index", "hex_str_2_bin iv error",
                                     "hex_str_2_bin data error", "hex_str_2_bin encData error",
                                     "hex_str_2_bin key error"}));
    EXPECT_EQ(enc, decodeHex(v::kTestCaseCiphertexts[0]));  // case 1 got this far
}

TEST(DataPlaceHolder, CreateZelDataWritesExactlyTheOutputSizeOrNothing) {
    const char* text = "00112233445566778899AABBCCDDEEFF0011";
    Bytes out(16, kUnwritten);
    OutputCapture output;
    EXPECT_EQ(create_zel_data(out.data(), 16, text, 30), -1);
    EXPECT_EQ(create_zel_data(out.data(), 16, text, 34), -1);
    EXPECT_EQ(create_zel_data(out.data(), 16, "0011223344556677889900112233445Z", 32), -1);
    EXPECT_EQ(output.lines(),
              (Lines{"temp_buffer_size error", "out_size too small16", "hex_str_2_bin error"}));
    EXPECT_EQ(out, Bytes(16, kUnwritten));
    EXPECT_EQ(create_zel_data(out.data(), 16, text, 32), 0);
    EXPECT_EQ(out, decodeHex("00112233445566778899AABBCCDDEEFF"));
}

TEST(TestVectors, AesCiphertextsDecryptUnderTheirKeys) {
    EXPECT_EQ(
        aes256CbcDecrypt(decodeHex(v::kAesKey), decodeHex(v::kAesIv), decodeHex(v::kAesCiphertext)),
        decodeHex(v::kAesPlaintext));
    Bytes data(32), enc(48), tcIv(16), tcKey(32);
    for (int index = 1; index <= 5; ++index) {
        ASSERT_EQ(DataPlaceHolder::fill_zel_enc_dec_tc_scenario(
                      2, index, data.data(), 32, enc.data(), 48, tcIv.data(), 16, tcKey.data(), 32),
                  TEEC_SUCCESS);
        EXPECT_EQ(aes256CbcDecrypt(tcKey, tcIv, enc), data) << "test case " << index;
    }
}

}  // namespace
