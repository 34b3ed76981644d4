// P-256 keys between their GP attributes and OpenSSL.
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/param_build.h>

#include "api_internal.h"

namespace zel::tee {

namespace {

using BignumPointer = std::unique_ptr<BIGNUM, FreeWith<BIGNUM, BN_clear_free>>;
using BuilderPointer =
    std::unique_ptr<OSSL_PARAM_BLD, FreeWith<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>>;
using ParamsPointer = std::unique_ptr<OSSL_PARAM, FreeWith<OSSL_PARAM, OSSL_PARAM_free>>;

// The uncompressed point 04 || X || Y; empty when a coordinate is too long.
Bytes uncompressed(const Bytes& x, const Bytes& y) {
    const Bytes shortX = minimal(x.data(), x.size()), shortY = minimal(y.data(), y.size());
    if (shortX.size() > kP256Bytes || shortY.size() > kP256Bytes) return {};
    Bytes point(1 + 2 * kP256Bytes, 0);
    point[0] = 0x04;
    std::copy(shortX.begin(), shortX.end(), point.begin() + 1 + kP256Bytes - shortX.size());
    std::copy(shortY.begin(), shortY.end(), point.end() - shortY.size());
    return point;
}

PkeyPointer fromParts(const Bytes* privateValue, const Bytes& x, const Bytes& y) {
    const Bytes point = uncompressed(x, y);
    if (point.empty()) return nullptr;
    BuilderPointer builder(OSSL_PARAM_BLD_new());
    BignumPointer secret;
    if (privateValue) {
        if (minimal(privateValue->data(), privateValue->size()).size() > kP256Bytes) return nullptr;
        secret.reset(BN_bin2bn(privateValue->data(), int(privateValue->size()), nullptr));
        if (!secret) return nullptr;
    }
    if (!builder ||
        !OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, "prime256v1",
                                         0) ||
        !OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                          point.size()) ||
        (secret && !OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, secret.get())))
        return nullptr;
    ParamsPointer params(OSSL_PARAM_BLD_to_param(builder.get()));
    PkeyContextPointer context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
    EVP_PKEY* key = nullptr;
    if (!params || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &key, secret ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY,
                          params.get()) != 1)
        return nullptr;
    PkeyPointer result(key);
    // A point off the curve, a private value out of range or not matching the point: no key.
    PkeyContextPointer check(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    if (!check || (secret ? EVP_PKEY_check(check.get()) : EVP_PKEY_public_check(check.get())) != 1)
        return nullptr;
    return result;
}

bool bignumParam(const EVP_PKEY* key, const char* name, Bytes& value) {
    BIGNUM* raw = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &raw) != 1) return false;
    BignumPointer number(raw);
    value.assign(size_t(BN_num_bytes(number.get())), 0);
    return BN_bn2bin(number.get(), value.data()) == int(value.size());
}

}  // namespace

Bytes minimal(const uint8_t* bytes, size_t size) {
    size_t skip = 0;
    while (skip < size && bytes[skip] == 0) ++skip;
    return Bytes(bytes + skip, bytes + size);
}

PkeyPointer p256KeyPair(const Bytes& privateValue, const Bytes& x, const Bytes& y) {
    return fromParts(&privateValue, x, y);
}

PkeyPointer p256PublicKey(const Bytes& x, const Bytes& y) {
    return fromParts(nullptr, x, y);
}

bool p256Generate(Bytes& privateValue, Bytes& x, Bytes& y) {
    PkeyPointer key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    return key && bignumParam(key.get(), OSSL_PKEY_PARAM_PRIV_KEY, privateValue) &&
           bignumParam(key.get(), OSSL_PKEY_PARAM_EC_PUB_X, x) &&
           bignumParam(key.get(), OSSL_PKEY_PARAM_EC_PUB_Y, y);
}

}  // namespace zel::tee
