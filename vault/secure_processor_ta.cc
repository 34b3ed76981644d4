#include "secure_processor_ta.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "interface/zel_ta_ids.h"
#include "planted_faults.h"
#include "vault_crypto.h"

namespace zel::vault {

namespace {

const CommandHandler<SecureProcessorTa> kHandlers[] = {
    {cmd::ze_updateFW, &SecureProcessorTa::updateFWWithReport},
    {cmd::ze_getFWInfo, &SecureProcessorTa::getFWInfo},
    {cmd::zel_checkZelAk, &SecureProcessorTa::checkZelAk},
    {cmd::zel_akProvision, &SecureProcessorTa::akProvision},
    {cmd::zel_akProvisionRPMB, &SecureProcessorTa::akProvisionRPMB},
    {cmd::zel_getPublicKeyStatus, &SecureProcessorTa::getPublicKeyStatus},
    {cmd::zel_getInfo, &SecureProcessorTa::getInfo},
    {cmd::zel_getAppInfo, &SecureProcessorTa::getAppInfo},
    {cmd::zel_updateFW, &SecureProcessorTa::updateFW},
    {cmd::zel_selfTestAll, &SecureProcessorTa::selfTestAll},
    {cmd::zel_getHackInfo, &SecureProcessorTa::getHackInfo},
    {cmd::zel_getFWInfo, &SecureProcessorTa::getFWInfo},
    {cmd::zel_forceRecovery, &SecureProcessorTa::forceRecovery},
    {cmd::zel_forceRecoverySP, &SecureProcessorTa::forceRecoverySP},
    {cmd::zel_removeAkKeys, &SecureProcessorTa::removeAkKeys},
};

Bytes littleEndianWords(std::initializer_list<uint32_t> words) {
    Bytes bytes;
    for (uint32_t word : words)
        for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(word >> (8 * i)));
    return bytes;
}

Bytes text(const char* value) {
    return Bytes(value, value + std::strlen(value));
}

struct ItemRule {
    SecureProcessorTa::Item item;
    Bytes fallback;     // what the item reads as when nothing is stored
    bool settable;      // by the control TA
    uint32_t maxSize;   // a settable value's bound, so that every reply fits the block
    uint32_t sizeStep;  // a settable value's size is a multiple of this
};

// Firmware words: system firmware 1.0.2 and application 7.1, then five reserved words.
const ItemRule kItems[] = {
    {SecureProcessorTa::kAkKey, {}, false, 0, 1},
    {SecureProcessorTa::kRpmbProvisioned, {}, false, 0, 1},
    {SecureProcessorTa::kFirmwareWords, littleEndianWords({1, 0, 2, 7, 1, 0, 0, 0, 0, 0}), true,
     4096, 4},
    {SecureProcessorTa::kHackStatus, Bytes(4, 0), true, 256, 1},
    {SecureProcessorTa::kUpdateResult, Bytes(8, 0), true, 8, 8},
    {SecureProcessorTa::kSystemVersion, text("1.0.2"), true, 256, 1},
    {SecureProcessorTa::kAppVersion, text("7.1"), true, 256, 1},
};

bool allZero(const Bytes& bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b == 0; });
}

const ItemRule* ruleOf(uint32_t item) {
    for (const ItemRule& rule : kItems)
        if (static_cast<uint32_t>(rule.item) == item) return &rule;
    return nullptr;
}

// The AK key travels as the hexadecimal text of a DER RSAPublicKey.
TEEC_Result checkAkKeyText(const Bytes& key) {
    if (key.size() != SecureProcessorTa::kAkKeyTextSize) return TEEC_ERROR_BAD_PARAMETERS;
    Bytes der;
    for (size_t i = 0; i < key.size(); i += 2) {
        if (!std::isxdigit(key[i]) || !std::isxdigit(key[i + 1])) return TEEC_ERROR_BAD_FORMAT;
        const char pair[3] = {static_cast<char>(key[i]), static_cast<char>(key[i + 1]), 0};
        der.push_back(static_cast<uint8_t>(std::strtoul(pair, nullptr, 16)));
    }
    return checkRsaPublicKey(der);
}

}  // namespace

TaResult SecureProcessorTa::invoke(uint32_t command, TaOperation& operation) {
    if (!isOneBlock(operation)) return {TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_TRUSTED_APP};
    if (const auto planted =
            plantedFault(PlantedTa::kSecureProcessor, command, operation.params[0]))
        return *planted;
    return dispatch(*this, kHandlers, command, operation.params[0]);
}

TEEC_Result SecureProcessorTa::setAnswer(uint32_t item, const Bytes& value) {
    const ItemRule* rule = ruleOf(item);
    if (!rule || !rule->settable || value.size() > rule->maxSize ||
        value.size() % rule->sizeStep != 0)
        return TEEC_ERROR_BAD_PARAMETERS;
    return storage_.writeItem(rule->item, value);
}

TEEC_Result SecureProcessorTa::read(Item item, Bytes& value) {
    const TEEC_Result result = storage_.readItem(item, value);
    const ItemRule* rule = ruleOf(item);
    if (result == TEEC_SUCCESS) {
        // A stored value must still have the shape it was stored with.
        const bool fits = rule->settable
                              ? value.size() <= rule->maxSize && value.size() % rule->sizeStep == 0
                              : item != kAkKey || value.size() == kAkKeyTextSize;
        return fits ? TEEC_SUCCESS : TEEC_ERROR_BAD_STATE;
    }
    if (result != TEEC_ERROR_ITEM_NOT_FOUND) return result;
    if (!rule->settable) return result;  // provisioned state has no default
    value = rule->fallback;
    return TEEC_SUCCESS;
}

TEEC_Result SecureProcessorTa::checkZelAk(RequestFields& in, wsm::Writer&) {
    const Bytes key = in.sizedBlob();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    if (key.size() != kAkKeyTextSize) return TEEC_ERROR_BAD_PARAMETERS;
    Bytes provisioned;
    const TEEC_Result result = read(kAkKey, provisioned);
    if (result != TEEC_SUCCESS) return result;
    return key == provisioned ? TEEC_SUCCESS : TEEC_ERROR_SECURITY;
}

TEEC_Result SecureProcessorTa::akProvision(RequestFields& in, wsm::Writer&) {
    const Bytes key = in.sizedBlob();
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    TEEC_Result result = checkAkKeyText(key);
    // A new key is not bound to RPMB until it is provisioned there again.
    if (result == TEEC_SUCCESS) result = storage_.eraseItem(kRpmbProvisioned);
    return result != TEEC_SUCCESS ? result : storage_.writeItem(kAkKey, key);
}

TEEC_Result SecureProcessorTa::akProvisionRPMB(RequestFields& in, wsm::Writer&) {
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    Bytes key;
    const TEEC_Result result = read(kAkKey, key);
    return result != TEEC_SUCCESS ? result : storage_.writeItem(kRpmbProvisioned, {});
}

TEEC_Result SecureProcessorTa::getPublicKeyStatus(RequestFields& in, wsm::Writer&) {
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    Bytes key;
    return read(kAkKey, key);
}

TEEC_Result SecureProcessorTa::getInfo(RequestFields& in, wsm::Writer& out) {
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    Bytes version;
    const TEEC_Result result = read(kSystemVersion, version);
    return result != TEEC_SUCCESS ? result : replyBuffer(out, version);
}

TEEC_Result SecureProcessorTa::getAppInfo(RequestFields& in, wsm::Writer& out) {
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    Bytes version;
    const TEEC_Result result = read(kAppVersion, version);
    return result != TEEC_SUCCESS ? result : replyBuffer(out, version);
}

TEEC_Result SecureProcessorTa::applyUpdate(RequestFields& in, Bytes& record) {
    in.integer();  // the caller's parameter, passed on to the firmware unread
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    return read(kUpdateResult, record);
}

TEEC_Result SecureProcessorTa::updateFW(RequestFields& in, wsm::Writer&) {
    Bytes record;
    const TEEC_Result result = applyUpdate(in, record);
    if (result != TEEC_SUCCESS) return result;
    // Without a report, the outcome is the result itself: success only when both codes are 0.
    return allZero(record) ? TEEC_SUCCESS : TEEC_ERROR_GENERIC;
}

TEEC_Result SecureProcessorTa::updateFWWithReport(RequestFields& in, wsm::Writer& out) {
    Bytes record, system, app;
    TEEC_Result result = applyUpdate(in, record);
    if (result == TEEC_SUCCESS) result = read(kSystemVersion, system);
    if (result == TEEC_SUCCESS) result = read(kAppVersion, app);
    if (result != TEEC_SUCCESS) return result;
    // The record goes as a bare 8-byte blob: the report has no length field in front of it.
    const bool written = out.put(wsm::kBlob, record.data(), static_cast<uint32_t>(record.size()));
    if (!written) return TEEC_ERROR_SHORT_BUFFER;
    result = replyBuffer(out, system);
    return result != TEEC_SUCCESS ? result : replyBuffer(out, app);
}

TEEC_Result SecureProcessorTa::selfTestAll(RequestFields& in, wsm::Writer&) {
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    Bytes hack;
    const TEEC_Result result = read(kHackStatus, hack);
    if (result != TEEC_SUCCESS) return result;
    return allZero(hack) ? TEEC_SUCCESS : TEEC_ERROR_SECURITY;
}

TEEC_Result SecureProcessorTa::getHackInfo(RequestFields& in, wsm::Writer& out) {
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    Bytes hack;
    const TEEC_Result result = read(kHackStatus, hack);
    if (result != TEEC_SUCCESS) return result;
    if (!out.putInt(static_cast<int32_t>(hack.size())) ||
        !out.put(wsm::kBlob, hack.data(), static_cast<uint32_t>(hack.size())))
        return TEEC_ERROR_SHORT_BUFFER;
    return TEEC_SUCCESS;
}

TEEC_Result SecureProcessorTa::getFWInfo(RequestFields& in, wsm::Writer& out) {
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    Bytes words;
    const TEEC_Result result = read(kFirmwareWords, words);
    if (result != TEEC_SUCCESS) return result;
    // The length field counts words, not bytes.
    if (!out.putUint(static_cast<uint32_t>(words.size() / 4)) ||
        !out.put(wsm::kBlob, words.data(), static_cast<uint32_t>(words.size())))
        return TEEC_ERROR_SHORT_BUFFER;
    return TEEC_SUCCESS;
}

TEEC_Result SecureProcessorTa::forceRecovery(RequestFields& in, wsm::Writer&) {
    return in.complete() ? TEEC_SUCCESS : TEEC_ERROR_BAD_FORMAT;
}

TEEC_Result SecureProcessorTa::forceRecoverySP(RequestFields& in, wsm::Writer&) {
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    // Recovery restores the secure processor's firmware, which clears a reported hack.
    return storage_.eraseItem(kHackStatus);
}

TEEC_Result SecureProcessorTa::removeAkKeys(RequestFields& in, wsm::Writer&) {
    if (!in.complete()) return TEEC_ERROR_BAD_FORMAT;
    const TEEC_Result result = storage_.eraseItem(kRpmbProvisioned);
    return result != TEEC_SUCCESS ? result : storage_.eraseItem(kAkKey);
}

TrustedApp& addSecureProcessorTa(TaRegistry& registry, SecureProcessorTa& secureProcessor) {
    return registry.add(zel_test_a, "secure processor",
                        [&secureProcessor](uint32_t command, TaOperation& operation) {
                            return secureProcessor.invoke(command, operation);
                        });
}

}  // namespace zel::vault
