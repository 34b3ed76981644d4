#include "connection.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <thread>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "planted_faults.h"

namespace zel::vault {

namespace {

wire::Reply answer(TEEC_Result result, uint32_t origin) {
    wire::Reply reply{};
    reply.result = result;
    reply.origin = origin;
    return reply;
}

// A malformed request or an id, offset or size that is not the client's: the TEE refuses it.
wire::Reply refused() {
    return answer(TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_TEE);
}

// A scripted reply stands in for the TA: its bytes go into the first memory reference.
TaResult writeScriptedReply(const std::vector<uint8_t>& reply, TaOperation& operation) {
    TaParam& block = operation.params[0];
    if (!block.buffer || block.size < reply.size())
        return {TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_TRUSTED_APP};
    std::memcpy(block.buffer, reply.data(), reply.size());
    return {};
}

}  // namespace

Connection::Connection(int socket, const TaRegistry& registry, FaultPlan& faults)
    : socket_(socket), registry_(registry), faults_(faults) {}

Connection::~Connection() {
    sessions_.forEach([](uint32_t, Session& session) { endSession(session); });
}

void Connection::endSession(Session& session) {
    if (!session.app->close) return;
    std::lock_guard<std::mutex> oneAtATime(session.app->lock);
    session.app->close(session.ta);
}

void Connection::serve() {
    for (;;) {
        wire::Request request{};
        UniqueFd passed;
        const Received got = receive(request, passed);
        if (got == Received::kClosed) return;
        const wire::Reply reply = got == Received::kRequest
                                      ? handle(request, std::move(passed))
                                      : answer(TEEC_ERROR_BAD_FORMAT, TEEC_ORIGIN_COMMS);
        if (!wire::sendMessage(socket_, &reply, sizeof reply, -1)) return;
    }
}

Connection::Received Connection::receive(wire::Request& request, UniqueFd& passed) {
    iovec iov{&request, sizeof request};
    alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t received;
    do received = recvmsg(socket_, &msg, MSG_CMSG_CLOEXEC);
    while (received < 0 && errno == EINTR);
    if (received < 0) return Received::kClosed;

    // Every descriptor that arrived is owned before anything else is decided, whatever the
    // message: the first is kept, the others closed. Ownership goes to the caller even when the
    // message turns out malformed, so nothing stays open past this request.
    for (cmsghdr* header = CMSG_FIRSTHDR(&msg); header; header = CMSG_NXTHDR(&msg, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
        const size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof fd);
            if (passed)
                close(fd);
            else
                passed.reset(fd);
        }
    }
    // An empty message is the peer's hang-up on a SEQPACKET socket, unless it carried
    // descriptors: then it is a request, and a malformed one.
    if (received == 0 && msg.msg_controllen == 0) return Received::kClosed;
    const bool whole = received == static_cast<ssize_t>(sizeof request) &&
                       (msg.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) == 0;
    return whole ? Received::kRequest : Received::kMalformed;
}

wire::Reply Connection::handle(const wire::Request& request, UniqueFd passed) {
    using Handler = wire::Reply (Connection::*)(const wire::Request&, UniqueFd);
    // Indexed by the request's op; 0 is no op.
    static constexpr Handler kHandlers[] = {
        nullptr,
        &Connection::openSession,
        &Connection::closeSession,
        &Connection::registerMemory,
        &Connection::releaseMemory,
        &Connection::invoke,
    };
    static_assert(wire::kOpenSession == 1 && wire::kCloseSession == 2 &&
                  wire::kRegisterMemory == 3 && wire::kReleaseMemory == 4 && wire::kInvoke == 5);
    const Handler handler = request.op < std::size(kHandlers) ? kHandlers[request.op] : nullptr;
    if (!handler) return answer(TEEC_ERROR_NOT_SUPPORTED, TEEC_ORIGIN_COMMS);
    return (this->*handler)(request, std::move(passed));
}

wire::Reply Connection::openSession(const wire::Request& request, UniqueFd) {
    if (request.login != TEEC_LOGIN_PUBLIC) return refused();
    TaOperation operation;
    if (buildOperation(request, operation) != TEEC_SUCCESS) return refused();
    if (sessions_.full()) return answer(TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE);
    if (const auto injected = faults_.take(FaultPlan::Kind::kOpenSession, request.uuid))
        return answer(injected->result, injected->origin);
    TrustedApp* app = registry_.find(request.uuid);
    if (!app) return answer(TEEC_ERROR_ITEM_NOT_FOUND, TEEC_ORIGIN_TEE);
    Session session{app, request.uuid, {}};
    if (app->open) {
        std::lock_guard<std::mutex> oneAtATime(app->lock);
        const TaResult opened = app->open(operation, session.ta);
        if (opened.result != TEEC_SUCCESS) return answer(opened.result, opened.origin);
    }
    const uint32_t id = nextId_++;
    sessions_.add(id, session);
    wire::Reply reply = answer(TEEC_SUCCESS, TEEC_ORIGIN_TRUSTED_APP);
    reply.id = id;
    return reply;
}

wire::Reply Connection::closeSession(const wire::Request& request, UniqueFd) {
    Session* session = sessions_.find(request.session_id);
    if (!session) return refused();
    endSession(*session);
    sessions_.erase(request.session_id);
    return answer(TEEC_SUCCESS, TEEC_ORIGIN_TEE);
}

wire::Reply Connection::registerMemory(const wire::Request& request, UniqueFd passed) {
    const uint32_t validFlags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
    if (!passed || request.flags == 0 || (request.flags & ~validFlags) != 0) return refused();
    if (request.size > TEEC_CONFIG_SHAREDMEM_MAX_SIZE)
        return answer(TEEC_ERROR_OUT_OF_MEMORY, TEEC_ORIGIN_TEE);
    if (blocks_.full()) return answer(TEEC_ERROR_OUT_OF_MEMORY, TEEC_ORIGIN_TEE);
    if (const auto injected = faults_.take(FaultPlan::Kind::kAllocation))
        return answer(injected->result, injected->origin);

    // Only a sealed memfd is mapped: its size cannot shrink under us later, so no access through
    // the mapping can fault.
    const size_t mapped = request.size ? request.size : 1;
    struct stat info {};
    const int seals = fcntl(passed.get(), F_GET_SEALS);
    if (seals < 0 || (seals & F_SEAL_SHRINK) == 0 || fstat(passed.get(), &info) != 0 ||
        static_cast<uint64_t>(info.st_size) < mapped)
        return refused();
    void* data = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_SHARED, passed.get(), 0);
    if (data == MAP_FAILED) return answer(TEEC_ERROR_OUT_OF_MEMORY, TEEC_ORIGIN_TEE);
    const uint32_t id = nextId_++;
    blocks_.add(id, SharedBlock(static_cast<uint8_t*>(data), request.size, mapped, request.flags));
    wire::Reply reply = answer(TEEC_SUCCESS, TEEC_ORIGIN_TEE);
    reply.id = id;
    return reply;
}

wire::Reply Connection::releaseMemory(const wire::Request& request, UniqueFd) {
    if (!blocks_.erase(request.memory_id)) return refused();
    return answer(TEEC_SUCCESS, TEEC_ORIGIN_TEE);
}

wire::Reply Connection::invoke(const wire::Request& request, UniqueFd) {
    Session* session = sessions_.find(request.session_id);
    if (!session) return refused();
    TaOperation operation;
    if (buildOperation(request, operation) != TEEC_SUCCESS) return refused();
    const wire::UuidBytes& uuid = session->uuid;
    TrustedApp& app = *session->app;

    std::lock_guard<std::mutex> oneAtATime(app.lock);
    if (const auto stall = faults_.take(FaultPlan::Kind::kStall, uuid, request.command))
        std::this_thread::sleep_for(std::chrono::milliseconds(stall->stallMs));
    TaResult result;
    if (const auto injected = faults_.take(FaultPlan::Kind::kInvoke, uuid, request.command))
        result = {injected->result, injected->origin};
    else if (const auto scripted =
                 faults_.take(FaultPlan::Kind::kScriptedReply, uuid, request.command))
        result = writeScriptedReply(scripted->reply, operation);
    else if (const auto planted = plantedFault(uuid, request.command, operation))
        result = *planted;
    else
        result = app.invoke(session->ta, request.command, operation);

    wire::Reply reply = answer(result.result, result.origin);
    for (size_t i = 0; i < operation.params.size(); ++i) {
        reply.params[i].a = operation.params[i].a;
        reply.params[i].b = operation.params[i].b;
        reply.params[i].size = operation.params[i].size;
    }
    return reply;
}

TEEC_Result Connection::buildOperation(const wire::Request& request, TaOperation& operation) const {
    if (request.param_types > 0xFFFFu) return TEEC_ERROR_BAD_PARAMETERS;
    operation.paramTypes = request.param_types;
    for (size_t i = 0; i < operation.params.size(); ++i) {
        const uint32_t type = TEEC_PARAM_TYPE_GET(request.param_types, i);
        const wire::Param& in = request.params[i];
        TaParam& out = operation.params[i];
        const wire::ParamKind kind = wire::paramKind(type);
        if (kind == wire::ParamKind::kInvalid || kind == wire::ParamKind::kTempMemref)
            return TEEC_ERROR_BAD_PARAMETERS;
        out.type = type;
        if (kind != wire::ParamKind::kMemref) {
            out.a = in.a;
            out.b = in.b;
            continue;
        }
        const SharedBlock* block = blocks_.find(in.memory_id);
        if (!block) return TEEC_ERROR_BAD_PARAMETERS;
        const SharedBlock& memory = *block;
        const uint32_t needed = wire::flagsNeeded(type);
        if ((memory.flags() & needed) != needed) return TEEC_ERROR_BAD_PARAMETERS;
        if (static_cast<uint64_t>(in.offset) + in.size > memory.size())
            return TEEC_ERROR_BAD_PARAMETERS;
        out.buffer = memory.data() + in.offset;
        out.size = in.size;
        out.flags = memory.flags();
    }
    return TEEC_SUCCESS;
}

}  // namespace zel::vault
