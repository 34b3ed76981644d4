// What the Internal Core API's functions share: the objects and operations behind the handles,
// the per-TA tables that own them, and the rule for panicking.
#pragma once

#include <openssl/evp.h>
#include <tee_internal_api.h>

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "ta_context.h"

namespace zel::tee {

using Bytes = std::vector<uint8_t>;

// TEE_Panic longjmps back into runInTa past every frame in between, running no destructor. So a
// function may panic only while nothing with a destructor is alive in it: it checks its
// arguments first, and work that needs such objects returns a Verdict to an outer frame that
// raises the panic once they are gone.
struct Verdict {
    TEE_Result result;
    bool panic;
};
inline Verdict answer(TEE_Result result) {
    return {result, false};
}
inline Verdict panicWith(TEE_Result code) {
    return {code, true};
}
inline TEE_Result settle(Verdict verdict) {
    if (verdict.panic) TEE_Panic(verdict.result);
    return verdict.result;
}

// Panic codes, as OP-TEE's TA library uses them: 0 for a call the standard forbids, the GP
// result for a handle or key the TEE rejects.
constexpr TEE_Result kMisuse = 0;
constexpr TEE_Result kBadHandle = TEE_ERROR_BAD_PARAMETERS;

template <typename T, void (*Free)(T*)>
struct FreeWith {
    void operator()(T* pointer) const { Free(pointer); }
};
using PkeyPointer = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY, EVP_PKEY_free>>;
using PkeyContextPointer = std::unique_ptr<EVP_PKEY_CTX, FreeWith<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using DigestPointer = std::unique_ptr<EVP_MD_CTX, FreeWith<EVP_MD_CTX, EVP_MD_CTX_free>>;
using CipherPointer =
    std::unique_ptr<EVP_CIPHER_CTX, FreeWith<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>>;
using MacPointer = std::unique_ptr<EVP_MAC_CTX, FreeWith<EVP_MAC_CTX, EVP_MAC_CTX_free>>;

// Bytes that hold key material are wiped before they are freed.
void wipe(Bytes& bytes);

struct Attribute {
    uint32_t id = 0;
    Bytes ref;  // buffer attributes; big numbers as big-endian bytes without leading zeros
    uint32_t a = 0, b = 0;
};

inline bool isValueAttribute(uint32_t id) {
    return (id & TEE_ATTR_FLAG_VALUE) != 0;
}

struct Object {
    ~Object();
    const Attribute* find(uint32_t id) const;

    uint32_t type = 0;
    uint32_t maxSize = 0;  // bits
    uint32_t size = 0;     // bits, once initialized
    uint32_t usage = 0xFFFFFFFFu;
    bool initialized = false;
    std::vector<Attribute> attributes;
    // A persistent (data) object: its id, its data as read or created, the stream position and
    // the flags it was opened with.
    bool persistent = false;
    Bytes id;
    Bytes data;
    size_t position = 0;
    uint32_t flags = 0;
    size_t charged = 0;  // against the heap
};

struct Operation {
    ~Operation();

    uint32_t algorithm = 0;
    uint32_t operationClass = 0;
    uint32_t mode = 0;
    uint32_t maxKeySize = 0;
    uint32_t keySize = 0;
    bool keySet = false;
    bool initialized = false;  // Init done, Final not yet
    bool active = false;       // data fed since
    Bytes secret;              // a symmetric key
    PkeyPointer ecKey;         // an ECDSA or ECDH key pair
    DigestPointer digest;
    CipherPointer cipher;
    MacPointer mac;
    Bytes held;             // input short of a whole block, held back until more comes
    uint32_t tagBytes = 0;  // AE
};

// A TA's allocations and handles. Handles are numbers from one process-wide sequence, never
// reused: a freed handle or another TA's is simply not in the table.
class Tables {
  public:
    explicit Tables(size_t heapLimit) : heapLimit_(heapLimit) {}
    ~Tables();
    Tables(const Tables&) = delete;
    Tables& operator=(const Tables&) = delete;

    // Zero-filled; null past the heap limit.
    void* allocate(size_t size);
    // False when the TA did not allocate this block.
    bool release(void* block);
    // Counts bytes against the heap; false (nothing counted) past its limit.
    bool charge(size_t bytes);
    void refund(size_t bytes);
    size_t inUse() const { return inUse_; }

    // Null handles when out of memory; the object is then gone.
    TEE_ObjectHandle add(std::unique_ptr<Object> object);
    TEE_OperationHandle add(std::unique_ptr<Operation> operation);
    Object* find(TEE_ObjectHandle handle) const;
    Operation* find(TEE_OperationHandle handle) const;
    void remove(TEE_ObjectHandle handle);
    void remove(TEE_OperationHandle handle);
    size_t handles() const { return objects_.size() + operations_.size(); }
    const std::unordered_map<uintptr_t, std::unique_ptr<Object>>& objects() const {
        return objects_;
    }

  private:
    const size_t heapLimit_;
    size_t inUse_ = 0;
    std::unordered_map<void*, size_t> blocks_;
    std::unordered_map<uintptr_t, std::unique_ptr<Object>> objects_;
    std::unordered_map<uintptr_t, std::unique_ptr<Operation>> operations_;
};

// The calling thread's TA; aborts outside one (only a TA calls the API).
TaContext& current();
// The handle's object or operation; panics when the current TA holds no such handle. Call
// them before anything with a destructor is alive.
Object& objectOf(TEE_ObjectHandle handle);
Operation& operationOf(TEE_OperationHandle handle);

// P-256 keys from and to their attributes (big-endian, no leading zeros). Null or false on an
// invalid key or point.
constexpr size_t kP256Bytes = 32;
PkeyPointer p256KeyPair(const Bytes& privateValue, const Bytes& x, const Bytes& y);
PkeyPointer p256PublicKey(const Bytes& x, const Bytes& y);
bool p256Generate(Bytes& privateValue, Bytes& x, Bytes& y);
// The value without its leading zero bytes.
Bytes minimal(const uint8_t* bytes, size_t size);

}  // namespace zel::tee
