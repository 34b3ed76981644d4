// The configuration store of a host: vconf_get_str over the stand-ins' key-value source.
#include <vconf.h>

#include "stand_in_store.h"
#include "vconf_stand_in.h"

namespace zel::stand_in {

void setConfigValue(const std::string& key, const std::string& value) {
    setValue(Service::kConfig, key, value);
}

void removeConfigValue(const std::string& key) {
    removeValue(Service::kConfig, key);
}

}  // namespace zel::stand_in

char* vconf_get_str(const char* key) {
    using namespace zel::stand_in;
    if (key == nullptr) return nullptr;
    const std::optional<std::string> value = findValue(Service::kConfig, key);
    return value ? handOut(*value) : nullptr;
}
