// The general scenario manager: one test scenario per general command of the vault TA. Constructed
// with a data type (0 random, 1 and 2 the fixed vector sets), a command number, the TA's UUID and
// a slot index; SendDataToZel runs the scenario of the command number, prints its inputs, the
// command's own lines and its outputs, and returns the command's result. Buffers the commands hand
// out are freed by the scenarios.
#pragma once

#include <tee_client_api.h>

#include <cstdint>

#include "zel_export.h"

class ZEL_TC_API CaManager {
  public:
    CaManager(int dataType, int cmd, TEEC_UUID uuid, int index);
    ~CaManager() = default;

    void SetCMD(int command);
    int32_t SendDataToZel();

    int32_t zel_put();
    int32_t zel_get();
    int32_t zel_delete();
    int32_t zel_deleteKey();
    int32_t zel_checkDataExistence();
    int32_t zel_storeKey();
    int32_t zel_getHash();
    int32_t zel_openSession();
    int32_t zel_generateKey();
    int32_t zel_getSlotInfo();

    int32_t zel_compareData();
    int32_t zel_aesEncrypt();
    int32_t zel_aesDecrypt();
    int32_t zel_getCMACwithHubToken();
    int32_t zel_getCmacKey();
    int32_t zel_getHubID();
    int32_t zel_genAuthKey();
    int32_t zel_decryptHubToken();
    int32_t zel_ecdsaCreateSignature();
    int32_t zel_decryptByKey();

  private:
    int32_t dataType;
    int32_t cmd;
    TEEC_UUID uuid;
    int32_t index;
};
