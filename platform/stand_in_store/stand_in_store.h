// The key-value source behind the host stand-ins of the device's configuration store and
// system-information service, and the ledger of the strings they hand out.
//
// A lookup reads the service's in-process table first (set by a test), then the file named by the
// service's environment variable, read anew on every lookup so that a person can edit it between
// calls: one "key=value" per line, the value running to the end of the line, blank lines and lines
// starting with '#' skipped. All functions are thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zel::stand_in {

enum class Service { kConfig, kSystemInfo };

// The environment variable that names a service's file: ZEL_VCONF_FILE, ZEL_SYSTEM_INFO_FILE.
const char* fileVariable(Service service);

void setValue(Service service, const std::string& key, const std::string& value);
void removeValue(Service service, const std::string& key);
void clearValues(Service service);
std::optional<std::string> findValue(Service service, const std::string& key);

// A malloc'ed, NUL-terminated copy of value that the receiver releases with free(); null when
// malloc fails. The copy stays on the ledger until noteFree is told of it.
char* handOut(const std::string& value);

// For a free() interposer: takes pointer off the ledger and returns true when it is an outstanding
// string of ours; anything else is left alone.
bool noteFree(const void* pointer);

struct Ledger {
    uint32_t handedOut;  // strings given out since the last reset
    uint32_t freed;      // of those, released through free()
    bool operator==(const Ledger& other) const {
        return handedOut == other.handedOut && freed == other.freed;
    }
};
Ledger ledger();
void resetLedger();

}  // namespace zel::stand_in
