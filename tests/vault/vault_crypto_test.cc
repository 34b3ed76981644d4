// The vault's cryptography against published vectors: NIST SP 800-38A (AES-256-CBC), NIST
// SP 800-38B (AES-256-CMAC) and RFC 4493 (AES-128-CMAC).
#include <gtest/gtest.h>

#include <string>

#include "vault_crypto.h"

namespace {

using zel::vault::Bytes;

Bytes fromHex(const std::string& hex) {
    Bytes bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

const std::string kNistMessage =
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
const Bytes kAes256Key =
    fromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");

TEST(VaultCryptoTest, AesCbcMatchesNistSp800_38A) {
    const Bytes iv = fromHex("000102030405060708090a0b0c0d0e0f");
    const Bytes expected = fromHex(
        "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
        "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b");
    Bytes ciphertext, plaintext;
    ASSERT_EQ(zel::vault::aesCbc(true, kAes256Key, iv, fromHex(kNistMessage), ciphertext),
              TEEC_SUCCESS);
    ASSERT_EQ(ciphertext.size(), 80u);  // PKCS#7 adds a whole block to whole-block input
    EXPECT_EQ(Bytes(ciphertext.begin(), ciphertext.begin() + 64), expected);
    ASSERT_EQ(zel::vault::aesCbc(false, kAes256Key, iv, ciphertext, plaintext), TEEC_SUCCESS);
    EXPECT_EQ(plaintext, fromHex(kNistMessage));

    // Not whole blocks, or padding that does not check out: a malformed ciphertext.
    EXPECT_EQ(zel::vault::aesCbc(false, kAes256Key, iv, Bytes(47), plaintext),
              TEEC_ERROR_BAD_FORMAT);
    EXPECT_EQ(zel::vault::aesCbc(false, kAes256Key, iv, expected, plaintext),
              TEEC_ERROR_BAD_FORMAT);
    EXPECT_EQ(zel::vault::aesCbc(true, Bytes(16), iv, expected, plaintext),
              TEEC_ERROR_BAD_PARAMETERS);
}

TEST(VaultCryptoTest, AesCmacMatchesNistSp800_38BAndRfc4493) {
    struct Case {
        Bytes key;
        size_t length;
        const char* mac;
    };
    const Bytes aes128 = fromHex("2b7e151628aed2a6abf7158809cf4f3c");
    const Case cases[] = {
        {kAes256Key, 0, "028962f61b7bf89efc6b551f4667d983"},
        {kAes256Key, 16, "28a7023f452e8f82bd4bf28d8c37c35c"},
        {kAes256Key, 40, "aaf3d8f1de5640c232f5b169b9c911e6"},
        {kAes256Key, 64, "e1992190549f6ed5696a2c056c315410"},
        {aes128, 0, "bb1d6929e95937287fa37d129b756746"},
        {aes128, 16, "070a16b46b4d4144f79bdd9dd04a287c"},
        {aes128, 40, "dfa66747de9ae63030ca32611497c827"},
        {aes128, 64, "51f0bebf7e3b9d92fc49741779363cfe"},
    };
    const Bytes message = fromHex(kNistMessage);
    for (const Case& c : cases) {
        Bytes mac;
        ASSERT_EQ(
            zel::vault::aesCmac(c.key, Bytes(message.begin(), message.begin() + c.length), mac),
            TEEC_SUCCESS);
        EXPECT_EQ(mac, fromHex(c.mac)) << c.key.size() << " " << c.length;
    }
    Bytes mac;
    EXPECT_EQ(zel::vault::aesCmac(Bytes(20), message, mac), TEEC_ERROR_BAD_PARAMETERS);
}

TEST(VaultCryptoTest, MalformedKeysAndTamperedTokensAreRefused) {
    Bytes ecKey, signature, secret, plain;
    ASSERT_EQ(zel::vault::generateEcKey(ecKey), TEEC_SUCCESS);
    EXPECT_EQ(zel::vault::checkEcPrivateKey(ecKey), TEEC_SUCCESS);
    Bytes trailing = ecKey;
    trailing.push_back(0);
    EXPECT_EQ(zel::vault::checkEcPrivateKey(trailing), TEEC_ERROR_BAD_FORMAT);
    EXPECT_EQ(zel::vault::ecdsaSignDigest(ecKey, Bytes(31), signature), TEEC_ERROR_BAD_PARAMETERS);
    EXPECT_EQ(zel::vault::ecdh(ecKey, Bytes(91, 0x30), secret), TEEC_ERROR_BAD_FORMAT);
    EXPECT_EQ(zel::vault::aesGcmOpen(kAes256Key, Bytes(16), Bytes(64), plain), TEEC_ERROR_SECURITY);
    EXPECT_TRUE(plain.empty());
}

}  // namespace
