// Bytes as OpenSSL reads and writes them, so that what a test expects does not come through the
// code it tests.
#pragma once

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace zel::test {

using Bytes = std::vector<uint8_t>;

template <auto Release>
struct Releaser {
    template <typename T>
    void operator()(T* pointer) const {
        Release(pointer);
    }
};
using Pkey = std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY_free>>;
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, Releaser<EVP_PKEY_CTX_free>>;
using EcdsaSig = std::unique_ptr<ECDSA_SIG, Releaser<ECDSA_SIG_free>>;

// Hex text of either case; empty for text OpenSSL cannot read.
inline Bytes hexBytes(const char* text) {
    long length = 0;
    unsigned char* bytes = *text ? OPENSSL_hexstr2buf(text, &length) : nullptr;
    Bytes out(bytes, bytes + (bytes ? length : 0));
    OPENSSL_free(bytes);
    return out;
}

// A key's DER through one of OpenSSL's writers: i2d_PrivateKey, i2d_PUBKEY, i2d_PublicKey.
template <typename Encode>
Bytes derOf(EVP_PKEY* key, Encode i2d) {
    const int length = i2d(key, nullptr);
    Bytes out(length > 0 ? static_cast<size_t>(length) : 0);
    unsigned char* cursor = out.data();
    if (length > 0) i2d(key, &cursor);
    return out;
}

// OpenSSL's DER for a raw r || s.
inline Bytes ecdsaDer(const Bytes& raw) {
    const EcdsaSig sig(ECDSA_SIG_new());
    ECDSA_SIG_set0(sig.get(), BN_bin2bn(raw.data(), 32, nullptr),
                   BN_bin2bn(raw.data() + 32, 32, nullptr));
    unsigned char* encoded = nullptr;
    const int length = i2d_ECDSA_SIG(sig.get(), &encoded);
    Bytes out(encoded, encoded + (length > 0 ? length : 0));
    OPENSSL_free(encoded);
    return out;
}

// AES-256-CBC with PKCS #7 padding undone; empty where OpenSSL refuses the input.
inline Bytes aes256CbcDecrypt(const Bytes& key, const Bytes& iv, const Bytes& body) {
    const std::unique_ptr<EVP_CIPHER_CTX, Releaser<EVP_CIPHER_CTX_free>> ctx(EVP_CIPHER_CTX_new());
    Bytes out(body.size() + 16);
    int head = 0, tail = 0;
    if (key.size() != 32 || iv.size() != 16 || !ctx ||
        EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr, key.data(), iv.data()) != 1 ||
        EVP_DecryptUpdate(ctx.get(), out.data(), &head, body.data(),
                          static_cast<int>(body.size())) != 1 ||
        EVP_DecryptFinal_ex(ctx.get(), out.data() + head, &tail) != 1)
        return {};
    out.resize(static_cast<size_t>(head + tail));
    return out;
}

// Whether key's public half finds the DER signature good for digest.
inline bool verifiesDigest(EVP_PKEY* key, const Bytes& digest, const Bytes& der) {
    const PkeyCtx context(key ? EVP_PKEY_CTX_new(key, nullptr) : nullptr);
    return context && EVP_PKEY_verify_init(context.get()) == 1 &&
           EVP_PKEY_verify(context.get(), der.data(), der.size(), digest.data(), digest.size()) ==
               1;
}

}  // namespace zel::test
