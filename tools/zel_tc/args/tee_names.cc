#include "args/tee_names.h"
#include "args/number.h"

#include <tee_client_api.h>

#include <cstdio>
#include <cstdlib>

namespace zel::tc {

namespace {

struct Named {
    uint32_t value;
    const char* name;
};

#define ZEL_NAMED(code) \
    { code, #code }
constexpr Named kResults[] = {
    ZEL_NAMED(TEEC_SUCCESS),
    ZEL_NAMED(TEEC_ERROR_GENERIC),
    ZEL_NAMED(TEEC_ERROR_ACCESS_DENIED),
    ZEL_NAMED(TEEC_ERROR_CANCEL),
    ZEL_NAMED(TEEC_ERROR_ACCESS_CONFLICT),
    ZEL_NAMED(TEEC_ERROR_EXCESS_DATA),
    ZEL_NAMED(TEEC_ERROR_BAD_FORMAT),
    ZEL_NAMED(TEEC_ERROR_BAD_PARAMETERS),
    ZEL_NAMED(TEEC_ERROR_BAD_STATE),
    ZEL_NAMED(TEEC_ERROR_ITEM_NOT_FOUND),
    ZEL_NAMED(TEEC_ERROR_NOT_IMPLEMENTED),
    ZEL_NAMED(TEEC_ERROR_NOT_SUPPORTED),
    ZEL_NAMED(TEEC_ERROR_NO_DATA),
    ZEL_NAMED(TEEC_ERROR_OUT_OF_MEMORY),
    ZEL_NAMED(TEEC_ERROR_BUSY),
    ZEL_NAMED(TEEC_ERROR_COMMUNICATION),
    ZEL_NAMED(TEEC_ERROR_SECURITY),
    ZEL_NAMED(TEEC_ERROR_SHORT_BUFFER),
    ZEL_NAMED(TEEC_ERROR_TARGET_DEAD),
    {0xFFFFFFF3, "ZEL_EMPTY_PARAMETERS"},  // the library's own: a required input was empty
};
constexpr Named kOrigins[] = {
    ZEL_NAMED(TEEC_ORIGIN_API),
    ZEL_NAMED(TEEC_ORIGIN_COMMS),
    ZEL_NAMED(TEEC_ORIGIN_TEE),
    ZEL_NAMED(TEEC_ORIGIN_TRUSTED_APP),
};
#undef ZEL_NAMED

template <size_t N>
bool parseNamed(const Named (&table)[N], const std::string& prefix, const std::string& text,
                uint32_t& value) {
    for (const Named& entry : table) {
        const std::string name = entry.name;
        if (text == name || prefix + text == name) {
            value = entry.value;
            return true;
        }
    }
    unsigned long long number = 0;
    if (!parseUnsigned(text, number) || number > 0xFFFFFFFFull) return false;
    value = static_cast<uint32_t>(number);
    return true;
}

}  // namespace

std::string resultName(uint32_t result) {
    for (const Named& entry : kResults)
        if (entry.value == result) return entry.name;
    return {};
}

std::string resultHex(uint32_t result) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08X", result);
    return hex;
}

std::string describeResult(uint32_t result) {
    const std::string name = resultName(result);
    return name.empty() ? resultHex(result) : resultHex(result) + " " + name;
}

bool parseResult(const std::string& text, uint32_t& result) {
    return parseNamed(kResults, "TEEC_ERROR_", text, result);
}

bool parseOrigin(const std::string& text, uint32_t& origin) {
    return parseNamed(kOrigins, "TEEC_ORIGIN_", text, origin);
}

}  // namespace zel::tc
