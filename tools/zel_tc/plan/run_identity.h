// Who a run tested: the device's identity strings and what the secure processor says of its
// firmware, read once before the first step and written into every report.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace zel::tc {

// Every value is text; a query that failed reads "unavailable".
using RunIdentity = std::vector<std::pair<std::string, std::string>>;

struct IdentityOptions {
    unsigned timeoutSeconds = 120;  // for all of the queries together
    // Also ask the secure processor for its version texts: that is ze_updateFW, which on a device
    // starts a firmware update, so only when the user says so.
    bool firmwareVersions = false;
    int updateParam = 0;  // what ze_updateFW is sent
};

inline constexpr const char* kUnavailable = "unavailable";

// Runs the queries in a child process, so that the library's lines stay out of zel-tc's stdout
// and a TA that hangs costs the timeout, not the run. Never fails: what could not be read is
// recorded as unavailable.
RunIdentity readRunIdentity(const IdentityOptions& options);

// "serial=R3CT model=ZV-1 ..." for zel-tc's line on stderr.
std::string identityLine(const RunIdentity& identity);

}  // namespace zel::tc
