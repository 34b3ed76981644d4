// Every step zel-tc can run, each with a stable number, a name and a one-line title, registered
// once in a table; and the plan: the steps in the order that makes each meaningful (a slot is put
// before it is read, a key stored before it is used, deletions last).
#pragma once

#include <tee_client_api.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zel::tc {

// What a step is run with: the raw suites' selector, or a scenario manager's arguments.
struct StepInput {
    int argument = 0;
    int dataType = 0;
    int index = 0;
    int param = 0;
    TEEC_UUID uuid{};
};

struct CatalogueEntry {
    uint32_t number;
    const char* name;
    const char* title;
    int32_t (*run)(const StepInput& input);
    int firstArgument;  // a step that takes a number: the range it accepts, all of it in the plan
    int lastArgument;   // equal to firstArgument for a step without one
    int dataType;       // a scenario's default test data and slot
    int index;
    int32_t expected;   // the result that passes: 0, but 1 for an entry point that says "passed"
    const char* sends;  // the TA command ids it sends; null: its own number
    const char* dataTypes;  // the --data-type values it accepts; "-" when it takes none
    // A suite whose result is a failure mask: the command of each bit, lowest first.
    const uint32_t* maskCommands = nullptr;
    size_t maskSize = 0;
    bool takesArgument() const { return firstArgument != lastArgument; }
};

struct Step {
    const CatalogueEntry* entry;
    std::string name;  // "process", "bist 7", "zel_put"
    StepInput input;
    int32_t expected;           // the result that passes
    const char* why = nullptr;  // when a failure is what the plan expects here, why
};

// Values given on the command line; each replaces the steps' defaults.
struct Overrides {
    std::optional<int> dataType;
    std::optional<int> index;
    std::optional<int> param;
    std::optional<TEEC_UUID> uuid;
};

// The test data sets a scenario may be given (0 random, 1 and 2 fixed vectors) and the vault's
// slots and keys.
inline constexpr int kFirstDataType = 0;
inline constexpr int kLastDataType = 2;
inline constexpr int kLastIndex = 31;

const std::vector<CatalogueEntry>& catalogue();

// What a step reads of the overrides: the general scenarios test data, slot and TA; the firmware
// updates the param.
bool readsTestData(const CatalogueEntry& entry);
bool readsParam(const CatalogueEntry& entry);
// Whether a scenario takes this --data-type (its dataTypes column).
bool acceptsDataType(const CatalogueEntry& entry, int dataType);
// Whether the values given on the command line fit the selected steps: each is read by one of
// them at least, and every step that reads --data-type accepts it. False with a message.
bool checkOverrides(const std::vector<Step>& steps, const Overrides& overrides, std::string& error);

// The steps named by words such as "process", "503", "bist 7", "bist" (every BIST number),
// "zel_put", "put", "0" or a pattern such as "zel_get*". False with a message for a word that
// names nothing.
bool selectSteps(const std::vector<std::string>& words, const Overrides& overrides,
                 std::vector<Step>& steps, std::string& error);
// Every step in dependency order, with the failures that the order makes the expected outcome.
std::vector<Step> planSteps(const Overrides& overrides);
// The steps with, before them and in the plan's order, the plan steps that make the state they
// need (a slot put before it is read, a key stored before it is used), each once.
std::vector<Step> withSetup(const std::vector<Step>& steps, const Overrides& overrides);
// The steps that no pattern matches; a pattern is matched against a step's catalogue name, its
// name ("bist 7"), its case name (case_name.h) and its number. False with a message for a
// pattern that matches none of the steps.
bool excludeSteps(const std::vector<std::string>& patterns, std::vector<Step>& steps,
                  std::string& error);
// A step as it was recorded (its number, argument, inputs and expected result, and why); false
// when this zel-tc has no such step.
bool restoreStep(uint32_t number, const StepInput& input, int32_t expected, const std::string& why,
                 Step& step);
// "failed: 0x07, 0x11" for a failure mask of a suite that returns one; empty otherwise.
std::string decodeMask(const CatalogueEntry& entry, int32_t result);

// The TA command ids a step sends, as listed: "0x2D", "0x00", "0x03-0x11".
std::string sendsText(const CatalogueEntry& entry);
// The same for one step: a BIST step sends its own number.
std::string sendsText(const Step& step);

}  // namespace zel::tc
