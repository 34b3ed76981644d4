#include "der.h"

#include <string.h>

enum {
    TAG_INTEGER = 0x02,
    TAG_BIT_STRING = 0x03,
    TAG_OCTET_STRING = 0x04,
    TAG_SEQUENCE = 0x30,
    TAG_EC_PARAMETERS = 0xa0, /* [0] EXPLICIT */
    TAG_EC_PUBLIC_KEY = 0xa1, /* [1] EXPLICIT */
};

/* OBJECT IDENTIFIERs 1.2.840.10045.3.1.7 and 1.2.840.10045.2.1, tag and length included. */
static const uint8_t prime256v1_oid[] = {0x06, 0x08, 0x2a, 0x86, 0x48,
                                         0xce, 0x3d, 0x03, 0x01, 0x07};
static const uint8_t ec_public_key_oid[] = {0x06, 0x07, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01};

#define POINT_SIZE (1 + 2 * DER_P256_SIZE)
#define UNCOMPRESSED 0x04

/* What is left to read. Every read checks against left, never past it. */
struct der_span {
    const uint8_t* at;
    uint32_t left;
};

/* The next element when it has this tag: its content in *content, span moved past it. */
static bool next(struct der_span* span, uint8_t tag, struct der_span* content) {
    if (span->left < 2 || span->at[0] != tag) return false;
    uint32_t length = span->at[1];
    uint32_t header = 2;
    if (length & 0x80) {
        const uint32_t count = length & 0x7f;
        /* 0x80 is BER's indefinite length; more than 4 bytes cannot fit any input here. */
        if (count == 0 || count > 4 || span->left - 2 < count) return false;
        /* Minimal: no leading zero byte, and the long form only where the short one cannot do. */
        if (span->at[2] == 0) return false;
        length = 0;
        for (uint32_t i = 0; i < count; ++i) length = length << 8 | span->at[2 + i];
        if (length < 0x80) return false;
        header += count;
    }
    if (length > span->left - header) return false;
    content->at = span->at + header;
    content->left = length;
    span->at += header + length;
    span->left -= header + length;
    return true;
}

/* A minimal INTEGER greater than zero. */
static bool next_positive_integer(struct der_span* span) {
    struct der_span value;
    if (!next(span, TAG_INTEGER, &value) || value.left == 0) return false;
    if (value.at[0] & 0x80) return false; /* negative */
    /* A leading zero only keeps the next byte's high bit from reading as a sign; 0 alone is no
     * positive number. */
    return value.at[0] != 0 || (value.left > 1 && (value.at[1] & 0x80));
}

/* The next bytes when they are exactly these: for elements that strict DER encodes one way. */
static bool take(struct der_span* span, const uint8_t* bytes, uint32_t length) {
    if (span->left < length || memcmp(span->at, bytes, length) != 0) return false;
    span->at += length;
    span->left -= length;
    return true;
}

/* A BIT STRING holding an uncompressed P-256 point, and nothing else. */
static bool next_point(struct der_span* span, uint8_t x[DER_P256_SIZE], uint8_t y[DER_P256_SIZE]) {
    struct der_span bits;
    if (!next(span, TAG_BIT_STRING, &bits) || bits.left != 1 + POINT_SIZE || bits.at[0] != 0 ||
        bits.at[1] != UNCOMPRESSED)
        return false;
    memcpy(x, bits.at + 2, DER_P256_SIZE);
    memcpy(y, bits.at + 2 + DER_P256_SIZE, DER_P256_SIZE);
    return true;
}

/* The input is one SEQUENCE and nothing after it. */
static bool whole_sequence(const uint8_t* der, uint32_t length, struct der_span* content) {
    struct der_span input = {der, der ? length : 0};
    return next(&input, TAG_SEQUENCE, content) && input.left == 0;
}

bool der_read_ec_private_key(const uint8_t* der, uint32_t length, struct der_ec_key* key) {
    static const uint8_t version_1[] = {TAG_INTEGER, 1, 1};
    struct der_span body, secret, parameters, public_key;
    struct der_ec_key parsed;
    if (!whole_sequence(der, length, &body) || !take(&body, version_1, sizeof version_1) ||
        !next(&body, TAG_OCTET_STRING, &secret) || secret.left == 0 ||
        secret.left > DER_P256_SIZE || !next(&body, TAG_EC_PARAMETERS, &parameters) ||
        !take(&parameters, prime256v1_oid, sizeof prime256v1_oid) || parameters.left != 0 ||
        !next(&body, TAG_EC_PUBLIC_KEY, &public_key) ||
        !next_point(&public_key, parsed.x, parsed.y) || public_key.left != 0 || body.left != 0)
        return false;
    memset(parsed.d, 0, DER_P256_SIZE);
    memcpy(parsed.d + DER_P256_SIZE - secret.left, secret.at, secret.left);
    uint8_t any = 0;
    for (uint32_t i = 0; i < DER_P256_SIZE; ++i) any |= parsed.d[i];
    if (!any) return false;
    *key = parsed;
    return true;
}

bool der_read_ec_public_key(const uint8_t* der, uint32_t length, uint8_t x[DER_P256_SIZE],
                            uint8_t y[DER_P256_SIZE]) {
    struct der_span body, algorithm;
    uint8_t read_x[DER_P256_SIZE], read_y[DER_P256_SIZE];
    if (!whole_sequence(der, length, &body) || !next(&body, TAG_SEQUENCE, &algorithm) ||
        !take(&algorithm, ec_public_key_oid, sizeof ec_public_key_oid) ||
        !take(&algorithm, prime256v1_oid, sizeof prime256v1_oid) || algorithm.left != 0 ||
        !next_point(&body, read_x, read_y) || body.left != 0)
        return false;
    memcpy(x, read_x, DER_P256_SIZE);
    memcpy(y, read_y, DER_P256_SIZE);
    return true;
}

bool der_is_rsa_public_key(const uint8_t* der, uint32_t length) {
    struct der_span body;
    return whole_sequence(der, length, &body) && next_positive_integer(&body) &&
           next_positive_integer(&body) && body.left == 0;
}

void der_write_ec_private_key(const struct der_ec_key* key, uint8_t out[DER_EC_PRIVATE_KEY_SIZE]) {
    static const uint8_t head[] = {0x30, 0x77, 0x02, 0x01, 0x01, 0x04, 0x20};
    static const uint8_t public_key_head[] = {0xa1, 0x44, 0x03, 0x42, 0x00, UNCOMPRESSED};
    uint8_t* at = out;
    memcpy(at, head, sizeof head);
    at += sizeof head;
    memcpy(at, key->d, DER_P256_SIZE);
    at += DER_P256_SIZE;
    *at++ = TAG_EC_PARAMETERS;
    *at++ = sizeof prime256v1_oid;
    memcpy(at, prime256v1_oid, sizeof prime256v1_oid);
    at += sizeof prime256v1_oid;
    memcpy(at, public_key_head, sizeof public_key_head);
    at += sizeof public_key_head;
    memcpy(at, key->x, DER_P256_SIZE);
    memcpy(at + DER_P256_SIZE, key->y, DER_P256_SIZE);
}

/* A minimal non-negative INTEGER of a 32-byte big-endian number: its length. */
static uint32_t write_integer(const uint8_t value[DER_P256_SIZE], uint8_t* out) {
    uint32_t skip = 0;
    while (skip < DER_P256_SIZE - 1 && value[skip] == 0) ++skip;
    const uint32_t sign = value[skip] & 0x80 ? 1 : 0;
    const uint32_t length = DER_P256_SIZE - skip + sign;
    out[0] = TAG_INTEGER;
    out[1] = (uint8_t)length;
    out[2] = 0;
    memcpy(out + 2 + sign, value + skip, DER_P256_SIZE - skip);
    return 2 + length;
}

uint32_t der_write_ecdsa_signature(const uint8_t rs[2 * DER_P256_SIZE],
                                   uint8_t out[DER_ECDSA_SIGNATURE_MAX]) {
    /* At most 2 * 35 bytes of content: the short length form always does. */
    uint32_t length = write_integer(rs, out + 2);
    length += write_integer(rs + DER_P256_SIZE, out + 2 + length);
    out[0] = TAG_SEQUENCE;
    out[1] = (uint8_t)length;
    return 2 + length;
}
