// Starts zel-vaultd as a child process and waits, without sleeping, until it listens. The object
// owns the child: destruction stops it (SIGTERM, then SIGKILL if it does not go) and removes the
// private directory that was made for its socket. A private directory is locked (flock) by its
// owner for as long as it lives, so that one left behind by an owner killed outright is known
// as such and removed by the next owner that starts with dieWithParent.
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
        // The daemon ends itself (SIGTERM) when the process that started it dies, however it
        // dies; and stale private directories of this user are cleaned up first.
        bool dieWithParent = false;
        // Not empty: a daemon that outlives the caller; stdin from /dev/null, stderr appended to
        // this file and no other descriptor of the caller inherited, so that a caller reading
        // its own output through a pipe sees its end.
        std::string logPath = {};
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
    int lockFd_ = -1;  // held while a private directory is in use
};

// Removes this user's private daemon directories under $TMPDIR (or /tmp) whose owner is gone
// and whose socket no daemon answers at. Returns how many.
int removeStalePrivateDirectories();

// zel-vaultd beside the running program if there is one, else the bare name (found on PATH).
std::string defaultVaultdPath();

// What this build's programs are started through when one starts another: empty natively, the
// emulator in a cross build that is tested on the build machine (ZEL_LAUNCH_EMULATOR), where a
// foreign program cannot be exec'd directly without binfmt_misc.
std::string programEmulator();

}  // namespace zel::vault
