// What a step printed, made fit for the reports: valid UTF-8 whatever bytes came, and none of the
// control characters XML 1.0 cannot carry. Each byte that does not fit becomes U+FFFD.
#pragma once

#include <string>

namespace zel::tc {

std::string reportText(const std::string& bytes);

}  // namespace zel::tc
