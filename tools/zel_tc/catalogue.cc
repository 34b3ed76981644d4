#include "catalogue.h"

#include <cstdlib>

#include "zel_tc_lib.h"

namespace zel::tc {

namespace {

int32_t runZeTest(int selector) {
    ZETest test;
    test.SetCMD(selector);
    return test.SendCMD();
}

int32_t runTestLifetime(int) {
    return test_lifetime();
}

bool parseNumber(const std::string& word, long& value) {
    if (word.empty()) return false;
    char* end = nullptr;
    value = std::strtol(word.c_str(), &end, 0);
    return *end == '\0';
}

Step makeStep(const CatalogueEntry& entry, int argument) {
    std::string name = entry.name;
    if (entry.takesArgument()) name += " " + std::to_string(argument);
    return {entry.number, name, entry.title, entry.run, argument};
}

void addAll(const CatalogueEntry& entry, std::vector<Step>& steps) {
    for (int argument = entry.firstArgument; argument <= entry.lastArgument; ++argument)
        steps.push_back(makeStep(entry, argument));
}

}  // namespace

const std::vector<CatalogueEntry>& catalogue() {
    // The raw suites' selectors are ZETest's: 0 lifecycle, 1 heavy load, 2 process, 3-17 BIST.
    static const std::vector<CatalogueEntry> entries = {
        {501, "lifecycle", "command 0 up to 1000 times over one session, stops at the 5th failure",
         runZeTest, 0, 0},
        {502, "heavyload", "ten commands over one session, result is the failure mask", runZeTest,
         1, 1},
        {503, "process", "nine commands over one session, result is the failure mask", runZeTest, 2,
         2},
        {504, "bist", "built-in self-test of one command, sent with an empty request", runZeTest,
         kFirstBistCommand, kLastBistCommand},
        {505, "test_lifetime", "exported entry point: command 0 once over a fresh session",
         runTestLifetime, 0, 0},
    };
    return entries;
}

bool selectSteps(const std::vector<std::string>& words, std::vector<Step>& steps,
                 std::string& error) {
    if (words.empty()) {
        for (const CatalogueEntry& entry : catalogue()) addAll(entry, steps);
        return true;
    }
    for (size_t i = 0; i < words.size(); ++i) {
        long number = -1;
        const bool numeric = parseNumber(words[i], number);
        const CatalogueEntry* found = nullptr;
        for (const CatalogueEntry& entry : catalogue())
            if (words[i] == entry.name || (numeric && number == entry.number)) found = &entry;
        if (!found) {
            error = "no step is named '" + words[i] + "' (zel-tc list shows them)";
            return false;
        }
        long argument = 0;
        if (!found->takesArgument()) {
            steps.push_back(makeStep(*found, found->firstArgument));
        } else if (i + 1 < words.size() && parseNumber(words[i + 1], argument)) {
            ++i;
            if (argument < found->firstArgument || argument > found->lastArgument) {
                error = std::string(found->name) + " takes a number from " +
                        std::to_string(found->firstArgument) + " to " +
                        std::to_string(found->lastArgument) + ", not " + words[i];
                return false;
            }
            steps.push_back(makeStep(*found, static_cast<int>(argument)));
        } else {
            addAll(*found, steps);
        }
    }
    return true;
}

}  // namespace zel::tc
