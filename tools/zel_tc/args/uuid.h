// TA UUIDs as people type them: "zel_test", "zel_test_a" or 58d50001-1105-000f-9799-7f5af3f9c7bb.
#pragma once

#include <tee_client_api.h>

#include <string>

namespace zel::tc {

bool parseUuid(const std::string& text, TEEC_UUID& uuid);
// "zel_test", "zel_test_a", or the UUID in its 8-4-4-4-12 form.
std::string uuidText(const TEEC_UUID& uuid);

}  // namespace zel::tc
