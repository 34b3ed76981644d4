// What only the host stand-in of the configuration store has: setting its answers. Values set here
// win over the file named by ZEL_VCONF_FILE (see stand_in_store.h).
#pragma once

#include <string>

namespace zel::stand_in {

void setConfigValue(const std::string& key, const std::string& value);
// The key becomes unreadable again (unless the file has it).
void removeConfigValue(const std::string& key);

}  // namespace zel::stand_in
