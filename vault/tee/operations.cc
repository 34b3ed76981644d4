// Cryptographic operations over OpenSSL's EVP interfaces.
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/rand.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "api_internal.h"

namespace zel::tee {
namespace {

constexpr size_t kBlock = 16;
constexpr size_t kSha256Bytes = 32;
constexpr size_t kSignatureBytes = 2 * kP256Bytes;
// OpenSSL takes lengths as int; longer input goes in slices.
constexpr size_t kSlice = size_t(1) << 30;

using MacPointerType = std::unique_ptr<EVP_MAC, FreeWith<EVP_MAC, EVP_MAC_free>>;
using SignaturePointer = std::unique_ptr<ECDSA_SIG, FreeWith<ECDSA_SIG, ECDSA_SIG_free>>;

uint32_t classOf(uint32_t algorithm) {
    switch (algorithm) {
        case TEE_ALG_SHA256:
            return TEE_OPERATION_DIGEST;
        case TEE_ALG_AES_CBC_NOPAD:
            return TEE_OPERATION_CIPHER;
        case TEE_ALG_AES_CMAC:
        case TEE_ALG_HMAC_SHA256:
            return TEE_OPERATION_MAC;
        case TEE_ALG_AES_GCM:
            return TEE_OPERATION_AE;
        case TEE_ALG_ECDSA_SHA256:
            return TEE_OPERATION_ASYMMETRIC_SIGNATURE;
        case TEE_ALG_ECDH_DERIVE_SHARED_SECRET:
            return TEE_OPERATION_KEY_DERIVATION;
        default:
            return 0;
    }
}

uint32_t keyTypeOf(uint32_t algorithm) {
    switch (algorithm) {
        case TEE_ALG_HMAC_SHA256:
            return TEE_TYPE_HMAC_SHA256;
        case TEE_ALG_ECDSA_SHA256:
            return TEE_TYPE_ECDSA_KEYPAIR;
        case TEE_ALG_ECDH_DERIVE_SHARED_SECRET:
            return TEE_TYPE_ECDH_KEYPAIR;
        default:
            return TEE_TYPE_AES;
    }
}

// The modes and key sizes of the algorithms provided; anything else is not supported. Signing
// keys verify nowhere here, so an ECDSA operation only signs.
bool supported(uint32_t algorithm, uint32_t mode, uint32_t maxKeySize) {
    const bool aesSize = maxKeySize == 128 || maxKeySize == 192 || maxKeySize == 256;
    switch (classOf(algorithm)) {
        case TEE_OPERATION_DIGEST:
            return mode == TEE_MODE_DIGEST;
        case TEE_OPERATION_CIPHER:
        case TEE_OPERATION_AE:
            return (mode == TEE_MODE_ENCRYPT || mode == TEE_MODE_DECRYPT) && aesSize;
        case TEE_OPERATION_MAC:
            return mode == TEE_MODE_MAC &&
                   (algorithm == TEE_ALG_AES_CMAC
                        ? aesSize
                        : maxKeySize % 8 == 0 && maxKeySize >= 192 && maxKeySize <= 1024);
        case TEE_OPERATION_ASYMMETRIC_SIGNATURE:
            return mode == TEE_MODE_SIGN && maxKeySize == 256;
        case TEE_OPERATION_KEY_DERIVATION:
            return mode == TEE_MODE_DERIVE && maxKeySize == 256;
        default:
            return false;
    }
}

size_t macBytes(const Operation& operation) {
    return operation.algorithm == TEE_ALG_AES_CMAC ? kBlock : kSha256Bytes;
}

const EVP_CIPHER* aesCipher(size_t keyBytes, bool gcm) {
    switch (keyBytes) {
        case 16:
            return gcm ? EVP_aes_128_gcm() : EVP_aes_128_cbc();
        case 24:
            return gcm ? EVP_aes_192_gcm() : EVP_aes_192_cbc();
        default:
            return gcm ? EVP_aes_256_gcm() : EVP_aes_256_cbc();
    }
}

// Feeds input to the cipher in slices; written receives what it put out.
bool cipherUpdate(EVP_CIPHER_CTX* context, const uint8_t* input, size_t size, uint8_t* output,
                  size_t& written) {
    written = 0;
    for (size_t done = 0; done < size;) {
        const size_t slice = std::min(size - done, kSlice);
        int out = 0;
        if (EVP_CipherUpdate(context, output + written, &out, input + done, int(slice)) != 1)
            return false;
        written += size_t(out);
        done += slice;
    }
    return true;
}

Verdict allocate(uint32_t algorithm, uint32_t mode, uint32_t maxKeySize,
                 TEE_OperationHandle* handle) {
    std::unique_ptr<Operation> operation(new (std::nothrow) Operation);
    if (!operation) return answer(TEE_ERROR_OUT_OF_MEMORY);
    operation->algorithm = algorithm;
    operation->operationClass = classOf(algorithm);
    operation->mode = mode;
    operation->maxKeySize = maxKeySize;
    if (operation->operationClass == TEE_OPERATION_DIGEST) {
        operation->digest.reset(EVP_MD_CTX_new());
        if (!operation->digest) return answer(TEE_ERROR_OUT_OF_MEMORY);
        if (EVP_DigestInit_ex(operation->digest.get(), EVP_sha256(), nullptr) != 1)
            return panicWith(TEE_ERROR_GENERIC);
    }
    *handle = current().tables().add(std::move(operation));
    return answer(*handle ? TEE_SUCCESS : TEE_ERROR_OUT_OF_MEMORY);
}

Verdict setKey(Operation& operation, const Object& key) {
    if (operation.operationClass == TEE_OPERATION_ASYMMETRIC_SIGNATURE ||
        operation.operationClass == TEE_OPERATION_KEY_DERIVATION) {
        const Attribute* secret = key.find(TEE_ATTR_ECC_PRIVATE_VALUE);
        const Attribute* x = key.find(TEE_ATTR_ECC_PUBLIC_VALUE_X);
        const Attribute* y = key.find(TEE_ATTR_ECC_PUBLIC_VALUE_Y);
        PkeyPointer pair = p256KeyPair(secret->ref, x->ref, y->ref);
        // A key pair whose values do not make one: OP-TEE's crypto refuses it as well.
        if (!pair) return panicWith(TEE_ERROR_BAD_PARAMETERS);
        operation.ecKey = std::move(pair);
    } else {
        wipe(operation.secret);
        operation.secret = key.find(TEE_ATTR_SECRET_VALUE)->ref;
    }
    operation.keySize = key.size;
    operation.keySet = true;
    return answer(TEE_SUCCESS);
}

Verdict macInit(Operation& operation) {
    const bool cmac = operation.algorithm == TEE_ALG_AES_CMAC;
    MacPointerType mac(EVP_MAC_fetch(nullptr, cmac ? "CMAC" : "HMAC", nullptr));
    operation.mac.reset(mac ? EVP_MAC_CTX_new(mac.get()) : nullptr);
    if (!operation.mac) return panicWith(TEE_ERROR_OUT_OF_MEMORY);
    const char* cipher = operation.secret.size() == 16   ? "AES-128-CBC"
                         : operation.secret.size() == 24 ? "AES-192-CBC"
                                                         : "AES-256-CBC";
    char sha256[] = "SHA256";
    const OSSL_PARAM params[] = {
        cmac ? OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, const_cast<char*>(cipher), 0)
             : OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, sha256, 0),
        OSSL_PARAM_construct_end()};
    if (EVP_MAC_init(operation.mac.get(), operation.secret.data(), operation.secret.size(),
                     params) != 1)
        return panicWith(TEE_ERROR_GENERIC);
    operation.initialized = operation.active = true;
    return answer(TEE_SUCCESS);
}

Verdict cipherInit(Operation& operation, const void* iv) {
    if (!operation.cipher) operation.cipher.reset(EVP_CIPHER_CTX_new());
    EVP_CIPHER_CTX* context = operation.cipher.get();
    if (!context ||
        EVP_CipherInit_ex(context, aesCipher(operation.secret.size(), false), nullptr,
                          operation.secret.data(), static_cast<const uint8_t*>(iv),
                          operation.mode == TEE_MODE_ENCRYPT) != 1 ||
        EVP_CIPHER_CTX_set_padding(context, 0) != 1)
        return panicWith(TEE_ERROR_GENERIC);
    wipe(operation.held);
    operation.held.clear();
    operation.initialized = operation.active = true;
    return answer(TEE_SUCCESS);
}

Verdict aeInit(Operation& operation, const void* nonce, size_t nonceLength, uint32_t tagBits) {
    if (!operation.cipher) operation.cipher.reset(EVP_CIPHER_CTX_new());
    EVP_CIPHER_CTX* context = operation.cipher.get();
    const int encrypt = operation.mode == TEE_MODE_ENCRYPT;
    if (!context ||
        EVP_CipherInit_ex(context, aesCipher(operation.secret.size(), true), nullptr, nullptr,
                          nullptr, encrypt) != 1 ||
        EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_GCM_SET_IVLEN, int(nonceLength), nullptr) != 1 ||
        EVP_CipherInit_ex(context, nullptr, nullptr, operation.secret.data(),
                          static_cast<const uint8_t*>(nonce), encrypt) != 1)
        return panicWith(TEE_ERROR_GENERIC);
    wipe(operation.held);
    operation.held.clear();
    operation.tagBytes = tagBits / 8;
    operation.initialized = true;
    operation.active = false;
    return answer(TEE_SUCCESS);
}

// What an update (or, last, a final) puts out: whole blocks only, the rest held back for the
// next call. OP-TEE does so for AES-GCM as well, and a TA may size its output on that.
size_t outputOf(const Operation& operation, size_t size, bool last) {
    const size_t total = operation.held.size() + size;
    return last ? total : total / kBlock * kBlock;
}

// Bytes wiped when they go: cipher input and output pass through here.
struct Scratch {
    Bytes bytes;
    ~Scratch() { wipe(bytes); }
};

// Runs held-back input and this call's through the cipher, keeping back what is short of a
// block unless last. The output goes through scratch memory, so that source and destination
// may overlap.
Verdict blockUpdate(Operation& operation, const void* source, size_t size, void* destination,
                    size_t* destinationSize, bool last) {
    Scratch input, output;
    input.bytes = operation.held;
    const auto* bytes = static_cast<const uint8_t*>(source);
    if (size) input.bytes.insert(input.bytes.end(), bytes, bytes + size);
    const size_t feed = outputOf(operation, size, last);
    output.bytes.resize(feed + kBlock);
    size_t written = 0;
    if (!cipherUpdate(operation.cipher.get(), input.bytes.data(), feed, output.bytes.data(),
                      written) ||
        written != feed)
        return panicWith(TEE_ERROR_GENERIC);
    wipe(operation.held);
    operation.held.assign(input.bytes.begin() + feed, input.bytes.end());
    if (written) std::memcpy(destination, output.bytes.data(), written);
    *destinationSize = written;
    operation.active = true;
    return answer(TEE_SUCCESS);
}

void finish(Operation& operation) {
    wipe(operation.held);
    operation.held.clear();
    operation.initialized = operation.active = false;
}

Verdict aeFinal(Operation& operation, const void* source, size_t size, void* destination,
                size_t* destinationSize, void* tag, size_t tagSize) {
    const bool encrypt = operation.mode == TEE_MODE_ENCRYPT;
    Scratch plain;
    plain.bytes.resize(outputOf(operation, size, true));
    size_t written = 0;
    Verdict verdict = blockUpdate(operation, source, size, plain.bytes.data(), &written, true);
    EVP_CIPHER_CTX* context = operation.cipher.get();
    int extra = 0;
    uint8_t rest[kBlock];
    if (!verdict.panic && encrypt) {
        if (EVP_EncryptFinal_ex(context, rest, &extra) != 1 || extra != 0 ||
            EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_GCM_GET_TAG, int(operation.tagBytes), tag) != 1)
            verdict = panicWith(TEE_ERROR_GENERIC);
    } else if (!verdict.panic) {
        // A tag of another length than agreed at init cannot match.
        const bool matches =
            tagSize == operation.tagBytes &&
            EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_GCM_SET_TAG, int(tagSize), tag) == 1 &&
            EVP_DecryptFinal_ex(context, rest, &extra) == 1 && extra == 0;
        if (!matches) verdict = answer(TEE_ERROR_MAC_INVALID);
    }
    finish(operation);
    if (verdict.panic || verdict.result != TEE_SUCCESS) {
        // Nothing of a message that failed its tag is given out.
        *destinationSize = 0;
        return verdict;
    }
    if (written) std::memcpy(destination, plain.bytes.data(), written);
    *destinationSize = written;
    return answer(TEE_SUCCESS);
}

Verdict sign(const Operation& operation, const void* digest, void* signature) {
    PkeyContextPointer context(EVP_PKEY_CTX_new_from_pkey(nullptr, operation.ecKey.get(), nullptr));
    size_t derSize = 0;
    if (!context || EVP_PKEY_sign_init(context.get()) != 1 ||
        EVP_PKEY_sign(context.get(), nullptr, &derSize, static_cast<const uint8_t*>(digest),
                      kSha256Bytes) != 1)
        return panicWith(TEE_ERROR_GENERIC);
    Bytes der(derSize);
    if (EVP_PKEY_sign(context.get(), der.data(), &derSize, static_cast<const uint8_t*>(digest),
                      kSha256Bytes) != 1)
        return panicWith(TEE_ERROR_GENERIC);
    // GP gives r and s side by side, each the size of the curve, not OpenSSL's DER.
    const uint8_t* cursor = der.data();
    SignaturePointer parts(d2i_ECDSA_SIG(nullptr, &cursor, long(derSize)));
    const BIGNUM* r = nullptr;
    const BIGNUM* s = nullptr;
    if (parts) ECDSA_SIG_get0(parts.get(), &r, &s);
    auto* out = static_cast<uint8_t*>(signature);
    if (!r || !s || BN_bn2binpad(r, out, int(kP256Bytes)) != int(kP256Bytes) ||
        BN_bn2binpad(s, out + kP256Bytes, int(kP256Bytes)) != int(kP256Bytes))
        return panicWith(TEE_ERROR_GENERIC);
    return answer(TEE_SUCCESS);
}

Verdict derive(const Operation& operation, const Attribute& x, const Attribute& y,
               Object& derived) {
    // A point off the curve ends the TA, as it does on a device.
    PkeyPointer peer = p256PublicKey(x.ref, y.ref);
    if (!peer) return panicWith(TEE_ERROR_BAD_PARAMETERS);
    PkeyContextPointer context(EVP_PKEY_CTX_new_from_pkey(nullptr, operation.ecKey.get(), nullptr));
    Scratch shared;
    shared.bytes.resize(kP256Bytes);
    size_t size = shared.bytes.size();
    if (!context || EVP_PKEY_derive_init(context.get()) != 1 ||
        EVP_PKEY_derive_set_peer(context.get(), peer.get()) != 1 ||
        EVP_PKEY_derive(context.get(), shared.bytes.data(), &size) != 1 || size != kP256Bytes)
        return panicWith(TEE_ERROR_GENERIC);
    Attribute secret;
    secret.id = TEE_ATTR_SECRET_VALUE;
    secret.ref = shared.bytes;
    derived.attributes.push_back(std::move(secret));
    derived.size = uint32_t(kP256Bytes * 8);
    derived.initialized = true;
    return answer(TEE_SUCCESS);
}

// Ref attribute id's value among params; null when absent.
const TEE_Attribute* parameter(const TEE_Attribute* params, uint32_t count, uint32_t id) {
    for (uint32_t index = 0; index < count; ++index)
        if (params[index].attributeID == id) return &params[index];
    return nullptr;
}

Verdict deriveFrom(const Operation& operation, const TEE_Attribute& x, const TEE_Attribute& y,
                   Object& derived) {
    Attribute peerX, peerY;
    const auto* xBytes = static_cast<const uint8_t*>(x.content.ref.buffer);
    const auto* yBytes = static_cast<const uint8_t*>(y.content.ref.buffer);
    peerX.ref.assign(xBytes, xBytes + x.content.ref.length);
    peerY.ref.assign(yBytes, yBytes + y.content.ref.length);
    return derive(operation, peerX, peerY, derived);
}

// A cipher's or an AE operation's update: whole blocks out, the rest held back. Panics on misuse,
// so it holds no C++ object of its own across the checks.
TEE_Result blockStreamUpdate(uint32_t operationClass, TEE_OperationHandle operation,
                             const void* srcData, size_t srcLen, void* destData, size_t* destLen) {
    Operation& target = operationOf(operation);
    if (target.operationClass != operationClass || !target.initialized || !destLen ||
        (!srcData && srcLen))
        TEE_Panic(kMisuse);
    const size_t needed = outputOf(target, srcLen, false);
    if (*destLen < needed) {
        *destLen = needed;
        return TEE_ERROR_SHORT_BUFFER;
    }
    if (!destData && needed) TEE_Panic(kMisuse);
    return settle(blockUpdate(target, srcData, srcLen, destData, destLen, false));
}

}  // namespace
}  // namespace zel::tee

using namespace zel::tee;

extern "C" {

TEE_Result TEE_AllocateOperation(TEE_OperationHandle* operation, uint32_t algorithm, uint32_t mode,
                                 uint32_t maxKeySize) {
    if (!operation) TEE_Panic(kMisuse);
    *operation = TEE_HANDLE_NULL;
    current();
    if (!supported(algorithm, mode, maxKeySize)) return TEE_ERROR_NOT_SUPPORTED;
    return settle(allocate(algorithm, mode, maxKeySize, operation));
}

void TEE_FreeOperation(TEE_OperationHandle operation) {
    if (operation == TEE_HANDLE_NULL) return;
    operationOf(operation);
    current().tables().remove(operation);
}

void TEE_ResetOperation(TEE_OperationHandle operation) {
    Operation& target = operationOf(operation);
    if (target.operationClass != TEE_OPERATION_DIGEST && !target.keySet) TEE_Panic(kMisuse);
    finish(target);
    if (target.digest && EVP_DigestInit_ex(target.digest.get(), EVP_sha256(), nullptr) != 1)
        TEE_Panic(TEE_ERROR_GENERIC);
}

TEE_Result TEE_SetOperationKey(TEE_OperationHandle operation, TEE_ObjectHandle key) {
    Operation& target = operationOf(operation);
    if (target.operationClass == TEE_OPERATION_DIGEST || target.initialized || target.active)
        TEE_Panic(kMisuse);
    if (key == TEE_HANDLE_NULL) {
        wipe(target.secret);
        target.secret.clear();
        target.ecKey.reset();
        target.keySet = false;
        target.keySize = 0;
        return TEE_SUCCESS;
    }
    const Object& source = objectOf(key);
    if (source.persistent || !source.initialized || source.size > target.maxKeySize)
        TEE_Panic(kMisuse);
    // A key of another type than the algorithm's, as OP-TEE answers it.
    if (source.type != keyTypeOf(target.algorithm)) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
    return settle(setKey(target, source));
}

void TEE_DigestUpdate(TEE_OperationHandle operation, const void* chunk, size_t chunkSize) {
    Operation& target = operationOf(operation);
    if (target.operationClass != TEE_OPERATION_DIGEST || (!chunk && chunkSize)) TEE_Panic(kMisuse);
    if (chunkSize && EVP_DigestUpdate(target.digest.get(), chunk, chunkSize) != 1)
        TEE_Panic(TEE_ERROR_GENERIC);
    target.active = true;
}

TEE_Result TEE_DigestDoFinal(TEE_OperationHandle operation, const void* chunk, size_t chunkLen,
                             void* hash, size_t* hashLen) {
    Operation& target = operationOf(operation);
    if (target.operationClass != TEE_OPERATION_DIGEST || (!chunk && chunkLen) || !hashLen)
        TEE_Panic(kMisuse);
    // Too short a buffer leaves the operation as it was, the chunk unread.
    if (*hashLen < kSha256Bytes) {
        *hashLen = kSha256Bytes;
        return TEE_ERROR_SHORT_BUFFER;
    }
    if (!hash) TEE_Panic(kMisuse);
    unsigned int size = 0;
    if ((chunkLen && EVP_DigestUpdate(target.digest.get(), chunk, chunkLen) != 1) ||
        EVP_DigestFinal_ex(target.digest.get(), static_cast<uint8_t*>(hash), &size) != 1 ||
        EVP_DigestInit_ex(target.digest.get(), EVP_sha256(), nullptr) != 1)
        TEE_Panic(TEE_ERROR_GENERIC);
    *hashLen = size;
    target.active = false;
    return TEE_SUCCESS;
}

void TEE_CipherInit(TEE_OperationHandle operation, const void* IV, size_t IVLen) {
    Operation& target = operationOf(operation);
    if (target.operationClass != TEE_OPERATION_CIPHER || !target.keySet || !IV || IVLen != kBlock)
        TEE_Panic(kMisuse);
    settle(cipherInit(target, IV));
}

TEE_Result TEE_CipherUpdate(TEE_OperationHandle operation, const void* srcData, size_t srcLen,
                            void* destData, size_t* destLen) {
    return blockStreamUpdate(TEE_OPERATION_CIPHER, operation, srcData, srcLen, destData, destLen);
}

TEE_Result TEE_CipherDoFinal(TEE_OperationHandle operation, const void* srcData, size_t srcLen,
                             void* destData, size_t* destLen) {
    Operation& target = operationOf(operation);
    if (target.operationClass != TEE_OPERATION_CIPHER || !target.initialized || !destLen ||
        (!srcData && srcLen))
        TEE_Panic(kMisuse);
    // Without padding the input must come to whole blocks.
    const size_t needed = outputOf(target, srcLen, true);
    if (needed % kBlock) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
    if (*destLen < needed) {
        *destLen = needed;
        return TEE_ERROR_SHORT_BUFFER;
    }
    if (!destData && needed) TEE_Panic(kMisuse);
    const TEE_Result result = settle(blockUpdate(target, srcData, srcLen, destData, destLen, true));
    finish(target);
    return result;
}

void TEE_MACInit(TEE_OperationHandle operation, const void* IV, size_t IVLen) {
    Operation& target = operationOf(operation);
    if (target.operationClass != TEE_OPERATION_MAC || !target.keySet) TEE_Panic(kMisuse);
    // Neither AES-CMAC nor HMAC takes an IV; one given is ignored, as OP-TEE does.
    (void)IV;
    (void)IVLen;
    settle(macInit(target));
}

void TEE_MACUpdate(TEE_OperationHandle operation, const void* chunk, size_t chunkSize) {
    Operation& target = operationOf(operation);
    if (target.operationClass != TEE_OPERATION_MAC || !target.initialized || (!chunk && chunkSize))
        TEE_Panic(kMisuse);
    if (chunkSize &&
        EVP_MAC_update(target.mac.get(), static_cast<const uint8_t*>(chunk), chunkSize) != 1)
        TEE_Panic(TEE_ERROR_GENERIC);
}

TEE_Result TEE_MACComputeFinal(TEE_OperationHandle operation, const void* message,
                               size_t messageLen, void* mac, size_t* macLen) {
    Operation& target = operationOf(operation);
    if (target.operationClass != TEE_OPERATION_MAC || !target.initialized || !macLen ||
        (!message && messageLen))
        TEE_Panic(kMisuse);
    const size_t needed = macBytes(target);
    if (*macLen < needed) {
        *macLen = needed;
        return TEE_ERROR_SHORT_BUFFER;
    }
    if (!mac) TEE_Panic(kMisuse);
    size_t size = 0;
    if ((messageLen &&
         EVP_MAC_update(target.mac.get(), static_cast<const uint8_t*>(message), messageLen) != 1) ||
        EVP_MAC_final(target.mac.get(), static_cast<uint8_t*>(mac), &size, *macLen) != 1)
        TEE_Panic(TEE_ERROR_GENERIC);
    *macLen = size;
    finish(target);
    return TEE_SUCCESS;
}

TEE_Result TEE_AEInit(TEE_OperationHandle operation, const void* nonce, size_t nonceLen,
                      uint32_t tagLen, size_t AADLen, size_t payloadLen) {
    Operation& target = operationOf(operation);
    if (target.operationClass != TEE_OPERATION_AE || !target.keySet || target.active || !nonce ||
        !nonceLen || nonceLen > INT_MAX)
        TEE_Panic(kMisuse);
    // The lengths are for AES-CCM; GCM does not need them ahead.
    (void)AADLen;
    (void)payloadLen;
    if (tagLen < 96 || tagLen > 128 || tagLen % 8) return TEE_ERROR_NOT_SUPPORTED;
    return settle(aeInit(target, nonce, nonceLen, tagLen));
}

void TEE_AEUpdateAAD(TEE_OperationHandle operation, const void* AADdata, size_t AADdataLen) {
    Operation& target = operationOf(operation);
    // Additional data goes before the payload.
    if (target.operationClass != TEE_OPERATION_AE || !target.initialized || target.active ||
        (!AADdata && AADdataLen))
        TEE_Panic(kMisuse);
    const auto* bytes = static_cast<const uint8_t*>(AADdata);
    for (size_t done = 0; done < AADdataLen;) {
        const size_t slice = std::min(AADdataLen - done, kSlice);
        int out = 0;
        if (EVP_CipherUpdate(target.cipher.get(), nullptr, &out, bytes + done, int(slice)) != 1)
            TEE_Panic(TEE_ERROR_GENERIC);
        done += slice;
    }
}

TEE_Result TEE_AEUpdate(TEE_OperationHandle operation, const void* srcData, size_t srcLen,
                        void* destData, size_t* destLen) {
    return blockStreamUpdate(TEE_OPERATION_AE, operation, srcData, srcLen, destData, destLen);
}

TEE_Result TEE_AEEncryptFinal(TEE_OperationHandle operation, const void* srcData, size_t srcLen,
                              void* destData, size_t* destLen, void* tag, size_t* tagLen) {
    Operation& target = operationOf(operation);
    if (target.operationClass != TEE_OPERATION_AE || target.mode != TEE_MODE_ENCRYPT ||
        !target.initialized || !destLen || !tagLen || (!srcData && srcLen))
        TEE_Panic(kMisuse);
    const size_t needed = outputOf(target, srcLen, true);
    if (*destLen < needed || *tagLen < target.tagBytes) {
        *destLen = needed;
        *tagLen = target.tagBytes;
        return TEE_ERROR_SHORT_BUFFER;
    }
    if ((!destData && needed) || !tag) TEE_Panic(kMisuse);
    *tagLen = target.tagBytes;
    return settle(aeFinal(target, srcData, srcLen, destData, destLen, tag, target.tagBytes));
}

TEE_Result TEE_AEDecryptFinal(TEE_OperationHandle operation, const void* srcData, size_t srcLen,
                              void* destData, size_t* destLen, void* tag, size_t tagLen) {
    Operation& target = operationOf(operation);
    if (target.operationClass != TEE_OPERATION_AE || target.mode != TEE_MODE_DECRYPT ||
        !target.initialized || !destLen || (!srcData && srcLen) || (!tag && tagLen))
        TEE_Panic(kMisuse);
    const size_t needed = outputOf(target, srcLen, true);
    if (*destLen < needed) {
        *destLen = needed;
        return TEE_ERROR_SHORT_BUFFER;
    }
    if (!destData && needed) TEE_Panic(kMisuse);
    return settle(aeFinal(target, srcData, srcLen, destData, destLen, tag, tagLen));
}

TEE_Result TEE_AsymmetricSignDigest(TEE_OperationHandle operation, const TEE_Attribute* params,
                                    uint32_t paramCount, const void* digest, size_t digestLen,
                                    void* signature, size_t* signatureLen) {
    Operation& target = operationOf(operation);
    // ECDSA takes no parameters; the digest must be the algorithm's own (SHA-256).
    (void)params;
    if (target.operationClass != TEE_OPERATION_ASYMMETRIC_SIGNATURE ||
        target.mode != TEE_MODE_SIGN || !target.keySet || !signatureLen || !digest ||
        digestLen != kSha256Bytes || paramCount)
        TEE_Panic(kMisuse);
    if (*signatureLen < kSignatureBytes) {
        *signatureLen = kSignatureBytes;
        return TEE_ERROR_SHORT_BUFFER;
    }
    if (!signature) TEE_Panic(kMisuse);
    *signatureLen = kSignatureBytes;
    return settle(sign(target, digest, signature));
}

void TEE_DeriveKey(TEE_OperationHandle operation, const TEE_Attribute* params, uint32_t paramCount,
                   TEE_ObjectHandle derivedKey) {
    Operation& target = operationOf(operation);
    if (target.operationClass != TEE_OPERATION_KEY_DERIVATION || !target.keySet ||
        (!params && paramCount))
        TEE_Panic(kMisuse);
    Object& derived = objectOf(derivedKey);
    if (derived.persistent || derived.initialized || derived.type != TEE_TYPE_GENERIC_SECRET ||
        derived.maxSize < kP256Bytes * 8)
        TEE_Panic(kMisuse);
    const TEE_Attribute* x = parameter(params, paramCount, TEE_ATTR_ECC_PUBLIC_VALUE_X);
    const TEE_Attribute* y = parameter(params, paramCount, TEE_ATTR_ECC_PUBLIC_VALUE_Y);
    if (!x || !y || (!x->content.ref.buffer && x->content.ref.length) ||
        (!y->content.ref.buffer && y->content.ref.length))
        TEE_Panic(kMisuse);
    settle(deriveFrom(target, *x, *y, derived));
}

void TEE_GenerateRandom(void* randomBuffer, size_t randomBufferLen) {
    if (!randomBuffer && randomBufferLen) TEE_Panic(kMisuse);
    auto* bytes = static_cast<uint8_t*>(randomBuffer);
    for (size_t done = 0; done < randomBufferLen;) {
        const size_t slice = std::min(randomBufferLen - done, kSlice);
        if (RAND_bytes(bytes + done, int(slice)) != 1) TEE_Panic(TEE_ERROR_GENERIC);
        done += slice;
    }
}

}  // extern "C"
