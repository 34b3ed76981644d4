// The Internal Core API the daemon gives its TAs, called as a TA calls it: inside runInTa, so
// that a panic ends the call and leaves a context to destroy. Known answers come from the
// public vectors (RFC 4493, SP 800-38A, McGrew and Viega's GCM test cases), for what the TAs
// never do and so the end-to-end tests never see: AES-128, and input split over updates. GCM's
// is the case with a 60-byte nonce and AAD.
#include <gtest/gtest.h>

#include <tee_internal_api.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "object_store.h"
#include "openssl_bytes.h"
#include "ta_context.h"

namespace {

using zel::tee::ObjectStore;
using zel::tee::TaContext;
using zel::test::Bytes;

constexpr TEE_UUID kVault = {0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr TEE_UUID kOther = {0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 7, 9}};
constexpr size_t kHeap = 1 << 20;

constexpr auto hex = zel::test::hexBytes;

// Runs body as the context's TA: false when it panicked, with the code in panicCode.
template <typename Body>
bool inTa(TaContext& context, Body& body, uint32_t* panicCode = nullptr) {
    uint32_t code = 0;
    const bool returned = zel::tee::runInTa(
        context, [](void* argument) { (*static_cast<Body*>(argument))(); }, &body, code);
    if (panicCode) *panicCode = code;
    return returned;
}

// Helpers for TA bodies. They panic only where a test means them to.
TEE_ObjectHandle secretKey(uint32_t type, const Bytes& key) {
    TEE_ObjectHandle object = TEE_HANDLE_NULL;
    EXPECT_EQ(TEE_AllocateTransientObject(type, uint32_t(key.size() * 8), &object), TEE_SUCCESS);
    TEE_Attribute attribute;
    TEE_InitRefAttribute(&attribute, TEE_ATTR_SECRET_VALUE, key.data(), key.size());
    EXPECT_EQ(TEE_PopulateTransientObject(object, &attribute, 1), TEE_SUCCESS);
    return object;
}

TEE_OperationHandle keyed(uint32_t algorithm, uint32_t mode, TEE_ObjectHandle key,
                          uint32_t maxKeySize) {
    TEE_OperationHandle operation = TEE_HANDLE_NULL;
    EXPECT_EQ(TEE_AllocateOperation(&operation, algorithm, mode, maxKeySize), TEE_SUCCESS);
    if (key) {
        EXPECT_EQ(TEE_SetOperationKey(operation, key), TEE_SUCCESS);
    }
    return operation;
}

TEE_ObjectHandle p256KeyPair(uint32_t type) {
    TEE_ObjectHandle key = TEE_HANDLE_NULL;
    EXPECT_EQ(TEE_AllocateTransientObject(type, 256, &key), TEE_SUCCESS);
    TEE_Attribute curve;
    TEE_InitValueAttribute(&curve, TEE_ATTR_ECC_CURVE, TEE_ECC_CURVE_NIST_P256, 0);
    EXPECT_EQ(TEE_GenerateKey(key, 256, &curve, 1), TEE_SUCCESS);
    return key;
}

// A coordinate as OP-TEE gives it (no leading zeros), left-padded to the curve's size.
Bytes coordinate(TEE_ObjectHandle key, uint32_t attribute) {
    uint8_t value[32] = {};
    size_t size = sizeof value;
    EXPECT_EQ(TEE_GetObjectBufferAttribute(key, attribute, value, &size), TEE_SUCCESS);
    Bytes padded(32 - size, 0);
    padded.insert(padded.end(), value, value + size);
    return padded;
}

TEE_Result createObject(const char* id, const std::string& data, uint32_t flags) {
    return TEE_CreatePersistentObject(TEE_STORAGE_PRIVATE, id, std::strlen(id), flags,
                                      TEE_HANDLE_NULL, data.data(), data.size(), nullptr);
}

// The object's whole data, or the failure as text.
std::string readObject(const char* id) {
    TEE_ObjectHandle object = TEE_HANDLE_NULL;
    const TEE_Result opened = TEE_OpenPersistentObject(TEE_STORAGE_PRIVATE, id, std::strlen(id),
                                                       TEE_DATA_FLAG_ACCESS_READ, &object);
    if (opened != TEE_SUCCESS) {
        EXPECT_EQ(object, nullptr);
        char text[32];
        std::snprintf(text, sizeof text, "error 0x%08x", opened);
        return text;
    }
    char buffer[256];
    size_t count = 0;
    EXPECT_EQ(TEE_ReadObjectData(object, buffer, sizeof buffer, &count), TEE_SUCCESS);
    TEE_CloseObject(object);
    return std::string(buffer, count);
}

class TeeApiTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string error;
        store_ = ObjectStore::open(":memory:", error);
        ASSERT_TRUE(store_) << error;
        ta_ = std::make_unique<TaContext>(*store_, kVault, kHeap);
    }
    template <typename Body>
    void run(Body body, TaContext* context = nullptr) {
        uint32_t code = 0;
        ASSERT_TRUE(inTa(context ? *context : *ta_, body, &code))
            << "the TA panicked (0x" << std::hex << code << ")";
    }

    std::unique_ptr<ObjectStore> store_;
    std::unique_ptr<TaContext> ta_;
};

struct Vector {
    const char* name;
    uint32_t algorithm, mode, keyType;
    const char *key, *iv, *aad, *input, *output, *tag;
};

const Vector kVectors[] = {
    {"AES-CMAC RFC 4493 16 bytes", TEE_ALG_AES_CMAC, TEE_MODE_MAC, TEE_TYPE_AES,
     "2b7e151628aed2a6abf7158809cf4f3c", "", "", "6bc1bee22e409f96e93d7e117393172a",
     "070a16b46b4d4144f79bdd9dd04a287c", ""},
    {"AES-128-CBC SP 800-38A encrypt", TEE_ALG_AES_CBC_NOPAD, TEE_MODE_ENCRYPT, TEE_TYPE_AES,
     "2b7e151628aed2a6abf7158809cf4f3c", "000102030405060708090a0b0c0d0e0f", "",
     "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51",
     "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2", ""},
    {"AES-GCM test case 6 (60-byte nonce, AAD)", TEE_ALG_AES_GCM, TEE_MODE_DECRYPT, TEE_TYPE_AES,
     "feffe9928665731c6d6a8f9467308308",
     "9313225df88406e555909c5aff5269aa6a7a9538534f7da1e4c303d2a318a728c3c0c95156809539fcf0e242"
     "9a6b525416aedbf5a0de6a57a637b39b",
     "feedfacedeadbeeffeedfacedeadbeefabaddad2",
     "8ce24998625615b603a033aca13fb894be9112a5c3a211a8ba262a3cca7e2ca701e4a9a4fba43c90ccdcb281d4"
     "8c7c6fd62875d2aca417034c34aee5",
     "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a721c3c0c95956809532fcf0e2449a6"
     "b525b16aedf5aa0de657ba637b39",
     "619cc5aefffe0bfa462af43c1699d050"},
};

// Each vector goes in as two updates and a final, split off the block boundary, so that what a
// block cipher holds back between calls is part of the answer.
TEST_F(TeeApiTest, KnownAnswerVectorsInPiecesAndTamperedGcmTag) {
    for (const Vector& vector : kVectors) {
        SCOPED_TRACE(vector.name);
        run([&] {
            const Bytes key = hex(vector.key), iv = hex(vector.iv), aad = hex(vector.aad),
                        input = hex(vector.input), expected = hex(vector.output),
                        tag = hex(vector.tag);
            const size_t split = std::min<size_t>(7, input.size());
            TEE_ObjectHandle object = secretKey(vector.keyType, key);
            TEE_OperationHandle operation = keyed(vector.algorithm, vector.mode, object, 256);
            TEE_FreeTransientObject(object);  // the operation keeps its own copy
            Bytes output(input.size() + 64, 0xEE);
            size_t first = output.size(), last = 0;
            switch (vector.algorithm) {
                case TEE_ALG_AES_CMAC:
                    TEE_MACInit(operation, nullptr, 0);
                    TEE_MACUpdate(operation, input.data(), split);
                    last = output.size();
                    EXPECT_EQ(TEE_MACComputeFinal(operation, input.data() + split,
                                                  input.size() - split, output.data(), &last),
                              TEE_SUCCESS);
                    first = 0;
                    break;
                case TEE_ALG_AES_CBC_NOPAD:
                    TEE_CipherInit(operation, iv.data(), iv.size());
                    EXPECT_EQ(
                        TEE_CipherUpdate(operation, input.data(), split, output.data(), &first),
                        TEE_SUCCESS);
                    last = output.size() - first;
                    EXPECT_EQ(TEE_CipherDoFinal(operation, input.data() + split,
                                                input.size() - split, output.data() + first, &last),
                              TEE_SUCCESS);
                    break;
                default: {
                    EXPECT_EQ(
                        TEE_AEInit(operation, iv.data(), iv.size(), 128, aad.size(), input.size()),
                        TEE_SUCCESS);
                    TEE_AEUpdateAAD(operation, aad.data(), aad.size());
                    EXPECT_EQ(TEE_AEUpdate(operation, input.data(), split, output.data(), &first),
                              TEE_SUCCESS);
                    last = output.size() - first;
                    EXPECT_EQ(TEE_AEDecryptFinal(operation, input.data() + split,
                                                 input.size() - split, output.data() + first, &last,
                                                 const_cast<uint8_t*>(tag.data()), tag.size()),
                              TEE_SUCCESS);
                    // The same message with one bit of its tag flipped gives nothing out.
                    Bytes badTag = tag, untouched(input.size(), 0xEE);
                    badTag[5] ^= 0x01;
                    size_t size = untouched.size();
                    EXPECT_EQ(TEE_AEInit(operation, iv.data(), iv.size(), 128, 0, 0), TEE_SUCCESS);
                    TEE_AEUpdateAAD(operation, aad.data(), aad.size());
                    EXPECT_EQ(
                        TEE_AEDecryptFinal(operation, input.data(), input.size(), untouched.data(),
                                           &size, badTag.data(), badTag.size()),
                        TEE_ERROR_MAC_INVALID);
                    EXPECT_EQ(size, 0u);
                    EXPECT_EQ(untouched, Bytes(input.size(), 0xEE));
                }
            }
            output.resize(first + last);
            EXPECT_EQ(output, expected);
            TEE_FreeOperation(operation);
        });
    }
    EXPECT_EQ(ta_->handlesInUse(), 0u);
    EXPECT_EQ(ta_->heapInUse(), 0u);
}

TEST_F(TeeApiTest, ShortBuffersAnswerTheSizeNeededAndChangeNothing) {
    run([] {
        const Bytes key = hex("000102030405060708090a0b0c0d0e0f");
        TEE_ObjectHandle aes = secretKey(TEE_TYPE_AES, key);
        uint8_t buffer[64];
        size_t size = 0;
        EXPECT_EQ(TEE_GetObjectBufferAttribute(aes, TEE_ATTR_SECRET_VALUE, buffer, &size),
                  TEE_ERROR_SHORT_BUFFER);
        EXPECT_EQ(size, 16u);
        EXPECT_EQ(TEE_GetObjectBufferAttribute(aes, TEE_ATTR_ECC_PUBLIC_VALUE_X, buffer, &size),
                  TEE_ERROR_ITEM_NOT_FOUND);

        // A digest whose buffer was short has not taken the chunk: the retry hashes "abc" once.
        TEE_OperationHandle digest = keyed(TEE_ALG_SHA256, TEE_MODE_DIGEST, TEE_HANDLE_NULL, 0);
        TEE_DigestUpdate(digest, "a", 1);
        size = 31;
        EXPECT_EQ(TEE_DigestDoFinal(digest, "bc", 2, buffer, &size), TEE_ERROR_SHORT_BUFFER);
        EXPECT_EQ(size, 32u);
        EXPECT_EQ(TEE_DigestDoFinal(digest, "bc", 2, buffer, &size), TEE_SUCCESS);
        EXPECT_EQ(Bytes(buffer, buffer + size),
                  hex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));

        TEE_OperationHandle cipher = keyed(TEE_ALG_AES_CBC_NOPAD, TEE_MODE_ENCRYPT, aes, 128);
        TEE_CipherInit(cipher, key.data(), 16);
        size = 15;
        EXPECT_EQ(TEE_CipherUpdate(cipher, buffer, 20, buffer, &size), TEE_ERROR_SHORT_BUFFER);
        EXPECT_EQ(size, 16u);
        size = 31;
        EXPECT_EQ(TEE_CipherDoFinal(cipher, buffer, 32, buffer, &size), TEE_ERROR_SHORT_BUFFER);
        EXPECT_EQ(size, 32u);

        TEE_OperationHandle mac = keyed(TEE_ALG_AES_CMAC, TEE_MODE_MAC, aes, 128);
        TEE_MACInit(mac, nullptr, 0);
        size = 15;
        EXPECT_EQ(TEE_MACComputeFinal(mac, nullptr, 0, buffer, &size), TEE_ERROR_SHORT_BUFFER);
        EXPECT_EQ(size, 16u);

        TEE_ObjectHandle pair = p256KeyPair(TEE_TYPE_ECDSA_KEYPAIR);
        TEE_OperationHandle sign = keyed(TEE_ALG_ECDSA_P256, TEE_MODE_SIGN, pair, 256);
        size = 63;
        EXPECT_EQ(TEE_AsymmetricSignDigest(sign, nullptr, 0, buffer, 32, buffer, &size),
                  TEE_ERROR_SHORT_BUFFER);
        EXPECT_EQ(size, 64u);

        TEE_BigInt number[TEE_BigIntSizeInU32(64)];
        TEE_BigIntInit(number, TEE_BigIntSizeInU32(64));
        EXPECT_EQ(TEE_BigIntConvertFromOctetString(number, key.data(), 8, 0), TEE_SUCCESS);
        size = 6;
        EXPECT_EQ(TEE_BigIntConvertToOctetString(buffer, &size, number), TEE_ERROR_SHORT_BUFFER);
        EXPECT_EQ(size, 7u);  // the value's leading zero byte is not part of it

        TEE_FreeOperation(digest);
        TEE_FreeOperation(cipher);
        TEE_FreeOperation(mac);
        TEE_FreeOperation(sign);
        TEE_FreeTransientObject(aes);
        TEE_FreeTransientObject(pair);
    });
}

TEE_ObjectHandle foreignHandle = TEE_HANDLE_NULL;

struct PanicCase {
    const char* name;
    void (*body)();
    uint32_t code;
};

// Each case holds memory and handles when it panics; destroying its context frees them (the
// sanitizer build would report any leak).
const PanicCase kPanics[] = {
    {"an AES key for HMAC",
     [] {
         // Its own statement: no C++ temporary may be alive when the TA panics.
         TEE_ObjectHandle aes = secretKey(TEE_TYPE_AES, Bytes(16));
         keyed(TEE_ALG_HMAC_SHA256, TEE_MODE_MAC, aes, 256);
     },
     TEE_ERROR_BAD_PARAMETERS},
    // Not in this TA's table, like a freed handle or an operation's: the one handle check.
    {"another TA's handle",
     [] {
         TEE_ObjectInfo info;
         TEE_GetObjectInfo1(foreignHandle, &info);
     },
     TEE_ERROR_BAD_PARAMETERS},
    {"a cipher update before init",
     [] {
         uint8_t block[16] = {};
         size_t size = sizeof block;
         TEE_CipherUpdate(keyed(TEE_ALG_AES_CBC_NOPAD, TEE_MODE_ENCRYPT, TEE_HANDLE_NULL, 128),
                          block, 16, block, &size);
     },
     0},
    {"a key larger than the object",
     [] {
         TEE_ObjectHandle object = TEE_HANDLE_NULL;
         TEE_AllocateTransientObject(TEE_TYPE_AES, 128, &object);
         TEE_GenerateKey(object, 256, nullptr, 0);
     },
     0},
    {"freeing memory the TA did not allocate",
     [] {
         static int notFromTheHeap;
         TEE_Malloc(100, TEE_MALLOC_FILL_ZERO);
         TEE_Free(&notFromTheHeap);
     },
     0},
    {"an object id of 65 bytes",
     [] {
         char id[65] = {};
         TEE_ObjectHandle object = TEE_HANDLE_NULL;
         TEE_OpenPersistentObject(TEE_STORAGE_PRIVATE, id, sizeof id, TEE_DATA_FLAG_ACCESS_READ,
                                  &object);
     },
     0},
    {"ECDH with a point off the curve",
     [] {
         uint8_t x[32] = {1}, y[32] = {2};
         TEE_ObjectHandle secret = TEE_HANDLE_NULL;
         TEE_AllocateTransientObject(TEE_TYPE_GENERIC_SECRET, 256, &secret);
         TEE_Attribute point[2];
         TEE_InitRefAttribute(&point[0], TEE_ATTR_ECC_PUBLIC_VALUE_X, x, sizeof x);
         TEE_InitRefAttribute(&point[1], TEE_ATTR_ECC_PUBLIC_VALUE_Y, y, sizeof y);
         TEE_DeriveKey(
             keyed(TEE_ALG_ECDH_P256, TEE_MODE_DERIVE, p256KeyPair(TEE_TYPE_ECDH_KEYPAIR), 256),
             point, 2, secret);
     },
     TEE_ERROR_BAD_PARAMETERS},
    {"deleting an object opened without WRITE_META",
     [] {
         TEE_ObjectHandle object = TEE_HANDLE_NULL;
         TEE_CreatePersistentObject(TEE_STORAGE_PRIVATE, "x", 1, TEE_DATA_FLAG_ACCESS_READ,
                                    TEE_HANDLE_NULL, "data", 4, &object);
         TEE_CloseAndDeletePersistentObject1(object);
     },
     0},
};

TEST_F(TeeApiTest, MisuseAndBadHandlesPanicTheTaAndItsContextFreesAll) {
    TaContext other(*store_, kOther, kHeap);
    run([] { TEE_AllocateTransientObject(TEE_TYPE_AES, 128, &foreignHandle); }, &other);
    ASSERT_NE(foreignHandle, nullptr);

    for (const PanicCase& panic : kPanics) {
        SCOPED_TRACE(panic.name);
        auto context = std::make_unique<TaContext>(*store_, kVault, kHeap);
        uint32_t code = 0xDEAD;
        auto body = panic.body;
        testing::internal::CaptureStderr();
        const bool returned = inTa(*context, body, &code);
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_FALSE(returned);
        EXPECT_EQ(code, panic.code);
        char line[96];
        std::snprintf(line, sizeof line,
                      "zel-vaultd: TA 12345678-9abc-def0-0102-030405060708 panicked (0x%08x)\n",
                      panic.code);
        EXPECT_EQ(said, line);
        // A dead TA runs nothing more.
        bool ran = false;
        auto again = [&ran] { ran = true; };
        code = 0xDEAD;
        EXPECT_FALSE(inTa(*context, again, &code));
        EXPECT_FALSE(ran);
        EXPECT_EQ(code, panic.code);
    }
}

TEST(TeeApiOutsideTaTest, PanicOutsideAnyTaAbortsTheHost) {
    EXPECT_DEATH(TEE_Panic(7), "TEE_Panic\\(0x00000007\\) outside any TA");
}

TEST_F(TeeApiTest, HeapLimitMakesMallocAndAllocationsFail) {
    TaContext small(*store_, kVault, 4096);
    run(
        [&small] {
            auto* block = static_cast<uint8_t*>(TEE_Malloc(3000, TEE_MALLOC_FILL_ZERO));
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(TEE_Malloc(2000, TEE_MALLOC_FILL_ZERO), nullptr);
            EXPECT_EQ(TEE_Malloc(16, 0x80), nullptr);  // a hint the standard does not define
            void* rest = TEE_Malloc(4096 - small.heapInUse(), TEE_MALLOC_FILL_ZERO);
            EXPECT_NE(rest, nullptr);
            TEE_OperationHandle operation = reinterpret_cast<TEE_OperationHandle>(1);
            EXPECT_EQ(TEE_AllocateOperation(&operation, TEE_ALG_SHA256, TEE_MODE_DIGEST, 0),
                      TEE_ERROR_OUT_OF_MEMORY);
            EXPECT_EQ(operation, nullptr);
            TEE_Free(block);
            TEE_Free(rest);
            TEE_Free(nullptr);
            block = static_cast<uint8_t*>(TEE_Malloc(4000, TEE_MALLOC_NO_FILL));
            EXPECT_NE(block, nullptr);
            TEE_Free(block);
        },
        &small);
    EXPECT_EQ(small.heapInUse(), 0u);
}

// What the TAs do with their objects (overwrite, whole reads, delete) is their commands' to show
// end to end; here, what they never do.
TEST_F(TeeApiTest, PersistentObjectsConflictsPartialReadsSharingAndOwners) {
    run([] {
        EXPECT_EQ(createObject("slot.1", "hello", TEE_DATA_FLAG_ACCESS_READ), TEE_SUCCESS);
        EXPECT_EQ(createObject("slot.1", "other", TEE_DATA_FLAG_ACCESS_READ),
                  TEE_ERROR_ACCESS_CONFLICT);
        EXPECT_EQ(createObject("empty", "", 0), TEE_SUCCESS);
        EXPECT_EQ(readObject("empty"), "");

        TEE_ObjectHandle object = TEE_HANDLE_NULL;
        ASSERT_EQ(
            TEE_OpenPersistentObject(TEE_STORAGE_PRIVATE, "slot.1", 6,
                                     TEE_DATA_FLAG_ACCESS_READ | TEE_DATA_FLAG_SHARE_READ, &object),
            TEE_SUCCESS);
        char buffer[8];
        size_t count = 0;
        EXPECT_EQ(TEE_ReadObjectData(object, buffer, 3, &count), TEE_SUCCESS);
        EXPECT_EQ(std::string(buffer, count), "hel");
        TEE_ObjectInfo info;
        EXPECT_EQ(TEE_GetObjectInfo1(object, &info), TEE_SUCCESS);
        EXPECT_EQ(info.dataSize, 5u);
        EXPECT_EQ(info.dataPosition, 3u);
        EXPECT_EQ(info.handleFlags, TEE_HANDLE_FLAG_PERSISTENT | TEE_HANDLE_FLAG_INITIALIZED |
                                        TEE_DATA_FLAG_ACCESS_READ | TEE_DATA_FLAG_SHARE_READ);
        EXPECT_EQ(TEE_ReadObjectData(object, buffer, sizeof buffer, &count), TEE_SUCCESS);
        EXPECT_EQ(std::string(buffer, count), "lo");
        EXPECT_EQ(TEE_ReadObjectData(object, buffer, sizeof buffer, &count), TEE_SUCCESS);
        EXPECT_EQ(count, 0u);

        // Open for shared reading: another shared reader is welcome, an exclusive one or a
        // replacement is not.
        TEE_ObjectHandle second = TEE_HANDLE_NULL;
        EXPECT_EQ(
            TEE_OpenPersistentObject(TEE_STORAGE_PRIVATE, "slot.1", 6,
                                     TEE_DATA_FLAG_ACCESS_READ | TEE_DATA_FLAG_SHARE_READ, &second),
            TEE_SUCCESS);
        TEE_CloseObject(second);
        EXPECT_EQ(readObject("slot.1"), "error 0xffff0003");
        EXPECT_EQ(createObject("slot.1", "x", TEE_DATA_FLAG_OVERWRITE), TEE_ERROR_ACCESS_CONFLICT);
        TEE_CloseObject(object);

        EXPECT_EQ(
            TEE_OpenPersistentObject(0x80000000u, "slot.1", 6, TEE_DATA_FLAG_ACCESS_READ, &object),
            TEE_ERROR_ITEM_NOT_FOUND);
        TEE_ObjectHandle key = secretKey(TEE_TYPE_AES, Bytes(16, 1));
        EXPECT_EQ(
            TEE_CreatePersistentObject(TEE_STORAGE_PRIVATE, "key", 3, 0, key, nullptr, 0, &object),
            TEE_ERROR_NOT_SUPPORTED);
        TEE_FreeTransientObject(key);
    });

    // Another TA has a storage of its own under the same ids.
    TaContext other(*store_, kOther, kHeap);
    run(
        [] {
            EXPECT_EQ(readObject("slot.1"), "error 0xffff0008");
            EXPECT_EQ(createObject("slot.1", "theirs", 0), TEE_SUCCESS);
            EXPECT_EQ(readObject("slot.1"), "theirs");
        },
        &other);
    run([] { EXPECT_EQ(readObject("slot.1"), "hello"); });
    EXPECT_EQ(ta_->handlesInUse(), 0u);
}

// What the TAs do before deriving: y^2 = x^3 - 3x + b (mod p) on P-256. A generated key's point
// is on the curve; keying a signature with one (ShortBuffers...) checks that its private value
// goes with the point, and OpenSSL verifies the vault's signatures end to end (CryptoCommandsTest).
TEST_F(TeeApiTest, BigIntegersCheckAPointAgainstTheCurve) {
    run([] {
        constexpr size_t kWords = TEE_BigIntSizeInU32(256);
        const Bytes p = hex("ffffffff00000001000000000000000000000000ffffffffffffffffffffffff");
        const Bytes b = hex("5ac635d8aa3a93e7b3ebbd55769886bc651d06b0cc53b0f63bce3c3e27d2604b");
        TEE_ObjectHandle pair = p256KeyPair(TEE_TYPE_ECDH_KEYPAIR);
        TEE_ObjectInfo info;
        EXPECT_EQ(TEE_GetObjectInfo1(pair, &info), TEE_SUCCESS);
        EXPECT_EQ(info.objectType, TEE_TYPE_ECDH_KEYPAIR);
        EXPECT_EQ(info.objectSize, 256u);
        const Bytes x = coordinate(pair, TEE_ATTR_ECC_PUBLIC_VALUE_X);
        Bytes y = coordinate(pair, TEE_ATTR_ECC_PUBLIC_VALUE_Y);
        TEE_FreeTransientObject(pair);
        TEE_BigInt n[kWords], bx[kWords], by[kWords], bb[kWords], three[kWords], left[kWords],
            right[kWords], term[kWords], five[kWords], seven[kWords];
        for (TEE_BigInt* number : {n, bx, by, bb, three, left, right, term, five, seven})
            TEE_BigIntInit(number, kWords);
        auto onCurve = [&] {
            EXPECT_EQ(TEE_BigIntConvertFromOctetString(n, p.data(), p.size(), 0), TEE_SUCCESS);
            EXPECT_EQ(TEE_BigIntConvertFromOctetString(bx, x.data(), x.size(), 0), TEE_SUCCESS);
            EXPECT_EQ(TEE_BigIntConvertFromOctetString(by, y.data(), y.size(), 0), TEE_SUCCESS);
            EXPECT_EQ(TEE_BigIntConvertFromOctetString(bb, b.data(), b.size(), 0), TEE_SUCCESS);
            TEE_BigIntConvertFromS32(three, 3);
            TEE_BigIntMulMod(left, by, by, n);
            TEE_BigIntMulMod(right, bx, bx, n);
            TEE_BigIntMulMod(right, right, bx, n);
            TEE_BigIntMulMod(term, three, bx, n);
            TEE_BigIntSubMod(right, right, term, n);
            TEE_BigIntAddMod(right, right, bb, n);
            return TEE_BigIntCmp(left, right) == 0;
        };
        EXPECT_TRUE(onCurve());
        y[31] ^= 1;
        EXPECT_FALSE(onCurve());

        // Results stay within [0, n), and signs order as numbers do.
        TEE_BigIntConvertFromS32(five, 5);
        TEE_BigIntConvertFromS32(seven, 7);
        TEE_BigIntSubMod(left, three, five, seven);  // 3 - 5 = 5 (mod 7)
        EXPECT_EQ(TEE_BigIntCmp(left, five), 0);
        TEE_BigIntConvertFromS32(left, -5);
        EXPECT_LT(TEE_BigIntCmp(left, three), 0);
        EXPECT_GT(TEE_BigIntCmp(three, left), 0);
        const Bytes tooLong(33, 0x01);
        EXPECT_EQ(TEE_BigIntConvertFromOctetString(left, tooLong.data(), tooLong.size(), 0),
                  TEE_ERROR_OVERFLOW);
        Bytes padded(40, 0);
        padded.back() = 9;
        EXPECT_EQ(TEE_BigIntConvertFromOctetString(left, padded.data(), padded.size(), 0),
                  TEE_SUCCESS);
        uint8_t out[40];
        size_t size = sizeof out;
        EXPECT_EQ(TEE_BigIntConvertToOctetString(out, &size, left), TEE_SUCCESS);
        EXPECT_EQ(Bytes(out, out + size), Bytes{9});
    });
}

// Two TAs at once on two threads: one stores and reads, the other panics over and over.
TEST_F(TeeApiTest, TasOnTwoThreadsKeepTheirOwnContexts) {
    testing::internal::CaptureStderr();
    std::thread panicking([this] {
        for (int round = 0; round < 50; ++round) {
            TaContext doomed(*store_, kOther, kHeap);
            auto body = [] {
                TEE_Malloc(64, 0);
                TEE_ObjectHandle object = TEE_HANDLE_NULL;
                TEE_AllocateTransientObject(TEE_TYPE_AES, 128, &object);
                TEE_Panic(0x42);
            };
            uint32_t code = 0;
            EXPECT_FALSE(inTa(doomed, body, &code));
            EXPECT_EQ(code, 0x42u);
        }
    });
    for (int round = 0; round < 50; ++round) {
        run([round] {
            const std::string data = "round " + std::to_string(round);
            EXPECT_EQ(createObject("counter", data, TEE_DATA_FLAG_OVERWRITE), TEE_SUCCESS);
            EXPECT_EQ(readObject("counter"), data);
        });
    }
    panicking.join();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(zel::tee::currentTa(), nullptr);
}

}  // namespace
