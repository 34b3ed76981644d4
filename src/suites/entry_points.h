// Entry points with plain, unmangled names, for harnesses that load the library by symbol.
#pragma once

#include "zel_export.h"

extern "C" {

// Invokes command 0 of the vault TA once over a fresh session; returns the TEE result.
ZEL_TC_API int test_lifetime();
}
