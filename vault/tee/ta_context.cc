#include "ta_context.h"

#include <openssl/crypto.h>

#include <setjmp.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "api_internal.h"

namespace zel::tee {

namespace {

// Where TEE_Panic jumps to: the innermost runInTa on this thread. Trivially destructible, as
// everything in runInTa's frame must be.
struct Frame {
    TaContext* context;
    Frame* previous;
    sigjmp_buf jump;
};

thread_local Frame* innermost = nullptr;

std::atomic<uintptr_t> nextHandle{1};

}  // namespace

void wipe(Bytes& bytes) {
    if (!bytes.empty()) OPENSSL_cleanse(bytes.data(), bytes.size());
}

Object::~Object() {
    for (Attribute& attribute : attributes) wipe(attribute.ref);
}

const Attribute* Object::find(uint32_t attributeId) const {
    for (const Attribute& attribute : attributes)
        if (attribute.id == attributeId) return &attribute;
    return nullptr;
}

Operation::~Operation() {
    wipe(secret);
    wipe(held);
}

Tables::~Tables() {
    for (auto& [block, size] : blocks_) {
        OPENSSL_cleanse(block, size);
        std::free(block);
    }
}

void* Tables::allocate(size_t size) {
    const size_t real = size ? size : 1;  // a distinct block even for 0 bytes, as malloc gives
    if (!charge(real)) return nullptr;
    void* block = std::calloc(1, real);
    try {
        if (block) blocks_.emplace(block, real);
    } catch (const std::bad_alloc&) {
        std::free(block);
        block = nullptr;
    }
    if (!block) refund(real);
    return block;
}

bool Tables::release(void* block) {
    const auto found = blocks_.find(block);
    if (found == blocks_.end()) return false;
    refund(found->second);
    OPENSSL_cleanse(block, found->second);
    std::free(block);
    blocks_.erase(found);
    return true;
}

bool Tables::charge(size_t bytes) {
    if (bytes > heapLimit_ - inUse_) return false;
    inUse_ += bytes;
    return true;
}

void Tables::refund(size_t bytes) {
    inUse_ -= bytes;
}

TEE_ObjectHandle Tables::add(std::unique_ptr<Object> object) {
    // What the caller charged for the object's contents goes with it, whatever happens here.
    if (!charge(sizeof(Object))) {
        refund(object->charged);
        return TEE_HANDLE_NULL;
    }
    object->charged += sizeof(Object);
    const size_t charged = object->charged;
    const uintptr_t handle = nextHandle++;
    try {
        objects_.emplace(handle, std::move(object));
    } catch (const std::bad_alloc&) {
        refund(charged);
        return TEE_HANDLE_NULL;
    }
    return reinterpret_cast<TEE_ObjectHandle>(handle);
}

TEE_OperationHandle Tables::add(std::unique_ptr<Operation> operation) {
    if (!charge(sizeof(Operation))) return TEE_HANDLE_NULL;
    const uintptr_t handle = nextHandle++;
    try {
        operations_.emplace(handle, std::move(operation));
    } catch (const std::bad_alloc&) {
        refund(sizeof(Operation));
        return TEE_HANDLE_NULL;
    }
    return reinterpret_cast<TEE_OperationHandle>(handle);
}

Object* Tables::find(TEE_ObjectHandle handle) const {
    const auto found = objects_.find(reinterpret_cast<uintptr_t>(handle));
    return found == objects_.end() ? nullptr : found->second.get();
}

Operation* Tables::find(TEE_OperationHandle handle) const {
    const auto found = operations_.find(reinterpret_cast<uintptr_t>(handle));
    return found == operations_.end() ? nullptr : found->second.get();
}

void Tables::remove(TEE_ObjectHandle handle) {
    const auto found = objects_.find(reinterpret_cast<uintptr_t>(handle));
    if (found == objects_.end()) return;
    refund(found->second->charged);
    objects_.erase(found);
}

void Tables::remove(TEE_OperationHandle handle) {
    const auto found = operations_.find(reinterpret_cast<uintptr_t>(handle));
    if (found == operations_.end()) return;
    refund(sizeof(Operation));
    operations_.erase(found);
}

TaContext::TaContext(ObjectStore& store, const TEE_UUID& uuid, size_t heapLimit)
    : store_(store), uuid_(uuid), heapLimit_(heapLimit), tables_(new Tables(heapLimit)) {}

TaContext::~TaContext() = default;

size_t TaContext::heapInUse() const {
    return tables_->inUse();
}

size_t TaContext::handlesInUse() const {
    return tables_->handles();
}

bool runInTa(TaContext& context, void (*entry)(void*), void* argument, uint32_t& panicCode) {
    if (context.panicked()) {
        panicCode = context.panicCode();
        return false;
    }
    Frame frame;
    frame.context = &context;
    frame.previous = innermost;
    innermost = &frame;
    // The signal mask is left alone: TAs do not change it, and saving it costs a system call.
    if (sigsetjmp(frame.jump, 0) == 0) {
        entry(argument);
        innermost = frame.previous;
        return true;
    }
    // Only what was set before sigsetjmp is read here; the code lives in the context.
    innermost = frame.previous;
    panicCode = context.panicCode();
    return false;
}

TaContext* currentTa() {
    return innermost ? innermost->context : nullptr;
}

TaContext& current() {
    TaContext* context = currentTa();
    if (!context) {
        std::fprintf(stderr, "zel-vaultd: the TEE Internal Core API called outside any TA\n");
        std::abort();
    }
    return *context;
}

Object& objectOf(TEE_ObjectHandle handle) {
    Object* object = current().tables().find(handle);
    if (!object) TEE_Panic(kBadHandle);
    return *object;
}

Operation& operationOf(TEE_OperationHandle handle) {
    Operation* operation = current().tables().find(handle);
    if (!operation) TEE_Panic(kBadHandle);
    return *operation;
}

}  // namespace zel::tee

extern "C" void TEE_Panic(TEE_Result panicCode) {
    using zel::tee::innermost;
    if (!innermost) {
        std::fprintf(stderr, "zel-vaultd: TEE_Panic(0x%08x) outside any TA\n", panicCode);
        std::abort();
    }
    const TEE_UUID& uuid = innermost->context->uuid();
    std::fprintf(stderr,
                 "zel-vaultd: TA %08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x panicked "
                 "(0x%08x)\n",
                 uuid.timeLow, uuid.timeMid, uuid.timeHiAndVersion, uuid.clockSeqAndNode[0],
                 uuid.clockSeqAndNode[1], uuid.clockSeqAndNode[2], uuid.clockSeqAndNode[3],
                 uuid.clockSeqAndNode[4], uuid.clockSeqAndNode[5], uuid.clockSeqAndNode[6],
                 uuid.clockSeqAndNode[7], panicCode);
    innermost->context->markPanicked(panicCode);
    siglongjmp(innermost->jump, 1);
}
