// A GlobalPlatform TA loaded from a shared object, the way a TEE loads a TA file: <uuid>.so in the
// daemon's TA folder, its header (ta_head.h) checked against its name. The TA runs on the calling
// connection's thread, over the Internal Core API of vault/tee.
//
// Single instance: the instance is made (the object loaded, TA_CreateEntryPoint called) for the
// first session and kept while it has sessions, or for good when the TA asks to be kept alive. An
// instance that panics is dead for its sessions (TEE_ERROR_TARGET_DEAD, origin TEE); the next
// session gets a fresh one, with the object loaded anew so that nothing of the dead instance's
// memory remains. Callers hold the TA's lock around every call: one command at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "ta_head.h"
#include "trusted_app.h"

namespace zel::tee {
class ObjectStore;
class TaContext;
}  // namespace zel::tee

namespace zel::vault {

class LoadedTa {
  public:
    // The TA of that UUID in folder; null with a message when it is not there or not a TA this
    // daemon can host. store must outlive the TA.
    static std::unique_ptr<LoadedTa> load(const std::string& folder, const wire::UuidBytes& uuid,
                                          tee::ObjectStore& store, std::string& error);
    ~LoadedTa();
    LoadedTa(const LoadedTa&) = delete;
    LoadedTa& operator=(const LoadedTa&) = delete;

    TaResult openSession(TaOperation& operation, TaSession& session);
    TaResult invoke(TaSession& session, uint32_t command, TaOperation& operation);
    void closeSession(TaSession& session);
    // Ends the instance (TA_DestroyEntryPoint) if there is one; the next session makes a new one.
    void unload();

  private:
    struct Library;
    LoadedTa(std::string path, const zel_ta_head& head, tee::ObjectStore& store);
    // The live instance, made if there is none; false with the failure when it cannot be.
    bool instance(TaResult& failure);
    // Runs an entry point in the instance; false when the TA panicked, which ends the instance.
    bool run(void (*entry)(void*), void* call);
    void end(bool panicked);

    std::string path_;
    zel_ta_head head_;
    tee::ObjectStore& store_;
    std::unique_ptr<Library> library_;
    std::unique_ptr<tee::TaContext> context_;
    uint64_t generation_ = 0;  // of the live instance; sessions of an older one are dead
    uint32_t sessions_ = 0;
};

}  // namespace zel::vault
