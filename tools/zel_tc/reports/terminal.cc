#include "reports/terminal.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>

namespace zel::tc {

namespace {

struct Colour {
    const char* verdict;
    const char* code;  // SGR parameters
};

const Colour kColours[] = {
    {"PASS", "32"},      {"FAIL", "1;31"},        {"HUNG", "1;35"},
    {"CRASHED", "1;35"}, {"INTERRUPTED", "1;33"},
};

}  // namespace

void say(const std::string& text) {
    std::cerr << "zel-tc: " << text << std::endl;
}

bool Terminal::configure(const std::string& mode) {
    const bool terminal = isatty(STDERR_FILENO) == 1;
    const char* noColour = std::getenv("NO_COLOR");
    const char* term = std::getenv("TERM");
    progress_ = terminal;
    if (mode == "always")
        colour_ = true;
    else if (mode == "never")
        colour_ = false;
    else if (mode == "auto")
        colour_ = terminal && !(noColour && *noColour) && !(term && std::strcmp(term, "dumb") == 0);
    else
        return false;
    return true;
}

std::string Terminal::verdict(const std::string& word) const {
    if (!colour_) return word;
    for (const Colour& colour : kColours)
        if (word == colour.verdict)
            return std::string("\033[") + colour.code + "m" + word + "\033[0m";
    return word;
}

}  // namespace zel::tc
