// The cryptography of the vault TA, over OpenSSL's EVP interfaces. Every function answers a GP
// result; OpenSSL's own failures are turned into one in a single place.
#pragma once

#include <tee_client_api.h>

#include <cstdint>
#include <vector>

namespace zel::vault {

using Bytes = std::vector<uint8_t>;

// TEEC_SUCCESS when der is an RFC 5915 ECPrivateKey on P-256; TEEC_ERROR_BAD_FORMAT otherwise.
TEEC_Result checkEcPrivateKey(const Bytes& der);
TEEC_Result sha256(const Bytes& data, Bytes& digest);
TEEC_Result randomBytes(size_t count, Bytes& out);
// A new P-256 key as an RFC 5915 ECPrivateKey.
TEEC_Result generateEcKey(Bytes& der);

}  // namespace zel::vault
