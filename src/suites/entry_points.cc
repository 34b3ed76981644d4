#include "suites/entry_points.h"

#include "interface/zel_ta_ids.h"
#include "managers/ca_manager_sp.h"
#include "transport/log_line.h"
#include "transport/zel_tee_client.h"

using zel::logLine;

extern "C" int test_lifetime() {
    ZELTEEClient client;
    client.Open(zel_test);
    const TEEC_Result result = client.InvokeCommand(zel::kLifecycleCommand);
    logLine("Tessaril test_lifetime TEST CA RESULT : ", result);
    return static_cast<int>(result);
}

extern "C" int test_process_inspection() {
    logLine("START TEST PROCESS INSPECTION");
    CaManagerSp manager(static_cast<int>(zel::cmd::zel_selfTestAll));
    const bool passed = manager.SendDataToZel() == 0;
    logLine(passed ? "[SUCCESS] TEST PROCESS INSPECTION" : "[FAIL] TEST PROCESS INSPECTION");
    logLine("END TEST PROCESS INSPECTION");
    return passed ? 1 : 0;
}

extern "C" void test_get_info() {
    CaManagerSp manager(static_cast<int>(zel::cmd::zel_getInfo));
    logLine(manager.SendDataToZel() == 0 ? "test_get_info successfully completed"
                                         : "test_get_info error");
}
