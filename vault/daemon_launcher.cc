#include "daemon_launcher.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "unique_fd.h"

extern char** environ;

namespace zel::vault {

namespace {

constexpr int kReadyTimeoutMs = 10000;
constexpr int kStopTimeoutMs = 5000;
constexpr int kReadyFdInChild = 3;
constexpr const char* kPrefix = "zel-vault-";
constexpr const char* kLockName = "/owner.lock";
// A lock file younger than this may be between its making and its locking.
constexpr time_t kStaleAfterSeconds = 2;

std::string temporaryRoot() {
    const char* tmp = std::getenv("TMPDIR");
    return tmp && *tmp ? tmp : "/tmp";
}

bool answers(const std::string& socketPath) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return fd &&
           connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

std::string describeStatus(int status) {
    if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return "was killed by signal " + std::to_string(WTERMSIG(status));
    return "stopped";
}

}  // namespace

std::string defaultVaultdPath() {
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length > 0) {
        std::string beside(self, static_cast<size_t>(length));
        beside = beside.substr(0, beside.find_last_of('/') + 1) + "zel-vaultd";
        if (access(beside.c_str(), X_OK) == 0) return beside;
    }
    return "zel-vaultd";
}

std::string programEmulator() {
#ifdef ZEL_LAUNCH_EMULATOR
    return ZEL_LAUNCH_EMULATOR;
#else
    return {};
#endif
}

std::unique_ptr<VaultDaemon> VaultDaemon::start(const Options& options, std::string& error) {
    std::unique_ptr<VaultDaemon> daemon(new VaultDaemon);
    daemon->socketPath_ = options.socketPath;
    if (options.dieWithParent) removeStalePrivateDirectories();
    if (daemon->socketPath_.empty()) {
        std::string pattern = temporaryRoot() + "/" + kPrefix + "XXXXXX";
        if (!mkdtemp(pattern.data())) {
            error = "cannot make a private directory: " + std::string(std::strerror(errno));
            return nullptr;
        }
        daemon->privateDirectory_ = pattern;
        daemon->socketPath_ = pattern + "/socket";
        daemon->lockFd_ =
            open((pattern + kLockName).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (daemon->lockFd_ >= 0) flock(daemon->lockFd_, LOCK_EX | LOCK_NB);
    }

    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        error = "pipe: " + std::string(std::strerror(errno));
        return nullptr;
    }
    UniqueFd readyRead(pipeFds[0]), readyWrite(pipeFds[1]);

    const std::string executable =
        options.executable.empty() ? defaultVaultdPath() : options.executable;
    std::vector<std::string> arguments = {executable, "--socket", daemon->socketPath_, "--ready-fd",
                                          std::to_string(kReadyFdInChild)};
    const std::string emulator = programEmulator();
    if (!emulator.empty()) arguments.insert(arguments.begin(), emulator);
    arguments.insert(arguments.begin(), options.wrapper.begin(), options.wrapper.end());
    if (options.control) arguments.push_back("--control");
    if (options.dieWithParent) {
        arguments.push_back("--die-with-parent");
        arguments.push_back(std::to_string(getpid()));
    }
    arguments.insert(arguments.end(), options.extraArguments.begin(), options.extraArguments.end());
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);

    // The daemon's own stdout stays out of the caller's: that stream belongs to the library.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, readyWrite.get(), kReadyFdInChild);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    UniqueFd log;
    if (!options.logPath.empty()) {
        // The log lies beside the socket, whose folder the daemon makes (private) only later.
        const std::string folder = options.logPath.substr(0, options.logPath.find_last_of('/'));
        if (options.logPath.find('/') != std::string::npos && !folder.empty())
            mkdir(folder.c_str(), 0700);
        log.reset(open(options.logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
        if (!log) {
            error = "cannot write " + options.logPath + ": " + std::strerror(errno);
            posix_spawn_file_actions_destroy(&actions);
            return nullptr;
        }
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, log.get(), STDERR_FILENO);
        posix_spawn_file_actions_addclosefrom_np(&actions, kReadyFdInChild + 1);
    }
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    if (options.ownSession) posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    const int spawned =
        posix_spawnp(&daemon->pid_, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    readyWrite.reset();
    if (spawned != 0) {
        daemon->pid_ = -1;
        error = "cannot start " + executable + ": " + std::strerror(spawned);
        return nullptr;
    }

    pollfd ready{readyRead.get(), POLLIN, 0};
    char line[16] = {};
    int polled;
    do polled = poll(&ready, 1, kReadyTimeoutMs);
    while (polled < 0 && errno == EINTR);
    const ssize_t got = polled > 0 ? read(readyRead.get(), line, sizeof line - 1) : -1;
    if (got <= 0 || std::strncmp(line, "ready", 5) != 0) {
        const int status = daemon->wait(got == 0 ? kStopTimeoutMs : 0);  // 0: it closed the pipe
        error = executable + (status >= 0 ? " " + describeStatus(status) + " before listening"
                                          : " did not get ready");
        return nullptr;  // the destructor stops whatever is left
    }
    // It closes the pipe right after saying so; once it has, the daemon holds nothing of ours.
    do polled = poll(&ready, 1, kReadyTimeoutMs);
    while ((polled < 0 && errno == EINTR) || (polled > 0 && read(readyRead.get(), line, 1) > 0));
    return daemon;
}

int VaultDaemon::wait(int milliseconds) {
    for (int waited = 0;; waited += 10) {
        int status = 0;
        const pid_t done = waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
            pid_ = -1;
            return status;
        }
        if (done < 0 && errno == ECHILD) {
            pid_ = -1;
            return 0;
        }
        if (waited >= milliseconds) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

bool VaultDaemon::stop() {
    if (pid_ <= 0) return false;
    ::kill(pid_, SIGTERM);
    int status = wait(kStopTimeoutMs);
    if (status < 0) {
        kill();
        return false;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void VaultDaemon::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    wait(kStopTimeoutMs);
}

pid_t VaultDaemon::release() {
    const pid_t pid = pid_;
    pid_ = -1;
    privateDirectory_.clear();
    if (lockFd_ >= 0) close(lockFd_);
    lockFd_ = -1;
    return pid;
}

VaultDaemon::~VaultDaemon() {
    stop();
    if (!privateDirectory_.empty()) {
        unlink(socketPath_.c_str());  // left behind when the daemon was killed
        unlink((privateDirectory_ + kLockName).c_str());
        rmdir(privateDirectory_.c_str());
    }
    if (lockFd_ >= 0) close(lockFd_);
}

int removeStalePrivateDirectories() {
    const std::string root = temporaryRoot();
    DIR* listing = opendir(root.c_str());
    if (!listing) return 0;
    int removed = 0;
    const time_t now = time(nullptr);
    while (const dirent* entry = readdir(listing)) {
        if (std::strncmp(entry->d_name, kPrefix, std::strlen(kPrefix)) != 0) continue;
        const std::string directory = root + "/" + entry->d_name;
        struct stat about {};
        if (lstat(directory.c_str(), &about) != 0 || !S_ISDIR(about.st_mode) ||
            about.st_uid != getuid())
            continue;
        // Only directories made by this launcher carry the lock; anything else is left alone.
        UniqueFd lock(open((directory + kLockName).c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
        if (!lock || fstat(lock.get(), &about) != 0 || now - about.st_mtime < kStaleAfterSeconds ||
            flock(lock.get(), LOCK_EX | LOCK_NB) != 0)
            continue;
        const std::string socketPath = directory + "/socket";
        if (answers(socketPath)) continue;
        unlink(socketPath.c_str());
        unlink((directory + kLockName).c_str());
        removed += rmdir(directory.c_str()) == 0 ? 1 : 0;
    }
    closedir(listing);
    return removed;
}

}  // namespace zel::vault
