// One TA instance as the Internal Core API sees it, and the way a TA's entry point is called so
// that TEE_Panic can end it.
#pragma once

#include <tee_api_types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace zel::tee {

class ObjectStore;
class Tables;

// Everything the Internal Core API keeps for one TA instance: its UUID (its storage namespace),
// its heap limit, and every allocation and handle it holds, all freed when the context is
// destroyed, whatever state the TA left them in (a panicked instance leaks nothing). The store
// must outlive the context. One thread at a time may run the TA's code in it.
class TaContext {
  public:
    TaContext(ObjectStore& store, const TEE_UUID& uuid, size_t heapLimit);
    ~TaContext();
    TaContext(const TaContext&) = delete;
    TaContext& operator=(const TaContext&) = delete;

    ObjectStore& store() const { return store_; }
    const TEE_UUID& uuid() const { return uuid_; }
    size_t heapLimit() const { return heapLimit_; }
    // What the TA's allocations and handles take now, against heapLimit().
    size_t heapInUse() const;
    // Object and operation handles the TA holds now.
    size_t handlesInUse() const;
    bool panicked() const { return panicked_; }
    uint32_t panicCode() const { return panicCode_; }

    // The Internal Core API's own bookkeeping (vault/tee only).
    Tables& tables() { return *tables_; }
    void markPanicked(uint32_t code) {
        panicked_ = true;
        panicCode_ = code;
    }

  private:
    ObjectStore& store_;
    const TEE_UUID uuid_;
    const size_t heapLimit_;
    std::unique_ptr<Tables> tables_;
    bool panicked_ = false;
    uint32_t panicCode_ = 0;
};

// Calls entry(argument) with context as the calling thread's current TA. Returns true when
// entry returned; false when the TA called TEE_Panic (panicCode receives its code), in which
// case the context must not be used again (destroy it with the instance): a further
// call returns false at once with the same code. Calls may nest, each with its own context.
bool runInTa(TaContext& context, void (*entry)(void*), void* argument, uint32_t& panicCode);

// The calling thread's current TA, or null outside runInTa.
TaContext* currentTa();

}  // namespace zel::tee
