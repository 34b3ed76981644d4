#include "fuzz/table.h"

#include <cstdlib>
#include <cstring>

#include "args/number.h"
#include "args/uuid.h"
#include "interface/zel_ta_ids.h"

namespace zel::tc::fuzz {

namespace {

constexpr RequestField kIndexField{FieldKind::kInt, Role::kIndex};
constexpr RequestField option(int32_t usual) {
    return {FieldKind::kInt, Role::kOption, usual};
}
constexpr RequestField kParamField{FieldKind::kInt, Role::kParam};
constexpr RequestField kDataField{FieldKind::kSized, Role::kData};
constexpr RequestField kIvField{FieldKind::kSized, Role::kIv};

const ReplyField kAnyBuffer{ReplyKind::kSized, 0, 1};

std::vector<CommandSpec> makeTable() {
    using namespace zel::cmd;
    const Ta v = Ta::kVault, sp = Ta::kSecureProcessor;
    const std::vector<RequestField> aes = {kIndexField, option(1), option(32),
                                           option(1),   kIvField,  kDataField};
    return {
        {v, zel_put, "", {kIndexField, kDataField}, {}},
        {v, zel_get, "", {kIndexField}, {kAnyBuffer}},
        {v, zel_delete, "", {kIndexField}, {}},
        {v, zel_deleteKey, "", {kIndexField}, {}},
        {v, zel_checkDataExistence, "", {kIndexField, option(0)}, {}},
        {v, zel_storeKey, "", {kIndexField, option(6), {FieldKind::kSized, Role::kAesKey}}, {}},
        {v,
         zel_getCMACwithHubToken,
         "",
         {kIndexField, option(1), kDataField},
         {{ReplyKind::kSized, 16}}},
        {v, zel_ecdsaCreateSignature, "", {kIndexField, option(1), kDataField}, {kAnyBuffer}},
        {v,
         zel_decryptByKey,
         "",
         {kIndexField, kIndexField, option(1), option(2), option(1), kDataField},
         {}},
        {v,
         zel_decryptHubToken,
         "",
         {kIndexField, kIndexField, kDataField, kIvField, {FieldKind::kSized, Role::kPublicKey}},
         {}},
        {v, zel_getHash, "", {kIndexField, option(0)}, {{ReplyKind::kSized, 32}}},
        {v,
         zel_genAuthKey,
         "",
         {kIndexField, {FieldKind::kSized, Role::kPublicKey}},
         {{ReplyKind::kSized, 32}}},
        {v, zel_getHubID, "", {kIndexField}, {{ReplyKind::kSized, 16}}},
        {v, zel_getCmacKey, "", {kIndexField}, {{ReplyKind::kSized, 16}, {ReplyKind::kSized, 16}}},
        {v, zel_openSession, "", {}, {}},
        {v, zel_aesEncrypt, "", aes, {kAnyBuffer}},
        {v, zel_aesDecrypt, "", aes, {kAnyBuffer}},
        {v, zel_compareData, "", {kIndexField, kDataField}, {}},
        {v, zel_generateKey, "", {kIndexField, option(2)}, {}},
        {v, zel_getSlotInfo, "", {kIndexField}, {{ReplyKind::kInt}, {ReplyKind::kUint}}},
        {sp, ze_updateFW, "", {kParamField}, {{ReplyKind::kBlob, 8}, kAnyBuffer, kAnyBuffer}},
        {sp, ze_getFWInfo, "", {}, {{ReplyKind::kSized, 0, 4}}},
        {sp, zel_checkZelAk, "", {{FieldKind::kSized, Role::kAkText}}, {}},
        {sp, zel_akProvision, "", {{FieldKind::kSized, Role::kAkText}}, {}},
        {sp, zel_akProvisionRPMB, "", {}, {}},
        {sp, zel_getPublicKeyStatus, "", {}, {}},
        {sp, zel_getInfo, "", {}, {kAnyBuffer}},
        {sp, zel_getAppInfo, "", {}, {kAnyBuffer}},
        {sp, zel_updateFW, "", {kParamField}, {}},
        {sp, zel_selfTestAll, "", {}, {}},
        {sp, zel_getHackInfo, "", {}, {{ReplyKind::kIntSized}}},
        {sp, zel_getFWInfo, "", {}, {{ReplyKind::kSized, 0, 4}}},
        {sp, zel_forceRecovery, "", {}, {}},
        {sp, zel_forceRecoverySP, "", {}, {}},
        {sp, zel_removeAkKeys, "", {}, {}},
    };
}

// The names are the library's, looked up by id, so that a command added there without a row
// here shows up as a nameless row in the tests rather than a silent gap.
const char* libraryName(Ta ta, uint32_t id) {
    const auto lookup = [id](const auto& rows) -> const char* {
        for (const CommandId& row : rows)
            if (row.id == id) return row.name;
        return nullptr;
    };
    return ta == Ta::kVault ? lookup(kGeneralCommands) : lookup(kSecureProcessorCommands);
}

}  // namespace

const std::vector<CommandSpec>& commandTable() {
    static const std::vector<CommandSpec> table = [] {
        std::vector<CommandSpec> rows = makeTable();
        for (CommandSpec& row : rows) {
            const char* name = libraryName(row.ta, row.id);
            row.name = name ? name : "";
        }
        return rows;
    }();
    return table;
}

const CommandSpec* findCommand(Ta ta, uint32_t id) {
    for (const CommandSpec& row : commandTable())
        if (row.ta == ta && row.id == id) return &row;
    return nullptr;
}

const CommandSpec* findCommand(const std::string& text) {
    for (const CommandSpec& row : commandTable())
        if (text == row.name || "zel_" + text == row.name || "ze_" + text == row.name) return &row;
    unsigned long long id = 0;
    if (!parseUnsigned(text, id) || id > UINT32_MAX) return nullptr;
    for (Ta ta : {Ta::kVault, Ta::kSecureProcessor})
        if (const CommandSpec* row = findCommand(ta, static_cast<uint32_t>(id))) return row;
    return nullptr;
}

const TEEC_UUID& taUuid(Ta ta) {
    return ta == Ta::kVault ? zel_test : zel_test_a;
}

const char* taName(Ta ta) {
    return ta == Ta::kVault ? "zel_test" : "zel_test_a";
}

bool parseTa(const std::string& text, Ta& ta) {
    TEEC_UUID uuid{};
    if (!parseUuid(text, uuid)) return false;
    for (Ta candidate : {Ta::kVault, Ta::kSecureProcessor}) {
        if (std::memcmp(&uuid, &taUuid(candidate), sizeof uuid) == 0) {
            ta = candidate;
            return true;
        }
    }
    return false;
}

}  // namespace zel::tc::fuzz
