// Persistent objects: pure data objects in the TA's private storage, each change one durable
// transaction of the object store.
#include <algorithm>
#include <cstring>
#include <new>

#include "api_internal.h"
#include "object_store.h"

namespace zel::tee {
namespace {

constexpr uint32_t kAccess =
    TEE_DATA_FLAG_ACCESS_READ | TEE_DATA_FLAG_ACCESS_WRITE | TEE_DATA_FLAG_ACCESS_WRITE_META;
constexpr uint32_t kShare = TEE_DATA_FLAG_SHARE_READ | TEE_DATA_FLAG_SHARE_WRITE;

// Two handles on one object get along when each shares what the other does with it; a handle
// that may delete the object gets along with none.
bool compatible(uint32_t open, uint32_t wanted) {
    if ((open | wanted) & TEE_DATA_FLAG_ACCESS_WRITE_META) return false;
    const auto allows = [](uint32_t holder, uint32_t other) {
        return (!(other & TEE_DATA_FLAG_ACCESS_READ) || (holder & TEE_DATA_FLAG_SHARE_READ)) &&
               (!(other & TEE_DATA_FLAG_ACCESS_WRITE) || (holder & TEE_DATA_FLAG_SHARE_WRITE));
    };
    return allows(open, wanted) && allows(wanted, open);
}

// Whether the TA holds the object open with flags that exclude these; with overwrite, whether
// it holds it open at all.
bool inConflict(const Bytes& id, uint32_t flags, bool replacing) {
    for (const auto& [handle, object] : current().tables().objects())
        if (object->persistent && object->id == id &&
            (replacing || !compatible(object->flags, flags)))
            return true;
    return false;
}

TEE_Result openObject(const uint8_t* objectId, size_t idLength, uint32_t flags,
                      TEE_ObjectHandle* handle) {
    TaContext& ta = current();
    std::unique_ptr<Object> object(new (std::nothrow) Object);
    if (!object) return TEE_ERROR_OUT_OF_MEMORY;
    object->id.assign(objectId, objectId + idLength);
    if (inConflict(object->id, flags, false)) return TEE_ERROR_ACCESS_CONFLICT;
    const TEE_Result read = ta.store().read(ta.uuid(), object->id, object->data);
    if (read != TEE_SUCCESS) return read;
    if (!ta.tables().charge(object->data.size())) return TEE_ERROR_OUT_OF_MEMORY;
    object->charged = object->data.size();
    object->persistent = true;
    object->flags = flags;
    object->type = TEE_TYPE_DATA;
    object->initialized = true;
    *handle = ta.tables().add(std::move(object));
    return *handle ? TEE_SUCCESS : TEE_ERROR_OUT_OF_MEMORY;
}

TEE_Result createObject(const uint8_t* objectId, size_t idLength, uint32_t flags,
                        const uint8_t* data, size_t size, TEE_ObjectHandle* handle) {
    TaContext& ta = current();
    std::unique_ptr<Object> object(new (std::nothrow) Object);
    if (!object) return TEE_ERROR_OUT_OF_MEMORY;
    object->id.assign(objectId, objectId + idLength);
    if (inConflict(object->id, flags, true)) return TEE_ERROR_ACCESS_CONFLICT;
    // Room for the handle is made sure of first: an object stored whose handle cannot be had
    // would be a success reported as a failure.
    if (handle) {
        if (!ta.tables().charge(size + sizeof(Object))) return TEE_ERROR_OUT_OF_MEMORY;
        ta.tables().refund(sizeof(Object));
        object->charged = size;
    }
    object->data.assign(data, data + size);
    const TEE_Result written = ta.store().write(ta.uuid(), object->id, object->data,
                                                (flags & TEE_DATA_FLAG_OVERWRITE) != 0);
    if (written != TEE_SUCCESS || !handle) {
        ta.tables().refund(object->charged);
        return written;
    }
    object->persistent = true;
    object->flags = flags & (kAccess | kShare);
    object->type = TEE_TYPE_DATA;
    object->initialized = true;
    *handle = ta.tables().add(std::move(object));
    return *handle ? TEE_SUCCESS : TEE_ERROR_OUT_OF_MEMORY;
}

}  // namespace
}  // namespace zel::tee

using namespace zel::tee;

extern "C" {

TEE_Result TEE_OpenPersistentObject(uint32_t storageID, const void* objectID, size_t objectIDLen,
                                    uint32_t flags, TEE_ObjectHandle* object) {
    if (!object || objectIDLen > TEE_OBJECT_ID_MAX_LEN || (!objectID && objectIDLen) ||
        (flags & ~(kAccess | kShare)))
        TEE_Panic(kMisuse);
    *object = TEE_HANDLE_NULL;
    if (storageID != TEE_STORAGE_PRIVATE) return TEE_ERROR_ITEM_NOT_FOUND;
    return openObject(static_cast<const uint8_t*>(objectID), objectIDLen, flags, object);
}

TEE_Result TEE_CreatePersistentObject(uint32_t storageID, const void* objectID, size_t objectIDLen,
                                      uint32_t flags, TEE_ObjectHandle attributes,
                                      const void* initialData, size_t initialDataLen,
                                      TEE_ObjectHandle* object) {
    if (objectIDLen > TEE_OBJECT_ID_MAX_LEN || (!objectID && objectIDLen) ||
        (!initialData && initialDataLen) || (flags & ~(kAccess | kShare | TEE_DATA_FLAG_OVERWRITE)))
        TEE_Panic(kMisuse);
    // Without a handle to return the object is closed once made, which the standard allows.
    if (object) *object = TEE_HANDLE_NULL;
    if (storageID != TEE_STORAGE_PRIVATE) return TEE_ERROR_ITEM_NOT_FOUND;
    // Key objects are never stored: the TAs keep keys as data.
    if (attributes != TEE_HANDLE_NULL) return TEE_ERROR_NOT_SUPPORTED;
    return createObject(static_cast<const uint8_t*>(objectID), objectIDLen, flags,
                        static_cast<const uint8_t*>(initialData), initialDataLen, object);
}

TEE_Result TEE_CloseAndDeletePersistentObject1(TEE_ObjectHandle object) {
    if (object == TEE_HANDLE_NULL) return TEE_SUCCESS;
    const Object& target = objectOf(object);
    if (!target.persistent || !(target.flags & TEE_DATA_FLAG_ACCESS_WRITE_META)) TEE_Panic(kMisuse);
    TaContext& ta = current();
    const TEE_Result erased = ta.store().erase(ta.uuid(), target.id);
    // Gone already (a reset of the store) is gone. A store failure leaves the handle open, so
    // that the TA may try again or close it.
    if (erased != TEE_SUCCESS && erased != TEE_ERROR_ITEM_NOT_FOUND) return erased;
    ta.tables().remove(object);
    return TEE_SUCCESS;
}

TEE_Result TEE_ReadObjectData(TEE_ObjectHandle object, void* buffer, size_t size, size_t* count) {
    Object& target = objectOf(object);
    if (!target.persistent || !(target.flags & TEE_DATA_FLAG_ACCESS_READ) || !count ||
        (!buffer && size))
        TEE_Panic(kMisuse);
    const size_t left = target.data.size() - std::min(target.position, target.data.size());
    const size_t taken = std::min(size, left);
    if (taken) std::memcpy(buffer, target.data.data() + target.position, taken);
    target.position += taken;
    *count = taken;
    return TEE_SUCCESS;
}

}  // extern "C"
