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

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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

enum class ParamKind { kNone, kValue, kTempMemref, kMemref, kInvalid };

// The standard's parameter types by kind; 4 and 8 to 0xB are no type at all.
inline ParamKind paramKind(uint32_t type) {
    switch (type) {
        case TEEC_NONE:
            return ParamKind::kNone;
        case TEEC_VALUE_INPUT:
        case TEEC_VALUE_OUTPUT:
        case TEEC_VALUE_INOUT:
            return ParamKind::kValue;
        case TEEC_MEMREF_TEMP_INPUT:
        case TEEC_MEMREF_TEMP_OUTPUT:
        case TEEC_MEMREF_TEMP_INOUT:
            return ParamKind::kTempMemref;
        case TEEC_MEMREF_WHOLE:
        case TEEC_MEMREF_PARTIAL_INPUT:
        case TEEC_MEMREF_PARTIAL_OUTPUT:
        case TEEC_MEMREF_PARTIAL_INOUT:
            return ParamKind::kMemref;
        default:
            return ParamKind::kInvalid;
    }
}

// The memory flags a partial reference needs from its block; a whole reference needs none.
inline uint32_t flagsNeeded(uint32_t type) {
    switch (type) {
        case TEEC_MEMREF_PARTIAL_INPUT:
            return TEEC_MEM_INPUT;
        case TEEC_MEMREF_PARTIAL_OUTPUT:
            return TEEC_MEM_OUTPUT;
        case TEEC_MEMREF_PARTIAL_INOUT:
            return TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
        default:
            return 0;
    }
}

// Sends one message whole, passing a descriptor along unless passFd is -1. Never raises SIGPIPE:
// a peer that has gone is an ordinary false.
inline bool sendMessage(int socket, const void* bytes, size_t size, int passFd) {
    iovec iov{const_cast<void*>(bytes), size};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (passFd >= 0) {
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&msg);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &passFd, sizeof(int));
    }
    ssize_t sent;
    do sent = sendmsg(socket, &msg, MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(size);
}

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
