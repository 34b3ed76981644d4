// "zel-tc bench": the latency of chosen steps or raw TA commands, each run N times or for S
// seconds in a process of its own: p50/p90/p99/max and commands per second, a JSON report, and
// with --baseline a verdict against an earlier report.
#pragma once

#include <CLI/CLI.hpp>

namespace zel::tc {

// exitCode receives 0 when every run passed and no step regressed, 1 otherwise, 2 for a usage
// error (found before anything runs).
void addBenchCommand(CLI::App& app, int& exitCode);

}  // namespace zel::tc
