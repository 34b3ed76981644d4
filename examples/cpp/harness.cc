// A harness in C++ over the installed library: stores a slot through the general scenario
// manager, reads it back, runs the secure processor's self-test, and exits non-zero if any of
// them failed. On a host the TEE is the zel-vaultd at $ZEL_TEE_SOCKET.
#include <zel_tc_lib.h>

#include <iostream>

int main() {
    int failed = 0;
    CaManager manager(1, 0, zel_test, 3);  // data type 1, put, the vault TA, slot 3
    failed += manager.SendDataToZel() != 0;
    manager.SetCMD(2);  // get
    failed += manager.SendDataToZel() != 0;
    failed += test_process_inspection() != 1;
    std::cerr << "harness: " << failed << " failed" << std::endl;
    return failed == 0 ? 0 : 1;
}
