// The cryptography of the vault TA, over OpenSSL's EVP interfaces. Every function answers a GP
// result; OpenSSL's own failures are turned into one in a single place.
#pragma once

#include <tee_client_api.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zel::vault {

using Bytes = std::vector<uint8_t>;

// TEEC_SUCCESS when der is an RFC 5915 ECPrivateKey on P-256; TEEC_ERROR_BAD_FORMAT otherwise.
TEEC_Result checkEcPrivateKey(const Bytes& der);
// TEEC_SUCCESS when der is a PKCS #1 RSAPublicKey and nothing else; TEEC_ERROR_BAD_FORMAT
// otherwise.
TEEC_Result checkRsaPublicKey(const Bytes& der);
TEEC_Result sha256(const Bytes& data, Bytes& digest);
TEEC_Result randomBytes(size_t count, Bytes& out);
// A new P-256 key as an RFC 5915 ECPrivateKey.
TEEC_Result generateEcKey(Bytes& der);

// AES-256-CBC with PKCS#7 padding. Decrypting a length that is not whole blocks, or with bad
// padding, is TEEC_ERROR_BAD_FORMAT.
TEEC_Result aesCbc(bool encrypt, const Bytes& key, const Bytes& iv, const Bytes& in, Bytes& out);
// AES-CMAC (NIST SP 800-38B) with a 128-, 192- or 256-bit key.
TEEC_Result aesCmac(const Bytes& key, const Bytes& message, Bytes& mac);
// ECDSA over P-256 of a 32-byte digest, signed as given; the signature in DER.
TEEC_Result ecdsaSignDigest(const Bytes& privateKeyDer, const Bytes& digest, Bytes& signature);
// The ECDH shared secret (the x-coordinate) between a stored private key and a P-256
// SubjectPublicKeyInfo; TEEC_ERROR_BAD_FORMAT for a public key that is no such thing.
TEEC_Result ecdh(const Bytes& privateKeyDer, const Bytes& publicKeySpki, Bytes& secret);
// HKDF-SHA-256 (RFC 5869) with no salt.
TEEC_Result hkdfSha256(const Bytes& secret, const std::string& info, size_t length, Bytes& key);
// AES-256-GCM of ciphertext followed by its 16-byte tag, no additional data; a tag that does not
// match is TEEC_ERROR_SECURITY and yields no plaintext.
TEEC_Result aesGcmOpen(const Bytes& key, const Bytes& nonce, const Bytes& sealed, Bytes& plain);

}  // namespace zel::vault
