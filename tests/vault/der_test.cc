// The TAs' DER reader and writers against OpenSSL: what OpenSSL writes they read, what they write
// OpenSSL reads back to the same numbers, and the strict-DER inputs they refuse (with OpenSSL's own
// verdict beside each, so that every difference from it is one written down here).
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

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

// A DER element with the shortest length form.
Bytes tlv(uint8_t tag, const Bytes& content) {
    Bytes out{tag};
    const size_t n = content.size();
    if (n >= 0x100)
        out.insert(out.end(), {0x82, uint8_t(n >> 8), uint8_t(n)});
    else if (n >= 0x80)
        out.insert(out.end(), {0x81, uint8_t(n)});
    else
        out.push_back(uint8_t(n));
    return cat({out, content});
}

Bytes bn32(const BIGNUM* bn) {
    Bytes out(32);
    EXPECT_EQ(BN_bn2binpad(bn, out.data(), 32), 32);
    return out;
}

Bytes keyParam(EVP_PKEY* key, const char* name) {
    BIGNUM* bn = nullptr;
    EXPECT_EQ(EVP_PKEY_get_bn_param(key, name, &bn), 1) << name;
    Bytes out = bn32(bn);
    BN_free(bn);
    return out;
}

Bytes bytesOf(const uint8_t* data, size_t size) {
    return Bytes(data, data + size);
}

// What the vault accepted with OpenSSL: the whole input, and a P-256 key.
bool isP256(EVP_PKEY* key) {
    char group[32] = {};
    return key && EVP_PKEY_get_base_id(key) == EVP_PKEY_EC &&
           EVP_PKEY_get_group_name(key, group, sizeof group, nullptr) == 1 &&
           std::strcmp(group, "prime256v1") == 0;
}
Pkey opensslPrivateKey(const Bytes& der) {
    const unsigned char* cursor = der.data();
    Pkey key(d2i_PrivateKey(EVP_PKEY_EC, nullptr, &cursor, static_cast<long>(der.size())));
    return key && cursor == der.data() + der.size() && isP256(key.get()) ? std::move(key) : nullptr;
}
Pkey opensslPublicKey(const Bytes& der) {
    const unsigned char* cursor = der.data();
    Pkey key(d2i_PUBKEY(nullptr, &cursor, static_cast<long>(der.size())));
    return key && cursor == der.data() + der.size() && isP256(key.get()) ? std::move(key) : nullptr;
}
bool opensslRsaPublicKey(const Bytes& der) {
    const unsigned char* cursor = der.data();
    Pkey key(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &cursor, static_cast<long>(der.size())));
    return key && cursor == der.data() + der.size();
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

bool openssl(Reader reader, const Bytes& input) {
    switch (reader) {
        case Reader::kPrivate:
            return opensslPrivateKey(input) != nullptr;
        case Reader::kPublic:
            return opensslPublicKey(input) != nullptr;
        case Reader::kRsa:
            return opensslRsaPublicKey(input);
    }
    return false;
}

void expectSameKey(const der_ec_key& read, EVP_PKEY* key) {
    EXPECT_EQ(bytesOf(read.d, 32), keyParam(key, OSSL_PKEY_PARAM_PRIV_KEY));
    EXPECT_EQ(bytesOf(read.x, 32), keyParam(key, OSSL_PKEY_PARAM_EC_PUB_X));
    EXPECT_EQ(bytesOf(read.y, 32), keyParam(key, OSSL_PKEY_PARAM_EC_PUB_Y));
}

TEST(DerTest, ProjectVectorsAndOpenSslKeysParseAndRoundTrip) {
    const Bytes device = hexBytes(zel::vectors::kDeviceEcPrivateKey);
    der_ec_key key;
    ASSERT_TRUE(der_read_ec_private_key(device.data(), uint32_t(device.size()), &key));
    Pkey reference = opensslPrivateKey(device);
    ASSERT_TRUE(reference);
    const zel::test::PkeyCtx check(EVP_PKEY_CTX_new(reference.get(), nullptr));
    EXPECT_EQ(EVP_PKEY_check(check.get()), 1);  // the vector's public point is its secret's
    expectSameKey(key, reference.get());
    uint8_t written[DER_EC_PRIVATE_KEY_SIZE];
    der_write_ec_private_key(&key, written);
    EXPECT_EQ(bytesOf(written, sizeof written), device);

    const Bytes cloud = hexBytes(zel::vectors::kCloudEcPublicKey);
    uint8_t x[32], y[32];
    ASSERT_TRUE(der_read_ec_public_key(cloud.data(), uint32_t(cloud.size()), x, y));
    reference = opensslPublicKey(cloud);
    ASSERT_TRUE(reference);
    const zel::test::PkeyCtx publicCheck(EVP_PKEY_CTX_new(reference.get(), nullptr));
    EXPECT_EQ(EVP_PKEY_public_check(publicCheck.get()), 1);  // on the curve
    EXPECT_EQ(bytesOf(x, 32), keyParam(reference.get(), OSSL_PKEY_PARAM_EC_PUB_X));
    EXPECT_EQ(bytesOf(y, 32), keyParam(reference.get(), OSSL_PKEY_PARAM_EC_PUB_Y));

    const Bytes ak = hexBytes(zel::vectors::kRsaPublicKey);
    EXPECT_TRUE(der_is_rsa_public_key(ak.data(), uint32_t(ak.size())));
    const unsigned char* cursor = ak.data();
    const Pkey rsaAk(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &cursor, static_cast<long>(ak.size())));
    ASSERT_TRUE(rsaAk);
    EXPECT_EQ(EVP_PKEY_get_bits(rsaAk.get()), 2048);
    BIGNUM* exponent = nullptr;
    ASSERT_EQ(EVP_PKEY_get_bn_param(rsaAk.get(), OSSL_PKEY_PARAM_RSA_E, &exponent), 1);
    EXPECT_EQ(BN_get_word(exponent), 65537u);
    BN_free(exponent);

    // Fresh keys until one has a private key below 2^248, whose OpenSSL writes with a leading
    // zero byte that an encoder may drop and the reader must put back.
    bool sawShortKey = false;
    for (int i = 0; i < 4000 && (i < 50 || !sawShortKey); ++i) {
        const Pkey generated(EVP_EC_gen("P-256"));
        ASSERT_TRUE(generated);
        const Bytes der = derOf(generated.get(), i2d_PrivateKey);
        ASSERT_EQ(der.size(), size_t(DER_EC_PRIVATE_KEY_SIZE));
        ASSERT_TRUE(der_read_ec_private_key(der.data(), uint32_t(der.size()), &key)) << i;
        expectSameKey(key, generated.get());
        der_write_ec_private_key(&key, written);
        const Bytes rewritten = bytesOf(written, sizeof written);
        EXPECT_EQ(rewritten, der);
        const Pkey reread = opensslPrivateKey(rewritten);
        ASSERT_TRUE(reread);
        EXPECT_EQ(EVP_PKEY_eq(reread.get(), generated.get()), 1);

        const Bytes spki = derOf(generated.get(), i2d_PUBKEY);
        ASSERT_TRUE(der_read_ec_public_key(spki.data(), uint32_t(spki.size()), x, y));
        EXPECT_EQ(bytesOf(x, 32), bytesOf(key.x, 32));
        EXPECT_EQ(bytesOf(y, 32), bytesOf(key.y, 32));

        if (key.d[0] == 0) {
            sawShortKey = true;
            const Bytes point(der.begin() + 56, der.end());
            const Bytes shortened =
                tlv(0x30, cat({hexBytes("020101"), tlv(0x04, Bytes(key.d + 1, key.d + 32)),
                               hexBytes("a00a06082a8648ce3d030107"),
                               tlv(0xa1, tlv(0x03, cat({{0}, point})))}));
            ASSERT_TRUE(opensslPrivateKey(shortened));
            der_ec_key fromShort;
            ASSERT_TRUE(
                der_read_ec_private_key(shortened.data(), uint32_t(shortened.size()), &fromShort));
            der_write_ec_private_key(&fromShort, written);
            EXPECT_EQ(bytesOf(written, sizeof written), der);
        }
    }
    EXPECT_TRUE(sawShortKey);

    for (int bits : {1024, 2048, 3072}) {
        const Pkey rsa(EVP_RSA_gen(static_cast<unsigned>(bits)));
        ASSERT_TRUE(rsa);
        const Bytes der = derOf(rsa.get(), i2d_PublicKey);
        EXPECT_TRUE(der_is_rsa_public_key(der.data(), uint32_t(der.size()))) << bits;
    }
}

TEST(DerTest, SignatureIsOpenSslsDerOfRAndS) {
    std::vector<Bytes> cases;
    const Bytes zero(32, 0), ones(32, 0xff);
    Bytes small = zero, highAfterZero = zero, lowAfterZero = zero;
    small[31] = 1;
    highAfterZero[1] = 0x80;
    lowAfterZero[1] = 0x7f;
    for (const Bytes& r : {zero, ones, small, highAfterZero, lowAfterZero})
        for (const Bytes& s : {zero, ones, small, highAfterZero, lowAfterZero})
            cases.push_back(cat({r, s}));
    for (int i = 0; i < 2000; ++i) {
        Bytes rs(64);
        ASSERT_EQ(RAND_bytes(rs.data(), 64), 1);
        // Leading zeros and high bits at random places, on either number.
        for (size_t half : {size_t(0), size_t(32)}) {
            const size_t zeros = rs[half] % 4 == 0 ? rs[half + 1] % 33 : 0;
            std::fill(rs.begin() + half, rs.begin() + half + zeros, 0);
        }
        cases.push_back(rs);
    }
    for (const Bytes& rs : cases) {
        uint8_t out[DER_ECDSA_SIGNATURE_MAX];
        const uint32_t length = der_write_ecdsa_signature(rs.data(), out);
        ASSERT_LE(length, uint32_t(DER_ECDSA_SIGNATURE_MAX));
        const unsigned char* cursor = out;
        const zel::test::EcdsaSig sig(d2i_ECDSA_SIG(nullptr, &cursor, length));
        ASSERT_TRUE(sig);
        EXPECT_EQ(cursor, out + length);
        EXPECT_EQ(bn32(ECDSA_SIG_get0_r(sig.get())), Bytes(rs.begin(), rs.begin() + 32));
        EXPECT_EQ(bn32(ECDSA_SIG_get0_s(sig.get())), Bytes(rs.begin() + 32, rs.end()));
        // OpenSSL writes DER: the same bytes, so no other encoding of r and s slipped through.
        unsigned char* canonical = nullptr;
        const int canonicalLength = i2d_ECDSA_SIG(sig.get(), &canonical);
        EXPECT_EQ(Bytes(canonical, canonical + canonicalLength), bytesOf(out, length));
        OPENSSL_free(canonical);
    }
}

TEST(DerTest, MalformedInputIsRefused) {
    const Bytes p256 = hexBytes("06082a8648ce3d030107");
    const Bytes ecPublicKey = hexBytes("06072a8648ce3d0201");
    const Bytes device = hexBytes(zel::vectors::kDeviceEcPrivateKey);
    const Bytes d(device.begin() + 7, device.begin() + 39);
    const Bytes point(device.begin() + 56, device.end());
    Bytes compressed(point.begin(), point.begin() + 33);
    compressed[0] = uint8_t(2 + (point[64] & 1));
    Bytes offCurve = point;
    offCurve[64] ^= 1;
    const Bytes version = hexBytes("020101");
    const auto priv = [&](const Bytes& versionField, const Bytes& secret, const Bytes& params,
                          const Bytes& publicKey) {
        return tlv(0x30, cat({versionField, secret, params, publicKey}));
    };
    const Bytes secret = tlv(0x04, d), params = tlv(0xa0, p256);
    const auto bits = [](const Bytes& pointBytes) { return tlv(0x03, cat({{0}, pointBytes})); };
    const Bytes publicKey = tlv(0xa1, bits(point));
    const auto spki = [&](const Bytes& algorithm, const Bytes& key) {
        return tlv(0x30, cat({tlv(0x30, algorithm), key}));
    };
    const Bytes cloud = hexBytes(zel::vectors::kCloudEcPublicKey);
    const auto rsa = [](const Bytes& n, const Bytes& e) {
        return tlv(0x30, cat({tlv(0x02, n), tlv(0x02, e)}));
    };
    const Bytes n = hexBytes("00c5113d"), e = hexBytes("010001");
    const Bytes rsaKey = rsa(n, e);
    const Bytes ak = hexBytes(zel::vectors::kRsaPublicKey);
    Bytes hybrid = point;
    hybrid[0] = uint8_t(6 + (point[64] & 1));
    const Bytes pkcs8 = tlv(
        0x30, cat({hexBytes("020100"), tlv(0x30, cat({ecPublicKey, p256})), tlv(0x04, device)}));

    struct Case {
        const char* what;
        Reader reader;
        Bytes input;
        bool accepted;
        bool opensslAccepts;  // the vault's OpenSSL checks took it
    };
    const Case cases[] = {
        // The well-formed inputs the cases below are made from.
        {"the private key", Reader::kPrivate, priv(version, secret, params, publicKey), true, true},
        {"the public key", Reader::kPublic, spki(cat({ecPublicKey, p256}), bits(point)), true,
         true},
        {"the RSA key", Reader::kRsa, rsaKey, true, true},

        {"empty", Reader::kPrivate, {}, false, false},
        {"long-form outer length", Reader::kPrivate,
         cat({{0x30, 0x81, 0x77}, {device.begin() + 2, device.end()}}), false, true},
        {"indefinite length", Reader::kPrivate,
         cat({{0x30, 0x80}, {device.begin() + 2, device.end()}, {0, 0}}), false, true},
        {"long-form secret length", Reader::kPrivate,
         priv(version, cat({{0x04, 0x81, 0x20}, d}), params, publicKey), false, true},
        {"long-form OID length", Reader::kPrivate,
         priv(version, secret, tlv(0xa0, cat({{0x06, 0x81, 0x08}, {p256.begin() + 2, p256.end()}})),
              publicKey),
         false, true},
        {"version 0", Reader::kPrivate, priv(hexBytes("020100"), secret, params, publicKey), false,
         true},
        {"version 2", Reader::kPrivate, priv(hexBytes("020102"), secret, params, publicKey), false,
         true},
        {"version not minimal", Reader::kPrivate,
         priv(hexBytes("02020001"), secret, params, publicKey), false, false},
        {"version zero-length", Reader::kPrivate, priv(hexBytes("0200"), secret, params, publicKey),
         false, true},
        {"secret empty", Reader::kPrivate, priv(version, tlv(0x04, {}), params, publicKey), false,
         true},
        {"secret zero", Reader::kPrivate, priv(version, tlv(0x04, Bytes(32, 0)), params, publicKey),
         false, true},
        {"secret of 33 bytes", Reader::kPrivate,
         priv(version, tlv(0x04, cat({{0}, d})), params, publicKey), false, true},
        {"curve absent", Reader::kPrivate, priv(version, secret, {}, publicKey), false, false},
        {"public key absent", Reader::kPrivate, priv(version, secret, params, {}), false, true},
        {"secp384r1", Reader::kPrivate,
         priv(version, secret, tlv(0xa0, hexBytes("06052b81040022")), publicKey), false, false},
        {"curve OID then more", Reader::kPrivate,
         priv(version, secret, tlv(0xa0, cat({p256, {0x05, 0x00}})), publicKey), false, false},
        {"compressed point", Reader::kPrivate,
         priv(version, secret, params, tlv(0xa1, bits(compressed))), false, true},
        {"hybrid point", Reader::kPrivate, priv(version, secret, params, tlv(0xa1, bits(hybrid))),
         false, true},
        {"PKCS #8 wrapping", Reader::kPrivate, pkcs8, false, true},
        // Whether the point is on the curve is the caller's to check.
        {"point off the curve", Reader::kPrivate,
         priv(version, secret, params, tlv(0xa1, bits(offCurve))), true, false},
        {"unused bits", Reader::kPrivate,
         priv(version, secret, params, tlv(0xa1, tlv(0x03, cat({{1}, point})))), false, false},
        {"a field after the key", Reader::kPrivate,
         tlv(0x30, cat({version, secret, params, publicKey, hexBytes("a2020500")})), false, false},

        {"empty", Reader::kPublic, {}, false, false},
        {"long-form outer length", Reader::kPublic,
         cat({{0x30, 0x81, 0x59}, {cloud.begin() + 2, cloud.end()}}), false, true},
        {"indefinite length", Reader::kPublic,
         cat({{0x30, 0x80}, {cloud.begin() + 2, cloud.end()}, {0, 0}}), false, true},
        {"compressed point", Reader::kPublic, spki(cat({ecPublicKey, p256}), bits(compressed)),
         false, true},
        {"hybrid point", Reader::kPublic, spki(cat({ecPublicKey, p256}), bits(hybrid)), false,
         true},
        {"point off the curve", Reader::kPublic, spki(cat({ecPublicKey, p256}), bits(offCurve)),
         true, false},
        {"unused bits", Reader::kPublic,
         spki(cat({ecPublicKey, p256}), tlv(0x03, cat({{1}, point}))), false, false},
        {"curve absent", Reader::kPublic, spki(ecPublicKey, bits(point)), false, false},
        {"secp384r1", Reader::kPublic,
         spki(cat({ecPublicKey, hexBytes("06052b81040022")}), bits(point)), false, false},
        {"rsaEncryption", Reader::kPublic,
         spki(cat({hexBytes("06092a864886f70d010101"), p256}), bits(point)), false, false},
        {"a field after the key", Reader::kPublic,
         tlv(0x30, cat({tlv(0x30, cat({ecPublicKey, p256})), bits(point), {0x05, 0x00}})), false,
         false},

        {"empty", Reader::kRsa, {}, false, false},
        {"modulus zero", Reader::kRsa, rsa({0}, e), false, true},
        {"exponent zero", Reader::kRsa, rsa(n, {0}), false, true},
        {"modulus negative", Reader::kRsa, rsa(hexBytes("c5113d"), e), false, true},
        {"exponent negative", Reader::kRsa, rsa(n, {0xff}), false, true},
        {"modulus zero-length", Reader::kRsa, rsa({}, e), false, true},
        {"modulus with a needless zero", Reader::kRsa, rsa(hexBytes("00451f"), e), false, true},
        {"modulus with a needless 0xff", Reader::kRsa, rsa(hexBytes("ffc511"), e), false, true},
        {"long-form INTEGER length", Reader::kRsa,
         tlv(0x30, cat({{0x02, 0x81, 0x04}, n, tlv(0x02, e)})), false, true},
        {"long-form length with a zero byte", Reader::kRsa,
         cat({{0x30, 0x82, 0x00, 0x0b}, {rsaKey.begin() + 2, rsaKey.end()}}), false, true},
        {"three length bytes where two do", Reader::kRsa,
         cat({{0x30, 0x83, 0x00, 0x01, 0x0a}, {ak.begin() + 4, ak.end()}}), false, true},
        {"indefinite length", Reader::kRsa, cat({{0x30, 0x80}, tlv(0x02, n), tlv(0x02, e), {0, 0}}),
         false, true},
        {"one INTEGER", Reader::kRsa, tlv(0x30, tlv(0x02, n)), false, false},
        {"three INTEGERs", Reader::kRsa, tlv(0x30, cat({tlv(0x02, n), tlv(0x02, e), tlv(0x02, e)})),
         false, false},
        {"an OCTET STRING exponent", Reader::kRsa, tlv(0x30, cat({tlv(0x02, n), tlv(0x04, e)})),
         false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(ours(c.reader, c.input), c.accepted);
        EXPECT_EQ(openssl(c.reader, c.input), c.opensslAccepts);
    }
}

TEST(DerTest, EveryTruncationAndATrailingByteAreRefused) {
    const Pkey generated(EVP_EC_gen("P-256"));
    const Pkey rsa(EVP_RSA_gen(2048));
    ASSERT_TRUE(generated && rsa);
    const struct {
        Reader reader;
        Bytes input;
    } inputs[] = {
        {Reader::kPrivate, hexBytes(zel::vectors::kDeviceEcPrivateKey)},
        {Reader::kPrivate, derOf(generated.get(), i2d_PrivateKey)},
        {Reader::kPublic, hexBytes(zel::vectors::kCloudEcPublicKey)},
        {Reader::kPublic, derOf(generated.get(), i2d_PUBKEY)},
        {Reader::kRsa, hexBytes(zel::vectors::kRsaPublicKey)},
        {Reader::kRsa, derOf(rsa.get(), i2d_PublicKey)},
    };
    for (const auto& [reader, input] : inputs) {
        ASSERT_TRUE(ours(reader, input));
        for (size_t length = 0; length < input.size(); ++length)
            EXPECT_FALSE(ours(reader, Bytes(input.begin(), input.begin() + length))) << length;
        for (uint8_t extra : {0x00, 0x30, 0xff}) EXPECT_FALSE(ours(reader, cat({input, {extra}})));
    }
}

}  // namespace
