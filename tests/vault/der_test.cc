// The TAs' DER reader and writers against OpenSSL: what OpenSSL writes they read, what they write
// is what OpenSSL writes for the same numbers, and the strict-DER inputs they refuse.
#include <gtest/gtest.h>
#include <openssl/core_names.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "openssl_bytes.h"
#include "support/test_vectors.h"

#include "der.h"

namespace {

using zel::test::Bytes;
using zel::test::derOf;
using zel::test::hexBytes;
using zel::test::Pkey;

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

// A DER element with the short length form: every one built here is under 128 bytes.
Bytes tlv(uint8_t tag, const Bytes& content) {
    return cat({{tag, uint8_t(content.size())}, content});
}

Bytes keyParam(EVP_PKEY* key, const char* name) {
    BIGNUM* bn = nullptr;
    EXPECT_EQ(EVP_PKEY_get_bn_param(key, name, &bn), 1) << name;
    Bytes out(32);
    EXPECT_EQ(BN_bn2binpad(bn, out.data(), 32), 32);
    BN_free(bn);
    return out;
}

Bytes bytesOf(const uint8_t* data, size_t size) {
    return Bytes(data, data + size);
}

enum class Reader { kPrivate, kPublic, kRsa };

bool ours(Reader reader, const Bytes& input) {
    // An exact-size copy, so that a read past the end is one past the allocation (ASan builds).
    const std::unique_ptr<uint8_t[]> copy(new uint8_t[input.size() ? input.size() : 1]);
    if (!input.empty()) std::memcpy(copy.get(), input.data(), input.size());
    const uint32_t length = static_cast<uint32_t>(input.size());
    der_ec_key key;
    uint8_t x[32], y[32];
    switch (reader) {
        case Reader::kPrivate:
            return der_read_ec_private_key(copy.get(), length, &key);
        case Reader::kPublic:
            return der_read_ec_public_key(copy.get(), length, x, y);
        case Reader::kRsa:
            return der_is_rsa_public_key(copy.get(), length);
    }
    return false;
}

TEST(DerTest, ProjectVectorsReadAsOpenSslReadsThemAndTheKeyWritesBackTheSame) {
    const Bytes device = hexBytes(zel::vectors::kDeviceEcPrivateKey);
    der_ec_key key;
    ASSERT_TRUE(der_read_ec_private_key(device.data(), uint32_t(device.size()), &key));
    const unsigned char* cursor = device.data();
    const Pkey reference(d2i_PrivateKey(EVP_PKEY_EC, nullptr, &cursor, long(device.size())));
    ASSERT_TRUE(reference);
    const zel::test::PkeyCtx check(EVP_PKEY_CTX_new(reference.get(), nullptr));
    EXPECT_EQ(EVP_PKEY_check(check.get()), 1);  // the vector's public point is its secret's
    const auto group = [](EVP_PKEY* pkey) {
        char name[32] = {};
        EVP_PKEY_get_group_name(pkey, name, sizeof name, nullptr);
        return std::string(name);
    };
    EXPECT_EQ(group(reference.get()), "prime256v1");
    EXPECT_EQ(bytesOf(key.d, 32), keyParam(reference.get(), OSSL_PKEY_PARAM_PRIV_KEY));
    EXPECT_EQ(bytesOf(key.x, 32), keyParam(reference.get(), OSSL_PKEY_PARAM_EC_PUB_X));
    EXPECT_EQ(bytesOf(key.y, 32), keyParam(reference.get(), OSSL_PKEY_PARAM_EC_PUB_Y));
    uint8_t written[DER_EC_PRIVATE_KEY_SIZE];
    der_write_ec_private_key(&key, written);
    EXPECT_EQ(bytesOf(written, sizeof written), device);

    const Bytes cloud = hexBytes(zel::vectors::kCloudEcPublicKey);
    uint8_t x[32], y[32];
    ASSERT_TRUE(der_read_ec_public_key(cloud.data(), uint32_t(cloud.size()), x, y));
    cursor = cloud.data();
    const Pkey publicReference(d2i_PUBKEY(nullptr, &cursor, long(cloud.size())));
    ASSERT_TRUE(publicReference);
    const zel::test::PkeyCtx publicCheck(EVP_PKEY_CTX_new(publicReference.get(), nullptr));
    EXPECT_EQ(EVP_PKEY_public_check(publicCheck.get()), 1);  // on the curve
    EXPECT_EQ(group(publicReference.get()), "prime256v1");
    EXPECT_EQ(bytesOf(x, 32), keyParam(publicReference.get(), OSSL_PKEY_PARAM_EC_PUB_X));
    EXPECT_EQ(bytesOf(y, 32), keyParam(publicReference.get(), OSSL_PKEY_PARAM_EC_PUB_Y));

    // Long-form lengths where they are due: two bytes in the vector, one (0x81 0x8n, above the
    // short form's reach) in a 1024-bit key.
    const Bytes ak = hexBytes(zel::vectors::kRsaPublicKey);
    EXPECT_TRUE(der_is_rsa_public_key(ak.data(), uint32_t(ak.size())));
    cursor = ak.data();
    const Pkey akKey(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &cursor, long(ak.size())));
    ASSERT_TRUE(akKey);
    EXPECT_EQ(EVP_PKEY_get_bits(akKey.get()), 2048);
    BIGNUM* exponent = nullptr;
    ASSERT_EQ(EVP_PKEY_get_bn_param(akKey.get(), OSSL_PKEY_PARAM_RSA_E, &exponent), 1);
    EXPECT_EQ(BN_get_word(exponent), 65537u);
    BN_free(exponent);
    const Pkey rsa(EVP_RSA_gen(1024));
    ASSERT_TRUE(rsa);
    const Bytes rsaDer = derOf(rsa.get(), i2d_PublicKey);
    ASSERT_EQ(rsaDer[1], 0x81);
    EXPECT_TRUE(der_is_rsa_public_key(rsaDer.data(), uint32_t(rsaDer.size())));
}

TEST(DerTest, SignatureIsOpenSslsDerOfRAndS) {
    const Bytes zero(32, 0), ones(32, 0xff);
    Bytes small = zero, highAfterZero = zero, lowAfterZero = zero;
    small[31] = 1;
    highAfterZero[1] = 0x80;
    lowAfterZero[1] = 0x7f;
    // Each shape as r and as s: all zero, a sign byte, leading zeros with and without one. Ones
    // and ones is the longest signature there is.
    const std::pair<Bytes, Bytes> cases[] = {{ones, ones},
                                             {zero, small},
                                             {small, highAfterZero},
                                             {highAfterZero, lowAfterZero},
                                             {lowAfterZero, zero}};
    for (const auto& [r, s] : cases) {
        const Bytes rs = cat({r, s});
        uint8_t out[DER_ECDSA_SIGNATURE_MAX];
        const uint32_t length = der_write_ecdsa_signature(rs.data(), out);
        ASSERT_LE(length, uint32_t(DER_ECDSA_SIGNATURE_MAX));
        EXPECT_EQ(bytesOf(out, length), zel::test::ecdsaDer(rs));
    }
}

// One case per check of the reader: the length, INTEGER and point checks are shared code, tried
// once; what each reader has of its own (its fields, its OIDs, nothing after it) per reader.
TEST(DerTest, MalformedInputIsRefused) {
    const Bytes p256 = hexBytes("06082a8648ce3d030107");
    const Bytes secp384r1 = hexBytes("06052b81040022");
    const Bytes ecPublicKey = hexBytes("06072a8648ce3d0201");
    const Bytes device = hexBytes(zel::vectors::kDeviceEcPrivateKey);
    const Bytes d(device.begin() + 7, device.begin() + 39);
    const Bytes point(device.begin() + 56, device.end());
    Bytes compressed(point.begin(), point.begin() + 33);
    compressed[0] = uint8_t(2 + (point[64] & 1));
    Bytes hybrid = point;
    hybrid[0] = uint8_t(6 + (point[64] & 1));
    const Bytes version = hexBytes("020101");
    const auto priv = [&](const Bytes& secretField, const Bytes& params, const Bytes& publicKey) {
        return tlv(0x30, cat({version, secretField, params, publicKey}));
    };
    const Bytes secret = tlv(0x04, d), params = tlv(0xa0, p256);
    const auto bits = [](const Bytes& pointBytes) { return tlv(0x03, cat({{0}, pointBytes})); };
    const Bytes publicKey = tlv(0xa1, bits(point));
    const auto spki = [&](const Bytes& algorithm, const Bytes& key) {
        return tlv(0x30, cat({tlv(0x30, algorithm), key}));
    };
    const auto rsa = [](const Bytes& n, const Bytes& e) {
        return tlv(0x30, cat({tlv(0x02, n), tlv(0x02, e)}));
    };
    const Bytes n = hexBytes("00c5113d"), e = hexBytes("010001");
    const Bytes rsaKey = rsa(n, e);
    const Bytes ak = hexBytes(zel::vectors::kRsaPublicKey);

    struct Case {
        const char* what;
        Reader reader;
        Bytes input;
        bool accepted;
    };
    const Case cases[] = {
        // The well-formed inputs the cases below are made from.
        {"the private key", Reader::kPrivate, priv(secret, params, publicKey), true},
        {"the public key", Reader::kPublic, spki(cat({ecPublicKey, p256}), bits(point)), true},
        {"the RSA key", Reader::kRsa, rsaKey, true},

        {"long-form length where the short one does", Reader::kPrivate,
         cat({{0x30, 0x81, 0x77}, {device.begin() + 2, device.end()}}), false},
        // Bare, so that a read of the length bytes it does not have is past the input.
        {"indefinite length", Reader::kPrivate, {0x30, 0x80}, false},
        {"long-form length with a leading zero byte", Reader::kRsa,
         cat({{0x30, 0x83, 0x00, 0x01, 0x0a}, {ak.begin() + 4, ak.end()}}), false},
        // Cut inside the tag and length, inside the long-form length, inside the content; and
        // one byte after the whole: the outer element's checks, whatever the reader.
        {"one byte", Reader::kRsa, {0x30}, false},
        {"cut in the length bytes", Reader::kRsa, Bytes(ak.begin(), ak.begin() + 3), false},
        {"cut in the content", Reader::kPrivate, Bytes(device.begin(), device.end() - 1), false},
        {"a byte after the end", Reader::kRsa, cat({ak, {0x00}}), false},
        {"version 2", Reader::kPrivate,
         tlv(0x30, cat({hexBytes("020102"), secret, params, publicKey})), false},
        {"secret zero", Reader::kPrivate, priv(tlv(0x04, Bytes(32, 0)), params, publicKey), false},
        {"secret of 33 bytes", Reader::kPrivate, priv(tlv(0x04, cat({{0}, d})), params, publicKey),
         false},
        {"secp384r1", Reader::kPrivate, priv(secret, tlv(0xa0, secp384r1), publicKey), false},
        {"curve OID then more", Reader::kPrivate,
         priv(secret, tlv(0xa0, cat({p256, {0x05, 0x00}})), publicKey), false},
        {"point then more", Reader::kPrivate,
         priv(secret, params, tlv(0xa1, cat({bits(point), {0x05, 0x00}}))), false},
        {"a field after the key", Reader::kPrivate,
         priv(secret, params, cat({publicKey, hexBytes("a2020500")})), false},

        {"compressed point", Reader::kPublic, spki(cat({ecPublicKey, p256}), bits(compressed)),
         false},
        {"hybrid point", Reader::kPublic, spki(cat({ecPublicKey, p256}), bits(hybrid)), false},
        {"unused bits", Reader::kPublic,
         spki(cat({ecPublicKey, p256}), tlv(0x03, cat({{1}, point}))), false},
        {"rsaEncryption", Reader::kPublic,
         spki(cat({hexBytes("06092a864886f70d010101"), p256}), bits(point)), false},
        {"secp384r1", Reader::kPublic, spki(cat({ecPublicKey, secp384r1}), bits(point)), false},
        {"curve OID then more", Reader::kPublic,
         spki(cat({ecPublicKey, p256, {0x05, 0x00}}), bits(point)), false},
        {"a field after the key", Reader::kPublic,
         tlv(0x30, cat({tlv(0x30, cat({ecPublicKey, p256})), bits(point), {0x05, 0x00}})), false},

        {"modulus zero", Reader::kRsa, rsa({0}, e), false},
        {"modulus negative", Reader::kRsa, rsa(hexBytes("c5113d"), e), false},
        {"modulus zero-length", Reader::kRsa, rsa({}, e), false},
        {"modulus with a needless zero", Reader::kRsa, rsa(hexBytes("00451f"), e), false},
        {"three INTEGERs", Reader::kRsa, tlv(0x30, cat({tlv(0x02, n), tlv(0x02, e), tlv(0x02, e)})),
         false},
        {"an OCTET STRING exponent", Reader::kRsa, tlv(0x30, cat({tlv(0x02, n), tlv(0x04, e)})),
         false},
    };
    for (const Case& c : cases) EXPECT_EQ(ours(c.reader, c.input), c.accepted) << c.what;

    // A secret below 2^248 may come without its leading zero byte: it is read back to 32 bytes.
    der_ec_key key;
    const Bytes shortSecret = priv(tlv(0x04, Bytes(d.begin() + 1, d.end())), params, publicKey);
    ASSERT_TRUE(der_read_ec_private_key(shortSecret.data(), uint32_t(shortSecret.size()), &key));
    EXPECT_EQ(bytesOf(key.d, 32), cat({{0}, Bytes(d.begin() + 1, d.end())}));
}

}  // namespace
