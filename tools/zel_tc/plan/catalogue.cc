#include "plan/catalogue.h"

#include <fnmatch.h>

#include <algorithm>
#include <iterator>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>

#include "args/number.h"
#include "managers/ca_manager.h"
#include "plan/case_name.h"
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

int32_t runTestProcessInspection(const StepInput&) {
    return test_process_inspection();
}

// Passes everything written to a stream on to where it went before, and keeps the last line, so
// that zel-tc can judge an entry point that reports its outcome only as text.
class LastLineTee : public std::streambuf {
  public:
    explicit LastLineTee(std::ostream& stream) : stream_(stream), target_(stream.rdbuf(this)) {}
    ~LastLineTee() override { stream_.rdbuf(target_); }
    const std::string& lastLine() const { return last_; }

  private:
    int overflow(int c) override {
        if (c == traits_type::eof()) return traits_type::not_eof(c);
        if (c == '\n') {
            last_ = current_;
            current_.clear();
        } else {
            current_ += static_cast<char>(c);
        }
        return target_->sputc(static_cast<char>(c));
    }
    int sync() override { return target_->pubsync(); }

    std::ostream& stream_;
    std::streambuf* target_;
    std::string current_, last_;
};

int32_t runTestGetInfo(const StepInput&) {
    LastLineTee tee(std::cout);
    test_get_info();
    return tee.lastLine() == "test_get_info successfully completed"
               ? 0
               : static_cast<int32_t>(TEEC_ERROR_GENERIC);
}

int32_t runScenario(const StepInput& input) {
    CaManager manager(input.dataType, input.argument, input.uuid, input.index);
    return manager.SendDataToZel();
}

int32_t runSecureProcessorScenario(const StepInput& input) {
    CaManagerSp manager(input.argument);
    manager.SetPARAM(input.param);
    return manager.SendDataToZel();
}

// The two commands no scenario sends; what they hand back goes to zel-tc's own stream.
int32_t runUpdateFirmware(const StepInput& input) {
    std::string system, app;
    ZelResult record{};
    const int32_t result =
        CaZelInterfaceSp(zel_test_a).ze_updateFW(input.param, system, app, &record);
    if (result == 0)
        std::cerr << "zel-tc: system version " << system << ", app version " << app << "\n"
                  << zelResultToStr(record) << std::endl;
    return result;
}

int32_t runFirmwareInformation(const StepInput&) {
    unsigned int words[10] = {};
    const int32_t result = CaZelInterfaceSp(zel_test_a).ze_getFWInfo(words, 10);
    if (result == 0) {
        std::cerr << "zel-tc: firmware words";
        for (unsigned int word : words) std::cerr << " " << word;
        std::cerr << std::endl;
    }
    return result;
}

// An entry run once, with nothing but its own number.
constexpr CatalogueEntry single(uint32_t number, const char* name, const char* title,
                                int32_t (*run)(const StepInput&), const char* sends,
                                int32_t expected = 0) {
    return {number, name, title, run, 0, 0, 0, 0, expected, sends, "-"};
}

// A raw suite: run with its ZETest selector, or each of a range of them.
constexpr CatalogueEntry rawSuite(uint32_t number, const char* name, const char* title,
                                  int firstSelector, int lastSelector, const char* sends,
                                  const uint32_t* maskCommands = nullptr, size_t maskSize = 0) {
    return {number, name, title, runZeTest, firstSelector, lastSelector, 0,
            0,      0,    sends, "-",       maskCommands,  maskSize};
}

// A scenario: its number is its command number, which is also what it is run with.
constexpr CatalogueEntry scenario(uint32_t command, const char* name, const char* title,
                                  const char* dataTypes, int dataType = 1, int index = 3) {
    const int selector = static_cast<int>(command);
    return {command,  name,  title, runScenario, selector, selector,
            dataType, index, 0,     nullptr,     dataTypes};
}

constexpr CatalogueEntry secureProcessor(uint32_t command, const char* name, const char* title) {
    const int selector = static_cast<int>(command);
    return {command, name,    title, runSecureProcessorScenario, selector, selector, 0, 0,
            0,       nullptr, "-"};
}

// The plan, in order: a row names a step and the test data and slot it runs with, and where the
// plan's own order makes a failure the outcome to expect, that result and why.
struct PlanRow {
    const char* name;
    int dataType;
    int index;
    int32_t expected = 0;
    const char* why = nullptr;
    // The earlier row whose state this step needs, and so what --with-setup runs before it.
    const char* need = nullptr;
};

constexpr int32_t kGeneric = static_cast<int32_t>(TEEC_ERROR_GENERIC);
constexpr int32_t kNotFound = static_cast<int32_t>(TEEC_ERROR_ITEM_NOT_FOUND);

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
    {"zel_get", 1, kDataSlot, 0, nullptr, "zel_put"},
    {"zel_getSlotInfo", 1, kDataSlot, 0, nullptr, "zel_put"},
    {"zel_getHash", 1, kDataSlot, 0, nullptr, "zel_put"},
    {"zel_checkDataExistence", 1, kDataSlot, 0, nullptr, "zel_put"},
    {"zel_storeKey", 1, kEcKeySlot},
    {"zel_storeKey", 2, kAesKeySlot},
    {"zel_compareData", 2, kAesKeySlot, 0, nullptr, "zel_storeKey@2"},
    {"zel_aesEncrypt", 2, kAesKeySlot, 0, nullptr, "zel_storeKey@2"},
    {"zel_aesDecrypt", 2, kAesKeySlot, 0, nullptr, "zel_storeKey@2"},
    {"zel_decryptByKey", 1, kDecryptedSlot, 0, nullptr, "zel_storeKey@2"},
    {"zel_ecdsaCreateSignature", 1, kEcKeySlot, 0, nullptr, "zel_storeKey"},
    {"zel_genAuthKey", 1, kEcKeySlot, 0, nullptr, "zel_storeKey"},
    {"zel_decryptHubToken", 1, kEcKeySlot, 0, nullptr, "zel_storeKey"},
    {"zel_getHubID", 1, kHubTokenSlot, 0, nullptr, "zel_decryptHubToken"},
    {"zel_getCmacKey", 1, kHubTokenSlot, 0, nullptr, "zel_decryptHubToken"},
    {"zel_getCMACwithHubToken", 1, kHubTokenSlot, 0, nullptr, "zel_decryptHubToken"},
    {"zel_generateKey", 1, kGeneratedKeySlot},
    {"zel_deleteKey", 1, kGeneratedKeySlot, 0, nullptr, "zel_generateKey"},
    {"zel_delete", 1, kDataSlot, 0, nullptr, "zel_put"},
    {"zel_get", 1, kDataSlot, kGeneric, "the slot was deleted"},
    {"zel_checkDataExistence", 1, kDataSlot, kNotFound, "the slot was deleted"},
    {"zel_getPublicKeyStatus", 0, 0, kNotFound, "no AK key is provisioned yet"},
    {"zel_akProvision", 0, 0},
    {"zel_checkZelAk", 0, 0, 0, nullptr, "zel_akProvision"},
    {"zel_getPublicKeyStatus", 0, 0, 0, nullptr, "zel_akProvision"},
    {"zel_akProvisionRPMB", 0, 0},
    {"zel_getInfo", 0, 0},
    {"zel_getAppInfo", 0, 0},
    {"zel_getFWInfo", 0, 0},
    {"ze_getFWInfo", 0, 0},
    {"zel_getHackInfo", 0, 0},
    {"zel_selfTestAll", 0, 0},
    {"test_process_inspection", 0, 0},
    {"test_get_info", 0, 0},
    {"zel_updateFW", 0, 0},
    {"ze_updateFW", 0, 0},
    {"zel_forceRecovery", 0, 0},
    {"zel_forceRecoverySP", 0, 0},
    {"zel_removeAkKeys", 0, 0, 0, nullptr, "zel_akProvision"},
    {"zel_checkZelAk", 0, 0, kNotFound, "the AK keys were removed"},
};

Step makeStep(const CatalogueEntry& entry, int argument, const Overrides& overrides) {
    std::string name = entry.name;
    if (entry.takesArgument()) name += " " + std::to_string(argument);
    StepInput input{argument, overrides.dataType.value_or(entry.dataType),
                    overrides.index.value_or(entry.index), overrides.param.value_or(0),
                    overrides.uuid.value_or(zel_test)};
    return {&entry, name, input, entry.expected};
}

void addAll(const CatalogueEntry& entry, const Overrides& overrides, std::vector<Step>& steps) {
    for (int argument = entry.firstArgument; argument <= entry.lastArgument; ++argument)
        steps.push_back(makeStep(entry, argument, overrides));
}

const CatalogueEntry* find(const std::string& word) {
    long long number = -1;
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
        rawSuite(501, "lifecycle",
                 "command 0 up to 1000 times over one session, stops at the 5th failure", 0, 0,
                 "0x00"),
        rawSuite(502, "heavyload", "ten commands over one session, result is the failure mask", 1,
                 1, "0x01-0x11", kHeavyloadCommands, std::size(kHeavyloadCommands)),
        rawSuite(503, "process", "nine commands over one session, result is the failure mask", 2, 2,
                 "0x04-0x11", kProcessCommands, std::size(kProcessCommands)),
        rawSuite(504, "bist", "built-in self-test of one command, sent with an empty request",
                 kFirstBistCommand, kLastBistCommand, "N"),
        single(505, "test_lifetime", "exported entry point: command 0 once over a fresh session",
               runTestLifetime, "0x00"),
        single(506, "test_process_inspection",
               "exported entry point: the secure processor's self-test, 1 when it passed",
               runTestProcessInspection, "0x20", 1),
        single(507, "test_get_info", "exported entry point: the secure processor's information",
               runTestGetInfo, "0x1C"),
        single(cmd::ze_updateFW, "ze_updateFW",
               "firmware update with --param; shows the result record and versions",
               runUpdateFirmware, "0x12"),
        single(cmd::ze_getFWInfo, "ze_getFWInfo", "firmware information words (command 0x13)",
               runFirmwareInformation, "0x13"),
        scenario(cmd::zel_put, "zel_put", "store 241 bytes of test data in slot --index", "0,1"),
        scenario(cmd::zel_get, "zel_get", "read slot --index back", "any"),
        scenario(cmd::zel_delete, "zel_delete", "delete slot --index", "any"),
        scenario(cmd::zel_deleteKey, "zel_deleteKey", "delete the key at --index", "any"),
        scenario(cmd::zel_checkDataExistence, "zel_checkDataExistence",
                 "check that slot --index holds data", "any"),
        scenario(cmd::zel_storeKey, "zel_storeKey",
                 "import a key at --index: EC P-256 (data type 1), AES-256 (2), random (0)",
                 "0,1,2"),
        scenario(cmd::zel_getHash, "zel_getHash", "SHA-256 of slot --index", "any"),
        scenario(cmd::zel_openSession, "zel_openSession", "open a vault session, no request",
                 "any"),
        scenario(cmd::zel_generateKey, "zel_generateKey", "generate an EC P-256 key at --index",
                 "any"),
        scenario(cmd::zel_getSlotInfo, "zel_getSlotInfo", "what slot and key --index hold", "any"),
        scenario(cmd::zel_getCMACwithHubToken, "zel_getCMACwithHubToken",
                 "AES-CMAC of a message under the hub token at --index", "0,1", 1, 1),
        scenario(cmd::zel_ecdsaCreateSignature, "zel_ecdsaCreateSignature",
                 "ECDSA P-256 signature of a digest with the EC key at --index", "0,1"),
        scenario(cmd::zel_decryptByKey, "zel_decryptByKey",
                 "decrypt 146 bytes with the AES key at 2 into slot --index", "0,1", 1, 6),
        scenario(cmd::zel_decryptHubToken, "zel_decryptHubToken",
                 "decrypt the hub token with the EC key at --index, store it at 1", "0,1"),
        scenario(cmd::zel_genAuthKey, "zel_genAuthKey",
                 "ECDH of the EC key at --index with the cloud's public key", "0,1"),
        scenario(cmd::zel_getHubID, "zel_getHubID", "identity of the hub token at --index", "any",
                 1, 1),
        scenario(cmd::zel_getCmacKey, "zel_getCmacKey",
                 "receive and transmit CMAC keys of the hub token at --index", "any", 1, 1),
        scenario(cmd::zel_aesEncrypt, "zel_aesEncrypt",
                 "AES-256-CBC encryption with the key at --index", "0,2", 2, 2),
        scenario(cmd::zel_aesDecrypt, "zel_aesDecrypt",
                 "AES-256-CBC decryption with the key at --index", "0,2", 2, 2),
        scenario(cmd::zel_compareData, "zel_compareData",
                 "compare 32 bytes with the key at --index", "2", 2, 2),
        secureProcessor(cmd::zel_checkZelAk, "zel_checkZelAk",
                        "check the AK public key text against the provisioned one"),
        secureProcessor(cmd::zel_akProvision, "zel_akProvision",
                        "provision the 540-character AK public key text"),
        secureProcessor(cmd::zel_akProvisionRPMB, "zel_akProvisionRPMB", "provision RPMB"),
        secureProcessor(cmd::zel_getPublicKeyStatus, "zel_getPublicKeyStatus",
                        "whether an AK public key is provisioned"),
        secureProcessor(cmd::zel_getInfo, "zel_getInfo", "the secure processor's information"),
        secureProcessor(cmd::zel_getAppInfo, "zel_getAppInfo", "its application information"),
        secureProcessor(cmd::zel_updateFW, "zel_updateFW", "firmware update with --param"),
        secureProcessor(cmd::zel_selfTestAll, "zel_selfTestAll", "self-test of the processor"),
        secureProcessor(cmd::zel_getHackInfo, "zel_getHackInfo", "hack status bytes"),
        secureProcessor(cmd::zel_getFWInfo, "zel_getFWInfo", "firmware information words"),
        secureProcessor(cmd::zel_forceRecovery, "zel_forceRecovery", "forced recovery"),
        secureProcessor(cmd::zel_forceRecoverySP, "zel_forceRecoverySP",
                        "forced recovery of the secure processor"),
        secureProcessor(cmd::zel_removeAkKeys, "zel_removeAkKeys", "remove the AK keys"),
    };
    return entries;
}

namespace {

std::string commandHex(uint32_t command) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%02X", command);
    return hex;
}

}  // namespace

std::string sendsText(const CatalogueEntry& entry) {
    return entry.sends ? entry.sends : commandHex(entry.number);
}

std::string sendsText(const Step& step) {
    const bool own = step.entry->sends && std::string(step.entry->sends) == "N";
    return own ? commandHex(static_cast<uint32_t>(step.input.argument)) : sendsText(*step.entry);
}

namespace {

void addRow(const PlanRow& row, const Overrides& overrides, std::vector<Step>& steps) {
    Overrides planned = overrides;
    planned.dataType = overrides.dataType.value_or(row.dataType);
    planned.index = overrides.index.value_or(row.index);
    const size_t first = steps.size();
    addAll(*find(row.name), planned, steps);
    if (!row.why) return;
    for (size_t i = first; i < steps.size(); ++i) {
        steps[i].expected = row.expected;
        steps[i].why = row.why;
    }
}

// A row's needs name rows by step name, "@N" choosing the row with data type N ("zel_storeKey@2":
// the AES key); the first row of that name that the plan expects to pass.
const PlanRow* planRow(const std::string& need) {
    const size_t at = need.find('@');
    const std::string name = need.substr(0, at);
    for (const PlanRow& row : kPlan)
        if (name == row.name && !row.why &&
            (at == std::string::npos || std::to_string(row.dataType) == need.substr(at + 1)))
            return &row;
    return nullptr;
}

// The rows a row needs, and theirs, marked in plan order.
void markNeeds(const PlanRow& row, std::vector<bool>& marked) {
    for (const PlanRow* needed = &row; needed->need;) {
        needed = planRow(needed->need);
        marked[static_cast<size_t>(needed - kPlan)] = true;
    }
}

}  // namespace

std::vector<Step> planSteps(const Overrides& overrides) {
    std::vector<Step> steps;
    for (const PlanRow& row : kPlan) addRow(row, overrides, steps);
    return steps;
}

std::vector<Step> withSetup(const std::vector<Step>& steps, const Overrides& overrides) {
    std::vector<Step> out;
    const auto present = [&out](const Step& step) {
        return std::any_of(out.begin(), out.end(), [&step](const Step& earlier) {
            return caseName(earlier) == caseName(step);
        });
    };
    for (const Step& step : steps) {
        std::vector<bool> needed(std::size(kPlan), false);
        if (const PlanRow* row = planRow(step.entry->name)) markNeeds(*row, needed);
        for (size_t i = 0; i < std::size(kPlan); ++i) {
            if (!needed[i]) continue;
            std::vector<Step> setup;
            addRow(kPlan[i], overrides, setup);
            for (const Step& each : setup)
                if (!present(each)) out.push_back(each);
        }
        out.push_back(step);
    }
    return out;
}

bool excludeSteps(const std::vector<std::string>& patterns, std::vector<Step>& steps,
                  std::string& error) {
    for (const std::string& pattern : patterns) {
        const auto matches = [&pattern](const Step& step) {
            for (const std::string& name : {std::string(step.entry->name), step.name,
                                            caseName(step), std::to_string(step.entry->number)})
                if (fnmatch(pattern.c_str(), name.c_str(), 0) == 0) return true;
            return false;
        };
        const size_t before = steps.size();
        steps.erase(std::remove_if(steps.begin(), steps.end(), matches), steps.end());
        if (steps.size() == before) {
            error = "--exclude '" + pattern + "' matches none of the selected steps";
            return false;
        }
    }
    return true;
}

bool restoreStep(uint32_t number, const StepInput& input, int32_t expected, const std::string& why,
                 Step& step) {
    const CatalogueEntry* entry = find(std::to_string(number));
    if (!entry || input.argument < entry->firstArgument || input.argument > entry->lastArgument)
        return false;
    Overrides same{input.dataType, input.index, input.param, input.uuid};
    step = makeStep(*entry, input.argument, same);
    step.expected = expected;
    for (const PlanRow& row : kPlan)
        if (row.why && why == row.why) step.why = row.why;
    return why.empty() == (step.why == nullptr);
}

std::string decodeMask(const CatalogueEntry& entry, int32_t result) {
    std::string failed;
    for (size_t bit = 0; bit < entry.maskSize && bit < 32; ++bit)
        if (static_cast<uint32_t>(result) >> bit & 1u)
            failed += (failed.empty() ? "" : ", ") + commandHex(entry.maskCommands[bit]);
    return failed.empty() ? failed : "failed: " + failed;
}

bool selectSteps(const std::vector<std::string>& arguments, const Overrides& overrides,
                 std::vector<Step>& steps, std::string& error) {
    // "bist 7" quoted as one argument, as verdicts and the summary name it, is two words.
    std::vector<std::string> words;
    for (const std::string& argument : arguments) {
        std::istringstream split(argument);
        for (std::string word; split >> word;) words.push_back(word);
    }
    for (size_t i = 0; i < words.size(); ++i) {
        if (words[i].find_first_of("*?[") != std::string::npos) {
            const size_t before = steps.size();
            for (const CatalogueEntry& entry : catalogue())
                if (fnmatch(words[i].c_str(), entry.name, 0) == 0) addAll(entry, overrides, steps);
            if (steps.size() == before) {
                error = "no step matches '" + words[i] + "' (zel-tc list shows them)";
                return false;
            }
            continue;
        }
        const CatalogueEntry* found = find(words[i]);
        if (!found) {
            error = "no step is named '" + words[i] + "' (zel-tc list shows them)";
            return false;
        }
        long long argument = 0;
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

bool readsTestData(const CatalogueEntry& entry) {
    return std::strcmp(entry.dataTypes, "-") != 0;
}

bool readsParam(const CatalogueEntry& entry) {
    return entry.number == cmd::zel_updateFW || entry.number == cmd::ze_updateFW;
}

bool acceptsDataType(const CatalogueEntry& entry, int dataType) {
    if (!readsTestData(entry) || dataType < kFirstDataType || dataType > kLastDataType)
        return false;
    return std::strcmp(entry.dataTypes, "any") == 0 ||
           std::strchr(entry.dataTypes, '0' + dataType) != nullptr;
}

bool checkOverrides(const std::vector<Step>& steps, const Overrides& overrides,
                    std::string& error) {
    const auto reader = std::find_if(steps.begin(), steps.end(),
                                     [](const Step& step) { return readsTestData(*step.entry); });
    if ((overrides.dataType || overrides.index || overrides.uuid) && reader == steps.end()) {
        error = std::string(overrides.dataType ? "--data-type"
                            : overrides.index  ? "--index"
                                               : "--uuid") +
                ": none of the selected steps takes test data, a slot or a TA (zel-tc list "
                "shows which do)";
        return false;
    }
    if (overrides.index && (*overrides.index < 0 || *overrides.index > kLastIndex)) {
        error = "--index " + std::to_string(*overrides.index) + ": slots and keys are 0 to " +
                std::to_string(kLastIndex);
        return false;
    }
    if (!overrides.dataType) return true;
    for (const Step& step : steps) {
        if (readsTestData(*step.entry) && !acceptsDataType(*step.entry, *overrides.dataType)) {
            error = "--data-type " + std::to_string(*overrides.dataType) + ": " + step.name +
                    " takes " +
                    (std::strcmp(step.entry->dataTypes, "any") == 0
                         ? std::to_string(kFirstDataType) + " to " + std::to_string(kLastDataType)
                         : std::string(step.entry->dataTypes));
            return false;
        }
    }
    return true;
}

}  // namespace zel::tc
