// HOST ONLY. Where zel-tc fuzz and replay get a TEE on the host: a private zel-vaultd started
// for the run (unless --socket names one), made the default TEE through ZEL_TEE_SOCKET. This is
// the one place the fuzzer touches the host TEE; a device build has no such file and fuzzes the
// platform's default TEE, with nothing to restart.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

namespace zel::tc::fuzz {

struct HostTeeOptions {
    std::string socket;  // a daemon already listening; empty: start a private one
    std::string vaultd;
};

void addHostTeeOptions(CLI::App& command, HostTeeOptions& options);

// Starts afresh the TEE that openHostTee made the default one (empty state, TAs alive), false
// with a message when it cannot.
using RestartTee = std::function<bool(std::string& error)>;

// Makes the TEE the default one. restart is left empty for a daemon given with --socket: it is
// not zel-tc's to restart.
bool openHostTee(const HostTeeOptions& options, RestartTee& restart, std::string& error);

}  // namespace zel::tc::fuzz
