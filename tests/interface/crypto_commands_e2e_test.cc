// The crypto and hub commands end to end, every output checked by OpenSSL in the test itself
// rather than by the vault's own code.
#include <gtest/gtest.h>

#include <openssl/kdf.h>
#include <openssl/rand.h>

#include <cstdlib>
#include <memory>
#include <vector>

#include "openssl_bytes.h"
#include "output_capture.h"
#include "support/test_vectors.h"
#include "vault_fixture.h"
#include "wsm_message.h"
#include "zel_tc_lib.h"

namespace {

using zel::test::Bytes;
using zel::test::derOf;
using zel::test::Pkey;
template <typename T, auto Free>
using Owned = std::unique_ptr<T, zel::test::Releaser<Free>>;
constexpr auto fromHex = zel::test::hexBytes;
constexpr int32_t kGeneric = static_cast<int32_t>(TEEC_ERROR_GENERIC);
constexpr int32_t kNoData = static_cast<int32_t>(TEEC_ERROR_NO_DATA);

int32_t asResult(TEEC_Result result) {
    return static_cast<int32_t>(result);
}

Bytes derive(EVP_PKEY* own, EVP_PKEY* peer) {
    const zel::test::PkeyCtx ctx(EVP_PKEY_CTX_new(own, nullptr));
    size_t length = 0;
    EVP_PKEY_derive_init(ctx.get());
    EVP_PKEY_derive_set_peer(ctx.get(), peer);
    EVP_PKEY_derive(ctx.get(), nullptr, &length);
    Bytes secret(length);
    EVP_PKEY_derive(ctx.get(), secret.data(), &length);
    return secret;
}

Bytes hkdf(const Bytes& secret, const std::string& info) {
    const Owned<EVP_KDF, EVP_KDF_free> kdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr));
    const Owned<EVP_KDF_CTX, EVP_KDF_CTX_free> ctx(EVP_KDF_CTX_new(kdf.get()));
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string("digest", const_cast<char*>("SHA256"), 0),
        OSSL_PARAM_construct_octet_string("key", const_cast<uint8_t*>(secret.data()),
                                          secret.size()),
        OSSL_PARAM_construct_octet_string("info", const_cast<char*>(info.data()), info.size()),
        OSSL_PARAM_construct_end()};
    Bytes key(32);
    EVP_KDF_derive(ctx.get(), key.data(), key.size(), params);
    return key;
}

Bytes cmac(const Bytes& key, const Bytes& message) {
    const Owned<EVP_MAC, EVP_MAC_free> mac(EVP_MAC_fetch(nullptr, "CMAC", nullptr));
    const Owned<EVP_MAC_CTX, EVP_MAC_CTX_free> ctx(EVP_MAC_CTX_new(mac.get()));
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string("cipher", const_cast<char*>("AES-256-CBC"), 0),
        OSSL_PARAM_construct_end()};
    Bytes out(16);
    size_t length = 0;
    EVP_MAC_init(ctx.get(), key.data(), key.size(), params);
    EVP_MAC_update(ctx.get(), message.data(), message.size());
    EVP_MAC_final(ctx.get(), out.data(), &length, out.size());
    return out;
}

// AES-256-GCM with a 16-byte nonce: ciphertext, then the tag.
Bytes sealGcm(const Bytes& key, const Bytes& nonce, const Bytes& plain) {
    const Owned<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free> ctx(EVP_CIPHER_CTX_new());
    Bytes out(plain.size() + 16);
    int written = 0, last = 0;
    EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr);
    EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(nonce.size()), nullptr);
    EVP_EncryptInit_ex(ctx.get(), nullptr, nullptr, key.data(), nonce.data());
    EVP_EncryptUpdate(ctx.get(), out.data(), &written, plain.data(),
                      static_cast<int>(plain.size()));
    EVP_EncryptFinal_ex(ctx.get(), out.data() + written, &last);
    EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, 16, out.data() + plain.size());
    return out;
}

// A handed-out buffer, freed with the test.
struct Out {
    unsigned char* data = nullptr;
    unsigned int size = 0;
    ~Out() { std::free(data); }
    Bytes bytes() const { return data ? Bytes(data, data + size) : Bytes(); }
};

class CryptoCommandsTest : public VaultFixture {
  protected:
    void storeEcKey(int index, EVP_PKEY* key) {
        Bytes der = derOf(key, i2d_PrivateKey);
        ASSERT_EQ(vault.zel_storeKey(index, 5, der.data(), static_cast<unsigned int>(der.size())),
                  0);
    }
    CaZelInterface vault{zel_test};
    OutputCapture output;
};

TEST_F(CryptoCommandsTest, SignaturesVerifyAndAuthKeysMatchOpenSsl) {
    Pkey device(EVP_EC_gen("P-256"));
    storeEcKey(5, device.get());
    Bytes digest(32);
    RAND_bytes(digest.data(), 32);
    Out signature;
    ASSERT_EQ(
        vault.zel_ecdsaCreateSignature(5, 2, digest.data(), 32, &signature.data, &signature.size),
        0);
    EXPECT_TRUE(zel::test::verifiesDigest(device.get(), digest, signature.bytes()));

    Pkey peer(EVP_EC_gen("P-256"));
    Bytes peerSpki = derOf(peer.get(), i2d_PUBKEY);
    Out shared;
    ASSERT_EQ(vault.zel_genAuthKey(5, peerSpki.data(), static_cast<unsigned int>(peerSpki.size()),
                                   &shared.data, &shared.size),
              0);
    EXPECT_EQ(shared.bytes(), derive(peer.get(), device.get()));

    Bytes notAKey(91, 0x30);
    Out none;
    EXPECT_EQ(vault.zel_genAuthKey(5, notAKey.data(), 91, &none.data, &none.size), kGeneric);
    EXPECT_EQ(vault.zel_ecdsaCreateSignature(5, 2, digest.data(), 0, &none.data, &none.size), -13);
}

TEST_F(CryptoCommandsTest, HubTokenOpensToItsIdentityAndKeysAndATamperedOneStoresNothing) {
    Pkey device(EVP_EC_gen("P-256"));
    Pkey cloud(EVP_EC_gen("P-256"));
    storeEcKey(5, device.get());
    const Bytes tokenKey = hkdf(derive(cloud.get(), device.get()), "zel hub token");
    Bytes plain(16 + 32 + 20);
    RAND_bytes(plain.data(), static_cast<int>(plain.size()));
    const Bytes id(plain.begin(), plain.begin() + 16);
    const Bytes hubKey(plain.begin() + 16, plain.begin() + 48);
    Bytes nonce(16);
    RAND_bytes(nonce.data(), 16);
    Bytes sealed = sealGcm(tokenKey, nonce, plain);
    Bytes cloudSpki = derOf(cloud.get(), i2d_PUBKEY);
    const auto size = [](const Bytes& b) { return static_cast<unsigned int>(b.size()); };

    ASSERT_EQ(vault.zel_decryptHubToken(5, 7, sealed.data(), size(sealed), nonce.data(), 16,
                                        cloudSpki.data(), size(cloudSpki)),
              0);
    Out hubId, mac, rx, tx;
    ASSERT_EQ(vault.zel_getHubID(7, &hubId.data, &hubId.size), 0);
    EXPECT_EQ(hubId.bytes(), id);
    Bytes message(32, 0x5c);
    ASSERT_EQ(vault.zel_getCMACwithHubToken(7, 1, message.data(), 32, &mac.data, &mac.size), 0);
    EXPECT_EQ(mac.bytes(), cmac(hubKey, message));
    ASSERT_EQ(vault.zel_getCmacKey(7, &rx.data, &rx.size, &tx.data, &tx.size), 0);
    EXPECT_EQ(rx.bytes(), cmac(hubKey, Bytes{'z', 'e', 'l', ' ', 'r', 'x', ' ', 'k', 'e', 'y'}));
    EXPECT_EQ(tx.bytes(), cmac(hubKey, Bytes{'z', 'e', 'l', ' ', 't', 'x', ' ', 'k', 'e', 'y'}));

    sealed[3] ^= 0x01;
    EXPECT_EQ(vault.zel_decryptHubToken(5, 8, sealed.data(), size(sealed), nonce.data(), 16,
                                        cloudSpki.data(), size(cloudSpki)),
              asResult(TEEC_ERROR_SECURITY));
    Out missing;
    EXPECT_EQ(vault.zel_getHubID(8, &missing.data, &missing.size), kGeneric);

    // Every input is required; the first empty one ends the call before any session.
    EXPECT_EQ(
        vault.zel_decryptHubToken(5, 8, sealed.data(), size(sealed), nonce.data(), 16, nullptr, 91),
        -13);
}

TEST_F(CryptoCommandsTest, DecryptByKeyStoresThePlaintextInASlot) {
    Bytes key = fromHex(zel::vectors::kAesKey);
    Bytes input = fromHex(zel::vectors::kDecryptByKeyInput);
    ASSERT_EQ(input.size(), 146u);
    ASSERT_EQ(vault.zel_storeKey(2, 6, key.data(), 32), 0);
    ASSERT_EQ(vault.zel_decryptByKey(6, 2, 1, 2, 1, input.data(), 146), 0);
    Out slot;
    ASSERT_EQ(vault.zel_get(6, &slot.data, &slot.size), 0);
    const Bytes expected = zel::test::aes256CbcDecrypt(key, Bytes(&input[2], &input[18]),
                                                       Bytes(input.begin() + 18, input.end()));
    EXPECT_EQ(slot.size, (static_cast<unsigned int>(input[0]) << 8) | input[1]);
    EXPECT_EQ(slot.bytes(), expected);

    // Not a reply command: the TEE's own code comes back.
    EXPECT_EQ(vault.zel_decryptByKey(6, 2, 1, 1, 1, input.data(), 146),
              asResult(TEEC_ERROR_NOT_SUPPORTED));
    // A length that does not match the plaintext, then padding that does not check out.
    for (size_t damaged : {size_t{1}, size_t{129}}) {
        Bytes bad = input;
        bad[damaged] ^= 0xFF;
        EXPECT_EQ(vault.zel_decryptByKey(7, 2, 1, 2, 1, bad.data(), 146),
                  asResult(TEEC_ERROR_BAD_FORMAT))
            << damaged;
    }
    EXPECT_EQ(vault.zel_checkDataExistence(7, 0), asResult(TEEC_ERROR_ITEM_NOT_FOUND));
}

TEST_F(CryptoCommandsTest, CmacKeysWithoutBothBuffersHandOutNeither) {
    const Bytes rxKey(16, 1);
    ASSERT_EQ(control.scriptReply(zel_test, 0x10, 1,
                                  WsmMessage().u(16).blob(rxKey).u(0).blob(Bytes()).bytes()),
              TEEC_SUCCESS);
    Out rx, tx;
    EXPECT_EQ(vault.zel_getCmacKey(1, &rx.data, &rx.size, &tx.data, &tx.size), kNoData);
    EXPECT_EQ(rx.data, nullptr);
    EXPECT_EQ(tx.data, nullptr);
    EXPECT_EQ(output.lines().back(), "Data null from zelTA");
}

}  // namespace
