// The vault TA at zel_test.
//
// Every command arrives as one partial in/out memory reference over the client's block, holding a
// message in the codec's encoding. An empty message (the block as allocated: a zero end tag at
// offset 0) asks for the TA's built-in self-test of that command id: TEEC_SUCCESS for the vault's
// general commands and for every number the raw suites send, TEEC_ERROR_NOT_SUPPORTED for any
// other id.
#pragma once

#include "trusted_app.h"

namespace zel::vault {

void addVaultTa(TaRegistry& registry);

}  // namespace zel::vault
