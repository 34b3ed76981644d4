// Entry points with plain, unmangled names, for harnesses that load the library by symbol.
#pragma once

#include "zel_export.h"

extern "C" {

// Invokes command 0 of the vault TA once over a fresh session; returns the TEE result.
ZEL_TC_API int test_lifetime();

// Runs the secure processor's self-test; 1 when it passed, 0 otherwise.
ZEL_TC_API int test_process_inspection();

// Asks the secure processor for its information; the outcome is printed, not returned.
ZEL_TC_API void test_get_info();
}
