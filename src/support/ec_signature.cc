#include "support/ec_signature.h"

#include <cstring>

namespace {

constexpr unsigned int kMaxDerLength = 72;
constexpr unsigned int kMinDerLength = 6;  // both INTEGER headers, empty values
constexpr unsigned int kMaxSequenceLength = 70;
constexpr unsigned int kMaxIntegerLength = 33;
constexpr unsigned int kCoordinateLength = 32;
constexpr unsigned int kRawLength = 2 * kCoordinateLength;
constexpr unsigned char kSequenceTag = 0x30;
constexpr unsigned char kIntegerTag = 0x02;

// Right-aligns a big-endian integer of at most 33 bytes in 32; out starts zeroed. A 33rd byte can
// only be the zero that DER puts before a value whose top bit is set.
void takeInteger(const unsigned char* value, unsigned int length, unsigned char* out) {
    const unsigned int kept = length > kCoordinateLength ? kCoordinateLength : length;
    std::memcpy(out + kCoordinateLength - kept, value + (length - kept), kept);
}

}  // namespace

int ecSignature_der_to_raw(const unsigned char* der, unsigned int derLen, unsigned char* raw,
                           unsigned int* rawLen) {
    if (der == nullptr || derLen > kMaxDerLength || derLen < kMinDerLength ||
        der[0] != kSequenceTag || der[1] > kMaxSequenceLength)
        return -1;
    if (der[2] != kIntegerTag) return -2;

    unsigned char work[kRawLength] = {};
    const unsigned int rLength = der[3];
    // derLen >= 6 here, so the subtraction cannot wrap.
    if (rLength + 4 > derLen - 2) return -3;
    if (rLength > kMaxIntegerLength) return -4;
    takeInteger(der + 4, rLength, work);

    if (der[4 + rLength] != kIntegerTag) return -5;
    const unsigned int sLength = der[5 + rLength];
    if (sLength + rLength + 6 > derLen) return -6;
    if (sLength > kMaxIntegerLength) return -7;
    takeInteger(der + 6 + rLength, sLength, work + kCoordinateLength);

    if (raw == nullptr || rawLen == nullptr || *rawLen < kRawLength) return -8;
    std::memcpy(raw, work, kRawLength);
    *rawLen = kRawLength;
    return 0;
}
