// The library's only way of writing text.
#pragma once

#include <iostream>
#include <sstream>

namespace zel {

// Composes the whole line first so that lines from separate threads never interleave, then flushes
// it so that a harness reading our stdout sees it even if the process dies right after.
template <typename... Parts>
void logLine(const Parts&... parts) {
    std::ostringstream line;
    (line << ... << parts);
    std::cout << line.str() << std::endl;
}

}  // namespace zel
