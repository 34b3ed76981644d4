#include "support/device_identity.h"

#include <vconf.h>

#include <cstdlib>

#include "transport/log_line.h"

using zel::logLine;

namespace {

constexpr char kSerialNumberKey[] = "db/comss/serialnumber";

// The platform allocates every string it hands out and leaves releasing it to us, once.
std::string takePlatformString(char* value) {
    std::string copy(value);
    std::free(value);
    return copy;
}

}  // namespace

std::string GetSerialNumber() {
    char* value = vconf_get_str(kSerialNumberKey);
    if (value == nullptr) {
        logLine("GetSerialNumber from vconf error");
        return {};
    }
    return takePlatformString(value);
}

std::string GetSysInfoStringValue(system_info_key_e key) {
    char* value = nullptr;
    // After a failed call value is not ours, whatever it holds: it is neither read nor freed.
    if (system_info_get_value_string(key, &value) != 0 || value == nullptr) {
        logLine("Failed to read string option");
        return {};
    }
    return takePlatformString(value);
}
