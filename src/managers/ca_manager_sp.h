// The secure-processor scenario manager: one scenario per management command of the vault's
// secure processor, always talking to zel_test_a. Constructed with a command number (the TA
// command id); SendDataToZel runs that scenario and returns the command's result.
#pragma once

#include <tee_client_api.h>

#include <cstdint>

#include "zel_export.h"

class ZEL_TC_API CaManagerSp {
  public:
    explicit CaManagerSp(int cmd);
    ~CaManagerSp() = default;

    void SetCMD(int command);
    // The firmware update's parameter; 0 until set.
    void SetPARAM(int value);
    // Kept for the harness; no scenario reads it.
    void SetPARAM2(int value);
    int32_t SendDataToZel();

    int32_t zel_checkZelAk();
    int32_t zel_akProvision();
    int32_t zel_akProvisionRPMB();
    int32_t zel_getPublicKeyStatus();
    int32_t zel_getInfo();
    int32_t zel_getAppInfo();
    int32_t zel_updateFW(int parameter);
    int32_t zel_selfTestAll();
    int32_t zel_getHackInfo();
    int32_t zel_getFWInfo();
    int32_t zel_forceRecovery();
    int32_t zel_forceRecoverySP();
    int32_t zel_removeAkKeys();

    int32_t cmd;
    int32_t param = 0;
    int32_t param2 = 0;
    TEEC_UUID uuid;
};
