#include "suites/entry_points.h"

#include "interface/zel_ta_ids.h"
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
