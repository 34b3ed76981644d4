#include "interface/ca_zel_interface_sp.h"

#include <algorithm>
#include <cstring>

#include "interface/command_call.h"
#include "interface/zel_ta_ids.h"
#include "support/byte_helpers.h"
#include "transport/log_line.h"

using zel::CommandCall;
using zel::logLine;
using zel::WsmField;
namespace cmd = zel::cmd;

namespace {

constexpr int32_t kNoData = static_cast<int32_t>(TEEC_ERROR_NO_DATA);
constexpr int32_t kCommunication = static_cast<int32_t>(TEEC_ERROR_COMMUNICATION);
// The largest word count whose byte size still fits in 32 bits.
constexpr unsigned int kMaxWordCount = 0x3FFFFFFF;

CommandCall spCall(const TEEC_UUID& uuid, const char* name, uint32_t commandId,
                   std::initializer_list<WsmField> request = {}, bool readsReply = false) {
    return CommandCall(zel::kSecureProcessorFamily, name, uuid, commandId, false, request,
                       readsReply);
}

// The firmware information under either of its two ids; both print the same name.
int32_t readFirmwareWords(const TEEC_UUID& uuid, uint32_t commandId, unsigned int* info,
                          unsigned int capacity) {
    CommandCall call = spCall(uuid, "zel_getFWInfo", commandId, {}, true);
    if (call.status() != 0) return call.status();
    CQeruWsm& reply = call.reply();
    unsigned int count = 0;
    if (!reply.GetUint(&count) || count == 0 || count > kMaxWordCount) return kNoData;
    const unsigned char* words = reply.GetBlob(count * 4);
    if (!words) return kNoData;
    const unsigned int copied = std::min(count, capacity);
    if (copied != 0) std::memcpy(info, words, copied * sizeof(unsigned int));
    return 0;
}

// One length-prefixed version text of the firmware-update reply; false after its message.
bool readVersion(CQeruWsm& reply, std::string& text, const char* sizeError, const char* blobError) {
    unsigned int size = 0;
    if (!reply.GetUint(&size) || size == 0) {
        logLine(sizeError);
        return false;
    }
    unsigned char* bytes = reply.GetBlob(size);
    if (!bytes) {
        logLine(blobError);
        return false;
    }
    text = convertToString(reinterpret_cast<char*>(bytes), static_cast<int>(size));
    return true;
}

}  // namespace

CaZelInterfaceSp::CaZelInterfaceSp(TEEC_UUID ta) : uuid(ta) {}

int32_t CaZelInterfaceSp::zel_checkZelAk(unsigned char* key, unsigned int keySize) {
    return spCall(uuid, "zel_checkZelAk", cmd::zel_checkZelAk,
                  {WsmField::Uint(keySize), WsmField::Blob(key, keySize)})
        .status();
}

int32_t CaZelInterfaceSp::zel_akProvision(unsigned char* key, unsigned int keySize) {
    return spCall(uuid, "zel_akProvision", cmd::zel_akProvision,
                  {WsmField::Uint(keySize), WsmField::Blob(key, keySize)})
        .status();
}

int32_t CaZelInterfaceSp::zel_akProvisionRPMB() {
    return spCall(uuid, "zel_akProvisionRPMB", cmd::zel_akProvisionRPMB).status();
}

int32_t CaZelInterfaceSp::zel_getPublicKeyStatus() {
    return spCall(uuid, "zel_getPublicKeyStatus", cmd::zel_getPublicKeyStatus).status();
}

int32_t CaZelInterfaceSp::zel_getInfo() {
    return spCall(uuid, "zel_getInfo", cmd::zel_getInfo).status();
}

int32_t CaZelInterfaceSp::zel_getAppInfo() {
    return spCall(uuid, "zel_getAppInfo", cmd::zel_getAppInfo).status();
}

int32_t CaZelInterfaceSp::zel_updateFW(int param) {
    return spCall(uuid, "zel_updateFW", cmd::zel_updateFW, {WsmField::Int(param)}).status();
}

int32_t CaZelInterfaceSp::zel_selfTestAll() {
    return spCall(uuid, "zel_selfTestAll", cmd::zel_selfTestAll).status();
}

int32_t CaZelInterfaceSp::zel_forceRecovery() {
    return spCall(uuid, "zel_forceRecovery", cmd::zel_forceRecovery).status();
}

int32_t CaZelInterfaceSp::zel_forceRecoverySP() {
    return spCall(uuid, "zel_forceRecoverySP", cmd::zel_forceRecoverySP).status();
}

int32_t CaZelInterfaceSp::zel_removeAkKeys() {
    return spCall(uuid, "zel_removeAkKeys", cmd::zel_removeAkKeys).status();
}

int32_t CaZelInterfaceSp::zel_getFWInfo(unsigned int* info, unsigned int capacity) {
    return readFirmwareWords(uuid, cmd::zel_getFWInfo, info, capacity);
}

int32_t CaZelInterfaceSp::ze_getFWInfo(unsigned int* info, unsigned int capacity) {
    return readFirmwareWords(uuid, cmd::ze_getFWInfo, info, capacity);
}

int32_t CaZelInterfaceSp::zel_getHackInfo(unsigned char* status, int size) {
    // Cleared before anything is sent, so the caller sees zeros whatever happens next.
    if (size > 0) std::memset(status, 0, static_cast<size_t>(size));
    CommandCall call = spCall(uuid, "zel_getHackInfo", cmd::zel_getHackInfo, {}, true);
    if (call.status() != 0) return call.status();
    CQeruWsm& reply = call.reply();
    int length = 0;
    if (!reply.GetInt(&length) || length <= 0) return kNoData;
    const unsigned char* bytes = reply.GetBlob(static_cast<unsigned int>(length));
    if (!bytes) return kNoData;
    const int copied = std::min(size, length);
    if (copied > 0) std::memcpy(status, bytes, static_cast<size_t>(copied));
    return 0;
}

int32_t CaZelInterfaceSp::ze_updateFW(int param, std::string& systemVersion,
                                      std::string& appVersion, ZelResult* result) {
    CommandCall call = spCall(uuid, "ze_updateFW", cmd::ze_updateFW, {WsmField::Int(param)}, true);
    if (call.failedAt() == CommandCall::Step::kInvoke) logLine("InvokeCommand error");
    if (call.status() != 0) return call.status();
    CQeruWsm& reply = call.reply();
    const unsigned char* record = reply.GetBlob(sizeof(ZelResult));
    if (!record) {
        logLine("Error GetBlob ZelResult");
        return kCommunication;
    }
    std::memcpy(result, record, sizeof(ZelResult));
    std::string system, app;
    if (!readVersion(reply, system, "GetUint() system_ver_size error",
                     "GetBlob() system_version_buf error") ||
        !readVersion(reply, app, "GetUint() app_ver_size error", "GetBlob() app_version_buf error"))
        return kCommunication;
    systemVersion = system;
    appVersion = app;
    return 0;
}
