#include "plan/interruption.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace zel::tc::interruption {

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

volatile sig_atomic_t caughtSignal = 0;
int wakePipe[2] = {-1, -1};

void onSignal(int signal) {
    if (caughtSignal == 0) caughtSignal = signal;
    const int saved = errno;
    const char byte = 1;
    // Non-blocking: a full pipe already wakes its reader.
    [[maybe_unused]] const ssize_t written = write(wakePipe[1], &byte, 1);
    errno = saved;
}

}  // namespace

void install() {
    if (wakePipe[0] >= 0) return;
    if (pipe2(wakePipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: a blocking wait returns EINTR and looks at caught().
    for (const int signal : kSignals) sigaction(signal, &action, nullptr);
}

int caught() {
    return caughtSignal;
}

int wakeFd() {
    return wakePipe[0];
}

void inChild() {
    for (const int signal : kSignals) ::signal(signal, SIG_DFL);
    if (wakePipe[0] >= 0) {
        close(wakePipe[0]);
        close(wakePipe[1]);
        wakePipe[0] = wakePipe[1] = -1;
    }
    // A zel-tc killed with SIGKILL cannot stop its step; the step stops itself.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

std::string signalName(int signal) {
    const char* abbreviation = sigabbrev_np(signal);
    return abbreviation ? std::string("SIG") + abbreviation : "signal " + std::to_string(signal);
}

}  // namespace zel::tc::interruption
