/* The trusted applications' UUIDs and command ids: one header for the library, the host TEE and
 * the TAs themselves (C, built with a TEE's dev kit), so that every side reads the same numbers. */
#ifndef ZEL_TA_IDS_H
#define ZEL_TA_IDS_H

/* clang-format off */
/* The vault TA: general commands and the raw-suite numbers. */
#define ZEL_TEST_UUID {0x58d50001, 0x1105, 0x000f, {0x97, 0x99, 0x7f, 0x5a, 0xf3, 0xf9, 0xc7, 0xbb}}
/* The vault's secure processor: the management commands. */
#define ZEL_TEST_A_UUID {0x00000000, 0x0000, 0x0000, {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xf5, 0xcc}}
/* clang-format on */

/* The general commands of the vault TA, one row per command: id, method name. */
#define ZEL_GENERAL_COMMANDS(X)       \
    X(0x00, zel_put)                  \
    X(0x02, zel_get)                  \
    X(0x03, zel_delete)               \
    X(0x04, zel_deleteKey)            \
    X(0x06, zel_checkDataExistence)   \
    X(0x07, zel_storeKey)             \
    X(0x08, zel_getCMACwithHubToken)  \
    X(0x09, zel_ecdsaCreateSignature) \
    X(0x0a, zel_decryptByKey)         \
    X(0x0b, zel_decryptHubToken)      \
    X(0x0c, zel_getHash)              \
    X(0x0e, zel_genAuthKey)           \
    X(0x0f, zel_getHubID)             \
    X(0x10, zel_getCmacKey)           \
    X(0x1b, zel_openSession)          \
    X(0x23, zel_aesEncrypt)           \
    X(0x24, zel_aesDecrypt)           \
    X(0x25, zel_compareData)          \
    X(0x26, zel_generateKey)          \
    X(0x2d, zel_getSlotInfo)

/* The secure processor's management commands. */
#define ZEL_SECURE_PROCESSOR_COMMANDS(X) \
    X(0x12, ze_updateFW)                 \
    X(0x13, ze_getFWInfo)                \
    X(0x17, zel_checkZelAk)              \
    X(0x18, zel_akProvision)             \
    X(0x19, zel_akProvisionRPMB)         \
    X(0x1a, zel_getPublicKeyStatus)      \
    X(0x1c, zel_getInfo)                 \
    X(0x1d, zel_getAppInfo)              \
    X(0x1e, zel_updateFW)                \
    X(0x20, zel_selfTestAll)             \
    X(0x27, zel_getHackInfo)             \
    X(0x28, zel_getFWInfo)               \
    X(0x2a, zel_forceRecovery)           \
    X(0x2b, zel_forceRecoverySP)         \
    X(0x2c, zel_removeAkKeys)

/* The ids by name for C: ZEL_CMD_zel_put, ZEL_CMD_ze_updateFW, ... */
#define ZEL_COMMAND_C_ENUM(id, name) ZEL_CMD_##name = id,
enum zel_command_id {
    ZEL_GENERAL_COMMANDS(ZEL_COMMAND_C_ENUM) ZEL_SECURE_PROCESSOR_COMMANDS(ZEL_COMMAND_C_ENUM)
};
#undef ZEL_COMMAND_C_ENUM

/* What the raw suites send to the vault TA, each with an empty request: the lifecycle command,
 * the process and heavyload command lists, and the built-in self-tests of 3 to 17. */
#define ZEL_LIFECYCLE_COMMAND 0x00
#define ZEL_PROCESS_COMMANDS 0x04, 0x06, 0x07, 0x0B, 0x0D, 0x0E, 0x0F, 0x10, 0x11
#define ZEL_HEAVYLOAD_COMMANDS 0x01, 0x02, 0x04, 0x07, 0x0B, 0x0D, 0x0E, 0x0F, 0x10, 0x11
#define ZEL_FIRST_BIST_COMMAND 3
#define ZEL_LAST_BIST_COMMAND 17

#ifdef __cplusplus

#include <tee_client_api.h>

#include <cstdint>

inline constexpr TEEC_UUID zel_test = ZEL_TEST_UUID;
inline constexpr TEEC_UUID zel_test_a = ZEL_TEST_A_UUID;

namespace zel {

struct CommandId {
    uint32_t id;
    const char* name;
};

#define ZEL_COMMAND_ROW(id, name) {id, #name},
inline constexpr CommandId kGeneralCommands[] = {ZEL_GENERAL_COMMANDS(ZEL_COMMAND_ROW)};
inline constexpr CommandId kSecureProcessorCommands[] = {
    ZEL_SECURE_PROCESSOR_COMMANDS(ZEL_COMMAND_ROW)};
#undef ZEL_COMMAND_ROW

// The ids by name: cmd::zel_put, cmd::zel_getSlotInfo, ...
namespace cmd {
#define ZEL_COMMAND_ENUM(id, name) name = id,
enum : uint32_t {
    ZEL_GENERAL_COMMANDS(ZEL_COMMAND_ENUM) ZEL_SECURE_PROCESSOR_COMMANDS(ZEL_COMMAND_ENUM)
};
#undef ZEL_COMMAND_ENUM
}  // namespace cmd

// The method name of a general command, for its log line; null for an id that is none.
inline const char* generalCommandName(uint32_t id) {
    for (const CommandId& command : kGeneralCommands)
        if (command.id == id) return command.name;
    return nullptr;
}

// What the raw suites send to the vault TA, each with an empty request.
inline constexpr uint32_t kLifecycleCommand = ZEL_LIFECYCLE_COMMAND;
inline constexpr uint32_t kProcessCommands[] = {ZEL_PROCESS_COMMANDS};
inline constexpr uint32_t kHeavyloadCommands[] = {ZEL_HEAVYLOAD_COMMANDS};
inline constexpr int kFirstBistCommand = ZEL_FIRST_BIST_COMMAND;
inline constexpr int kLastBistCommand = ZEL_LAST_BIST_COMMAND;

}  // namespace zel

#endif /* __cplusplus */

#endif /* ZEL_TA_IDS_H */
