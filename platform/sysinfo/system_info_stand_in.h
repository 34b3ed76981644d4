// What only the host stand-in of the system-information service has: setting its answers. Values
// set here win over the file named by ZEL_SYSTEM_INFO_FILE, whose keys are the names below.
#pragma once

#include <system_info.h>

#include <string>

namespace zel::stand_in {

// "model", "manufacturer", "platform_name", "platform_version", "build_string", "build_date";
// null for a value outside the enumeration.
const char* systemInfoKeyName(system_info_key_e key);

void setSystemInfoValue(system_info_key_e key, const std::string& value);
void removeSystemInfoValue(system_info_key_e key);

// The next call, whatever its key, returns result and leaves *value alone: a platform that fails,
// or (with SYSTEM_INFO_ERROR_NONE) one that reports success without a string.
void answerNextSystemInfoCall(int result);

}  // namespace zel::stand_in
