// "zel-tc vault ...": the control TA of a running zel-vaultd (started with --control) from the
// shell, so that a person can reproduce any failure path by hand.
#pragma once

#include <CLI/CLI.hpp>

namespace zel::tc {

// exitCode receives 0 when the control TA accepted the request, 1 when it refused it, 2 for
// arguments that do not parse.
void addVaultCommands(CLI::App& app, int& exitCode);

}  // namespace zel::tc
