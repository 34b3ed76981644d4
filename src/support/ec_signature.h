// ECDSA signatures over 256-bit curves: from DER to the fixed-width raw form.
#pragma once

#include "zel_export.h"

// Turns der (SEQUENCE { INTEGER r, INTEGER s }, single-byte lengths, at most 72 bytes) into 64
// bytes r || s, each big-endian and left-padded with zeros to 32 bytes; a 33-byte integer loses
// its first byte (the sign byte DER adds), unexamined. *rawLen is raw's capacity on entry and 64
// on success. Returns 0, or the first failing check in this order, leaving raw and *rawLen
// untouched:
//   -1  derLen above 72 or below 6, der null, byte 0 not 0x30, or byte 1 above 70
//   -2  byte 2 not 0x02
//   -3  r and the two header bytes of s do not fit in derLen
//   -4  r longer than 33 bytes
//   -5  the byte after r not 0x02
//   -6  s does not fit in derLen
//   -7  s longer than 33 bytes
//   -8  raw or rawLen null, or *rawLen below 64
// An input shorter than 6 bytes cannot hold the two INTEGER headers; it gets -1 from its length
// alone, like an overlong one, before any byte is read. The sequence length byte is not compared
// with derLen. Nothing is read outside der[0, derLen).
ZEL_TC_API int ecSignature_der_to_raw(const unsigned char* der, unsigned int derLen,
                                      unsigned char* raw, unsigned int* rawLen);
