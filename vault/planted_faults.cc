#include "planted_faults.h"

#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "interface/zel_ta_ids.h"
#include "wsm_encoding.h"

namespace zel::vault {

namespace {

enum class PlantedTa : uint8_t { kVault, kSecureProcessor };

// A request as the fault triggers see it: each field's tag and its value (blobs: their size).
struct Seen {
    wsm::Tag tag;
    int64_t value;
};

std::vector<Seen> fieldsOf(const TaParam& block) {
    std::vector<Seen> fields;
    wsm::Reader reader(block.buffer, block.size);
    for (;;) {
        const wsm::Tag tag = reader.peek();
        int32_t integer = 0;
        uint32_t unsignedInt = 0;
        if (tag == wsm::kInt && reader.getInt(integer)) {
            fields.push_back({tag, integer});
        } else if (tag == wsm::kUint && reader.getUint(unsignedInt)) {
            fields.push_back({tag, unsignedInt});
        } else if (tag == wsm::kBlob) {
            // The reader only takes a blob of a known size: ask for each until one fits.
            uint32_t size = 0;
            while (size <= block.size && !reader.get(wsm::kBlob, size)) ++size;
            if (size > block.size) break;
            fields.push_back({tag, size});
        } else {
            break;
        }
    }
    return fields;
}

bool is(const std::vector<Seen>& fields, size_t at, wsm::Tag tag) {
    return at < fields.size() && fields[at].tag == tag;
}

[[noreturn]] void crash() {
    std::abort();
}

[[noreturn]] void hang() {
    for (;;) pause();
}

struct State {
    bool deleted[32] = {};
    uint32_t lastVault[3] = {~0u, ~0u, ~0u};
    uint32_t secureProcessor[2] = {~0u, ~0u};  // the command before this one, this one
    bool secureProcessorDead = false;
};

State& state() {
    static State s;
    return s;
}

using Trigger = std::optional<TaResult> (*)(const std::vector<Seen>&, const TaParam&);

struct Planted {
    const char* name;
    PlantedTa ta;
    uint32_t command;  // ~0u: every command of the TA
    Trigger trigger;
};

const Planted kPlanted[] = {
    // put of a blob of exactly 4095 bytes crashes the TA.
    {"exact-size-crash", PlantedTa::kVault, cmd::zel_put,
     [](const std::vector<Seen>& f, const TaParam&) -> std::optional<TaResult> {
         if (is(f, 2, wsm::kBlob) && f[2].value == 4095) crash();
         return std::nullopt;
     }},
    // storeKey trusts its length field: one larger than the blob crashes the TA.
    {"length-mismatch-crash", PlantedTa::kVault, cmd::zel_storeKey,
     [](const std::vector<Seen>& f, const TaParam&) -> std::optional<TaResult> {
         if (is(f, 2, wsm::kUint) && is(f, 3, wsm::kBlob) && f[2].value > f[3].value) crash();
         return std::nullopt;
     }},
    // getHash with its type given as a Uint instead of an Int never answers.
    {"type-confusion-hang", PlantedTa::kVault, cmd::zel_getHash,
     [](const std::vector<Seen>& f, const TaParam&) -> std::optional<TaResult> {
         if (is(f, 0, wsm::kInt) && is(f, 1, wsm::kUint)) hang();
         return std::nullopt;
     }},
    // getHash of a slot whose last change was a delete uses the freed data.
    {"delete-then-gethash-crash", PlantedTa::kVault, cmd::zel_getHash,
     [](const std::vector<Seen>& f, const TaParam&) -> std::optional<TaResult> {
         if (is(f, 0, wsm::kInt) && f[0].value >= 0 && f[0].value < 32 &&
             state().deleted[f[0].value])
             crash();
         return std::nullopt;
     }},
    // getSlotInfo with index -1 reads the row before its table: a null pointer.
    {"minus-one-index", PlantedTa::kVault, cmd::zel_getSlotInfo,
     [](const std::vector<Seen>& f, const TaParam&) -> std::optional<TaResult> {
         if (!is(f, 0, wsm::kInt) || f[0].value != -1) return std::nullopt;
         static const uint8_t* table[33] = {};  // row 0 is the guard in front of the slots
         const uint8_t* const volatile* rows = table + 1;
         const uint8_t* row = rows[f[0].value];
         return TaResult{static_cast<TEEC_Result>(*static_cast<const volatile uint8_t*>(row)),
                         TEEC_ORIGIN_TRUSTED_APP};
     }},
    // generateKey, getSlotInfo, deleteKey in a row kill the TA.
    {"three-command-sequence", PlantedTa::kVault, ~0u,
     [](const std::vector<Seen>&, const TaParam&) -> std::optional<TaResult> {
         const uint32_t* last = state().lastVault;
         if (last[0] == cmd::zel_generateKey && last[1] == cmd::zel_getSlotInfo &&
             last[2] == cmd::zel_deleteKey)
             crash();
         return std::nullopt;
     }},
    // aesDecrypt copies its IV into a 16-byte buffer whatever its size: a heap overflow that
    // AddressSanitizer reports.
    {"asan-oob-write", PlantedTa::kVault, cmd::zel_aesDecrypt,
     [](const std::vector<Seen>& f, const TaParam& block) -> std::optional<TaResult> {
         if (!is(f, 5, wsm::kBlob) || f[5].value <= 16) return std::nullopt;
         std::unique_ptr<uint8_t[]> iv(new uint8_t[16]);
         volatile size_t size = static_cast<size_t>(f[5].value);
         std::memcpy(iv.get(), block.buffer, size);
         return std::nullopt;
     }},
    // getAppInfo right after forceRecovery announces 7 bytes and sends 3.
    {"wrong-reply-shape", PlantedTa::kSecureProcessor, cmd::zel_getAppInfo,
     [](const std::vector<Seen>&, const TaParam& block) -> std::optional<TaResult> {
         if (state().secureProcessor[0] != cmd::zel_forceRecovery) return std::nullopt;
         wsm::Writer out(block.buffer, block.size);
         out.putUint(7);
         out.put(wsm::kBlob, "7.1", 3);
         return TaResult{};
     }},
    // ze_updateFW with parameter INT_MIN panics the secure processor for good.
    {"ta-panic", PlantedTa::kSecureProcessor, cmd::ze_updateFW,
     [](const std::vector<Seen>& f, const TaParam&) -> std::optional<TaResult> {
         if (is(f, 0, wsm::kInt) && f[0].value == INT_MIN) state().secureProcessorDead = true;
         return std::nullopt;
     }},
    // decryptByKey with key size 0 leaks an errno value as its result.
    {"non-gp-result", PlantedTa::kVault, cmd::zel_decryptByKey,
     [](const std::vector<Seen>& f, const TaParam&) -> std::optional<TaResult> {
         if (is(f, 3, wsm::kInt) && f[3].value == 0 && is(f, 5, wsm::kUint))
             return TaResult{22, TEEC_ORIGIN_TRUSTED_APP};
         return std::nullopt;
     }},
};

bool armed(const char* name) {
    static const std::string list = [] {
        const char* text = std::getenv("ZEL_PLANTED_FAULTS");
        return std::string(",") + (text && *text ? text : "all") + ",";
    }();
    return list == ",all," || list.find(std::string(",") + name + ",") != std::string::npos;
}

// The stateful faults' bookkeeping, after the command has been looked at.
void remember(PlantedTa ta, uint32_t command, const std::vector<Seen>& f) {
    State& s = state();
    if (ta == PlantedTa::kSecureProcessor) {
        s.secureProcessor[0] = s.secureProcessor[1];
        s.secureProcessor[1] = command;
        return;
    }
    s.lastVault[0] = s.lastVault[1];
    s.lastVault[1] = s.lastVault[2];
    s.lastVault[2] = command;
    if (!is(f, 0, wsm::kInt) || f[0].value < 0 || f[0].value >= 32) return;
    if (command == cmd::zel_delete) s.deleted[f[0].value] = true;
    if (command == cmd::zel_put) s.deleted[f[0].value] = false;
}

}  // namespace

std::optional<TaResult> plantedFault(const wire::UuidBytes& uuid, uint32_t command,
                                     const TaOperation& operation) {
    // Only the vault's TAs, and only commands they would read: one block, in and out.
    const bool vault = uuid == wire::uuidBytes(zel_test);
    if (!vault && uuid != wire::uuidBytes(zel_test_a)) return std::nullopt;
    if (operation.paramTypes !=
            TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_INOUT, TEEC_NONE, TEEC_NONE, TEEC_NONE) ||
        operation.params[0].size < sizeof(uint32_t))
        return std::nullopt;
    const TaParam& block = operation.params[0];
    const PlantedTa ta = vault ? PlantedTa::kVault : PlantedTa::kSecureProcessor;
    if (ta == PlantedTa::kSecureProcessor && state().secureProcessorDead && armed("ta-panic"))
        return TaResult{TEEC_ERROR_TARGET_DEAD, TEEC_ORIGIN_TEE};
    const std::vector<Seen> fields = fieldsOf(block);
    remember(ta, command, fields);
    for (const Planted& fault : kPlanted) {
        if (fault.ta != ta || (fault.command != ~0u && fault.command != command) ||
            !armed(fault.name))
            continue;
        if (std::optional<TaResult> answer = fault.trigger(fields, block)) return answer;
    }
    return std::nullopt;
}

}  // namespace zel::vault
