// The system-information service of a host: system_info_get_value_string over the stand-ins'
// key-value source.
#include <system_info.h>

#include <iterator>
#include <mutex>
#include <optional>
#include <utility>

#include "stand_in_store.h"
#include "system_info_stand_in.h"

namespace zel::stand_in {

namespace {

constexpr const char* kKeyNames[] = {
    "model",             // SYSTEM_INFO_KEY_MODEL
    "manufacturer",      // SYSTEM_INFO_KEY_MANUFACTURER
    "platform_name",     // SYSTEM_INFO_KEY_PLATFORM_NAME
    "platform_version",  // SYSTEM_INFO_KEY_PLATFORM_VERSION
    "build_string",      // SYSTEM_INFO_KEY_BUILD_STRING
    "build_date",        // SYSTEM_INFO_KEY_BUILD_DATE
};
static_assert(std::size(kKeyNames) == SYSTEM_INFO_KEY_BUILD_DATE + 1, "one name per key");

std::mutex scriptMutex;
std::optional<int> scriptedAnswer;  // armed by answerNextSystemInfoCall, used once

std::optional<int> takeScriptedAnswer() {
    std::lock_guard<std::mutex> lock(scriptMutex);
    return std::exchange(scriptedAnswer, std::nullopt);
}

}  // namespace

const char* systemInfoKeyName(system_info_key_e key) {
    const auto index = static_cast<unsigned int>(key);
    return index < std::size(kKeyNames) ? kKeyNames[index] : nullptr;
}

void setSystemInfoValue(system_info_key_e key, const std::string& value) {
    if (const char* name = systemInfoKeyName(key)) setValue(Service::kSystemInfo, name, value);
}

void removeSystemInfoValue(system_info_key_e key) {
    if (const char* name = systemInfoKeyName(key)) removeValue(Service::kSystemInfo, name);
}

void answerNextSystemInfoCall(int result) {
    std::lock_guard<std::mutex> lock(scriptMutex);
    scriptedAnswer = result;
}

}  // namespace zel::stand_in

int system_info_get_value_string(system_info_key_e key, char** value) {
    using namespace zel::stand_in;
    if (const std::optional<int> scripted = takeScriptedAnswer()) return *scripted;
    const char* name = systemInfoKeyName(key);
    if (name == nullptr || value == nullptr) return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    const std::optional<std::string> found = findValue(Service::kSystemInfo, name);
    if (!found) return SYSTEM_INFO_ERROR_IO_ERROR;
    char* copy = handOut(*found);
    if (copy == nullptr) return SYSTEM_INFO_ERROR_OUT_OF_MEMORY;
    *value = copy;
    return SYSTEM_INFO_ERROR_NONE;
}
