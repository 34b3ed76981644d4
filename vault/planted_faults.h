// Faults planted on purpose in the host TAs, to rate zel-tc fuzz the way bug-injection benchmarks
// rate fuzzers. Built only with the ZEL_PLANTED_FAULTS CMake option (never by default, never in
// a package, refused for the device); without it the hook below is an empty inline function.
//
// The daemon calls the hook just before a vault TA's command, with the request's block; a fault
// that fires answers for the TA (or crashes or hangs the daemon), otherwise the TA serves the
// command as usual. The faults armed are
// those named, comma-separated, in $ZEL_PLANTED_FAULTS as the daemon starts (unset: all of them).
// docs/fuzzing.md lists them.
#pragma once

#include <cstdint>
#include <optional>

#include "trusted_app.h"

namespace zel::vault {

#if ZEL_PLANTED_FAULTS
std::optional<TaResult> plantedFault(const wire::UuidBytes& ta, uint32_t command,
                                     const TaOperation& operation);
#else
inline std::optional<TaResult> plantedFault(const wire::UuidBytes&, uint32_t, const TaOperation&) {
    return std::nullopt;
}
#endif

}  // namespace zel::vault
