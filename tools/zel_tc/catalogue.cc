#include "catalogue.h"

#include <cstdlib>

#include "managers/ca_manager.h"
#include "zel_tc_lib.h"

namespace zel::tc {

namespace {

int32_t runZeTest(const StepInput& input) {
    ZETest test;
    test.SetCMD(input.argument);
    return test.SendCMD();
}

int32_t runTestLifetime(const StepInput&) {
    return test_lifetime();
}

int32_t runScenario(const StepInput& input) {
    CaManager manager(input.dataType, input.argument, input.uuid, input.index);
    return manager.SendDataToZel();
}

// A general scenario: its number is its command number, which is also what it is run with.
constexpr CatalogueEntry scenario(uint32_t command, const char* name, const char* title,
                                  int dataType = 1, int index = 3) {
    return {
        command,  name, title, runScenario, static_cast<int>(command), static_cast<int>(command),
        dataType, index};
}

// The plan, in order: a row names a step and the test data and slot it runs with.
struct PlanRow {
    const char* name;
    int dataType;
    int index;
};

// Where the plan keeps things. The AES key sits at 2 because decrypt-by-key always uses the key
// at 2; the hub token at 1 because the hub-token scenario always stores it there.
constexpr int kDataSlot = 3;
constexpr int kEcKeySlot = 3;
constexpr int kAesKeySlot = 2;
constexpr int kDecryptedSlot = 6;
constexpr int kHubTokenSlot = 1;
constexpr int kGeneratedKeySlot = 5;

constexpr PlanRow kPlan[] = {
    {"lifecycle", 0, 0},
    {"heavyload", 0, 0},
    {"process", 0, 0},
    {"bist", 0, 0},
    {"test_lifetime", 0, 0},
    {"zel_openSession", 1, kDataSlot},
    {"zel_put", 1, kDataSlot},
    {"zel_get", 1, kDataSlot},
    {"zel_getSlotInfo", 1, kDataSlot},
    {"zel_getHash", 1, kDataSlot},
    {"zel_checkDataExistence", 1, kDataSlot},
    {"zel_storeKey", 1, kEcKeySlot},
    {"zel_storeKey", 2, kAesKeySlot},
    {"zel_compareData", 2, kAesKeySlot},
    {"zel_aesEncrypt", 2, kAesKeySlot},
    {"zel_aesDecrypt", 2, kAesKeySlot},
    {"zel_decryptByKey", 1, kDecryptedSlot},
    {"zel_ecdsaCreateSignature", 1, kEcKeySlot},
    {"zel_genAuthKey", 1, kEcKeySlot},
    {"zel_decryptHubToken", 1, kEcKeySlot},
    {"zel_getHubID", 1, kHubTokenSlot},
    {"zel_getCmacKey", 1, kHubTokenSlot},
    {"zel_getCMACwithHubToken", 1, kHubTokenSlot},
    {"zel_generateKey", 1, kGeneratedKeySlot},
    {"zel_deleteKey", 1, kGeneratedKeySlot},
    {"zel_delete", 1, kDataSlot},
};

bool parseNumber(const std::string& word, long& value) {
    if (word.empty()) return false;
    char* end = nullptr;
    value = std::strtol(word.c_str(), &end, 0);
    return *end == '\0';
}

Step makeStep(const CatalogueEntry& entry, int argument, const Overrides& overrides) {
    std::string name = entry.name;
    if (entry.takesArgument()) name += " " + std::to_string(argument);
    StepInput input{argument, overrides.dataType.value_or(entry.dataType),
                    overrides.index.value_or(entry.index), overrides.uuid.value_or(zel_test)};
    return {&entry, name, input};
}

void addAll(const CatalogueEntry& entry, const Overrides& overrides, std::vector<Step>& steps) {
    for (int argument = entry.firstArgument; argument <= entry.lastArgument; ++argument)
        steps.push_back(makeStep(entry, argument, overrides));
}

const CatalogueEntry* find(const std::string& word) {
    long number = -1;
    const bool numeric = parseNumber(word, number);
    for (const CatalogueEntry& entry : catalogue()) {
        const std::string name = entry.name;
        if (word == name || "zel_" + word == name || (numeric && number == entry.number))
            return &entry;
    }
    return nullptr;
}

}  // namespace

const std::vector<CatalogueEntry>& catalogue() {
    // The raw suites' selectors are ZETest's: 0 lifecycle, 1 heavy load, 2 process, 3-17 BIST.
    static const std::vector<CatalogueEntry> entries = {
        {501, "lifecycle", "command 0 up to 1000 times over one session, stops at the 5th failure",
         runZeTest, 0, 0, 0, 0},
        {502, "heavyload", "ten commands over one session, result is the failure mask", runZeTest,
         1, 1, 0, 0},
        {503, "process", "nine commands over one session, result is the failure mask", runZeTest, 2,
         2, 0, 0},
        {504, "bist", "built-in self-test of one command, sent with an empty request", runZeTest,
         kFirstBistCommand, kLastBistCommand, 0, 0},
        {505, "test_lifetime", "exported entry point: command 0 once over a fresh session",
         runTestLifetime, 0, 0, 0, 0},
        scenario(cmd::zel_put, "zel_put", "store 241 bytes of test data in slot --index"),
        scenario(cmd::zel_get, "zel_get", "read slot --index back"),
        scenario(cmd::zel_delete, "zel_delete", "delete slot --index"),
        scenario(cmd::zel_deleteKey, "zel_deleteKey", "delete the key at --index"),
        scenario(cmd::zel_checkDataExistence, "zel_checkDataExistence",
                 "check that slot --index holds data"),
        scenario(cmd::zel_storeKey, "zel_storeKey",
                 "import a key at --index: EC P-256 (data type 1), AES-256 (2), random (0)"),
        scenario(cmd::zel_getHash, "zel_getHash", "SHA-256 of slot --index"),
        scenario(cmd::zel_openSession, "zel_openSession", "open a vault session, no request"),
        scenario(cmd::zel_generateKey, "zel_generateKey", "generate an EC P-256 key at --index"),
        scenario(cmd::zel_getSlotInfo, "zel_getSlotInfo", "what slot and key --index hold"),
        scenario(cmd::zel_getCMACwithHubToken, "zel_getCMACwithHubToken",
                 "AES-CMAC of a message under the hub token at --index", 1, 1),
        scenario(cmd::zel_ecdsaCreateSignature, "zel_ecdsaCreateSignature",
                 "ECDSA P-256 signature of a digest with the EC key at --index"),
        scenario(cmd::zel_decryptByKey, "zel_decryptByKey",
                 "decrypt 146 bytes with the AES key at 2 into slot --index", 1, 6),
        scenario(cmd::zel_decryptHubToken, "zel_decryptHubToken",
                 "decrypt the hub token with the EC key at --index, store it at 1"),
        scenario(cmd::zel_genAuthKey, "zel_genAuthKey",
                 "ECDH of the EC key at --index with the cloud's public key"),
        scenario(cmd::zel_getHubID, "zel_getHubID", "identity of the hub token at --index", 1, 1),
        scenario(cmd::zel_getCmacKey, "zel_getCmacKey",
                 "receive and transmit CMAC keys of the hub token at --index", 1, 1),
        scenario(cmd::zel_aesEncrypt, "zel_aesEncrypt",
                 "AES-256-CBC encryption with the key at --index", 2, 2),
        scenario(cmd::zel_aesDecrypt, "zel_aesDecrypt",
                 "AES-256-CBC decryption with the key at --index", 2, 2),
        scenario(cmd::zel_compareData, "zel_compareData",
                 "compare 32 bytes with the key at --index", 2, 2),
    };
    return entries;
}

bool selectSteps(const std::vector<std::string>& words, const Overrides& overrides,
                 std::vector<Step>& steps, std::string& error) {
    if (words.empty()) {
        for (const PlanRow& row : kPlan) {
            Overrides planned = overrides;
            planned.dataType = overrides.dataType.value_or(row.dataType);
            planned.index = overrides.index.value_or(row.index);
            addAll(*find(row.name), planned, steps);
        }
        return true;
    }
    for (size_t i = 0; i < words.size(); ++i) {
        const CatalogueEntry* found = find(words[i]);
        if (!found) {
            error = "no step is named '" + words[i] + "' (zel-tc list shows them)";
            return false;
        }
        long argument = 0;
        if (!found->takesArgument()) {
            steps.push_back(makeStep(*found, found->firstArgument, overrides));
        } else if (i + 1 < words.size() && parseNumber(words[i + 1], argument)) {
            ++i;
            if (argument < found->firstArgument || argument > found->lastArgument) {
                error = std::string(found->name) + " takes a number from " +
                        std::to_string(found->firstArgument) + " to " +
                        std::to_string(found->lastArgument) + ", not " + words[i];
                return false;
            }
            steps.push_back(makeStep(*found, static_cast<int>(argument), overrides));
        } else {
            addAll(*found, overrides, steps);
        }
    }
    return true;
}

}  // namespace zel::tc
