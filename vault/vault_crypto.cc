#include "vault_crypto.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include <cstring>
#include <memory>

namespace zel::vault {

namespace {

struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

struct MdCtxFree {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
struct CipherCtxFree {
    void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;
struct PkeyCtxFree {
    void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree>;
struct MacFree {
    void operator()(EVP_MAC* mac) const { EVP_MAC_free(mac); }
};
struct MacCtxFree {
    void operator()(EVP_MAC_CTX* ctx) const { EVP_MAC_CTX_free(ctx); }
};
struct KdfFree {
    void operator()(EVP_KDF* kdf) const { EVP_KDF_free(kdf); }
};
struct KdfCtxFree {
    void operator()(EVP_KDF_CTX* ctx) const { EVP_KDF_CTX_free(ctx); }
};

// The one place where an OpenSSL failure becomes a GP result: out of memory is said as such,
// anything else is the caller's usual answer. The error queue is left empty for the next command.
TEEC_Result openSslFailure(TEEC_Result usual) {
    bool outOfMemory = false;
    for (unsigned long error; (error = ERR_get_error()) != 0;)
        outOfMemory = outOfMemory || ERR_GET_REASON(error) == ERR_R_MALLOC_FAILURE;
    return outOfMemory ? TEEC_ERROR_OUT_OF_MEMORY : usual;
}

bool isP256(EVP_PKEY* key) {
    char group[32] = {};
    return EVP_PKEY_get_base_id(key) == EVP_PKEY_EC &&
           EVP_PKEY_get_group_name(key, group, sizeof group, nullptr) == 1 &&
           std::strcmp(group, "prime256v1") == 0;
}

Pkey parsePrivateKey(const Bytes& der) {
    const unsigned char* cursor = der.data();
    Pkey key(d2i_PrivateKey(EVP_PKEY_EC, nullptr, &cursor, static_cast<long>(der.size())));
    // The whole input must be the key: trailing bytes are malformed material too.
    if (!key || cursor != der.data() + der.size() || !isP256(key.get())) return nullptr;
    return key;
}

Pkey parsePublicKey(const Bytes& spki) {
    const unsigned char* cursor = spki.data();
    Pkey key(d2i_PUBKEY(nullptr, &cursor, static_cast<long>(spki.size())));
    if (!key || cursor != spki.data() + spki.size() || !isP256(key.get())) return nullptr;
    return key;
}

}  // namespace

TEEC_Result checkEcPrivateKey(const Bytes& der) {
    return parsePrivateKey(der) ? TEEC_SUCCESS : openSslFailure(TEEC_ERROR_BAD_FORMAT);
}

TEEC_Result checkRsaPublicKey(const Bytes& der) {
    const unsigned char* cursor = der.data();
    const Pkey key(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &cursor, static_cast<long>(der.size())));
    return key && cursor == der.data() + der.size() ? TEEC_SUCCESS
                                                    : openSslFailure(TEEC_ERROR_BAD_FORMAT);
}

TEEC_Result sha256(const Bytes& data, Bytes& digest) {
    std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
    digest.assign(32, 0);
    unsigned int length = 0;
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1 ||
        EVP_DigestUpdate(ctx.get(), data.data(), data.size()) != 1 ||
        EVP_DigestFinal_ex(ctx.get(), digest.data(), &length) != 1 || length != 32)
        return openSslFailure(TEEC_ERROR_GENERIC);
    return TEEC_SUCCESS;
}

TEEC_Result randomBytes(size_t count, Bytes& out) {
    out.assign(count, 0);
    if (RAND_bytes(out.data(), static_cast<int>(count)) != 1)
        return openSslFailure(TEEC_ERROR_GENERIC);
    return TEEC_SUCCESS;
}

TEEC_Result generateEcKey(Bytes& der) {
    Pkey key(EVP_EC_gen("P-256"));
    const int length = key ? i2d_PrivateKey(key.get(), nullptr) : -1;
    if (length <= 0) return openSslFailure(TEEC_ERROR_GENERIC);
    der.assign(static_cast<size_t>(length), 0);
    unsigned char* cursor = der.data();
    if (i2d_PrivateKey(key.get(), &cursor) != length) return openSslFailure(TEEC_ERROR_GENERIC);
    return TEEC_SUCCESS;
}

TEEC_Result aesCbc(bool encrypt, const Bytes& key, const Bytes& iv, const Bytes& in, Bytes& out) {
    CipherCtx ctx(EVP_CIPHER_CTX_new());
    if (key.size() != 32 || iv.size() != 16) return TEEC_ERROR_BAD_PARAMETERS;
    out.assign(in.size() + 16, 0);
    int written = 0, last = 0;
    if (!ctx || EVP_CipherInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr, key.data(), iv.data(),
                                  encrypt ? 1 : 0) != 1)
        return openSslFailure(TEEC_ERROR_GENERIC);
    if (EVP_CipherUpdate(ctx.get(), out.data(), &written, in.data(), static_cast<int>(in.size())) !=
            1 ||
        EVP_CipherFinal_ex(ctx.get(), out.data() + written, &last) != 1) {
        out.clear();
        return openSslFailure(encrypt ? TEEC_ERROR_GENERIC : TEEC_ERROR_BAD_FORMAT);
    }
    out.resize(static_cast<size_t>(written + last));
    return TEEC_SUCCESS;
}

TEEC_Result aesCmac(const Bytes& key, const Bytes& message, Bytes& mac) {
    static const char* const kCiphers[] = {"AES-128-CBC", "AES-192-CBC", "AES-256-CBC"};
    if (key.size() != 16 && key.size() != 24 && key.size() != 32) return TEEC_ERROR_BAD_PARAMETERS;
    std::unique_ptr<EVP_MAC, MacFree> cmac(EVP_MAC_fetch(nullptr, "CMAC", nullptr));
    std::unique_ptr<EVP_MAC_CTX, MacCtxFree> ctx(cmac ? EVP_MAC_CTX_new(cmac.get()) : nullptr);
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER,
                                         const_cast<char*>(kCiphers[key.size() / 8 - 2]), 0),
        OSSL_PARAM_construct_end()};
    mac.assign(16, 0);
    size_t length = 0;
    if (!ctx || EVP_MAC_init(ctx.get(), key.data(), key.size(), params) != 1 ||
        EVP_MAC_update(ctx.get(), message.data(), message.size()) != 1 ||
        EVP_MAC_final(ctx.get(), mac.data(), &length, mac.size()) != 1 || length != 16)
        return openSslFailure(TEEC_ERROR_GENERIC);
    return TEEC_SUCCESS;
}

TEEC_Result ecdsaSignDigest(const Bytes& privateKeyDer, const Bytes& digest, Bytes& signature) {
    Pkey key = parsePrivateKey(privateKeyDer);
    if (!key) return openSslFailure(TEEC_ERROR_BAD_FORMAT);
    if (digest.size() != 32) return TEEC_ERROR_BAD_PARAMETERS;
    PkeyCtx ctx(EVP_PKEY_CTX_new(key.get(), nullptr));
    size_t length = 0;
    if (!ctx || EVP_PKEY_sign_init(ctx.get()) != 1 ||
        EVP_PKEY_sign(ctx.get(), nullptr, &length, digest.data(), digest.size()) != 1)
        return openSslFailure(TEEC_ERROR_GENERIC);
    signature.assign(length, 0);
    if (EVP_PKEY_sign(ctx.get(), signature.data(), &length, digest.data(), digest.size()) != 1)
        return openSslFailure(TEEC_ERROR_GENERIC);
    signature.resize(length);
    return TEEC_SUCCESS;
}

TEEC_Result ecdh(const Bytes& privateKeyDer, const Bytes& publicKeySpki, Bytes& secret) {
    Pkey own = parsePrivateKey(privateKeyDer);
    Pkey peer = parsePublicKey(publicKeySpki);
    if (!own || !peer) return openSslFailure(TEEC_ERROR_BAD_FORMAT);
    PkeyCtx ctx(EVP_PKEY_CTX_new(own.get(), nullptr));
    size_t length = 0;
    if (!ctx || EVP_PKEY_derive_init(ctx.get()) != 1 ||
        EVP_PKEY_derive_set_peer(ctx.get(), peer.get()) != 1 ||
        EVP_PKEY_derive(ctx.get(), nullptr, &length) != 1)
        return openSslFailure(TEEC_ERROR_GENERIC);
    secret.assign(length, 0);
    if (EVP_PKEY_derive(ctx.get(), secret.data(), &length) != 1)
        return openSslFailure(TEEC_ERROR_GENERIC);
    secret.resize(length);
    return TEEC_SUCCESS;
}

TEEC_Result hkdfSha256(const Bytes& secret, const std::string& info, size_t length, Bytes& key) {
    std::unique_ptr<EVP_KDF, KdfFree> hkdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr));
    std::unique_ptr<EVP_KDF_CTX, KdfCtxFree> ctx(hkdf ? EVP_KDF_CTX_new(hkdf.get()) : nullptr);
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, const_cast<char*>("SHA256"), 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, const_cast<uint8_t*>(secret.data()),
                                          secret.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, const_cast<char*>(info.data()),
                                          info.size()),
        OSSL_PARAM_construct_end()};
    key.assign(length, 0);
    if (!ctx || EVP_KDF_derive(ctx.get(), key.data(), key.size(), params) != 1)
        return openSslFailure(TEEC_ERROR_GENERIC);
    return TEEC_SUCCESS;
}

TEEC_Result aesGcmOpen(const Bytes& key, const Bytes& nonce, const Bytes& sealed, Bytes& plain) {
    constexpr size_t kTag = 16;
    if (key.size() != 32 || nonce.empty() || sealed.size() < kTag) return TEEC_ERROR_BAD_PARAMETERS;
    const size_t length = sealed.size() - kTag;
    CipherCtx ctx(EVP_CIPHER_CTX_new());
    Bytes out(length + 16);
    int written = 0, last = 0;
    if (!ctx || EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr) != 1 ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, static_cast<int>(nonce.size()),
                            nullptr) != 1 ||
        EVP_DecryptInit_ex(ctx.get(), nullptr, nullptr, key.data(), nonce.data()) != 1 ||
        EVP_DecryptUpdate(ctx.get(), out.data(), &written, sealed.data(),
                          static_cast<int>(length)) != 1 ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kTag,
                            const_cast<uint8_t*>(sealed.data() + length)) != 1)
        return openSslFailure(TEEC_ERROR_GENERIC);
    if (EVP_DecryptFinal_ex(ctx.get(), out.data() + written, &last) != 1)
        return openSslFailure(TEEC_ERROR_SECURITY);
    out.resize(static_cast<size_t>(written + last));
    plain = std::move(out);
    return TEEC_SUCCESS;
}

}  // namespace zel::vault
