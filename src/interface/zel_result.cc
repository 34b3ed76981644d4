#include "interface/zel_result.h"

#include <iterator>

namespace {

struct CodeName {
    uint32_t code;
    const char* name;
};

// Code 6 of the vault has no name.
constexpr CodeName kVaultCodes[] = {
    {0, "ZEL_RET_SUCCESS"},
    {1, "ZEL_RET_FAIL"},
    {2, "ZEL_RET_INIT_ERROR"},
    {3, "ZEL_RET_CORE_ERROR"},
    {4, "ZEL_RET_STORAGE_ERROR"},
    {5, "ZEL_RET_DATA_NOT_FOUND"},
    {7, "ZEL_RET_INVALID_PARAM"},
    {8, "ZEL_RET_BUFFER_NOT_ENOUGH"},
    {9, "ZEL_RET_MALLOC_ERROR"},
    {10, "ZEL_RET_INVALID_INPUT_DATA"},
    {11, "ZEL_RET_INVALID_OUTPUT_DATA"},
    {12, "ZEL_RET_ACCESS_DENIED"},
    {13, "ZEL_RET_NOT_IMPLEMENTED"},
};

// Keyed by magnitude: the firmware reports a code with either sign.
constexpr CodeName kFirmwareCodes[] = {
    {0, "IRDO_NO_ERROR"},
    {1, "IRDO_UNKNOWN_ERROR"},
    {2, "IRDO_INIT_ERROR"},
    {3, "IRDO_DEINIT_ERROR"},
    {11, "IRDO_INVALID_PARAMETER"},
    {21, "IRDO_APDU_ERROR"},
    {31, "IRDO_BUFFER_ALLOC_FAIL"},
    {32, "IRDO_BUFFER_NOT_ENOUGH"},
    {41, "IRDO_COMM_ERROR"},
    {51, "IRDO_FW_ERROR"},
    {61, "IRDO_CORE_ERROR"},
    {71, "IRDO_CRYPTO_ERROR"},
    {81, "IRDO_CRED_ERROR"},
    {82, "IRDO_CRED_DELETED_STATUS_ERROR"},
    {83, "IRDO_CRED_INIT_STATUS_ERROR"},
    {101, "IRDO_SC_ERROR"},
    {102, "IRDO_SC_INVALID_SEC_LEVEL_ERROR"},
    {103, "IRDO_SC_INIT_UPDATE_ERROR"},
    {104, "IRDO_SC_EXT_AUTH_ERROR"},
    {105, "IRDO_SC_TERM_SESS_ERROR"},
    {121, "IRDO_SC_SEC_NOT_SATISFIED_ERROR"},
    {122, "IRDO_SC_ENC_DATA_ERROR"},
    {123, "IRDO_SC_COMP_C_MAC_ERROR"},
    {124, "IRDO_SC_COMP_R_MAC_ERROR"},
    {125, "IRDO_SC_MAC_MISMATCH_ERROR"},
    {141, "IRDO_SC_COMM_ERROR"},
};

template <size_t N>
const char* nameOf(const CodeName (&table)[N], uint32_t code) {
    for (const CodeName& entry : table)
        if (entry.code == code) return entry.name;
    return nullptr;
}

}  // namespace

std::string zelResultToStr(const ZelResult& result) {
    std::string vault = "\t\tZEL: ";
    std::string firmware = "\n\t\tFirmware: ";
    // The magnitude in 32 bits, so that INT32_MIN has one too.
    uint32_t magnitude = static_cast<uint32_t>(result.firmwareCode);
    if (result.firmwareCode < 0) {
        firmware += "-";
        magnitude = 0u - magnitude;
    }
    // Looked up as unsigned: a negative code is never a name.
    const char* vaultName = nameOf(kVaultCodes, static_cast<uint32_t>(result.zelCode));
    vault += vaultName ? vaultName : std::to_string(result.zelCode);
    const char* firmwareName = nameOf(kFirmwareCodes, magnitude);
    firmware += firmwareName ? firmwareName : std::to_string(magnitude);
    return "ZEL result is:\n" + vault + firmware;
}
