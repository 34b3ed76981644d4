// The GlobalPlatform TEE Client API over a zel-vaultd connection.
//
// Arguments are checked first and answered with TEEC_ERROR_BAD_PARAMETERS (origin API) before
// anything is sent. A connection that breaks is reported the way device client libraries report
// a failed driver call: TEEC_ERROR_GENERIC from TEEC_ORIGIN_COMMS.
#include <tee_client_api.h>

#include "teec_wire.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

struct TeecConnection {
    int fd = -1;
    std::mutex lock;  // one request/reply pair at a time on the socket
};

namespace {

using zel::wire::Reply;
using zel::wire::Request;

// The one place where an errno becomes a TEE result.
TEEC_Result resultFromErrno(int error) {
    switch (error) {
        case ENOENT:
        case ECONNREFUSED:
        case ENOTDIR:
            return TEEC_ERROR_ITEM_NOT_FOUND;
        case EACCES:
        case EPERM:
            return TEEC_ERROR_ACCESS_DENIED;
        case ENOMEM:
        case EMFILE:
        case ENFILE:
        case ENOBUFS:
            return TEEC_ERROR_OUT_OF_MEMORY;
        case ENAMETOOLONG:
            return TEEC_ERROR_BAD_PARAMETERS;
        default:
            return TEEC_ERROR_GENERIC;
    }
}

void setOrigin(uint32_t* returnOrigin, uint32_t origin) {
    if (returnOrigin) *returnOrigin = origin;
}

// Sends one request (with a descriptor to pass, or -1) and waits for its reply. False when the
// connection is gone; the daemon never leaves a well-formed request unanswered.
bool transact(TeecConnection& connection, const Request& request, int passFd, Reply& reply) {
    std::lock_guard<std::mutex> guard(connection.lock);
    if (!zel::wire::sendMessage(connection.fd, &request, sizeof request, passFd)) return false;
    ssize_t received;
    do received = recv(connection.fd, &reply, sizeof reply, 0);
    while (received < 0 && errno == EINTR);
    return received == static_cast<ssize_t>(sizeof reply);
}

// The TEE is whoever listens on the socket: its directory must be this user's own and closed to
// everyone else (or another user could listen there first), and the process that listens must
// run as this user or as root. Checked before anything is sent; the message says what is wrong.
bool trustedDirectory(const std::string& path) {
    const auto slash = path.find_last_of('/');
    const std::string directory = slash == std::string::npos ? "."
                                  : slash == 0               ? "/"
                                                             : path.substr(0, slash);
    struct stat info {};
    const char* problem = nullptr;
    if (lstat(directory.c_str(), &info) != 0)
        return true;  // nothing there: connect() reports the missing socket
    if (!S_ISDIR(info.st_mode))
        problem = "is not a directory";
    else if (info.st_uid != geteuid())
        problem = "belongs to another user";
    else if ((info.st_mode & 077) != 0)
        problem = "is open to other users";
    if (!problem) return true;
    std::fprintf(stderr, "teec: refusing the TEE socket %s: its directory %s %s\n", path.c_str(),
                 directory.c_str(), problem);
    return false;
}

bool trustedPeer(int fd, const std::string& path) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
        (peer.uid == geteuid() || peer.uid == 0))
        return true;
    std::fprintf(stderr,
                 "teec: refusing the TEE socket %s: it is served by another user (uid %u)\n",
                 path.c_str(), static_cast<unsigned>(peer.uid));
    return false;
}

TEEC_Result transportFailure(uint32_t* returnOrigin) {
    setOrigin(returnOrigin, TEEC_ORIGIN_COMMS);
    return TEEC_ERROR_GENERIC;
}

// Fills the request's parameters from an operation. A NULL operation is allowed by the standard
// and means four TEEC_NONE parameters.
TEEC_Result marshal(const TEEC_Context* context, const TEEC_Operation* operation,
                    Request& request) {
    if (!operation) return TEEC_SUCCESS;
    request.param_types = operation->paramTypes;
    if (operation->paramTypes > 0xFFFFu) return TEEC_ERROR_BAD_PARAMETERS;
    for (int i = 0; i < 4; ++i) {
        const uint32_t type = TEEC_PARAM_TYPE_GET(operation->paramTypes, i);
        const TEEC_Parameter& param = operation->params[i];
        zel::wire::Param& out = request.params[i];
        const zel::wire::ParamKind kind = zel::wire::paramKind(type);
        if (kind == zel::wire::ParamKind::kNone) continue;
        if (kind == zel::wire::ParamKind::kValue) {
            out.a = param.value.a;
            out.b = param.value.b;
            continue;
        }
        // Temporary references would need a copy through the socket on every call; this host
        // offers registered (allocated) memory only, which is all the library uses.
        if (kind == zel::wire::ParamKind::kTempMemref) return TEEC_ERROR_NOT_SUPPORTED;
        if (kind != zel::wire::ParamKind::kMemref) return TEEC_ERROR_BAD_PARAMETERS;
        const TEEC_SharedMemory* parent = param.memref.parent;
        if (!parent || parent->context != context || parent->id == 0)
            return TEEC_ERROR_BAD_PARAMETERS;
        if (type == TEEC_MEMREF_WHOLE) {
            out.offset = 0;
            out.size = static_cast<uint32_t>(parent->size);
        } else {
            const uint32_t needed = zel::wire::flagsNeeded(type);
            if ((parent->flags & needed) != needed) return TEEC_ERROR_BAD_PARAMETERS;
            if (param.memref.offset > parent->size ||
                param.memref.size > parent->size - param.memref.offset)
                return TEEC_ERROR_BAD_PARAMETERS;
            out.offset = static_cast<uint32_t>(param.memref.offset);
            out.size = static_cast<uint32_t>(param.memref.size);
        }
        out.memory_id = parent->id;
    }
    return TEEC_SUCCESS;
}

// Copies what the TA may have written back: output values and the sizes of memory references.
// False, copying nothing, when a success reports a reference larger than its window: the daemon
// broke the protocol. (A larger size with TEEC_ERROR_SHORT_BUFFER is the size the TA needs.)
bool unmarshal(const Request& request, const Reply& reply, TEEC_Operation* operation) {
    if (!operation) return true;
    for (int i = 0; i < 4; ++i) {
        const uint32_t type = TEEC_PARAM_TYPE_GET(operation->paramTypes, i);
        if (zel::wire::paramKind(type) == zel::wire::ParamKind::kMemref &&
            reply.result == TEEC_SUCCESS && reply.params[i].size > request.params[i].size)
            return false;
    }
    for (int i = 0; i < 4; ++i) {
        const uint32_t type = TEEC_PARAM_TYPE_GET(operation->paramTypes, i);
        TEEC_Parameter& param = operation->params[i];
        if (type == TEEC_VALUE_OUTPUT || type == TEEC_VALUE_INOUT) {
            param.value.a = reply.params[i].a;
            param.value.b = reply.params[i].b;
        } else if (type == TEEC_MEMREF_WHOLE || type == TEEC_MEMREF_PARTIAL_OUTPUT ||
                   type == TEEC_MEMREF_PARTIAL_INOUT) {
            param.memref.size = reply.params[i].size;
        }
    }
    return true;
}

}  // namespace

extern "C" {

TEEC_Result TEEC_InitializeContext(const char* name, TEEC_Context* context) {
    if (!context) return TEEC_ERROR_BAD_PARAMETERS;
    context->imp = nullptr;
    const std::string path = name ? name : zel::wire::defaultSocketPath();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) return TEEC_ERROR_BAD_PARAMETERS;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (!trustedDirectory(path)) return TEEC_ERROR_ACCESS_DENIED;

    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return resultFromErrno(errno);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        close(fd);
        return resultFromErrno(error);
    }
    if (!trustedPeer(fd, path)) {
        close(fd);
        return TEEC_ERROR_ACCESS_DENIED;
    }
    auto* connection = new (std::nothrow) TeecConnection;
    if (!connection) {
        close(fd);
        return TEEC_ERROR_OUT_OF_MEMORY;
    }
    connection->fd = fd;
    context->imp = connection;
    return TEEC_SUCCESS;
}

void TEEC_FinalizeContext(TEEC_Context* context) {
    if (!context || !context->imp) return;
    close(context->imp->fd);
    delete context->imp;
    context->imp = nullptr;
}

TEEC_Result TEEC_RegisterSharedMemory(TEEC_Context* context, TEEC_SharedMemory* sharedMem) {
    if (!context || !context->imp || !sharedMem) return TEEC_ERROR_BAD_PARAMETERS;
    return TEEC_ERROR_NOT_SUPPORTED;
}

TEEC_Result TEEC_AllocateSharedMemory(TEEC_Context* context, TEEC_SharedMemory* sharedMem) {
    if (!context || !context->imp || !sharedMem) return TEEC_ERROR_BAD_PARAMETERS;
    sharedMem->buffer = nullptr;
    sharedMem->context = nullptr;
    sharedMem->id = 0;
    sharedMem->mappedSize = 0;
    if (sharedMem->flags == 0 || (sharedMem->flags & ~(TEEC_MEM_INPUT | TEEC_MEM_OUTPUT)) != 0)
        return TEEC_ERROR_BAD_PARAMETERS;
    if (sharedMem->size > TEEC_CONFIG_SHAREDMEM_MAX_SIZE) return TEEC_ERROR_OUT_OF_MEMORY;

    // A zero-sized block is legal; it still gets a page so that buffer is a valid address.
    const size_t mapped = sharedMem->size ? sharedMem->size : 1;
    const int fd = memfd_create("zel-teec-shm", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) return resultFromErrno(errno);
    void* buffer = MAP_FAILED;
    // Sealed so that the daemon can trust the size it maps: the block can never shrink under it.
    if (ftruncate(fd, static_cast<off_t>(mapped)) == 0 &&
        fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0)
        buffer = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (buffer == MAP_FAILED) {
        const int error = errno;
        close(fd);
        return resultFromErrno(error);
    }

    Request request{};
    request.op = zel::wire::kRegisterMemory;
    request.size = static_cast<uint32_t>(sharedMem->size);
    request.flags = sharedMem->flags;
    Reply reply{};
    const bool delivered = transact(*context->imp, request, fd, reply);
    close(fd);
    // Id 0 marks a block as not allocated: a success that names it broke the protocol.
    if (!delivered || reply.result != TEEC_SUCCESS || reply.id == 0) {
        munmap(buffer, mapped);
        return delivered && reply.result != TEEC_SUCCESS ? reply.result : TEEC_ERROR_GENERIC;
    }
    sharedMem->buffer = buffer;
    sharedMem->context = context;
    sharedMem->id = reply.id;
    sharedMem->mappedSize = mapped;
    return TEEC_SUCCESS;
}

void TEEC_ReleaseSharedMemory(TEEC_SharedMemory* sharedMem) {
    if (!sharedMem || !sharedMem->context || sharedMem->id == 0) return;
    if (sharedMem->context->imp) {
        Request request{};
        request.op = zel::wire::kReleaseMemory;
        request.memory_id = sharedMem->id;
        Reply reply{};
        transact(*sharedMem->context->imp, request, -1, reply);  // a dead daemon freed it already
    }
    munmap(sharedMem->buffer, sharedMem->mappedSize);
    sharedMem->buffer = nullptr;
    sharedMem->context = nullptr;
    sharedMem->id = 0;
    sharedMem->mappedSize = 0;
}

TEEC_Result TEEC_OpenSession(TEEC_Context* context, TEEC_Session* session,
                             const TEEC_UUID* destination, uint32_t connectionMethod,
                             const void* /*connectionData*/, TEEC_Operation* operation,
                             uint32_t* returnOrigin) {
    setOrigin(returnOrigin, TEEC_ORIGIN_API);
    if (!context || !context->imp || !session || !destination) return TEEC_ERROR_BAD_PARAMETERS;
    session->context = nullptr;
    session->id = 0;
    // The host TEE knows no identities, so only the public login means what it says.
    if (connectionMethod != TEEC_LOGIN_PUBLIC) return TEEC_ERROR_NOT_SUPPORTED;

    Request request{};
    request.op = zel::wire::kOpenSession;
    request.uuid = zel::wire::uuidBytes(*destination);
    request.login = connectionMethod;
    if (const TEEC_Result bad = marshal(context, operation, request); bad != TEEC_SUCCESS)
        return bad;
    Reply reply{};
    if (!transact(*context->imp, request, -1, reply)) return transportFailure(returnOrigin);
    setOrigin(returnOrigin, reply.origin);
    if (reply.result != TEEC_SUCCESS) return reply.result;
    if (!unmarshal(request, reply, operation)) return transportFailure(returnOrigin);
    session->context = context;
    session->id = reply.id;
    return TEEC_SUCCESS;
}

void TEEC_CloseSession(TEEC_Session* session) {
    if (!session || !session->context || !session->context->imp || session->id == 0) return;
    Request request{};
    request.op = zel::wire::kCloseSession;
    request.session_id = session->id;
    Reply reply{};
    transact(*session->context->imp, request, -1, reply);  // a dead daemon closed it already
    session->context = nullptr;
    session->id = 0;
}

TEEC_Result TEEC_InvokeCommand(TEEC_Session* session, uint32_t commandID, TEEC_Operation* operation,
                               uint32_t* returnOrigin) {
    setOrigin(returnOrigin, TEEC_ORIGIN_API);
    if (!session || !session->context || !session->context->imp || session->id == 0)
        return TEEC_ERROR_BAD_PARAMETERS;
    Request request{};
    request.op = zel::wire::kInvoke;
    request.session_id = session->id;
    request.command = commandID;
    if (const TEEC_Result bad = marshal(session->context, operation, request); bad != TEEC_SUCCESS)
        return bad;
    if (operation) operation->started = 1;
    Reply reply{};
    if (!transact(*session->context->imp, request, -1, reply))
        return transportFailure(returnOrigin);
    if (!unmarshal(request, reply, operation)) return transportFailure(returnOrigin);
    setOrigin(returnOrigin, reply.origin);
    return reply.result;
}

void TEEC_RequestCancellation(TEEC_Operation* /*operation*/) {}

}  // extern "C"
