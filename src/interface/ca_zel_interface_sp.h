// The secure processor's management commands, one method each, all to the UUID given at
// construction. Every call opens its own connection and closes it before returning.
//
// Results: 0 on success; the TEE's result of a failed invocation, unchanged; 0xFFFF000B when the
// request could not be written or a reply field of the firmware information or hack status is
// missing or empty; 0xFFFF000E when a reply field of ze_updateFW is. Outputs are written into
// storage the caller supplies.
#pragma once

#include <tee_client_api.h>

#include <cstdint>
#include <string>

#include "interface/zel_result.h"
#include "zel_export.h"

class ZEL_TC_API CaZelInterfaceSp {
  public:
    explicit CaZelInterfaceSp(TEEC_UUID uuid);
    ~CaZelInterfaceSp() = default;

    int32_t zel_checkZelAk(unsigned char* key, unsigned int keySize);
    int32_t zel_akProvision(unsigned char* key, unsigned int keySize);
    int32_t zel_akProvisionRPMB();
    int32_t zel_getPublicKeyStatus();
    int32_t zel_getInfo();
    int32_t zel_getAppInfo();
    int32_t zel_updateFW(int param);
    int32_t zel_selfTestAll();
    // Clears the first size bytes of status before sending, then copies min(size, length).
    int32_t zel_getHackInfo(unsigned char* status, int size);
    // Copies min(count, capacity) words; the words beyond are not touched.
    int32_t zel_getFWInfo(unsigned int* info, unsigned int capacity);
    int32_t zel_forceRecovery();
    int32_t zel_forceRecoverySP();
    int32_t zel_removeAkKeys();
    int32_t ze_updateFW(int param, std::string& systemVersion, std::string& appVersion,
                        ZelResult* result);
    int32_t ze_getFWInfo(unsigned int* info, unsigned int capacity);

  private:
    TEEC_UUID uuid;
};
