// Conversions between byte buffers, hexadecimal text, base64 and std::string, random bytes,
// SHA-256 and a file test.
//
// Nothing here keeps state or owns a caller's buffer: every buffer is read or written only within
// the size passed with it, and only during the call. Statuses are 0 for success and -1 for failure,
// except GetSHA256Hash (1 / 0) and fileExists. A null pointer passed with a non-zero size is a
// failure (or an empty string) instead of a crash.
#pragma once

#include <string>

#include "zel_export.h"

// RAND_bytes into buffer; prints "Data successfully generated" or "Data generation error!". On
// failure the buffer's contents are unspecified.
ZEL_TC_API int GetRandomBytes(unsigned char* buffer, unsigned int count);

// Writes the 32-byte SHA-256 of data and sets *digestLength to 32; returns 1. Returns 0 and
// touches nothing when a pointer is null, dataLength is 0 or *digestLength is below 32.
ZEL_TC_API int GetSHA256Hash(const unsigned char* data, unsigned int dataLength,
                             unsigned char* digest, unsigned int* digestLength);

// Exactly length characters of buffer, NULs included; empty for length <= 0.
ZEL_TC_API std::string convertToString(char* buffer, int length);

// True when stat() succeeds on path, whatever kind of file it names.
ZEL_TC_API bool fileExists(const std::string& path);

// text cut to wantedLength, or padded on the left with NULs up to it.
ZEL_TC_API std::string fit_string_length(const std::string& text, unsigned int wantedLength);

// The four bytes of value, most significant first (raw bytes, not digits).
ZEL_TC_API std::string to_big_endian(unsigned int value);

// destination[i] = source[first + i] for the inclusive range first..last. Fails with "Invalid
// input in function: fill_array" and -1, copying nothing, when the range is longer than either
// buffer; besides that, and stricter than the range check alone, also when a size is 0, a pointer
// is null or last is not below sourceSize, so that no call reads past the source. last < first
// passes only with sizes near 2^32 and then copies nothing.
ZEL_TC_API int fill_array(unsigned char* source, unsigned int sourceSize,
                          unsigned char* destination, unsigned int destinationSize,
                          unsigned int first, unsigned int last);

// Concatenates the inputs into the start of output; bytes past their total are left alone. Fails
// with "Unable to merge, small array size" and -1, writing nothing, when the total exceeds
// outputSize (a total past 2^32 counts as exceeding it). A null pointer with a non-zero size
// fails with -1 and no line.
ZEL_TC_API int mergeArraysIntoOne(unsigned char* output, unsigned int outputSize,
                                  unsigned char* first, unsigned int firstSize,
                                  unsigned char* second, unsigned int secondSize,
                                  unsigned char* third, unsigned int thirdSize);
ZEL_TC_API int mergeArraysIntoOne(unsigned char* output, unsigned int outputSize,
                                  unsigned char* first, unsigned int firstSize,
                                  unsigned char* second, unsigned int secondSize);

// RFC 4648 base64 with '=' padding and no line breaks; the input is raw bytes.
ZEL_TC_API std::string base64_encode(const char* data, unsigned int length);

// Each character as a signed 8-bit value widened to 32 bits, in lower-case hex without width:
// 0x0A gives "a", 0x41 "41", 0xFF "ffffffff". Not reversible; for logs use uint8_to_hex_string.
ZEL_TC_API std::string string_to_hex_string(std::string text);

// Two lower-case hex digits per byte, nothing between them. The two names are one function.
ZEL_TC_API std::string uint8_to_hex_string(const unsigned char* data, unsigned int length);
ZEL_TC_API std::string unsigned_char_to_hex_string(const unsigned char* data, unsigned int length);

// Reads exactly hexLength characters of hex (upper or lower case) into out; *size is the capacity
// on the way in and the byte count on the way out. Returns -1 with *size untouched for an odd
// hexLength, a capacity below hexLength / 2 or a null pointer; returns -1 after setting *size for
// a character that is not a hex digit, and then the whole output is to be treated as garbage.
ZEL_TC_API int hex_str_2_bin(unsigned char* out, const char* hex, unsigned int* size,
                             unsigned int hexLength);
