#include "interface/general_command.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "interface/zel_ta_ids.h"
#include "transport/log_line.h"

namespace zel {

CommandCall generalCall(const TEEC_UUID& uuid, uint32_t commandId, bool emptyInput,
                        std::initializer_list<WsmField> request, bool readsReply) {
    return CommandCall(kGeneralFamily, generalCommandName(commandId), uuid, commandId, emptyInput,
                       request, readsReply);
}

int32_t handOutBuffers(CQeruWsm& reply, std::initializer_list<BufferOut> outputs,
                       const char* missingMessage) {
    std::vector<const unsigned char*> blobs;
    bool complete = true;
    for (const BufferOut& out : outputs) {
        reply.GetUint(out.size);
        blobs.push_back(reply.GetBlob(*out.size));
        complete = complete && blobs.back() && *out.size != 0;
    }
    if (!complete) {
        logLine(missingMessage);
        return static_cast<int32_t>(TEEC_ERROR_NO_DATA);
    }
    bool allocated = true;
    for (const BufferOut& out : outputs) {
        *out.data = static_cast<unsigned char*>(std::malloc(*out.size));
        allocated = allocated && *out.data;
    }
    if (!allocated) {
        logLine("Can't allocate memory");
        return static_cast<int32_t>(TEEC_ERROR_GENERIC);
    }
    size_t i = 0;
    for (const BufferOut& out : outputs) std::memcpy(*out.data, blobs[i++], *out.size);
    return 0;
}

int32_t runGeneralCommand(const TEEC_UUID& uuid, uint32_t commandId, bool emptyInput,
                          std::initializer_list<WsmField> request,
                          std::initializer_list<BufferOut> outputs, const char* missingMessage) {
    CommandCall call = generalCall(uuid, commandId, emptyInput, request, outputs.size() != 0);
    if (call.status() != 0 || outputs.size() == 0) return call.status();
    return handOutBuffers(call.reply(), outputs, missingMessage);
}

}  // namespace zel
