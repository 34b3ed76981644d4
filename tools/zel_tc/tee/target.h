// The one seam between zel-tc's two builds. A host build reaches the host TEE: a private
// zel-vaultd it starts itself, or one named with --socket, and the `vault` verbs that drive the
// daemon's control TA. A device build reaches the platform's default TEE and nothing else, and
// answers the host-only options and verbs with a clear refusal.
#pragma once

#include <CLI/CLI.hpp>

#include <memory>
#include <string>

namespace zel::tc {

// "host" or "device", as the reports name the build.
const char* platformName();

struct TeeTargetOptions {
    std::string socket;  // host: a running daemon's socket; empty: start a private one
    std::string vaultd;  // host: the zel-vaultd to start; empty: the one beside zel-tc
};

// The options of a command that talks to a TEE (run, and what else reaches the TA).
void addTeeTargetOptions(CLI::App& command, TeeTargetOptions& options);

// Makes the TEE reachable through TEEC_InitializeContext(NULL), for this process and the step
// processes it forks, for as long as the object lives (a private daemon stops with it).
class TeeTarget {
  public:
    TeeTarget();
    ~TeeTarget();
    TeeTarget(const TeeTarget&) = delete;
    TeeTarget& operator=(const TeeTarget&) = delete;

    // False with a message when no TEE can be had or an option cannot be honoured here.
    bool open(const TeeTargetOptions& options, std::string& error);
    // Where the steps find the TEE, for the reports: a socket path, or "the platform's default
    // TEE".
    const std::string& where() const { return where_; }
    // Whether restart can bring back a TEE that a finding killed or hung: only a private host
    // daemon is zel-tc's to restart; a named daemon or the device's TEE is not.
    bool canRestart() const;
    // Starts that TEE afresh (empty state, TAs alive); false with a message when it cannot.
    bool restart(std::string& error);

  private:
    struct Held;
    std::unique_ptr<Held> held_;
    std::string where_;
};

// The `vault` verbs. exitCode receives 0 when the request was done, 1 when it was refused, 2 for
// a usage error (and for any of them in a device build).
void addTeeCommands(CLI::App& app, int& exitCode);

}  // namespace zel::tc
