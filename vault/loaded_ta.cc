#include "loaded_ta.h"

#include <dlfcn.h>

#include <climits>
#include <cstring>
#include <iostream>

#include "object_store.h"
#include "ta_context.h"

namespace zel::vault {

namespace {

using CreateEntry = TEE_Result (*)();
using DestroyEntry = void (*)();
using OpenEntry = TEE_Result (*)(uint32_t, TEE_Param[4], void**);
using CloseEntry = void (*)(void*);
using InvokeEntry = TEE_Result (*)(void*, uint32_t, uint32_t, TEE_Param[4]);

// The standard's client parameter types as a TA sees them; a whole block is an input, output or
// both as the block was registered.
uint32_t taParamType(const TaParam& param) {
    switch (param.type) {
        case TEEC_VALUE_INPUT:
            return TEE_PARAM_TYPE_VALUE_INPUT;
        case TEEC_VALUE_OUTPUT:
            return TEE_PARAM_TYPE_VALUE_OUTPUT;
        case TEEC_VALUE_INOUT:
            return TEE_PARAM_TYPE_VALUE_INOUT;
        case TEEC_MEMREF_PARTIAL_INPUT:
            return TEE_PARAM_TYPE_MEMREF_INPUT;
        case TEEC_MEMREF_PARTIAL_OUTPUT:
            return TEE_PARAM_TYPE_MEMREF_OUTPUT;
        case TEEC_MEMREF_PARTIAL_INOUT:
            return TEE_PARAM_TYPE_MEMREF_INOUT;
        case TEEC_MEMREF_WHOLE:
            if ((param.flags & TEEC_MEM_INPUT) && (param.flags & TEEC_MEM_OUTPUT))
                return TEE_PARAM_TYPE_MEMREF_INOUT;
            return param.flags & TEEC_MEM_OUTPUT ? TEE_PARAM_TYPE_MEMREF_OUTPUT
                                                 : TEE_PARAM_TYPE_MEMREF_INPUT;
        default:
            return TEE_PARAM_TYPE_NONE;
    }
}

// The operation as the TA's entry points take it, and what the TA wrote back.
struct TaParams {
    uint32_t types = 0;
    TEE_Param params[4]{};

    explicit TaParams(const TaOperation& operation) {
        for (uint32_t i = 0; i < 4; ++i) {
            const TaParam& in = operation.params[i];
            const uint32_t type = taParamType(in);
            types |= type << (4 * i);
            if (type >= TEE_PARAM_TYPE_MEMREF_INPUT) {
                params[i].memref.buffer = in.buffer;
                params[i].memref.size = in.size;
            } else {
                params[i].value.a = in.a;
                params[i].value.b = in.b;
            }
        }
    }
    void writeBack(TaOperation& operation) const {
        for (uint32_t i = 0; i < 4; ++i) {
            TaParam& out = operation.params[i];
            const uint32_t type = TEE_PARAM_TYPE_GET(types, i);
            if (type == TEE_PARAM_TYPE_VALUE_OUTPUT || type == TEE_PARAM_TYPE_VALUE_INOUT) {
                out.a = params[i].value.a;
                out.b = params[i].value.b;
            } else if (type == TEE_PARAM_TYPE_MEMREF_OUTPUT ||
                       type == TEE_PARAM_TYPE_MEMREF_INOUT) {
                // A size past the window is the size a TA needs (with TEE_ERROR_SHORT_BUFFER).
                out.size = params[i].memref.size > UINT32_MAX
                               ? UINT32_MAX
                               : static_cast<uint32_t>(params[i].memref.size);
            }
        }
    }
};

// Each entry point is called through a plain function taking one of these, so that a panic's jump
// back to the caller crosses no C++ object.
struct CreateCall {
    CreateEntry entry;
    TEE_Result result;
};
struct DestroyCall {
    DestroyEntry entry;
};
struct OpenCall {
    OpenEntry entry;
    TaParams* params;
    void* session;
    TEE_Result result;
};
struct CloseCall {
    CloseEntry entry;
    void* session;
};
struct InvokeCall {
    InvokeEntry entry;
    void* session;
    uint32_t command;
    TaParams* params;
    TEE_Result result;
};

void callCreate(void* call) {
    auto* c = static_cast<CreateCall*>(call);
    c->result = c->entry();
}
void callDestroy(void* call) {
    static_cast<DestroyCall*>(call)->entry();
}
void callOpen(void* call) {
    auto* c = static_cast<OpenCall*>(call);
    c->result = c->entry(c->params->types, c->params->params, &c->session);
}
void callClose(void* call) {
    auto* c = static_cast<CloseCall*>(call);
    c->entry(c->session);
}
void callInvoke(void* call) {
    auto* c = static_cast<InvokeCall*>(call);
    c->result = c->entry(c->session, c->command, c->params->types, c->params->params);
}

const TaResult kDead{TEE_ERROR_TARGET_DEAD, TEEC_ORIGIN_TEE};

bool sameUuid(const TEE_UUID& a, const wire::UuidBytes& b) {
    const TEEC_UUID uuid{a.timeLow, a.timeMid, a.timeHiAndVersion, {}};
    wire::UuidBytes bytes = wire::uuidBytes(uuid);
    std::memcpy(bytes.data() + 8, a.clockSeqAndNode, 8);
    return bytes == b;
}

}  // namespace

// One load of the shared object: a fresh copy of the TA's data each time.
struct LoadedTa::Library {
    void* handle = nullptr;
    CreateEntry create = nullptr;
    DestroyEntry destroy = nullptr;
    OpenEntry open = nullptr;
    CloseEntry close = nullptr;
    InvokeEntry invoke = nullptr;
    const zel_ta_head* head = nullptr;

    ~Library() {
        if (handle) dlclose(handle);
    }
    // Null with the loader's reason when the file is no TA.
    static std::unique_ptr<Library> load(const std::string& path, std::string& error) {
        auto library = std::make_unique<Library>();
        // RTLD_LOCAL: every TA defines the same entry points, each must find its own.
        library->handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!library->handle) {
            const char* reason = dlerror();
            error = reason ? reason : path + ": cannot be loaded";
            return nullptr;
        }
        const auto symbol = [&](const char* name) { return dlsym(library->handle, name); };
        library->create = reinterpret_cast<CreateEntry>(symbol("TA_CreateEntryPoint"));
        library->destroy = reinterpret_cast<DestroyEntry>(symbol("TA_DestroyEntryPoint"));
        library->open = reinterpret_cast<OpenEntry>(symbol("TA_OpenSessionEntryPoint"));
        library->close = reinterpret_cast<CloseEntry>(symbol("TA_CloseSessionEntryPoint"));
        library->invoke = reinterpret_cast<InvokeEntry>(symbol("TA_InvokeCommandEntryPoint"));
        library->head = static_cast<const zel_ta_head*>(symbol(ZEL_TA_HEAD_SYMBOL));
        if (!library->create || !library->destroy || !library->open || !library->close ||
            !library->invoke || !library->head) {
            error = path + " is not a TA: it lacks an entry point or its header";
            return nullptr;
        }
        return library;
    }
};

std::unique_ptr<LoadedTa> LoadedTa::load(const std::string& folder, const wire::UuidBytes& uuid,
                                         tee::ObjectStore& store, std::string& error) {
    const std::string path = folder + "/" + wire::uuidText(uuid) + ".so";
    auto library = Library::load(path, error);
    if (!library) return nullptr;
    const zel_ta_head head = *library->head;
    if (!sameUuid(head.uuid, uuid)) {
        error = path + " holds a TA of another UUID";
        return nullptr;
    }
    if (!(head.flags & TA_FLAG_SINGLE_INSTANCE)) {
        error = path + ": this TEE hosts single-instance TAs only";
        return nullptr;
    }
    std::unique_ptr<LoadedTa> ta(new LoadedTa(path, head, store));
    ta->library_ = std::move(library);
    return ta;
}

LoadedTa::LoadedTa(std::string path, const zel_ta_head& head, tee::ObjectStore& store)
    : path_(std::move(path)), head_(head), store_(store) {}

LoadedTa::~LoadedTa() {
    unload();
}

bool LoadedTa::instance(TaResult& failure) {
    if (context_) return true;
    if (!library_) {
        std::string error;
        library_ = Library::load(path_, error);
        if (!library_) {
            std::cerr << "zel-vaultd: " << error << std::endl;
            failure = {TEE_ERROR_ITEM_NOT_FOUND, TEEC_ORIGIN_TEE};
            return false;
        }
    }
    context_ = std::make_unique<tee::TaContext>(store_, head_.uuid, head_.data_size);
    ++generation_;
    CreateCall call{library_->create, TEE_SUCCESS};
    if (!run(callCreate, &call)) {
        failure = kDead;
        return false;
    }
    if (call.result != TEE_SUCCESS) {
        end(false);
        failure = {call.result, TEEC_ORIGIN_TRUSTED_APP};
        return false;
    }
    return true;
}

bool LoadedTa::run(void (*entry)(void*), void* call) {
    uint32_t code = 0;
    if (tee::runInTa(*context_, entry, call, code)) return true;
    end(true);
    return false;
}

void LoadedTa::end(bool panicked) {
    if (!panicked && context_) {
        DestroyCall call{library_->destroy};
        uint32_t code = 0;
        tee::runInTa(*context_, callDestroy, &call, code);
    }
    // Whatever the instance held goes with its context; its data goes with the object.
    context_.reset();
    library_.reset();
    sessions_ = 0;
}

void LoadedTa::unload() {
    if (context_) end(false);
}

TaResult LoadedTa::openSession(TaOperation& operation, TaSession& session) {
    TaResult failure;
    if (!instance(failure)) return failure;
    if (sessions_ > 0 && !(head_.flags & TA_FLAG_MULTI_SESSION))
        return {TEE_ERROR_BUSY, TEEC_ORIGIN_TEE};
    TaParams params(operation);
    OpenCall call{library_->open, &params, nullptr, TEE_SUCCESS};
    if (!run(callOpen, &call)) return kDead;
    params.writeBack(operation);
    if (call.result != TEE_SUCCESS) {
        if (sessions_ == 0 && !(head_.flags & TA_FLAG_INSTANCE_KEEP_ALIVE)) end(false);
        return {call.result, TEEC_ORIGIN_TRUSTED_APP};
    }
    ++sessions_;
    session = {call.session, generation_};
    return {};
}

TaResult LoadedTa::invoke(TaSession& session, uint32_t command, TaOperation& operation) {
    if (!context_ || session.instance != generation_) return kDead;
    TaParams params(operation);
    InvokeCall call{library_->invoke, session.context, command, &params, TEE_SUCCESS};
    if (!run(callInvoke, &call)) return kDead;
    params.writeBack(operation);
    return {call.result, TEEC_ORIGIN_TRUSTED_APP};
}

void LoadedTa::closeSession(TaSession& session) {
    if (!context_ || session.instance != generation_) return;  // died with its instance
    CloseCall call{library_->close, session.context};
    if (!run(callClose, &call)) return;
    if (--sessions_ == 0 && !(head_.flags & TA_FLAG_INSTANCE_KEEP_ALIVE)) end(false);
}

}  // namespace zel::vault
