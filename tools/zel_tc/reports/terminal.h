// What zel-tc shows a person at a terminal on stderr: verdicts in colour (--color, NO_COLOR) and
// a line naming each step as it starts, so that a step that hangs is named while it hangs.
#pragma once

#include <string>

namespace zel::tc {

// One of zel-tc's own lines on stderr: "zel-tc: " and the text.
void say(const std::string& text);

class Terminal {
  public:
    // mode: "auto" (colour at a terminal, unless NO_COLOR is set or TERM is dumb), "always" or
    // "never". False for any other mode.
    bool configure(const std::string& mode);
    // "PASS" in green, "FAIL" in red, ...; the word alone without colour.
    std::string verdict(const std::string& word) const;
    // Whether stderr is a terminal: the progress line is shown.
    bool progress() const { return progress_; }

  private:
    bool colour_ = false;
    bool progress_ = false;
};

}  // namespace zel::tc
