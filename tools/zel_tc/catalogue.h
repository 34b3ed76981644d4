// Every step zel-tc can run, each with a stable number, a name and a one-line title, registered
// once in a table; and the plan, the steps in the order that makes each meaningful.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zel::tc {

struct Step {
    uint32_t number;
    std::string name;  // "process", "bist 7"
    std::string title;
    int32_t (*run)(int argument);
    int argument;
};

struct CatalogueEntry {
    uint32_t number;
    const char* name;
    const char* title;
    int32_t (*run)(int argument);
    int firstArgument;  // a step that takes a number: the range it accepts, all of it in the plan
    int lastArgument;   // equal to firstArgument for a step without one
    bool takesArgument() const { return firstArgument != lastArgument; }
};

const std::vector<CatalogueEntry>& catalogue();

// The steps named by words such as "process", "503", "bist 7" or "bist" (every BIST number); no
// words at all is the whole plan. False with a message for a word that names nothing.
bool selectSteps(const std::vector<std::string>& words, std::vector<Step>& steps,
                 std::string& error);

}  // namespace zel::tc
