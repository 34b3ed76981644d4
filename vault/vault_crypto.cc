#include "vault_crypto.h"

#include <openssl/err.h>
#include <openssl/evp.h>
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

}  // namespace

TEEC_Result checkEcPrivateKey(const Bytes& der) {
    const unsigned char* cursor = der.data();
    Pkey key(d2i_PrivateKey(EVP_PKEY_EC, nullptr, &cursor, static_cast<long>(der.size())));
    // The whole input must be the key: trailing bytes are malformed material too.
    if (!key || cursor != der.data() + der.size() || !isP256(key.get()))
        return openSslFailure(TEEC_ERROR_BAD_FORMAT);
    return TEEC_SUCCESS;
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

}  // namespace zel::vault
