// zel-tc fuzz and zel-tc replay: the subcommands and their options.
#pragma once

#include <CLI/CLI.hpp>

namespace zel::tc {

// Registers both subcommands; each sets exitCode when it has run.
void addFuzzCommands(CLI::App& app, int& exitCode);

}  // namespace zel::tc
