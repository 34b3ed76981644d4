#include "vault_ta.h"

#include <cstring>
#include <set>

#include "interface/zel_ta_ids.h"

namespace zel::vault {

namespace {

const std::set<uint32_t>& selfTestIds() {
    static const std::set<uint32_t> ids = [] {
        std::set<uint32_t> all;
        for (const CommandId& command : kGeneralCommands) all.insert(command.id);
        all.insert(kLifecycleCommand);
        all.insert(std::begin(kProcessCommands), std::end(kProcessCommands));
        all.insert(std::begin(kHeavyloadCommands), std::end(kHeavyloadCommands));
        for (int n = kFirstBistCommand; n <= kLastBistCommand; ++n)
            all.insert(static_cast<uint32_t>(n));
        return all;
    }();
    return ids;
}

bool emptyMessage(const TaParam& block) {
    uint32_t firstTag;
    std::memcpy(&firstTag, block.buffer, sizeof firstTag);
    return firstTag == 0;
}

TaResult invokeVault(uint32_t command, TaOperation& op) {
    const TaParam& block = op.params[0];
    const bool oneBlock = TEEC_PARAM_TYPE_GET(op.paramTypes, 0) == TEEC_MEMREF_PARTIAL_INOUT &&
                          (op.paramTypes >> 4) == 0 && block.size >= sizeof(uint32_t);
    if (!oneBlock) return {TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_TRUSTED_APP};
    if (!selfTestIds().count(command)) return {TEEC_ERROR_NOT_SUPPORTED, TEEC_ORIGIN_TRUSTED_APP};
    if (emptyMessage(block)) return {};
    // Commands with a request are not served by this TA yet.
    return {TEEC_ERROR_NOT_IMPLEMENTED, TEEC_ORIGIN_TRUSTED_APP};
}

}  // namespace

void addVaultTa(TaRegistry& registry) {
    registry.add(zel_test, "vault", invokeVault);
}

}  // namespace zel::vault
