// What one TA command costs through the host TEE: a whole command as the library makes it (context,
// session, 8 KiB block, one invocation, release), and one invocation over an open session.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <iostream>

#include "daemon_launcher.h"
#include "interface/zel_ta_ids.h"
#include "transport/zel_tee_client.h"

namespace {

// The library logs a line per connection; keep stdout for the benchmark's own report.
class QuietStdout {
  public:
    QuietStdout() : saved_(std::cout.rdbuf(nullptr)) {}
    ~QuietStdout() { std::cout.rdbuf(saved_); }

  private:
    std::streambuf* saved_;
};

void BM_WholeCommand(benchmark::State& state) {
    QuietStdout quiet;
    for (auto _ : state) {
        ZELTEEClient client;
        client.Open(zel_test);
        benchmark::DoNotOptimize(client.InvokeCommand(0));
    }
}
BENCHMARK(BM_WholeCommand);

void BM_InvokeOverOpenSession(benchmark::State& state) {
    QuietStdout quiet;
    ZELTEEClient client;
    if (!client.Open(zel_test)) state.SkipWithError("no TEE");
    for (auto _ : state) benchmark::DoNotOptimize(client.InvokeCommand(0));
}
BENCHMARK(BM_InvokeOverOpenSession);

}  // namespace

int main(int argc, char** argv) {
    std::string error;
    auto daemon = zel::vault::VaultDaemon::start({}, error);
    if (!daemon) {
        std::cerr << error << std::endl;
        return 1;
    }
    setenv("ZEL_TEE_SOCKET", daemon->socketPath().c_str(), 1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
