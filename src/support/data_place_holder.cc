#include "support/data_place_holder.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <vector>

#include "support/byte_helpers.h"
#include "support/test_vectors.h"
#include "transport/log_line.h"

using zel::logLine;

namespace {

namespace v = zel::vectors;

constexpr int32_t kRandomData = 0;
constexpr int32_t kFirstSet = 1;
constexpr int32_t kSecondSet = 2;
constexpr int kTestCaseCount = static_cast<int>(std::size(v::kTestCaseKeys));

struct HexVector {
    const char* text;
    unsigned int chars;
};

// The length comes from the array, so a vector is never measured at run time.
template <size_t N>
constexpr HexVector hexVector(const char (&text)[N]) {
    return {text, static_cast<unsigned int>(N - 1)};
}

struct Buffer {
    unsigned char* data;
    unsigned int size;
};

// One fill function: whether data type 0 gives random bytes, and which data type selects
// `vectors`, one per buffer in parameter order.
template <size_t N>
struct FillRule {
    bool random;
    int32_t fixedSet;
    std::array<HexVector, N> vectors;
};

constexpr FillRule<1> kPut{true, kFirstSet, {hexVector(v::kPutData)}};
constexpr FillRule<1> kCompareData{false, kSecondSet, {hexVector(v::kAesKey)}};
constexpr FillRule<2> kAesEncrypt{
    true, kSecondSet, {hexVector(v::kAesIv), hexVector(v::kAesPlaintext)}};
constexpr FillRule<2> kAesDecrypt{
    true, kSecondSet, {hexVector(v::kAesIv), hexVector(v::kAesCiphertext)}};
constexpr FillRule<1> kCmac{true, kFirstSet, {hexVector(v::kCmacMessage)}};
constexpr FillRule<1> kGenAuthKey{true, kFirstSet, {hexVector(v::kCloudEcPublicKey)}};
constexpr FillRule<3> kDecryptHubToken{
    true,
    kFirstSet,
    {hexVector(v::kHubToken), hexVector(v::kHubTokenIv), hexVector(v::kCloudEcPublicKey)}};
constexpr FillRule<1> kEcdsa{true, kFirstSet, {hexVector(v::kEcdsaMessage)}};
constexpr FillRule<1> kDecryptByKey{true, kFirstSet, {hexVector(v::kDecryptByKeyInput)}};

struct StoreKeyRow {
    int32_t dataType;
    int keyType;
    HexVector key;
};

constexpr StoreKeyRow kStoreKeyRows[] = {
    {kFirstSet, DataPlaceHolder::kEcPrivateKeyType, hexVector(v::kDeviceEcPrivateKey)},
    {kSecondSet, DataPlaceHolder::kAes256KeyType, hexVector(v::kAesKey)},
};

bool convert(const HexVector& vector, const Buffer& buffer) {
    unsigned int capacity = buffer.size;
    return hex_str_2_bin(buffer.data, vector.text, &capacity, vector.chars) == 0;
}

TEEC_Result rejectDataType() {
    logLine("Unknown data type");
    return TEEC_ERROR_GENERIC;
}

template <size_t N>
TEEC_Result fill(const FillRule<N>& rule, int32_t dataType, const Buffer (&buffers)[N]) {
    if (dataType == rule.fixedSet) {
        for (size_t i = 0; i < N; ++i)
            if (!convert(rule.vectors[i], buffers[i])) return TEEC_ERROR_GENERIC;
        return TEEC_SUCCESS;
    }
    if (dataType == kRandomData && rule.random) {
        for (const Buffer& buffer : buffers)
            if (GetRandomBytes(buffer.data, buffer.size) != 0) return TEEC_ERROR_GENERIC;
        return TEEC_SUCCESS;
    }
    return rejectDataType();
}

}  // namespace

TEEC_Result DataPlaceHolder::fill_zel_put(int32_t dataType, unsigned char* data,
                                          unsigned int size) {
    return fill(kPut, dataType, {{data, size}});
}

TEEC_Result DataPlaceHolder::fill_zel_storeKey(int32_t dataType, int* keyType, unsigned char* key,
                                               unsigned int* size) {
    for (const StoreKeyRow& row : kStoreKeyRows) {
        if (row.dataType != dataType) continue;
        if (keyType == nullptr) return TEEC_ERROR_GENERIC;
        *keyType = row.keyType;
        return hex_str_2_bin(key, row.key.text, size, row.key.chars) == 0 ? TEEC_SUCCESS
                                                                          : TEEC_ERROR_GENERIC;
    }
    if (dataType != kRandomData) return rejectDataType();
    if (size == nullptr) return TEEC_ERROR_GENERIC;
    return GetRandomBytes(key, *size) == 0 ? TEEC_SUCCESS : TEEC_ERROR_GENERIC;
}

TEEC_Result DataPlaceHolder::fill_zel_compareData(int32_t dataType, unsigned char* data,
                                                  unsigned int size) {
    return fill(kCompareData, dataType, {{data, size}});
}

TEEC_Result DataPlaceHolder::fill_zel_aesEncrypt(int32_t dataType, unsigned char* iv,
                                                 unsigned int ivSize, unsigned char* data,
                                                 unsigned int dataSize) {
    return fill(kAesEncrypt, dataType, {{iv, ivSize}, {data, dataSize}});
}

TEEC_Result DataPlaceHolder::fill_zel_aesDecrypt(int32_t dataType, unsigned char* iv,
                                                 unsigned int ivSize, unsigned char* encData,
                                                 unsigned int encDataSize) {
    return fill(kAesDecrypt, dataType, {{iv, ivSize}, {encData, encDataSize}});
}

TEEC_Result DataPlaceHolder::fill_zel_getCMACwithHubToken(int32_t dataType, unsigned char* message,
                                                          unsigned int size) {
    return fill(kCmac, dataType, {{message, size}});
}

TEEC_Result DataPlaceHolder::fill_zel_genAuthKey(int32_t dataType, unsigned char* publicKey,
                                                 unsigned int size) {
    return fill(kGenAuthKey, dataType, {{publicKey, size}});
}

TEEC_Result DataPlaceHolder::fill_zel_decryptHubToken(int32_t dataType, unsigned char* encToken,
                                                      unsigned int encTokenSize, unsigned char* iv,
                                                      unsigned int ivSize,
                                                      unsigned char* cloudPublicKey,
                                                      unsigned int cloudPublicKeySize) {
    return fill(kDecryptHubToken, dataType,
                {{encToken, encTokenSize}, {iv, ivSize}, {cloudPublicKey, cloudPublicKeySize}});
}

TEEC_Result DataPlaceHolder::fill_zel_ecdsaCreateSignature(int32_t dataType, unsigned char* message,
                                                           unsigned int size) {
    return fill(kEcdsa, dataType, {{message, size}});
}

TEEC_Result DataPlaceHolder::fill_zel_decryptByKey(int32_t dataType, unsigned char* encData,
                                                   unsigned int size) {
    return fill(kDecryptByKey, dataType, {{encData, size}});
}

TEEC_Result DataPlaceHolder::fill_zel_publicKey(int32_t dataType, unsigned char* text,
                                                unsigned int size) {
    if (dataType != kFirstSet) return rejectDataType();
    if (size == 0) return TEEC_SUCCESS;
    if (text == nullptr) return TEEC_ERROR_GENERIC;
    // The AK-key commands take the key as text, so it is copied as it is stored, strncpy-style.
    const HexVector key = hexVector(v::kRsaPublicKey);
    const unsigned int copied = std::min(size, key.chars);
    std::memcpy(text, key.text, copied);
    std::memset(text + copied, 0, size - copied);
    return TEEC_SUCCESS;
}

TEEC_Result DataPlaceHolder::fill_zel_enc_dec_tc_scenario(
    int32_t dataType, int tcIndex, unsigned char* data, unsigned int dataSize,
    unsigned char* encData, unsigned int encDataSize, unsigned char* iv, unsigned int ivSize,
    unsigned char* key, unsigned int keySize) {
    if (dataType != kSecondSet) return rejectDataType();
    if (tcIndex < 1 || tcIndex > kTestCaseCount) {
        logLine("Wrong TC index");
        return TEEC_ERROR_GENERIC;
    }
    const size_t testCase = static_cast<size_t>(tcIndex - 1);
    const struct {
        HexVector vector;
        Buffer buffer;
        const char* failure;
    } steps[] = {
        {hexVector(v::kTestCasePlaintext), {data, dataSize}, "hex_str_2_bin data error"},
        {hexVector(v::kTestCaseCiphertexts[testCase]),
         {encData, encDataSize},
         "hex_str_2_bin encData error"},
        {hexVector(v::kTestCaseIv), {iv, ivSize}, "hex_str_2_bin iv error"},
        {hexVector(v::kTestCaseKeys[testCase]), {key, keySize}, "hex_str_2_bin key error"},
    };
    for (const auto& step : steps) {
        if (!convert(step.vector, step.buffer)) {
            logLine(step.failure);
            return TEEC_ERROR_GENERIC;
        }
    }
    return TEEC_SUCCESS;
}

int create_zel_data(unsigned char* out, unsigned int outSize, const char* hex,
                    unsigned int hexLength) {
    if (outSize < hexLength / 2) {
        logLine("out_size too small", outSize);
        return -1;
    }
    if (out == nullptr && outSize != 0) return -1;
    // Converted aside so that out is written only on success; the text cannot give more than
    // hexLength / 2 bytes, so the scratch buffer needs no more even when outSize is larger.
    std::vector<unsigned char> converted(hexLength / 2);
    unsigned int count = static_cast<unsigned int>(converted.size());
    if (hex_str_2_bin(converted.data(), hex, &count, hexLength) != 0) {
        logLine("hex_str_2_bin error");
        return -1;
    }
    if (count != outSize) {
        logLine("temp_buffer_size error");
        return -1;
    }
    if (count != 0) std::memcpy(out, converted.data(), count);
    return 0;
}
