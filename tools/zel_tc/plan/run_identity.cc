#include "plan/run_identity.h"

#include <cstdint>
#include <cstdio>
#include <sstream>

#include "plan/step_runner.h"
#include "zel_tc_lib.h"

namespace zel::tc {

namespace {

struct SysInfoItem {
    const char* name;
    system_info_key_e key;
};

constexpr SysInfoItem kSysInfoItems[] = {
    {"device.model", SYSTEM_INFO_KEY_MODEL},
    {"device.manufacturer", SYSTEM_INFO_KEY_MANUFACTURER},
    {"device.platform_name", SYSTEM_INFO_KEY_PLATFORM_NAME},
    {"device.platform_version", SYSTEM_INFO_KEY_PLATFORM_VERSION},
    {"device.build_string", SYSTEM_INFO_KEY_BUILD_STRING},
    {"device.build_date", SYSTEM_INFO_KEY_BUILD_DATE},
};

constexpr unsigned kFirmwareWords = 16;

std::string orUnavailable(const std::string& value) {
    // The library answers a failed query with an empty string.
    return value.empty() ? kUnavailable : value;
}

std::string hexWord(uint32_t word) {
    char text[12];
    std::snprintf(text, sizeof text, "0x%08X", word);
    return text;
}

// The words the TA wrote: ze_getFWInfo does not say how many, so the block is read twice over
// two different fillings, and a word the TA wrote is the same in both.
std::string firmwareWords() {
    unsigned int zeros[kFirmwareWords] = {}, ones[kFirmwareWords];
    for (unsigned int& word : ones) word = 0xFFFFFFFFu;
    const int32_t first = CaZelInterfaceSp(zel_test_a).ze_getFWInfo(zeros, kFirmwareWords);
    const int32_t second = CaZelInterfaceSp(zel_test_a).ze_getFWInfo(ones, kFirmwareWords);
    if (first != 0 || second != 0) return kUnavailable;
    std::string words;
    for (unsigned i = 0; i < kFirmwareWords && zeros[i] == ones[i]; ++i)
        words += (words.empty() ? "" : ",") + hexWord(zeros[i]);
    return words.empty() ? "none" : words;
}

// One "name=value" line per item; values come from the device and could hold anything but a
// line end, which is replaced.
void add(std::string& payload, const std::string& name, std::string value) {
    for (char& c : value)
        if (c == '\n' || c == '\r') c = ' ';
    payload += name + "=" + value + "\n";
}

int32_t query(const IdentityOptions& options, std::string& payload) {
    add(payload, "device.serial", orUnavailable(GetSerialNumber()));
    for (const SysInfoItem& item : kSysInfoItems)
        add(payload, item.name, orUnavailable(GetSysInfoStringValue(item.key)));
    add(payload, "ta.firmware_words", firmwareWords());
    if (options.firmwareVersions) {
        std::string system, app;
        ZelResult result{};
        CaZelInterfaceSp processor(zel_test_a);
        const bool read = processor.ze_updateFW(options.updateParam, system, app, &result) == 0;
        add(payload, "ta.system_version", read ? orUnavailable(system) : kUnavailable);
        add(payload, "ta.app_version", read ? orUnavailable(app) : kUnavailable);
    }
    return 0;
}

}  // namespace

RunIdentity readRunIdentity(const IdentityOptions& options) {
    // Every item is named, in this order, whatever the child managed to say before it hung or
    // died.
    RunIdentity identity{{"device.serial", kUnavailable}};
    for (const SysInfoItem& item : kSysInfoItems) identity.emplace_back(item.name, kUnavailable);
    identity.emplace_back("ta.firmware_words", kUnavailable);
    if (options.firmwareVersions) {
        identity.emplace_back("ta.system_version", kUnavailable);
        identity.emplace_back("ta.app_version", kUnavailable);
    }
    const StepOutcome outcome =
        runIsolated([&options](std::string& payload) { return query(options, payload); },
                    options.timeoutSeconds, Echo::kOff);
    std::istringstream lines(outcome.payload);
    for (std::string line; std::getline(lines, line);) {
        const size_t equals = line.find('=');
        for (auto& [name, value] : identity)
            if (equals != std::string::npos && line.compare(0, equals, name) == 0 &&
                name.size() == equals)
                value = line.substr(equals + 1);
    }
    return identity;
}

std::string identityLine(const RunIdentity& identity) {
    std::string line;
    for (const auto& [name, value] : identity)
        line += (line.empty() ? "" : " ") + name + "=" + value;
    return line;
}

}  // namespace zel::tc
