// Transient objects (keys) and what every object handle answers.
#include <openssl/rand.h>

#include <cstring>
#include <new>

#include "api_internal.h"

namespace zel::tee {
namespace {

bool isSecretType(uint32_t type) {
    return type == TEE_TYPE_AES || type == TEE_TYPE_HMAC_SHA256 || type == TEE_TYPE_GENERIC_SECRET;
}

bool isEccType(uint32_t type) {
    return type == TEE_TYPE_ECDSA_KEYPAIR || type == TEE_TYPE_ECDH_KEYPAIR ||
           type == TEE_TYPE_ECDSA_PUBLIC_KEY || type == TEE_TYPE_ECDH_PUBLIC_KEY;
}

bool isKeyPair(uint32_t type) {
    return type == TEE_TYPE_ECDSA_KEYPAIR || type == TEE_TYPE_ECDH_KEYPAIR;
}

// The object sizes each supported type allows, in bits.
bool sizeSupported(uint32_t type, uint32_t bits) {
    switch (type) {
        case TEE_TYPE_AES:
            return bits == 128 || bits == 192 || bits == 256;
        case TEE_TYPE_HMAC_SHA256:
            return bits % 8 == 0 && bits >= 192 && bits <= 1024;
        case TEE_TYPE_GENERIC_SECRET:
            return bits % 8 == 0 && bits >= 8 && bits <= 4096;
        default:
            return isEccType(type) && bits == 256;
    }
}

// Whether a secret of this many bytes makes a key of the type (the size being within the
// object's maximum is checked apart).
bool secretLengthValid(uint32_t type, size_t bytes) {
    return sizeSupported(type, uint32_t(bytes * 8));
}

bool attributeAllowed(uint32_t type, uint32_t id) {
    if (isSecretType(type)) return id == TEE_ATTR_SECRET_VALUE;
    if (id == TEE_ATTR_ECC_PUBLIC_VALUE_X || id == TEE_ATTR_ECC_PUBLIC_VALUE_Y ||
        id == TEE_ATTR_ECC_CURVE)
        return true;
    return isKeyPair(type) && id == TEE_ATTR_ECC_PRIVATE_VALUE;
}

Attribute secretAttribute(const uint8_t* bytes, size_t size) {
    Attribute attribute;
    attribute.id = TEE_ATTR_SECRET_VALUE;
    attribute.ref.assign(bytes, bytes + size);
    return attribute;
}

Attribute bignumAttribute(uint32_t id, const Bytes& value) {
    Attribute attribute;
    attribute.id = id;
    attribute.ref = minimal(value.data(), value.size());
    return attribute;
}

Attribute curveAttribute() {
    Attribute attribute;
    attribute.id = TEE_ATTR_ECC_CURVE;
    attribute.a = TEE_ECC_CURVE_NIST_P256;
    return attribute;
}

// Panics (missing or foreign attributes) are decided by the caller before this runs.
Verdict populate(Object& object, const TEE_Attribute* attrs, uint32_t count) {
    std::vector<Attribute> attributes;
    for (uint32_t index = 0; index < count; ++index) {
        Attribute attribute;
        attribute.id = attrs[index].attributeID;
        if (isValueAttribute(attribute.id)) {
            attribute.a = attrs[index].content.value.a;
            attribute.b = attrs[index].content.value.b;
        } else {
            const auto* bytes = static_cast<const uint8_t*>(attrs[index].content.ref.buffer);
            attribute.ref = attribute.id == TEE_ATTR_SECRET_VALUE
                                ? Bytes(bytes, bytes + attrs[index].content.ref.length)
                                : minimal(bytes, attrs[index].content.ref.length);
        }
        attributes.push_back(std::move(attribute));
    }
    uint32_t size = 0;
    if (isSecretType(object.type)) {
        const Bytes& secret = attributes.front().ref;
        if (!secretLengthValid(object.type, secret.size())) {
            for (Attribute& attribute : attributes) wipe(attribute.ref);
            return answer(TEE_ERROR_BAD_PARAMETERS);
        }
        size = uint32_t(secret.size() * 8);
    } else {
        for (const Attribute& attribute : attributes) {
            const bool fits = attribute.id == TEE_ATTR_ECC_CURVE
                                  ? attribute.a == TEE_ECC_CURVE_NIST_P256
                                  : attribute.ref.size() <= kP256Bytes;
            if (!fits) {
                for (Attribute& wiped : attributes) wipe(wiped.ref);
                return answer(TEE_ERROR_BAD_PARAMETERS);
            }
        }
        size = 256;
    }
    object.attributes = std::move(attributes);
    object.size = size;
    object.initialized = true;
    return answer(TEE_SUCCESS);
}

Verdict generate(Object& object, uint32_t keySize, const TEE_Attribute* params,
                 uint32_t paramCount) {
    std::vector<Attribute> attributes;
    if (isSecretType(object.type)) {
        Bytes secret(keySize / 8);
        if (RAND_bytes(secret.data(), int(secret.size())) != 1) return panicWith(TEE_ERROR_GENERIC);
        attributes.push_back(secretAttribute(secret.data(), secret.size()));
        wipe(secret);
    } else {
        bool p256 = false, otherCurve = false;
        for (uint32_t index = 0; index < paramCount; ++index) {
            if (params[index].attributeID != TEE_ATTR_ECC_CURVE) continue;
            (params[index].content.value.a == TEE_ECC_CURVE_NIST_P256 ? p256 : otherCurve) = true;
        }
        // A missing curve, or one that is not of this key's size, is an inconsistent request.
        if (!p256 || otherCurve) return answer(TEE_ERROR_BAD_PARAMETERS);
        Bytes secret, x, y;
        if (!p256Generate(secret, x, y)) {
            wipe(secret);
            return panicWith(TEE_ERROR_GENERIC);
        }
        attributes.push_back(bignumAttribute(TEE_ATTR_ECC_PRIVATE_VALUE, secret));
        attributes.push_back(bignumAttribute(TEE_ATTR_ECC_PUBLIC_VALUE_X, x));
        attributes.push_back(bignumAttribute(TEE_ATTR_ECC_PUBLIC_VALUE_Y, y));
        attributes.push_back(curveAttribute());
        wipe(secret);
    }
    object.attributes = std::move(attributes);
    object.size = keySize;
    object.initialized = true;
    return answer(TEE_SUCCESS);
}

TEE_Result allocateTransient(uint32_t type, uint32_t maxSize, TEE_ObjectHandle* handle) {
    std::unique_ptr<Object> object(new (std::nothrow) Object);
    if (!object) return TEE_ERROR_OUT_OF_MEMORY;
    object->type = type;
    object->maxSize = maxSize;
    *handle = current().tables().add(std::move(object));
    return *handle ? TEE_SUCCESS : TEE_ERROR_OUT_OF_MEMORY;
}

}  // namespace
}  // namespace zel::tee

using namespace zel::tee;

extern "C" {

TEE_Result TEE_AllocateTransientObject(TEE_ObjectType objectType, uint32_t maxObjectSize,
                                       TEE_ObjectHandle* object) {
    if (!object) TEE_Panic(kMisuse);
    *object = TEE_HANDLE_NULL;
    current();
    if (!sizeSupported(objectType, maxObjectSize)) return TEE_ERROR_NOT_SUPPORTED;
    return allocateTransient(objectType, maxObjectSize, object);
}

void TEE_FreeTransientObject(TEE_ObjectHandle object) {
    if (object == TEE_HANDLE_NULL) return;
    if (objectOf(object).persistent) TEE_Panic(kMisuse);
    current().tables().remove(object);
}

void TEE_ResetTransientObject(TEE_ObjectHandle object) {
    if (object == TEE_HANDLE_NULL) return;
    Object& target = objectOf(object);
    if (target.persistent) TEE_Panic(kMisuse);
    for (Attribute& attribute : target.attributes) wipe(attribute.ref);
    target.attributes.clear();
    target.size = 0;
    target.initialized = false;
}

void TEE_CloseObject(TEE_ObjectHandle object) {
    if (object == TEE_HANDLE_NULL) return;
    objectOf(object);
    current().tables().remove(object);
}

TEE_Result TEE_PopulateTransientObject(TEE_ObjectHandle object, const TEE_Attribute* attrs,
                                       uint32_t attrCount) {
    Object& target = objectOf(object);
    if (target.persistent || target.initialized || (!attrs && attrCount)) TEE_Panic(kMisuse);
    // Every attribute must belong to the type, and every one the type needs must be there.
    for (uint32_t index = 0; index < attrCount; ++index) {
        const uint32_t id = attrs[index].attributeID;
        if (!attributeAllowed(target.type, id)) TEE_Panic(kMisuse);
        if (!isValueAttribute(id) && !attrs[index].content.ref.buffer &&
            attrs[index].content.ref.length)
            TEE_Panic(kMisuse);
        // A secret longer than the object was made for.
        if (id == TEE_ATTR_SECRET_VALUE && attrs[index].content.ref.length > target.maxSize / 8)
            TEE_Panic(kMisuse);
    }
    const uint32_t needed[] = {TEE_ATTR_SECRET_VALUE, TEE_ATTR_ECC_PUBLIC_VALUE_X,
                               TEE_ATTR_ECC_PUBLIC_VALUE_Y, TEE_ATTR_ECC_CURVE,
                               TEE_ATTR_ECC_PRIVATE_VALUE};
    for (uint32_t id : needed) {
        if (!attributeAllowed(target.type, id)) continue;
        bool present = false;
        for (uint32_t index = 0; index < attrCount; ++index)
            present = present || attrs[index].attributeID == id;
        if (!present) TEE_Panic(kMisuse);
    }
    return settle(populate(target, attrs, attrCount));
}

void TEE_InitRefAttribute(TEE_Attribute* attr, uint32_t attributeID, const void* buffer,
                          size_t length) {
    if (!attr || isValueAttribute(attributeID)) TEE_Panic(kMisuse);
    attr->attributeID = attributeID;
    attr->content.ref.buffer = const_cast<void*>(buffer);
    attr->content.ref.length = length;
}

void TEE_InitValueAttribute(TEE_Attribute* attr, uint32_t attributeID, uint32_t a, uint32_t b) {
    if (!attr || !isValueAttribute(attributeID)) TEE_Panic(kMisuse);
    attr->attributeID = attributeID;
    attr->content.value.a = a;
    attr->content.value.b = b;
}

TEE_Result TEE_GenerateKey(TEE_ObjectHandle object, uint32_t keySize, const TEE_Attribute* params,
                           uint32_t paramCount) {
    Object& target = objectOf(object);
    if (target.persistent || target.initialized || (!params && paramCount)) TEE_Panic(kMisuse);
    const bool generable = isSecretType(target.type) || isKeyPair(target.type);
    if (!generable || keySize > target.maxSize || !sizeSupported(target.type, keySize))
        TEE_Panic(kMisuse);
    return settle(generate(target, keySize, params, paramCount));
}

TEE_Result TEE_GetObjectInfo1(TEE_ObjectHandle object, TEE_ObjectInfo* objectInfo) {
    const Object& target = objectOf(object);
    if (!objectInfo) TEE_Panic(kMisuse);
    objectInfo->objectType = target.persistent ? TEE_TYPE_DATA : target.type;
    objectInfo->objectSize = target.size;
    objectInfo->maxObjectSize = target.maxSize;
    objectInfo->objectUsage = target.usage;
    objectInfo->dataSize = target.data.size();
    objectInfo->dataPosition = target.position;
    objectInfo->handleFlags =
        target.persistent ? TEE_HANDLE_FLAG_PERSISTENT | TEE_HANDLE_FLAG_INITIALIZED | target.flags
                          : (target.initialized ? TEE_HANDLE_FLAG_INITIALIZED : 0u);
    return TEE_SUCCESS;
}

TEE_Result TEE_GetObjectBufferAttribute(TEE_ObjectHandle object, uint32_t attributeID, void* buffer,
                                        size_t* size) {
    const Object& target = objectOf(object);
    if (!target.initialized && !target.persistent) TEE_Panic(kMisuse);
    if (isValueAttribute(attributeID) || !size) TEE_Panic(kMisuse);
    // A protected attribute leaves only an extractable object.
    if (!(attributeID & TEE_ATTR_FLAG_PUBLIC) && !(target.usage & TEE_USAGE_EXTRACTABLE))
        TEE_Panic(kMisuse);
    const Attribute* attribute = target.find(attributeID);
    if (!attribute) return TEE_ERROR_ITEM_NOT_FOUND;
    if (*size < attribute->ref.size() || (!buffer && !attribute->ref.empty())) {
        *size = attribute->ref.size();
        return TEE_ERROR_SHORT_BUFFER;
    }
    if (!attribute->ref.empty()) std::memcpy(buffer, attribute->ref.data(), attribute->ref.size());
    *size = attribute->ref.size();
    return TEE_SUCCESS;
}

}  // extern "C"
