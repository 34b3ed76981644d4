// SIGINT, SIGTERM and SIGHUP during a run: the first one is recorded and wakes whoever waits on
// wakeFd(), so that the running step is stopped, the reports written with what finished and the
// private daemon stopped, instead of zel-tc dying with all of that left behind.
#pragma once

#include <string>

namespace zel::tc::interruption {

// Installs the handlers; calls after the first do nothing.
void install();
// The signal that interrupted the run, 0 while none did.
int caught();
// Readable once a signal was caught; -1 before install().
int wakeFd();
// In a forked step: the default dispositions again, and death with zel-tc should it be killed
// outright.
void inChild();
// "SIGINT", "SIGTERM", "SIGHUP".
std::string signalName(int signal);

}  // namespace zel::tc::interruption
