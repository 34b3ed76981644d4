// What zel-tc fuzz knows of each TA command: the request's fields in order with their types and
// roles, and the shape of the reply a well-formed request gets on success. The ids and names come
// from the library's id table; the fields are written down here once, for the fuzzer and its
// reproducers.
#pragma once

#include <tee_client_api.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zel::tc::fuzz {

// How a request field is written through the codec.
enum class FieldKind : uint8_t { kInt, kUint, kSized };  // kSized: Uint length, then the Blob

// What a field means, so that most generated values are ones the TA takes (state gets built)
// and the rest sit on the boundaries.
enum class Role : uint8_t {
    kIndex,      // slot or key index
    kOption,     // a small option code (type, padding, mode, ...)
    kParam,      // an opaque integer passed on
    kData,       // arbitrary bytes
    kIv,         // 16 bytes
    kAesKey,     // 32 bytes
    kPublicKey,  // a P-256 SubjectPublicKeyInfo
    kAkText,     // 540 characters of hexadecimal text
};

struct RequestField {
    FieldKind kind;
    Role role;
    int32_t usual = 0;  // kOption: the value the TA implements
};

// The reply of a well-formed request that succeeded.
enum class ReplyKind : uint8_t {
    kInt,
    kUint,
    kSized,     // Uint length, Blob of that many bytes (words when unit is 4)
    kIntSized,  // Int length, Blob of that many bytes
    kBlob,      // a bare Blob of exactly size bytes
};

struct ReplyField {
    ReplyKind kind;
    uint32_t size = 0;  // kSized/kIntSized: the length expected, 0 for any; kBlob: exact size
    uint32_t unit = 1;  // kSized: bytes per counted unit
};

enum class Ta : uint8_t { kVault, kSecureProcessor };

struct CommandSpec {
    Ta ta;
    uint32_t id;
    const char* name;
    std::vector<RequestField> request;
    std::vector<ReplyField> reply;
};

const std::vector<CommandSpec>& commandTable();
// Null when the table has no such command.
const CommandSpec* findCommand(Ta ta, uint32_t id);
// The command of that name ("zel_put", "put" or "0x00" on the vault first).
const CommandSpec* findCommand(const std::string& text);

const TEEC_UUID& taUuid(Ta ta);
const char* taName(Ta ta);  // "zel_test", "zel_test_a"
bool parseTa(const std::string& text, Ta& ta);

}  // namespace zel::tc::fuzz
