// "zel-tc helper NAME ARG...": the library's helpers a harness author wants at a shell, each
// registered once in a table and listed by "zel-tc list".
#pragma once

#include <CLI/CLI.hpp>

namespace zel::tc {

void listHelpers();
// exitCode receives 0 on success, 1 when the helper refused its input, 2 for a usage error.
void addHelperCommands(CLI::App& app, int& exitCode);

}  // namespace zel::tc
