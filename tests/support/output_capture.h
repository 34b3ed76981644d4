// Captures what the code under test writes to stdout, as lines.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

class OutputCapture {
  public:
    OutputCapture() { testing::internal::CaptureStdout(); }
    ~OutputCapture() {
        if (!taken_) testing::internal::GetCapturedStdout();
    }
    std::vector<std::string> lines() {
        taken_ = true;
        std::istringstream text(testing::internal::GetCapturedStdout());
        std::vector<std::string> out;
        for (std::string line; std::getline(text, line);) out.push_back(line);
        return out;
    }

  private:
    bool taken_ = false;
};

using Lines = std::vector<std::string>;
