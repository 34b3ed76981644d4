// The messages between the host TEE client library and zel-vaultd.
//
// One AF_UNIX SOCK_SEQPACKET connection per TEEC_Context; every Request is answered by exactly one
// Reply, in order. Only fixed-width fields, so that a 32-bit client and a 64-bit daemon agree on
// every byte. A RegisterMemory request carries the memfd of the block with SCM_RIGHTS; both sides
// then map the same pages, so the TA reads and writes the very bytes the client sees.
#pragma once

#include <tee_client_api.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <unistd.h>

namespace zel::wire {

enum Op : uint32_t {
    kOpenSession = 1,
    kCloseSession = 2,
    kRegisterMemory = 3,
    kReleaseMemory = 4,
    kInvoke = 5,
};

// A value parameter uses a and b; a memory reference uses memory_id, offset and size.
struct Param {
    uint32_t a;
    uint32_t b;
    uint32_t memory_id;
    uint32_t offset;
    uint32_t size;
};

using UuidBytes = std::array<uint8_t, 16>;

struct Request {
    uint32_t op;
    uint32_t session_id;   // CloseSession, Invoke
    uint32_t command;      // Invoke
    uint32_t param_types;  // OpenSession, Invoke
    UuidBytes uuid;        // OpenSession
    uint32_t login;        // OpenSession
    uint32_t memory_id;    // ReleaseMemory
    uint32_t size;         // RegisterMemory
    uint32_t flags;        // RegisterMemory
    Param params[4];
};

struct Reply {
    uint32_t result;
    uint32_t origin;
    uint32_t id;  // the new session or memory id
    Param params[4];
};

static_assert(sizeof(Param) == 20);
static_assert(sizeof(Request) == 48 + 4 * sizeof(Param));
static_assert(sizeof(Reply) == 12 + 4 * sizeof(Param));

// The canonical byte order of RFC 4122: the numeric fields big-endian.
inline UuidBytes uuidBytes(const TEEC_UUID& uuid) {
    UuidBytes out{};
    for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(uuid.timeLow >> (24 - 8 * i));
    out[4] = static_cast<uint8_t>(uuid.timeMid >> 8);
    out[5] = static_cast<uint8_t>(uuid.timeMid);
    out[6] = static_cast<uint8_t>(uuid.timeHiAndVersion >> 8);
    out[7] = static_cast<uint8_t>(uuid.timeHiAndVersion);
    for (int i = 0; i < 8; ++i) out[8 + i] = uuid.clockSeqAndNode[i];
    return out;
}

inline std::string uuidText(const UuidBytes& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0xF];
    }
    return text;
}

// Where the default TEE (TEEC_InitializeContext with a NULL name) listens: $ZEL_TEE_SOCKET, else
// a directory of the user's own under $XDG_RUNTIME_DIR or /tmp.
inline std::string defaultSocketPath() {
    if (const char* explicitPath = std::getenv("ZEL_TEE_SOCKET"); explicitPath && *explicitPath)
        return explicitPath;
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime)
        return std::string(runtime) + "/zel-vault/socket";
    return "/tmp/zel-vault-" + std::to_string(getuid()) + "/socket";
}

}  // namespace zel::wire
