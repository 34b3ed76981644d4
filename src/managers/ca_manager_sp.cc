#include "managers/ca_manager_sp.h"

#include "interface/ca_zel_interface_sp.h"
#include "interface/zel_ta_ids.h"
#include "support/byte_helpers.h"
#include "support/data_place_holder.h"
#include "transport/log_line.h"

using zel::logLine;
namespace cmd = zel::cmd;

namespace {

constexpr unsigned int kPublicKeyTextSize = 540;
constexpr int kFixedVectors = 1;
constexpr int kHackStatusSize = 9;
constexpr unsigned int kFirmwareWords = 10;
constexpr int32_t kGeneric = static_cast<int32_t>(TEEC_ERROR_GENERIC);

// The dispatch of SendDataToZel: one row per scenario, keyed by the command's id.
struct Scenario {
    uint32_t command;
    int32_t (*run)(CaManagerSp&);
};

constexpr Scenario kScenarios[] = {
    {cmd::zel_checkZelAk, [](CaManagerSp& m) { return m.zel_checkZelAk(); }},
    {cmd::zel_akProvision, [](CaManagerSp& m) { return m.zel_akProvision(); }},
    {cmd::zel_akProvisionRPMB, [](CaManagerSp& m) { return m.zel_akProvisionRPMB(); }},
    {cmd::zel_getPublicKeyStatus, [](CaManagerSp& m) { return m.zel_getPublicKeyStatus(); }},
    {cmd::zel_getInfo, [](CaManagerSp& m) { return m.zel_getInfo(); }},
    {cmd::zel_getAppInfo, [](CaManagerSp& m) { return m.zel_getAppInfo(); }},
    {cmd::zel_updateFW, [](CaManagerSp& m) { return m.zel_updateFW(m.param); }},
    {cmd::zel_selfTestAll, [](CaManagerSp& m) { return m.zel_selfTestAll(); }},
    {cmd::zel_getHackInfo, [](CaManagerSp& m) { return m.zel_getHackInfo(); }},
    {cmd::zel_getFWInfo, [](CaManagerSp& m) { return m.zel_getFWInfo(); }},
    {cmd::zel_forceRecovery, [](CaManagerSp& m) { return m.zel_forceRecovery(); }},
    {cmd::zel_forceRecoverySP, [](CaManagerSp& m) { return m.zel_forceRecoverySP(); }},
    {cmd::zel_removeAkKeys, [](CaManagerSp& m) { return m.zel_removeAkKeys(); }},
};

// A plain scenario: its name line, then the command alone.
int32_t plain(const TEEC_UUID& uuid, const char* name, int32_t (CaZelInterfaceSp::*command)()) {
    logLine("CaManagerSp ", name);
    CaZelInterfaceSp secureProcessor(uuid);
    return (secureProcessor.*command)();
}

// A key scenario: the test public key's text, printed, then sent whole.
int32_t withPublicKey(const TEEC_UUID& uuid, const char* name,
                      int32_t (CaZelInterfaceSp::*command)(unsigned char*, unsigned int)) {
    logLine("CaManagerSp ", name);
    unsigned char key[kPublicKeyTextSize];
    if (DataPlaceHolder::fill_zel_publicKey(kFixedVectors, key, kPublicKeyTextSize) != 0)
        return kGeneric;
    logLine("publicKeySize: ", kPublicKeyTextSize);
    logLine("publicKey: ", uint8_to_hex_string(key, kPublicKeyTextSize));
    CaZelInterfaceSp secureProcessor(uuid);
    return (secureProcessor.*command)(key, kPublicKeyTextSize);
}

}  // namespace

CaManagerSp::CaManagerSp(int command) : cmd(command), uuid(zel_test_a) {
    logLine("Ca ManagerSp created");
}

void CaManagerSp::SetCMD(int command) {
    cmd = command;
}

void CaManagerSp::SetPARAM(int value) {
    param = value;
}

void CaManagerSp::SetPARAM2(int value) {
    param2 = value;
}

int32_t CaManagerSp::SendDataToZel() {
    logLine("CA ManagerSp SendDataToZel: ", cmd);
    for (const Scenario& scenario : kScenarios)
        if (scenario.command == static_cast<uint32_t>(cmd)) return scenario.run(*this);
    logLine("SendDataToZel unknown command");
    return kGeneric;
}

int32_t CaManagerSp::zel_checkZelAk() {
    return withPublicKey(uuid, "zel_checkZelAk", &CaZelInterfaceSp::zel_checkZelAk);
}

int32_t CaManagerSp::zel_akProvision() {
    return withPublicKey(uuid, "zel_akProvision", &CaZelInterfaceSp::zel_akProvision);
}

int32_t CaManagerSp::zel_akProvisionRPMB() {
    return plain(uuid, "zel_akProvisionRPMB", &CaZelInterfaceSp::zel_akProvisionRPMB);
}

int32_t CaManagerSp::zel_getPublicKeyStatus() {
    return plain(uuid, "zel_getPublicKeyStatus", &CaZelInterfaceSp::zel_getPublicKeyStatus);
}

int32_t CaManagerSp::zel_getInfo() {
    return plain(uuid, "zel_getInfo", &CaZelInterfaceSp::zel_getInfo);
}

int32_t CaManagerSp::zel_getAppInfo() {
    return plain(uuid, "zel_getAppInfo", &CaZelInterfaceSp::zel_getAppInfo);
}

int32_t CaManagerSp::zel_selfTestAll() {
    return plain(uuid, "zel_selfTestAll", &CaZelInterfaceSp::zel_selfTestAll);
}

int32_t CaManagerSp::zel_forceRecovery() {
    return plain(uuid, "zel_forceRecovery", &CaZelInterfaceSp::zel_forceRecovery);
}

int32_t CaManagerSp::zel_forceRecoverySP() {
    return plain(uuid, "zel_forceRecoverySP", &CaZelInterfaceSp::zel_forceRecoverySP);
}

int32_t CaManagerSp::zel_removeAkKeys() {
    return plain(uuid, "zel_removeAkKeys", &CaZelInterfaceSp::zel_removeAkKeys);
}

int32_t CaManagerSp::zel_updateFW(int parameter) {
    logLine("CaManagerSp zel_updateFW");
    return CaZelInterfaceSp(uuid).zel_updateFW(parameter);
}

int32_t CaManagerSp::zel_getHackInfo() {
    logLine("CaManagerSp zel_getHackInfo");
    unsigned char status[kHackStatusSize] = {};
    const int32_t result = CaZelInterfaceSp(uuid).zel_getHackInfo(status, kHackStatusSize);
    if (result != 0)
        logLine("hack status is not available");
    else
        logLine("hack status: ", uint8_to_hex_string(status, kHackStatusSize));
    return result;
}

int32_t CaManagerSp::zel_getFWInfo() {
    logLine("CaManagerSp zel_getFWInfo");
    // Cleared, so that words the TA did not send print as 0.
    unsigned int info[kFirmwareWords] = {};
    const int32_t result = CaZelInterfaceSp(uuid).zel_getFWInfo(info, kFirmwareWords);
    if (result != 0) {
        logLine("FW info is not available");
        return result;
    }
    logLine("FW info:");
    for (unsigned int i = 0; i < kFirmwareWords; ++i)
        logLine(i, ": ", static_cast<int32_t>(info[i]));
    return 0;
}
