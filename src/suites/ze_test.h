// The raw-command suites: TA commands of the vault TA sent by number with an empty request, each
// suite over one session, reported as one result line and one summarising number.
#pragma once

#include <cstdint>

#include "zel_export.h"

class ZEL_TC_API ZETest {
  public:
    ZETest();
    ~ZETest() = default;

    void SetCMD(int selector);
    // 0 lifecycle, 1 heavy load, 2 process, 3 to 17 BIST of that command; anything else is
    // reported as unknown and answered with TEEC_ERROR_GENERIC.
    int32_t SendCMD();

    int32_t bist_test(int n);
    uint32_t process_test();
    uint32_t heavyload_test();
    int32_t lifecycle_test();

  private:
    int32_t cmd = -1;  // unknown until SetCMD
};
