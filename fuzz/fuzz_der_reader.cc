// The TAs' DER readers over arbitrary input: every read stays inside the input, and what they
// accept is what the writers write. The input also goes to the signature writer as r||s, whose
// output must be the strict DER that the RSAPublicKey reader (the same SEQUENCE of two positive
// INTEGERs) accepts.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "der.h"

namespace {

// 30 59 30 13 <id-ecPublicKey> <prime256v1> 03 42 00 04: all an accepted public key can be before
// its coordinates, strict DER leaving one encoding.
const uint8_t kSpkiHead[] = {0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2a, 0x86, 0x48,
                             0xce, 0x3d, 0x02, 0x01, 0x06, 0x08, 0x2a, 0x86, 0x48,
                             0xce, 0x3d, 0x03, 0x01, 0x07, 0x03, 0x42, 0x00, 0x04};

bool allZero(const uint8_t* bytes, size_t size) {
    for (size_t i = 0; i < size; ++i)
        if (bytes[i]) return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An input of its own size, so that ASan sees any read past it.
    const std::vector<uint8_t> input(data, data + size);
    const uint8_t* der = input.empty() ? nullptr : input.data();
    const uint32_t length = static_cast<uint32_t>(size);

    der_ec_key key;
    if (der_read_ec_private_key(der, length, &key)) {
        if (allZero(key.d, sizeof key.d)) abort();
        uint8_t written[DER_EC_PRIVATE_KEY_SIZE];
        der_write_ec_private_key(&key, written);
        der_ec_key again;
        if (!der_read_ec_private_key(written, sizeof written, &again) ||
            std::memcmp(&again, &key, sizeof key) != 0)
            abort();
        // Only a shorter private key is written otherwise than it came.
        if (size == sizeof written && std::memcmp(written, der, size) != 0) abort();
    }

    uint8_t x[DER_P256_SIZE], y[DER_P256_SIZE];
    if (der_read_ec_public_key(der, length, x, y)) {
        if (size != sizeof kSpkiHead + 2 * DER_P256_SIZE ||
            std::memcmp(der, kSpkiHead, sizeof kSpkiHead) != 0 ||
            std::memcmp(der + sizeof kSpkiHead, x, DER_P256_SIZE) != 0 ||
            std::memcmp(der + sizeof kSpkiHead + DER_P256_SIZE, y, DER_P256_SIZE) != 0)
            abort();
    }

    (void)der_is_rsa_public_key(der, length);

    if (size >= 2 * DER_P256_SIZE) {
        uint8_t signature[DER_ECDSA_SIGNATURE_MAX];
        const uint32_t written = der_write_ecdsa_signature(der, signature);
        if (written < 8 || written > sizeof signature) abort();
        const bool positive =
            !allZero(der, DER_P256_SIZE) && !allZero(der + DER_P256_SIZE, DER_P256_SIZE);
        if (der_is_rsa_public_key(signature, written) != positive) abort();
    }
    return 0;
}
