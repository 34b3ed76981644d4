// Report files appear whole or not at all: written beside their place under a temporary name and
// renamed into it, so that a CI reading a report never reads half of one, and a run that is
// refused or killed leaves no empty file behind.
#pragma once

#include <string>

namespace zel::tc {

// Whether a report can be written at path, without creating anything: its folder exists and is
// writable, and what is there already is a file that may be replaced. False with a reason.
bool canWriteReport(const std::string& path, std::string& error);
// False when it could not be written; nothing is left at path then but what was there.
bool writeReport(const std::string& path, const std::string& content);

}  // namespace zel::tc
