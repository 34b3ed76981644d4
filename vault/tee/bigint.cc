// Big integers, as much of them as a TA needs to check a point against its curve's equation.
// A TEE_BigInt array of TEE_BigIntSizeInU32(bits) words holds: the number of magnitude words,
// a stamp with the sign, then the magnitude, least significant word first.
#include <openssl/bn.h>

#include <cstring>
#include <memory>

#include "api_internal.h"

namespace zel::tee {
namespace {

constexpr uint32_t kStamp = 0x5A420000u;  // "ZB": made by TEE_BigIntInit
constexpr uint32_t kStampMask = 0xFFFF0000u;
constexpr uint32_t kNegative = 1u;
// No curve needs more; a length past it is not an initialized big integer.
constexpr size_t kMaxWords = 1u << 16;

using BignumPointer = std::unique_ptr<BIGNUM, FreeWith<BIGNUM, BN_free>>;
using BignumContextPointer = std::unique_ptr<BN_CTX, FreeWith<BN_CTX, BN_CTX_free>>;

bool valid(const TEE_BigInt* number) {
    return number && (number[1] & kStampMask) == kStamp && number[0] <= kMaxWords;
}

uint32_t capacity(const TEE_BigInt* number) {
    return number[0];
}

const uint32_t* magnitude(const TEE_BigInt* number) {
    return number + 2;
}

// Significant magnitude words (none for zero).
uint32_t usedWords(const TEE_BigInt* number) {
    uint32_t used = capacity(number);
    while (used && magnitude(number)[used - 1] == 0) --used;
    return used;
}

bool negative(const TEE_BigInt* number) {
    return (number[1] & kNegative) && usedWords(number);
}

size_t usedBytes(const TEE_BigInt* number) {
    const uint32_t used = usedWords(number);
    if (!used) return 0;
    size_t bytes = size_t(used) * 4;
    for (uint32_t top = magnitude(number)[used - 1]; !(top & 0xFF000000u); top <<= 8) --bytes;
    return bytes;
}

uint8_t byteAt(const TEE_BigInt* number, size_t index) {  // index 0: least significant
    return uint8_t(magnitude(number)[index / 4] >> (8 * (index % 4)));
}

void setMagnitude(TEE_BigInt* number, const uint8_t* bigEndian, size_t size, bool isNegative) {
    std::memset(number + 2, 0, size_t(capacity(number)) * 4);
    for (size_t index = 0; index < size; ++index)
        number[2 + index / 4] |= uint32_t(bigEndian[size - 1 - index]) << (8 * (index % 4));
    number[1] = kStamp | (isNegative ? kNegative : 0u);
}

BignumPointer toBignum(const TEE_BigInt* number) {
    const size_t size = usedBytes(number);
    Bytes bigEndian(size);
    for (size_t index = 0; index < size; ++index)
        bigEndian[size - 1 - index] = byteAt(number, index);
    BignumPointer result(BN_bin2bn(bigEndian.data(), int(size), nullptr));
    if (result) BN_set_negative(result.get(), negative(number));
    return result;
}

using ModularOperation = int (*)(BIGNUM*, const BIGNUM*, const BIGNUM*, const BIGNUM*, BN_CTX*);

int mulMod(BIGNUM* r, const BIGNUM* a, const BIGNUM* b, const BIGNUM* m, BN_CTX* context) {
    // BN_mod_mul leaves a negative product's remainder negative; GP wants it in [0, n).
    return BN_mod_mul(r, a, b, m, context) && BN_nnmod(r, r, m, context);
}

// The caller has checked that dest can hold any value below n.
Verdict modular(ModularOperation operation, TEE_BigInt* dest, const TEE_BigInt* op1,
                const TEE_BigInt* op2, const TEE_BigInt* n) {
    BignumContextPointer context(BN_CTX_new());
    BignumPointer a = toBignum(op1), b = toBignum(op2), m = toBignum(n), r(BN_new());
    if (!context || !a || !b || !m || !r ||
        !operation(r.get(), a.get(), b.get(), m.get(), context.get()))
        return panicWith(TEE_ERROR_GENERIC);
    Bytes bigEndian(size_t(BN_num_bytes(r.get())));
    BN_bn2bin(r.get(), bigEndian.data());
    setMagnitude(dest, bigEndian.data(), bigEndian.size(), false);
    return answer(TEE_SUCCESS);
}

void checkModular(TEE_BigInt* dest, const TEE_BigInt* op1, const TEE_BigInt* op2,
                  const TEE_BigInt* n) {
    if (!valid(dest) || !valid(op1) || !valid(op2) || !valid(n) || negative(n) ||
        usedBytes(n) == 0 || (usedWords(n) == 1 && magnitude(n)[0] == 1) ||
        usedWords(n) > capacity(dest))
        TEE_Panic(kMisuse);
}

}  // namespace
}  // namespace zel::tee

using namespace zel::tee;

extern "C" {

void TEE_BigIntInit(TEE_BigInt* bigInt, size_t len) {
    if (!bigInt || len < 2 || len - 2 > kMaxWords) TEE_Panic(kMisuse);
    std::memset(bigInt, 0, len * sizeof(TEE_BigInt));
    bigInt[0] = uint32_t(len - 2);
    bigInt[1] = kStamp;
}

TEE_Result TEE_BigIntConvertFromOctetString(TEE_BigInt* dest, const uint8_t* buffer,
                                            size_t bufferLen, int32_t sign) {
    if (!valid(dest) || (!buffer && bufferLen)) TEE_Panic(kMisuse);
    size_t skip = 0;
    while (skip < bufferLen && buffer[skip] == 0) ++skip;
    if (bufferLen - skip > size_t(capacity(dest)) * 4) return TEE_ERROR_OVERFLOW;
    setMagnitude(dest, buffer + skip, bufferLen - skip, sign < 0);
    return TEE_SUCCESS;
}

TEE_Result TEE_BigIntConvertToOctetString(uint8_t* buffer, size_t* bufferLen,
                                          const TEE_BigInt* bigInt) {
    if (!valid(bigInt) || !bufferLen) TEE_Panic(kMisuse);
    const size_t size = usedBytes(bigInt);
    if (*bufferLen < size) {
        *bufferLen = size;
        return TEE_ERROR_SHORT_BUFFER;
    }
    if (!buffer && size) TEE_Panic(kMisuse);
    for (size_t index = 0; index < size; ++index) buffer[size - 1 - index] = byteAt(bigInt, index);
    *bufferLen = size;
    return TEE_SUCCESS;
}

void TEE_BigIntConvertFromS32(TEE_BigInt* dest, int32_t shortVal) {
    if (!valid(dest) || capacity(dest) < 1) TEE_Panic(kMisuse);
    const uint32_t absolute = shortVal < 0 ? 0u - uint32_t(shortVal) : uint32_t(shortVal);
    const uint8_t bigEndian[4] = {uint8_t(absolute >> 24), uint8_t(absolute >> 16),
                                  uint8_t(absolute >> 8), uint8_t(absolute)};
    setMagnitude(dest, bigEndian, sizeof bigEndian, shortVal < 0);
}

int32_t TEE_BigIntCmp(const TEE_BigInt* op1, const TEE_BigInt* op2) {
    if (!valid(op1) || !valid(op2)) TEE_Panic(kMisuse);
    const bool negative1 = negative(op1), negative2 = negative(op2);
    if (negative1 != negative2) return negative1 ? -1 : 1;
    int32_t order = 0;  // of the magnitudes
    const uint32_t used1 = usedWords(op1), used2 = usedWords(op2);
    if (used1 != used2) {
        order = used1 < used2 ? -1 : 1;
    } else {
        for (uint32_t index = used1; index-- > 0 && !order;) {
            const uint32_t word1 = magnitude(op1)[index], word2 = magnitude(op2)[index];
            order = word1 < word2 ? -1 : word1 > word2 ? 1 : 0;
        }
    }
    return negative1 ? -order : order;
}

void TEE_BigIntAddMod(TEE_BigInt* dest, const TEE_BigInt* op1, const TEE_BigInt* op2,
                      const TEE_BigInt* n) {
    checkModular(dest, op1, op2, n);
    settle(modular(BN_mod_add, dest, op1, op2, n));
}

void TEE_BigIntSubMod(TEE_BigInt* dest, const TEE_BigInt* op1, const TEE_BigInt* op2,
                      const TEE_BigInt* n) {
    checkModular(dest, op1, op2, n);
    settle(modular(BN_mod_sub, dest, op1, op2, n));
}

void TEE_BigIntMulMod(TEE_BigInt* dest, const TEE_BigInt* op1, const TEE_BigInt* op2,
                      const TEE_BigInt* n) {
    checkModular(dest, op1, op2, n);
    settle(modular(mulMod, dest, op1, op2, n));
}

}  // extern "C"
