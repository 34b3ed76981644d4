// Starts zel-vaultd as a child process and waits, without sleeping, until it listens. The object
// owns the child: destruction stops it (SIGTERM, then SIGKILL if it does not go) and removes the
// private directory that was made for its socket.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace zel::vault {

class VaultDaemon {
  public:
    struct Options {
        std::string executable;  // empty: zel-vaultd beside this program, else on PATH
        std::string socketPath;  // empty: a new private directory under $TMPDIR or /tmp
        bool control = false;
        std::vector<std::string> extraArguments;
        bool ownSession = false;  // in a session of its own, apart from the caller's terminal
        // A program (with its arguments) the daemon is run through, such as setpriv.
        std::vector<std::string> wrapper = {};
    };

    // Null with a message in error when the daemon could not be started or did not get ready.
    static std::unique_ptr<VaultDaemon> start(const Options& options, std::string& error);
    ~VaultDaemon();
    VaultDaemon(const VaultDaemon&) = delete;
    VaultDaemon& operator=(const VaultDaemon&) = delete;

    const std::string& socketPath() const { return socketPath_; }
    pid_t pid() const { return pid_; }
    // SIGTERM and wait; true when the daemon exited cleanly with status 0.
    bool stop();
    // SIGKILL and wait: the daemon dies without cleaning up.
    void kill();
    // Leaves the daemon running on its own: this object forgets it, and its socket (with the
    // directory made for it) stays. Returns its process id.
    pid_t release();

  private:
    VaultDaemon() = default;
    int wait(int milliseconds);  // the wait status, or -1 if still running
    pid_t pid_ = -1;
    std::string socketPath_;
    std::string privateDirectory_;
};

// zel-vaultd beside the running program if there is one, else the bare name (found on PATH).
std::string defaultVaultdPath();

// What this build's programs are started through when one starts another: empty natively, the
// emulator in a cross build that is tested on the build machine (ZEL_LAUNCH_EMULATOR), where a
// foreign program cannot be exec'd directly without binfmt_misc.
std::string programEmulator();

}  // namespace zel::vault
