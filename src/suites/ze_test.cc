#include "suites/ze_test.h"

#include <iterator>

#include "interface/zel_ta_ids.h"
#include "transport/log_line.h"
#include "transport/zel_tee_client.h"

using zel::logLine;

namespace {

constexpr int32_t kMaxLifecycleFailures = 5;
constexpr int32_t kLifecycleBudget = 1000;

// Sends each command in turn over one session; bit i is set when command i failed. The result
// line is written while the session is still open.
template <size_t N>
uint32_t runMaskSuite(const char* label, const uint32_t (&commands)[N]) {
    ZELTEEClient client;
    client.Open(zel_test);  // a failed Open makes every invocation fail, which is what we report
    uint32_t mask = 0;
    for (size_t i = 0; i < N; ++i)
        if (client.InvokeCommand(commands[i]) != TEEC_SUCCESS) mask |= 1u << i;
    logLine("Tessaril ", label, " TEST CA RESULT : ", mask);
    return mask;
}

}  // namespace

ZETest::ZETest() {
    logLine("Tessaril Test CA created");
}

void ZETest::SetCMD(int selector) {
    cmd = selector;
}

int32_t ZETest::SendCMD() {
    logLine("Tessaril Test CA SendCMD: ", cmd);
    using Suite = int32_t (*)(ZETest&);
    static constexpr Suite kSuites[] = {
        [](ZETest& t) { return t.lifecycle_test(); },
        [](ZETest& t) { return static_cast<int32_t>(t.heavyload_test()); },
        [](ZETest& t) { return static_cast<int32_t>(t.process_test()); },
    };
    const auto selector = static_cast<uint32_t>(cmd);
    if (selector < std::size(kSuites)) return kSuites[selector](*this);
    if (selector >= zel::kFirstBistCommand && selector <= zel::kLastBistCommand)
        return bist_test(cmd);
    logLine("Tessaril Test CA SendCMD unknown command");
    return static_cast<int32_t>(TEEC_ERROR_GENERIC);
}

int32_t ZETest::bist_test(int n) {
    ZELTEEClient client;
    client.Open(zel_test);
    const TEEC_Result result = client.InvokeCommand(static_cast<unsigned int>(n));
    logLine("Tessaril BIST : ", n, " TEST CA RESULT : ", result);
    return static_cast<int32_t>(result);
}

uint32_t ZETest::process_test() {
    return runMaskSuite("PROCESS", zel::kProcessCommands);
}

uint32_t ZETest::heavyload_test() {
    return runMaskSuite("HEAVYLOAD", zel::kHeavyloadCommands);
}

int32_t ZETest::lifecycle_test() {
    ZELTEEClient client;
    client.Open(zel_test);
    int32_t failures = 0;
    for (int32_t sent = 0; sent < kLifecycleBudget && failures < kMaxLifecycleFailures; ++sent)
        if (client.InvokeCommand(zel::kLifecycleCommand) != TEEC_SUCCESS) ++failures;
    logLine("Tessaril LIFECYCLE TEST CA RESULT : ", failures);
    return failures;
}
